#include <array>
#include <cmath>
#include <limits>
#include <numeric>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/guideRegions.h"
#include "operators/interpolateWeights.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::vector<float> weigh(std::vector<float> distances, std::vector<float> reaches,
                         const WeightSettings& settings = {}) {
    std::vector<float> weights(distances.size(), -1.0f);
    shepardWeights(distances, reaches, settings, weights);
    return weights;
}

TEST(ShepardWeights, AreThoseWorkedOutByHand) {
    // s = (4-1)/(4*1), (4-2)/(4*2), (3-3)...: 0.75, 0.25, 0; over the largest and squared: 1, 1/9,
    // 0.
    EXPECT_THAT(weigh({1, 2, 3}, {4, 4, 3}), testing::ElementsAre(0.9f, 0.1f, 0.0f));
    // Power 1: 0.75 and 0.25 as they are.
    EXPECT_THAT(weigh({1, 2}, {4, 4}, {.power = 1.0f}), testing::ElementsAre(0.75f, 0.25f));
    // Power 0 shares alike, but with those in reach only.
    EXPECT_THAT(weigh({1, 2, 3}, {4, 4, 1}, {.power = 0.0f}),
                testing::ElementsAre(0.5f, 0.5f, 0.0f));
    // Without an edge: 1 / d.
    EXPECT_THAT(weigh({1, 3}, {kInfinity, kInfinity}, {.power = 1.0f}),
                testing::ElementsAre(0.75f, 0.25f));
}

TEST(ShepardWeights, FadeToTheNearestGuidesAtTheEdgeOfAllReaches) {
    // Outside all reaches: t = (D - d) / (d D) with D = 4: 3/4, 1/4; squares 1, 1/9.
    const std::vector<float> out = weigh({1, 2, 4}, {0.5f, 0.5f, 0.5f}, {.neighbors = 2});
    EXPECT_NEAR(out[0], 0.9f, 1e-6f);
    EXPECT_NEAR(out[1], 0.1f, 1e-6f);
    EXPECT_EQ(out[2], 0.0f);
    // As many neighbours as candidates: nothing to fade towards, so 1 / d.
    EXPECT_NEAR(weigh({1, 2}, {0.5f, 0.5f}, {.neighbors = 2})[0], 0.8f, 1e-6f);
    // Half way: cover 1/8 gates the two sets half and half. Own set: guide 1 alone (reach 16).
    const std::vector<float> half = weigh({7, 14, 28}, {1, 16, 1}, {.neighbors = 2});
    EXPECT_NEAR(half[0], 0.5f * 0.9f, 1e-5f);
    EXPECT_NEAR(half[1], 0.5f + 0.5f * 0.1f, 1e-5f);
    // All as far as the next one: alike, not none.
    EXPECT_EQ(weigh({5, 5, 5, 5}, {1, 1, 1, 1})[0], 1.0f / 3.0f);
}

TEST(ShepardWeights, TakeTheEdgeCases) {
    EXPECT_THAT(weigh({2, 3}, {9, 9}, {.neighbors = 1}), testing::ElementsAre(1.0f, 0.0f));
    EXPECT_THAT(weigh({kInfinity}, {kInfinity}), testing::ElementsAre(0.0f));
    EXPECT_THAT(weigh({5, kInfinity}, {1, kInfinity}), testing::ElementsAre(1.0f, 0.0f));
    const std::vector<float> same = weigh({0, 1, 1}, {2, 2, 2});  // on a guide's own root
    EXPECT_GT(same[0], 0.999f);
    EXPECT_TRUE(weigh({}, {}).empty());
    // No reach at all: the nearest ones share.
    EXPECT_GT(weigh({1, 2, 3, 4}, {0, 0, 0, 0}, {.reach = 0.0f})[0], 0.5f);
}

TEST(ShepardWeights, AddUpToOneAndVaryGently) {
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SplitMix random(seed);
        const std::size_t c = 1 + random.nextU64() % 30;
        std::vector<float> distances(c), reaches(c);
        for (float& d : distances) d = random.nextRange(0.0f, 3.0f);
        std::sort(distances.begin(), distances.end());
        for (float& r : reaches)
            r = random.nextFloat() < 0.1f ? kInfinity : random.nextRange(0.0f, 2.0f);
        const WeightSettings settings{.neighbors = 1 + int(random.nextU64() % 16),
                                      .power = random.nextRange(0.0f, 16.0f)};
        const std::vector<float> weights = weigh(distances, reaches, settings);
        EXPECT_NEAR(std::accumulate(weights.begin(), weights.end(), 0.0f), 1.0f, 1e-5f) << seed;
        for (const float w : weights) EXPECT_TRUE(w >= 0.0f && w <= 1.00001f) << seed;
    }
}

