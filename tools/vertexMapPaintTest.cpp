#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include <gmock/gmock.h>

#include "model/parallel.h"
#include "model/surfaceTopology.h"
#include "model/testing/meshes.h"
#include "tools/vertexMapPaint.h"

namespace corvelle {
namespace {

constexpr std::array<float, 4> kRed = {1, 0, 0, 1};

std::string errorOf(const std::function<void()>& run) {
    try {
        run();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

class VertexMap : public testing::Test {
protected:
    const ScalpMesh scalp = makePlane(4, 4, 8.0f);
    const SurfaceTopology topology{scalp.triangles(), scalp.points().size()};
    const VertexAdjacency adjacency{topology.neighborOffsets(), topology.neighbors()};
    const std::size_t count = scalp.points().size();
};

TEST_F(VertexMap, StampMovesByStrengthTimesWeightUpToAll) {
    std::vector<float> values(count, 0.2f);
    const TouchedVertex touched[] = {{3, 0.5f}, {4, 1.0f}, {5, 0.0f}, {6, -1.0f}};
    EXPECT_TRUE(stampVertexMap(values, 1, 0, scalp, touched, 0.5f, kRed));
    EXPECT_FLOAT_EQ(values[3], 0.4f);
    EXPECT_FLOAT_EQ(values[4], 0.6f);
    EXPECT_EQ(values[5], 0.2f);
    EXPECT_EQ(values[6], 0.2f);
    EXPECT_TRUE(stampVertexMap(values, 1, 0, scalp, touched, 50.0f, {3.0f, 0, 0, 0}));
    EXPECT_EQ(values[3], 1.0f) << "no further than the target, and within 0..1";
    EXPECT_FALSE(stampVertexMap(values, 1, 0, scalp, touched, 1.0f, kRed)) << "there already";
    EXPECT_FALSE(stampVertexMap(values, 1, 0, scalp, touched, 0.0f, {}));
    EXPECT_FALSE(stampVertexMap(values, 1, 0, scalp, {}, 1.0f, {}));
}

TEST_F(VertexMap, MaskChoosesChannelsOfAColorMap) {
    std::vector<float> values(4 * count, 0.5f);
    const TouchedVertex touched[] = {{1, 1.0f}};
    EXPECT_FALSE(stampVertexMap(values, 4, 0, scalp, touched, 1.0f, kRed));
    EXPECT_FALSE(stampVertexMap(values, 4, 0xfff0, scalp, touched, 1.0f, kRed));
    EXPECT_FALSE(smoothVertexMap(values, 4, 0, scalp, adjacency, touched, 1.0f));
    EXPECT_TRUE(stampVertexMap(values, 4, 1 | 4, scalp, touched, 1.0f, kRed));
    EXPECT_THAT(std::span(values).subspan(4, 4), testing::ElementsAre(1.0f, 0.5f, 0.0f, 0.5f));
}

TEST_F(VertexMap, SmoothReadsOldValuesAloneAndLeavesAnIsolatedVertex) {
    std::mt19937 random{4};
    std::vector<float> values(count);
    for (float& v : values) v = float(random() % 1000) / 1000.0f;
    const std::vector<float> old = values;
    std::vector<TouchedVertex> touched;
    for (std::size_t v = 0; v < count; ++v) touched.emplace_back(std::int32_t(v), 0.5f);
    EXPECT_TRUE(smoothVertexMap(values, 1, 0, scalp, adjacency, touched, -1.5f));
    for (std::size_t v = 0; v < count; ++v) {
        float sum = 0.0f;
        const auto around = topology.neighborsOf(std::int32_t(v));
        for (const std::int32_t n : around) sum += old[std::size_t(n)];
        EXPECT_NEAR(values[v], old[v] + 0.75f * (sum / float(around.size()) - old[v]), 1e-6f);
    }
    const ScalpMesh alone({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {5, 5, 5}}, {{0, 1, 2}});
    const SurfaceTopology few(alone.triangles(), 4);
    std::vector<float> four = {0, 0, 0, 0.7f};
    const TouchedVertex last[] = {{3, 1.0f}};
    EXPECT_FALSE(
        smoothVertexMap(four, 1, 0, alone, {few.neighborOffsets(), few.neighbors()}, last, 1.0f));
    EXPECT_EQ(four[3], 0.7f);
}

TEST_F(VertexMap, ChecksBeforeAnythingIsWritten) {
    std::vector<float> values(count, 0.5f);
    const std::vector<float> old = values;
    const TouchedVertex off[] = {{0, 1.0f}, {25, 1.0f}}, below[] = {{0, 1.0f}, {-1, 1.0f}};
    const auto stamp = [&](std::span<float> v, int channels,
                           std::span<const TouchedVertex> touched) {
        return errorOf([&] { stampVertexMap(v, channels, 15, scalp, touched, 1.0f, kRed); });
    };
    EXPECT_EQ(stamp(values, 2, {}), "stampVertexMap: a map has 1 or 4 channels");
    EXPECT_EQ(stamp(values, 4, {}), "stampVertexMap: one value per scalp vertex and channel");
    EXPECT_EQ(stamp(values, 1, off), "stampVertexMap: vertex 25 is none of the scalp's 25");
    EXPECT_EQ(stamp(values, 1, below), "stampVertexMap: vertex -1 is none of the scalp's 25");
    const auto smooth = [&](int channels, const VertexAdjacency& held) {
        return errorOf([&] { smoothVertexMap(values, channels, 15, scalp, held, off, 1.0f); });
    };
    EXPECT_EQ(smooth(3, adjacency), "smoothVertexMap: a map has 1 or 4 channels");
    EXPECT_EQ(smooth(4, adjacency), "smoothVertexMap: one value per scalp vertex and channel");
    EXPECT_EQ(
        errorOf([&] {
            smoothVertexMap(values, 1, 15, scalp, {adjacency.offsets.first(count), {}}, {}, 1.0f);
        }),
        "smoothVertexMap: one adjacency offset per scalp vertex and one more");
    EXPECT_EQ(values, old);
}

TEST(VertexBlocks, FindWhatABruteSearchFindsOnAnyThreads) {
    for (const ScalpMesh& mesh : {makeSphere(40, 60, 10.0f), makePlane(1, 1, 1.0f), ScalpMesh()}) {
        const VertexBlocks blocks(mesh);
        for (const float radius : {0.5f, 4.0f, 100.0f}) {
            const BrushStamp stamp{.center = {10.0f, 0.5f, 0.0f}, .radius = radius};
            std::vector<TouchedVertex> one, many, brute;
            runWithThreads(1, [&] { one = blocks.touched(stamp); });
            runWithThreads(8, [&] { many = blocks.touched(stamp); });
            EXPECT_EQ(one, many);
            for (std::size_t v = 0; v < mesh.points().size(); ++v)
                if (const float w = stamp.weight(mesh.points()[v]); w > 0.0f)
                    brute.emplace_back(std::int32_t(v), w);
            std::ranges::sort(one);
            EXPECT_EQ(one, brute);
        }
    }
    const ScalpMesh broken({{NAN, 0, 0}, {1, INFINITY, 0}, {0, 0, 1}}, {{0, 1, 2}});
    EXPECT_EQ(VertexBlocks(broken).touched({.center = {0, 0, 1}, .radius = 1.0f}).size(), 1u);
}

}  // namespace
}  // namespace corvelle
