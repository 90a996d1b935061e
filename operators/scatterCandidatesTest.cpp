#include "operators/scatterCandidates.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <set>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/scatterGrid.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kGoldenPoints = 6763745308655296120u;

ScatterDensity constantDensity(float value) { return {.constant = value}; }

/// A density that is a function of the place.
template <class Function>
ScatterDensity mappedDensity(Function function, std::optional<float> bound) {
    ScatterDensity out;
    out.sample = [function](std::span<const StrandRoot>, std::span<const Vec3f> positions,
                            std::span<float> values) {
        for (std::size_t i = 0; i < values.size(); ++i) values[i] = function(positions[i]);
    };
    out.bound = bound;
    return out;
}

ScatterPoints candidates(const ScalpMesh& mesh, const ScatterDensity& density, std::uint64_t seed,
                         float share = 1.0f) {
    return scatterCandidates(mesh, density, densityEnvelope(mesh, density), seed, share);
}

std::uint64_t hashOfPoints(const ScatterPoints& points) {
    std::uint64_t h = mix64(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        h = hashCombine(hashCombine(h, points.ids[i]), points.roots[i].triangle);
        h = hashCombine(hashCombine(h, points.roots[i].u), points.roots[i].v);
    }
    return h;
}

/// The roots of a set by id, where `of(position)` holds.
template <class Where>
std::map<std::uint64_t, StrandRoot> rootsWhere(const ScalpMesh& mesh, const ScatterPoints& points,
                                               Where of) {
    std::map<std::uint64_t, StrandRoot> out;
    for (std::size_t i = 0; i < points.size(); ++i)
        if (of(mesh.surfacePoint(points.roots[i]))) out[points.ids[i]] = points.roots[i];
    return out;
}

class ScatterCandidatesTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const ScalpMesh mesh = makeSphere(24, 48, 5.0f);
    const std::uint64_t seed = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Seeds, ScatterCandidatesTest, testing::Range<std::uint64_t>(0, 5));

TEST_P(ScatterCandidatesTest, MeetsTheDensityWithRootsOnTheirTriangles) {
    const ScatterPoints points = candidates(mesh, constantDensity(30.0f), seed);
    EXPECT_NEAR(double(points.size()), mesh.area() * 30.0, 0.03 * mesh.area() * 30.0);
    std::set<std::uint64_t> ids(points.ids.begin(), points.ids.end());
    EXPECT_EQ(ids.size(), points.size());
    for (const StrandRoot& root : points.roots) {
        EXPECT_TRUE(mesh.validRoot(root));
        EXPECT_GE(root.u, 0.0f);
        EXPECT_GE(root.v, 0.0f);
        EXPECT_LE(root.u + root.v, 1.0f + 1e-6f);
    }
}

TEST_P(ScatterCandidatesTest, SpreadsUniformlyOverATriangle) {
    const ScalpMesh one({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}}, {{0, 1, 2}});
    const ScatterPoints points = candidates(one, constantDensity(40000.0f), seed);
    std::size_t quarters[4] = {};  // the midpoint triangles have equal areas
    for (const StrandRoot& r : points.roots)
        ++quarters[r.u > 0.5f ? 0 : r.v > 0.5f ? 1 : r.u + r.v < 0.5f ? 2 : 3];
    for (const std::size_t count : quarters)
        EXPECT_NEAR(double(count), double(points.size()) / 4.0, double(points.size()) * 0.02);
}

TEST_P(ScatterCandidatesTest, ALowerShareIsASubsetThatDoesNotMove) {
    const ScatterDensity density =
        mappedDensity([](Vec3f p) { return 20.0f + 4.0f * p.x; }, 40.0f);
    const auto all = [](Vec3f) { return true; };
    const auto whole = rootsWhere(mesh, candidates(mesh, density, seed), all);
    const auto half = rootsWhere(mesh, candidates(mesh, density, seed, 0.5f), all);
    const auto tenth = rootsWhere(mesh, candidates(mesh, density, seed, 0.1f), all);
    EXPECT_NEAR(double(half.size()), 0.5 * double(whole.size()), 0.05 * double(whole.size()));
    ASSERT_GT(tenth.size(), 100u);
    for (const auto& [id, root] : half) EXPECT_EQ(whole.at(id), root);
    for (const auto& [id, root] : tenth) EXPECT_EQ(half.at(id), root);
}