struct Roots {
    std::vector<StrandRoot> roots;
    std::vector<Vec3f> positions;
};
Roots randomRoots(const ScalpMesh& mesh, std::size_t count, std::uint64_t seed) {
    SplitMix random(seed);
    Roots out;
    for (std::size_t i = 0; i < count; ++i) {
        const auto triangle = std::int32_t(random.nextU64() % mesh.triangles().size());
        const float a = std::sqrt(random.nextFloat()), b = random.nextFloat();
        out.roots.push_back({triangle, 1.0f - a, a * (1.0f - b)});
        out.positions.push_back(mesh.surfacePoint(out.roots.back()));
    }
    return out;
}
WeightTable tableOf(const Roots& strands, const Roots& guides, const WeightSettings& settings,
                    const ScalpPtr& surface = nullptr, const PartLines* parts = nullptr,
                    std::vector<std::int32_t> guideRegions = {},
                    std::vector<std::int32_t> strandRegions = {}) {
    const GuideReach reach({guides.roots, guides.positions, guideRegions}, settings,
                           surface ? SurfaceGraph::of(surface) : nullptr);
    return interpolationWeights({strands.roots, strands.positions, strandRegions},
                                guides.roots.size(), reach, settings, parts);
}

TEST(InterpolationWeights, TurnTheTableAboutRightly) {
    const ScalpMesh mesh = makePlane(10, 10, 10.0f);
    const Roots guides = randomRoots(mesh, 60, 1), strands = randomRoots(mesh, 5000, 2);
    const WeightTable table = tableOf(strands, guides, {});
    std::size_t pairs = 0;
    for (std::size_t g = 0; g < 60; ++g) {
        const auto reached = table.strandsOf(g);
        EXPECT_TRUE(std::is_sorted(reached.begin(), reached.end()));
        for (const std::uint32_t s : reached) {
            const auto row = table.of(s);
            EXPECT_TRUE(std::any_of(row.begin(), row.end(),
                                    [&](const GuideWeight& w) { return w.guide == g; }));
        }
        pairs += reached.size();
    }
    EXPECT_EQ(pairs, table.pairs.size());
    for (std::size_t s = 0; s < 5000; ++s) EXPECT_FALSE(table.of(s).empty());
}

TEST(InterpolationWeights, AreTheSameAlongASmoothSurfaceAndAcrossThreads) {
    const auto sphere = std::make_shared<const ScalpMesh>(makeIcosphere(4, 10.0f));
    const Roots guides = randomRoots(*sphere, 300, 3), strands = randomRoots(*sphere, 6000, 4);
    const WeightTable straight = tableOf(strands, guides, {});
    WeightTable one, many;
    runWithThreads(1, [&] { one = tableOf(strands, guides, {}, sphere); });
    runWithThreads(8, [&] { many = tableOf(strands, guides, {}, sphere); });
    EXPECT_EQ(one.pairs, many.pairs);
    EXPECT_EQ(one.guideStrands, many.guideStrands);
    double apart = 0.0;
    for (std::size_t s = 0; s < 6000; ++s) {
        std::vector<float> difference(300, 0.0f);
        for (const GuideWeight& w : straight.of(s)) difference[w.guide] += w.weight;
        for (const GuideWeight& w : one.of(s)) difference[w.guide] -= w.weight;
        for (const float d : difference) apart += std::abs(d);
    }
    EXPECT_LT(apart / 6000, 0.03);
}

TEST(InterpolationWeights, DoNotReachAcrossAFold) {
    // Two sheets 0.2 apart, joined nowhere: guides on each, seen from the lower one.
    ScalpMesh plane = makePlane(12, 12, 10.0f);
    std::vector<Vec3f> points(plane.points().begin(), plane.points().end());
    std::vector<Triangle> triangles(plane.triangles().begin(), plane.triangles().end());
    const auto below = std::int32_t(points.size());
    const std::size_t sheet = triangles.size();
    for (std::int32_t i = 0; i < below; ++i)
        points.push_back(points[std::size_t(i)] - Vec3f{0, 0.2f, 0});
    for (std::size_t t = 0; t < sheet; ++t)
        triangles.push_back(
            {triangles[t][0] + below, triangles[t][2] + below, triangles[t][1] + below});
    const auto shell = std::make_shared<const ScalpMesh>(points, triangles);
    const Roots guides = randomRoots(*shell, 80, 5), strands = randomRoots(*shell, 2000, 6);
    const auto across = [&](const WeightTable& table) {
        float sum = 0.0f;
        for (std::size_t s = 0; s < 2000; ++s)
            for (const GuideWeight& w : table.of(s))
                if ((std::size_t(strands.roots[s].triangle) < sheet) !=
                    (std::size_t(guides.roots[w.guide].triangle) < sheet))
                    sum += w.weight;
        return sum;
    };
    EXPECT_GT(across(tableOf(strands, guides, {})), 500.0f);
    EXPECT_LT(across(tableOf(strands, guides, {}, shell)), 1.0f);
}

