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

TEST(InterpolationWeights, TakeGuidesOfEveryKind) {
    const auto mesh = std::make_shared<const ScalpMesh>(makePlane(10, 10, 10.0f));
    const Roots strands = randomRoots(*mesh, 400, 10);
    const auto whole = [&](const WeightTable& table, std::size_t s) {
        float sum = 0.0f;
        for (const GuideWeight& w : table.of(s)) sum += w.weight;
        return std::abs(sum - 1.0f) < 1e-5f;
    };
    for (const ScalpPtr& surface : {ScalpPtr(), ScalpPtr(mesh)})
        for (const int neighbors : {1, 3, kMaxNeighbors})
            for (const float reach : {0.0f, 1.5f, 1e30f}) {
                const WeightSettings settings{.neighbors = neighbors, .reach = reach};
                // One guide takes every strand, whatever its reach.
                const Roots one = randomRoots(*mesh, 1, 11);
                const WeightTable alone = tableOf(strands, one, settings, surface);
                // Many at one place share alike what one of them would have.
                Roots heap;
                for (int i = 0; i < 100; ++i) {
                    heap.roots.push_back(one.roots[0]);
                    heap.positions.push_back(one.positions[0]);
                }
                const WeightTable heaped = tableOf(strands, heap, settings, surface);
                // Some off the scalp, on no triangle of it, or nowhere at all.
                Roots mixed = randomRoots(*mesh, 30, 12);
                for (std::size_t g = 0; g < 10; ++g) mixed.roots[g] = {};
                for (std::size_t g = 5; g < 8; ++g) mixed.positions[g] = {40, 3, 0};
                mixed.roots[11].triangle = 1 << 30;
                for (std::size_t g = 12; g < 15; ++g)
                    mixed.positions[g] = {std::nanf(""), kInfinity, 0};
                const WeightTable among = tableOf(strands, mixed, settings, surface);
                for (std::size_t s = 0; s < strands.roots.size(); ++s) {
                    ASSERT_EQ(alone.of(s).size(), 1u);
                    EXPECT_EQ(alone.of(s)[0], (GuideWeight{0, 1.0f}));
                    ASSERT_TRUE(whole(heaped, s) && whole(among, s)) << neighbors << " " << reach;
                    for (const GuideWeight& w : heaped.of(s))
                        EXPECT_EQ(w.weight, heaped.of(s)[0].weight);
                    for (const GuideWeight& w : among.of(s))
                        EXPECT_FALSE(w.guide >= 12 && w.guide < 15) << "it is nowhere";
                }
            }
    // A strand that is nowhere has no guides, and none is asked for its own.
    Roots lost = strands;
    lost.positions[7] = {0, std::nanf(""), 0};
    const WeightTable table = tableOf(lost, randomRoots(*mesh, 20, 13), {}, mesh);
    EXPECT_TRUE(table.of(7).empty());
    EXPECT_EQ(table.nearest[7], kInfinity);
    EXPECT_TRUE(whole(table, 8));
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
    const std::vector<Vec3f> wild = {{kInfinity, 0, 0}, {0, 0, std::nanf("")}, {1e30f, 0, 0}};
    const GuideRegions tamed(wild);
    EXPECT_THAT(tamed.ofGuides(), testing::ElementsAre(0, 0, 1));
    EXPECT_EQ(tamed.of({0, std::nanf(""), -kInfinity}), 0);
}

/// Regions and places as the words of the header say, without any table.
struct PlainRegions {
    std::vector<Vec3f> regions;
    static bool near(Vec3f a, Vec3f b) { return distance(a, b) <= GuideRegions::kSameColor; }
    static float toSegment(Vec3f p, Vec3f a, Vec3f b) {
        const Vec3f way = b - a;
        return distance(p, a + way * std::clamp(dot(p - a, way) / dot(way, way), 0.0f, 1.0f));
    }
    /// How far a color is from the nearest mix of two.
    float toMix(Vec3f color) const {
        float least = kInfinity;
        for (std::size_t a = 0; a < regions.size(); ++a) {
            least = std::min(least, distance(color, regions[a]));
            for (std::size_t b = 0; b < a; ++b)
                least = std::min(least, toSegment(color, regions[a], regions[b]));
        }
        return least;
    }
};

TEST(GuideRegions, FindEveryMixOfTwo) {
    std::size_t mixed = 0, none = 0;
    for (std::uint64_t seed = 0; seed < 60; ++seed) {
        SplitMix random(seed);
        const auto number = [&] { return random.nextRange(0.0f, 1.0f); };
        std::vector<Vec3f> colors(2 + seed * 3);
        for (Vec3f& color : colors) {
            color = {number(), number(), number()};
            if (seed % 3 == 0) color.x = 0.25f;                         // all of one red
            if (seed % 3 == 1) color = color * (1.0f / length(color));  // a shell: hollow
        }
        const GuideRegions regions(colors);
        PlainRegions plain;
        for (std::size_t r = 0; r < regions.count(); ++r) {
            for (const Vec3f other : plain.regions)
                EXPECT_FALSE(PlainRegions::near(other, regions.color(r)));
            plain.regions.push_back(regions.color(r));
        }
        for (std::size_t g = 0; g < colors.size(); ++g)
            EXPECT_TRUE(
                PlainRegions::near(colors[g], regions.color(std::size_t(regions.ofGuides()[g]))));
        std::vector<Vec3f> places(200);
        for (Vec3f& place : places) place = {number(), number(), number()};
        std::vector<std::int32_t> found(places.size());
        regions.of(places, found);
        for (std::size_t i = 0; i < places.size(); ++i) {
            EXPECT_EQ(found[i], regions.of(places[i]));
            const float away = plain.toMix(places[i]) - GuideRegions::kSameColor;
            if (std::abs(away) < 1e-5f) continue;
            EXPECT_EQ(found[i] >= 0, away < 0.0f) << seed << " " << i;
            (away < 0.0f ? mixed : none) += 1;
            if (found[i] < 0) continue;
            for (const Vec3f other : plain.regions)
                EXPECT_LE(distance(places[i], regions.color(std::size_t(found[i]))),
                          distance(places[i], other));
        }
    }
    EXPECT_GT(mixed, 1000u);
    EXPECT_GT(none, 1000u) << "these colors are too easy to prove anything";
}

}  // namespace
}  // namespace corvelle