TEST_P(ScatterCandidatesTest, ThinnedPreviewsKeepTheMappedDensity) {  // draws are independent
    const ScatterDensity density =
        mappedDensity([](Vec3f p) { return p.x > 0.0f ? 100.0f : 25.0f; }, 100.0f);
    for (const float share : {1.0f, 0.2f}) {
        const ScatterPoints points = candidates(mesh, density, seed, share);
        const double right =
            double(rootsWhere(mesh, points, [](Vec3f p) { return p.x > 0.0f; }).size());
        const double left = double(points.size()) - right;
        EXPECT_NEAR(left / right, 0.25, 0.04) << "at share " << share;
    }
}

TEST_P(ScatterCandidatesTest, ALocalEditLeavesEverythingElse) {
    const auto before = [](Vec3f p) { return 20.0f + 2.0f * p.y; };
    const auto after = [&](Vec3f p) { return p.x > 3.0f ? 300.0f : before(p); };
    const auto far = [](Vec3f p) { return p.x < 2.0f; };
    for (const std::optional<float> bound : {std::optional<float>(), std::optional(300.0f)}) {
        const ScatterPoints a = candidates(mesh, mappedDensity(before, bound), seed);
        const ScatterPoints b = candidates(mesh, mappedDensity(after, bound), seed);
        EXPECT_GT(b.size(), a.size() + 500);
        EXPECT_EQ(rootsWhere(mesh, a, far), rootsWhere(mesh, b, far));
    }
}

TEST_P(ScatterCandidatesTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    const ScatterDensity density = mappedDensity([](Vec3f p) { return 40.0f + p.z; }, {});
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u})
        runWithThreads(threads,
                       [&] { hashes.insert(hashOfPoints(candidates(mesh, density, seed))); });
    EXPECT_EQ(hashes.size(), 1u);
}

TEST(ScatterCandidates, KeepsTheIdsThatSavedGroomsDependOn) {
    const ScalpMesh one({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}}, {{0, 1, 2}});
    const ScatterPoints points = candidates(one, constantDensity(6.0f), 7);
    ASSERT_EQ(points.size(), 3u);
    const std::uint64_t triangle = mix64(combineRaw(mix64(7), 0));
    for (std::uint64_t k = 0; k < 3; ++k)
        EXPECT_EQ(points.ids[k], mix64(combineRaw(triangle, k)));
    EXPECT_EQ(hashOfPoints(points), kGoldenPoints);
}