TEST(InterpolationWeights, StayWithinARegionAndOnOneSideOfAPart) {
    struct Wall final : PartLines {
        bool separates(Vec3f a, Vec3f b) const override { return (a.x < 0.0f) != (b.x < 0.0f); }
        bool empty() const override { return false; }
        std::uint64_t hash() const override { return 1; }
    } wall;
    const ScalpMesh mesh = makePlane(10, 10, 10.0f);
    const Roots guides = randomRoots(mesh, 100, 7), strands = randomRoots(mesh, 3000, 8);
    const WeightTable parted = tableOf(strands, guides, {}, nullptr, &wall);
    std::vector<std::int32_t> guideRegions, strandRegions;
    for (const Vec3f p : guides.positions) guideRegions.push_back(p.z < 1.0f ? 0 : 1);
    for (const Vec3f p : strands.positions)
        strandRegions.push_back(p.x > 4.0f ? -1 : p.z < 1.0f ? 0 : 1);
    const WeightTable regions =
        tableOf(strands, guides, {}, nullptr, nullptr, guideRegions, strandRegions);
    bool anyMixed = false;
    for (std::size_t s = 0; s < 3000; ++s) {
        for (const GuideWeight& w : parted.of(s))
            EXPECT_FALSE(wall.separates(strands.positions[s], guides.positions[w.guide]));
        for (const GuideWeight& w : regions.of(s)) {
            EXPECT_TRUE(strandRegions[s] < 0 || guideRegions[w.guide] == strandRegions[s]);
            anyMixed |= strandRegions[s] < 0 &&
                        guideRegions[w.guide] != guideRegions[regions.of(s)[0].guide];
        }
    }
    EXPECT_TRUE(anyMixed) << "a strand of no region blends guides of any";
}

TEST(InterpolationWeights, OfAnIsolatedGuideDoNotGrowTheOthers) {
    const ScalpMesh mesh = makePlane(10, 10, 10.0f);
    Roots guides = randomRoots(mesh, 50, 9);
    const WeightSettings settings;
    const GuideReach before({guides.roots, guides.positions, {}}, settings, nullptr);
    const float own = before.reachInRegion(3);
    guides.roots.push_back({});
    guides.positions.push_back({500, 0, 0});
    const GuideReach after({guides.roots, guides.positions, {}}, settings, nullptr);
    EXPECT_EQ(after.reachInRegion(3), own);
    EXPECT_GT(after.reachInRegion(50), 400.0f);
    const GuideReach two(
        {std::span(guides.roots).first(2), std::span(guides.positions).first(2), {}}, settings,
        nullptr);
    EXPECT_EQ(two.reachInRegion(0), kInfinity) << "fewer others than neighbors";
}

TEST(GuideRegions, NumberColorsAscendingAndJoinSoftPaint) {
    const std::vector<Vec3f> colors = {{1, 0, 0}, {0, 0, 1}, {0.95f, 0.02f, 0}, {0, 1, 0}};
    const GuideRegions regions(colors);
    EXPECT_EQ(regions.count(), 3u);
    EXPECT_THAT(regions.ofGuides(), testing::ElementsAre(2, 0, 2, 1));
    EXPECT_EQ(regions.of({0.9f, 0, 0}), 2);
    EXPECT_EQ(regions.of({0.6f, 0, 0.4f}), 2) << "between red and blue, nearer to red";
    EXPECT_EQ(regions.of({0.4f, 0.05f, 0.6f}), 0);
    EXPECT_EQ(regions.of({1, 1, 1}), -1);
    EXPECT_EQ(regions.of({0, 0, 0}), -1);
    EXPECT_EQ(regions.of({9, 0, 0}), -1);
    EXPECT_EQ(GuideRegions({}).of({0, 0, 0}), -1);
}

}  // namespace
}  // namespace corvelle