TEST(ScatterCandidates, SurvivesDensitiesAndTrianglesThatGiveNothing) {
    const ScalpMesh mesh = makePlane(4, 4, 2.0f);
    EXPECT_EQ(candidates(mesh, constantDensity(0.0f), 1).size(), 0u);
    EXPECT_EQ(candidates(mesh, constantDensity(-5.0f), 1).size(), 0u);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(candidates(mesh, constantDensity(nan), 1).size(), 0u);
    EXPECT_EQ(candidates(mesh, mappedDensity([](Vec3f) { return 0.0f; }, 200.0f), 1).size(), 0u);
    EXPECT_EQ(candidates(mesh, mappedDensity([&](Vec3f) { return nan; }, {}), 1).size(), 0u);
    const ScalpMesh flat({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, {{0, 1, 2}, {0, 0, 0}});
    EXPECT_EQ(candidates(flat, constantDensity(1e6f), 1).size(), 0u);
    EXPECT_EQ(candidates(ScalpMesh(), constantDensity(10.0f), 1).size(), 0u);
}

TEST(ExpectedRoots, IntegratesTheDensityAndNotItsEnvelope) {
    const ScalpMesh plane = makePlane(30, 30, 2.0f);  // x from -1 to 1
    const ScatterDensity ramp = mappedDensity([](Vec3f p) { return 100.0f * (p.x + 1.0f); }, 200.0f);
    EXPECT_NEAR(expectedRoots(plane, ramp), 400.0, 2.0);
    EXPECT_NEAR(expectedCandidates(plane, densityEnvelope(plane, ramp)), 800.0, 0.1);
    EXPECT_NEAR(expectedRoots(plane, constantDensity(50.0f)), 200.0, 0.01);
    const ScatterDensity endless = constantDensity(std::numeric_limits<float>::infinity());
    EXPECT_FALSE(std::isfinite(expectedRoots(plane, endless)));
}

// ---- the grid -----------------------------------------------------------------------------------

TEST(ScatterGrid, PutsOneRootInTheMiddleOfEveryCell) {
    const ScalpMesh plane = makePlane(7, 5, 10.0f);
    const ScatterPoints points = scatterGrid(plane, {.rows = 12, .columns = 20, .seed = 3}, {});
    ASSERT_EQ(points.size(), 240u);
    for (std::size_t cell = 0; cell < points.size(); ++cell) {
        const Vec2f uv = plane.surfaceUv(points.roots[cell]);
        EXPECT_NEAR(uv.x, (float(cell % 20) + 0.5f) / 20.0f, 1e-5f);
        EXPECT_NEAR(uv.y, (float(cell / 20) + 0.5f) / 12.0f, 1e-5f);
        EXPECT_EQ(points.ids[cell],
                  hashCombine(mix64(std::uint64_t(3) ^ 0x6121D5EEDu), std::uint64_t(cell)));
    }
}

TEST(ScatterGrid, MovesRootsByUpToTheShareOfACellUnderTheSameIds) {
    const ScalpMesh plane = makePlane(1, 1, 10.0f);
    const ScatterPoints still = scatterGrid(plane, {.rows = 40, .columns = 40}, {});
    const ScatterPoints moved = scatterGrid(plane, {.rows = 40, .columns = 40, .random = 0.5f}, {});
    ASSERT_EQ(still.size(), 1600u);
    ASSERT_EQ(moved.ids, still.ids);  // half a cell at most keeps all of them on the plane
    float farthest = 0.0f;
    for (std::size_t i = 0; i < still.size(); ++i) {
        const Vec2f a = plane.surfaceUv(still.roots[i]), b = plane.surfaceUv(moved.roots[i]);
        farthest = std::max({farthest, std::fabs(a.x - b.x), std::fabs(a.y - b.y)});
    }
    EXPECT_LE(farthest, 0.5f / 40.0f + 1e-6f);
    EXPECT_GT(farthest, 0.45f / 40.0f);
}

TEST(ScatterGrid, ThinsByTheMapAndSkipsFacesTurnedOver) {
    ScalpMesh plane = makePlane(10, 10, 10.0f);
    const ScatterDensity half = mappedDensity([](Vec3f p) { return p.x > 0.0f ? 1.0f : 0.25f; }, 1.0f);
    const ScatterPoints points = scatterGrid(plane, {.rows = 100, .columns = 100}, half);
    const double right =
        double(rootsWhere(plane, points, [](Vec3f p) { return p.x > 0.0f; }).size());
    EXPECT_EQ(right, 5000.0);
    EXPECT_NEAR(double(points.size()) - right, 1250.0, 120.0);

    std::vector<Vec2f> uvs(plane.uvs().begin(), plane.uvs().end());
    for (Vec2f& uv : uvs) uv.x = 1.0f - uv.x;
    plane.setUvs(uvs);
    EXPECT_EQ(scatterGrid(plane, {.rows = 10, .columns = 10}, {}).size(), 0u);
    for (Vec2f& uv : uvs) uv = {std::numeric_limits<float>::quiet_NaN(), 1e30f};
    plane.setUvs(uvs);
    EXPECT_EQ(scatterGrid(plane, {.rows = 10, .columns = 10}, {}).size(), 0u);
    EXPECT_THROW(scatterGrid(makeIcosphere(1, 1.0f), {}, {}), std::invalid_argument);
}

TEST(ScatterGrid, GivesTheSameBitsOnOneThreadAndOnMany) {
    const ScalpMesh sphere = makeSphere(20, 30, 4.0f);
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u})
        runWithThreads(threads, [&] {
            hashes.insert(hashOfPoints(scatterGrid(
                sphere, {.rows = 700, .columns = 300, .random = 1.0f, .seed = 9}, {})));
        });
    EXPECT_EQ(hashes.size(), 1u);
}

}  // namespace
}  // namespace corvelle
