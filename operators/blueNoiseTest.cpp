#include <algorithm>
#include <cmath>
#include <set>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/testing/meshes.h"
#include "operators/blueNoise.h"
#include "operators/meshSides.h"
#include "operators/nearBoundary.h"
#include "operators/sampleNeighbors.h"

namespace corvelle {
namespace {

std::uint64_t hashOfRoots(std::span<const StrandRoot> roots) {
    std::uint64_t h = mix64(roots.size());
    for (const StrandRoot& r : roots)
        h = hashCombine(hashCombine(hashCombine(h, r.triangle), r.u), r.v);
    return h;
}

struct Spread {
    std::size_t count = 0;
    double least = 1e30;     ///< distance to the next root, of the hexagonal spacing
    double variation = 0.0;  ///< standard deviation over mean
};

/// Of the roots where `of(position)` holds.
template <class Where>
Spread spreadOf(const ScalpMesh& mesh, std::span<const StrandRoot> roots, double density,
                Where of) {
    std::vector<Vec3f> places;
    for (const StrandRoot& root : roots) places.push_back(mesh.surfacePoint(root));
    const PointIndex index(places);
    Spread out;
    double sum = 0.0, squares = 0.0;
    for (const Vec3f p : places) {
        if (!of(p)) continue;
        Neighbor two[2];
        index.nearest(p, two);
        const double d = std::sqrt(double(two[1].distanceSquared));
        sum += d;
        squares += d * d;
        out.least = std::min(out.least, d);
        ++out.count;
    }
    const double mean = sum / double(out.count);
    out.variation = std::sqrt(squares / double(out.count) - mean * mean) / mean;
    out.least /= std::sqrt(2.0 / (std::sqrt(3.0) * density));
    return out;
}

struct Relaxed {
    ScatterPoints random;
    std::vector<StrandRoot> even;
};
Relaxed relax(const ScalpMesh& mesh, const ScatterDensity& density, std::uint64_t seed) {
    Relaxed out;
    out.random = scatterCandidates(mesh, density, densityEnvelope(mesh, density), seed, 1.0f);
    out.even = relaxBlueNoise(mesh, out.random.ids, out.random.roots, density, seed);
    return out;
}

class BlueNoiseTest : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, BlueNoiseTest, testing::Range<std::uint64_t>(0, 3));

TEST_P(BlueNoiseTest, SpreadsEvenlyOverAClosedSurface) {
    const ScalpMesh mesh = makeSphere(64, 128, 10.0f);
    const float density = float(10000.0 / mesh.area());
    const Relaxed roots = relax(mesh, {.constant = density}, GetParam());
    const auto all = [](Vec3f) { return true; };
    const Spread before = spreadOf(mesh, roots.random.roots, density, all);
    const Spread after = spreadOf(mesh, roots.even, density, all);
    EXPECT_GT(before.variation, 0.3) << "the input is even already";
    EXPECT_GE(after.least, 0.75);
    EXPECT_LE(after.variation, 0.045);
}

TEST_P(BlueNoiseTest, SpreadsEvenlyInsideAnOpenSheetAndKeepsOffItsBorder) {
    const ScalpMesh mesh = makePlane(20, 20, 20.0f);
    const float density = 25.0f;
    const Relaxed roots = relax(mesh, {.constant = density}, GetParam());
    const float spacing = sampleRadius(density);
    const auto inside = [&](Vec3f p) {
        return std::max(std::fabs(p.x), std::fabs(p.z)) < 10.0f - 2.0f * spacing;
    };
    const Spread after = spreadOf(mesh, roots.even, density, inside);
    EXPECT_GE(after.least, 0.75);
    EXPECT_LE(after.variation, 0.045);
    EXPECT_GE(spreadOf(mesh, roots.even, density, [](Vec3f) { return true; }).least, 0.75);

    // As many roots in a strip along the border as the density asks for, and few on the very edge.
    const auto rim = [&](float width) {
        std::size_t count = 0;
        for (const StrandRoot& root : roots.even) {
            const Vec3f p = mesh.surfacePoint(root);
            count += std::max(std::fabs(p.x), std::fabs(p.z)) > 10.0f - width;
        }
        return double(count);
    };
    EXPECT_NEAR(rim(1.0f), 25.0 * (400.0 - 18.0 * 18.0), 190.0);
    EXPECT_LT(rim(0.1f * spacing), 0.05 * rim(1.0f));
}

/// The half of a sphere above a height that no ring of its vertices lies at: a jagged border.
ScalpMesh makeDome() {
    const ScalpMesh sphere = makeSphere(64, 128, 10.0f);
    std::vector<Triangle> triangles;
    for (const Triangle& t : sphere.triangles()) {
        float height = 0.0f;
        for (const std::int32_t v : t) height += sphere.points()[std::size_t(v)].y;
        if (height > 2.0f) triangles.push_back(t);
    }
    return ScalpMesh({sphere.points().begin(), sphere.points().end()}, triangles);
}

TEST(BlueNoise, LeavesNoPairTooNearAtOpenBordersAndCorners) {
    const auto all = [](Vec3f) { return true; };
    struct Case {
        ScalpMesh mesh;
        double roots;
    };
    for (const Case& c :
         {Case{makePlane(20, 20, 20.0f), 100000.0}, Case{makePlane(1, 1, 20.0f), 5000.0},
          Case{makePlane(3, 3, 9.0f), 300.0}, Case{makeDome(), 10000.0}}) {
        const float density = float(c.roots / c.mesh.area());
        const Relaxed roots = relax(c.mesh, {.constant = density}, 1);
        const Spread after = spreadOf(c.mesh, roots.even, density, all);
        EXPECT_GE(after.least, 0.75) << c.roots;
        if (c.roots >= 1e5) {
            EXPECT_LE(after.variation, 0.045);
        }
    }
}

TEST_P(BlueNoiseTest, FollowsAMappedDensity) {
    const ScalpMesh mesh = makePlane(20, 20, 20.0f);
    ScatterDensity density;
    density.sample = [](std::span<const StrandRoot>, std::span<const Vec3f> p,
                        std::span<float> out) {
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] = p[i].x < -8.0f ? 0.0f : p[i].x < 0.0f ? 10.0f : 40.0f;
    };
    density.bound = 40.0f;
    const Relaxed roots = relax(mesh, density, GetParam());
    const auto left = [](Vec3f p) { return p.x > -7.0f && p.x < -1.0f && std::fabs(p.z) < 8.0f; };
    const auto right = [](Vec3f p) { return p.x > 1.0f && std::fabs(p.z) < 9.0f && p.x < 9.0f; };
    const Spread sparse = spreadOf(mesh, roots.even, 10.0, left);
    const Spread dense = spreadOf(mesh, roots.even, 40.0, right);
    EXPECT_NEAR(double(sparse.count), 10.0 * 6.0 * 16.0, 60.0);
    EXPECT_NEAR(double(dense.count), 40.0 * 8.0 * 18.0, 250.0);
    EXPECT_GE(sparse.least, 0.6);
    EXPECT_GE(dense.least, 0.6);
}

TEST_P(BlueNoiseTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    for (const ScalpMesh& mesh : {makeSphere(16, 32, 3.0f), makePlane(2, 2, 12.0f)}) {
        std::set<std::uint64_t> hashes;
        for (const unsigned threads : {1u, 2u, 8u})
            runWithThreads(threads, [&] {
                hashes.insert(hashOfRoots(relax(mesh, {.constant = 40.0f}, GetParam()).even));
            });
        EXPECT_EQ(hashes.size(), 1u);
    }
}

TEST(BlueNoise, LeavesLoneAndDeadSamplesAndPartsCoincidentOnes) {
    const ScalpMesh mesh = makePlane(2, 2, 4.0f);
    const ScatterDensity density{.constant = 1.0f};
    const std::vector<std::uint64_t> ids = {11, 12, 13};
    const StrandRoot place{2, 0.25f, 0.25f};
    const std::vector<StrandRoot> one = {place};
    EXPECT_EQ(relaxBlueNoise(mesh, std::span(ids).first(1), one, density, 0), one);
    const std::vector<StrandRoot> same = {place, place, place};
    EXPECT_EQ(relaxBlueNoise(mesh, ids, same, {.constant = 0.0f}, 0), same);
    const std::vector<StrandRoot> parted = relaxBlueNoise(mesh, ids, same, density, 0);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_GT(distance(mesh.surfacePoint(parted[i]), mesh.surfacePoint(parted[(i + 1) % 3])),
                  0.5f);
    EXPECT_EQ(relaxBlueNoise(mesh, ids, same, density, 0), parted);
}

TEST(BlueNoise, StaysOnBrokenMeshes) {
    const ScalpMesh soup = makeTriangleSoup(300, 5.0f, 3.0f, 4);
    const Relaxed roots = relax(soup, {.constant = 3.0f}, 1);
    ASSERT_GT(roots.even.size(), 200u);
    for (const StrandRoot& root : roots.even) {
        EXPECT_TRUE(soup.validRoot(root));
        EXPECT_TRUE(isFinite(soup.surfacePoint(root)));
    }
}

// ---- neighbours and borders ---------------------------------------------------------------------

class SampleIndexTest : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, SampleIndexTest, testing::Range<std::uint64_t>(0, 6));

TEST_P(SampleIndexTest, FindsTheNearestByDistanceThenRankWhateverItKnew) {
    SplitMix random(GetParam());
    const std::size_t n = std::size_t(random.nextU64() % 600) + 1;  // also fewer than neighbours
    const bool even = GetParam() % 2 == 0;
    std::vector<SurfaceSample> samples(n);
    for (SurfaceSample& sample : samples)
        sample = {{std::floor(random.nextRange(0, 9)), std::floor(random.nextRange(0, 9)),
                   random.nextRange(0, even ? 1.0f : 200.0f)},
                  1.0f};
    for (std::size_t i = 0; i < n; i += 3) samples[i] = samples[n / 2];  // many at one place
    std::vector<std::uint32_t> ranks(n);
    for (std::size_t i = 0; i < n; ++i) ranks[i] = std::uint32_t(n - 1 - i);

    SampleIndex index;
    index.rebuild(samples, ranks, 1.3f, even);
    for (std::uint32_t i = 0; i < n; ++i) {
        std::vector<std::pair<float, std::uint32_t>> want;
        for (std::uint32_t j = 0; j < n; ++j)
            if (j != i)
                want.emplace_back(lengthSquared(samples[j].position - samples[i].position),
                                  ranks[j]);
        std::sort(want.begin(), want.end());
        SampleNeighbors fresh, known, again;
        index.nearest(i, nullptr, fresh);
        for (std::size_t k = 0; k < kSampleNeighbors; ++k) {
            if (k < want.size())
                EXPECT_EQ(ranks[fresh[k]], want[k].second);
            else
                EXPECT_EQ(fresh[k], i);
            known[k] = std::uint32_t((i + 1 + 7 * k) % n);
        }
        std::set<std::uint32_t> apart(known.begin(), known.end());
        if (apart.size() < kSampleNeighbors || apart.count(i)) continue;
        index.nearest(i, &known, again);
        EXPECT_EQ(again, fresh);
    }
}

TEST(OpenBoundary, FindsRealBordersAndNoSeams) {
    EXPECT_TRUE(openBoundary(makeIcosphere(2, 1.0f)).empty());
    const std::vector<BorderEdge> sheet = openBoundary(makePlane(3, 5, 2.0f));
    EXPECT_EQ(sheet.size(), 16u);
    for (const BorderEdge& edge : sheet) {
        EXPECT_NEAR(length(edge.inward), 1.0f, 1e-5f);
        EXPECT_GT(dot(edge.inward, -0.5f * (edge.a + edge.b)), 0.9f);  // towards the middle
    }
    // Two triangles that share a side by place alone, and a degenerate third.
    const ScalpMesh seam({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {1, 0, 0}, {1, 0, 1}, {-0.0f, 0, 1}},
                         {{0, 2, 1}, {3, 5, 4}, {0, 1, 3}});
    EXPECT_EQ(openBoundary(seam).size(), 4u);
}

TEST(NearBoundary, FindsTheNearestEdgeWithinReach) {
    const ScalpMesh plane = makePlane(3, 4, 6.0f);
    const std::vector<BorderEdge> edges = openBoundary(plane);
    const NearBoundary index(edges, 0.8f);
    SplitMix random(5);
    std::size_t found = 0;
    for (int i = 0; i < 3000; ++i) {
        const Vec3f p{random.nextRange(-4, 4), random.nextRange(-0.5f, 0.5f),
                      random.nextRange(-4, 4)};
        const float reach = random.nextRange(0.0f, 0.8f);
        std::int32_t want = -1;
        float best = reach * reach;
        for (std::size_t e = 0; e < edges.size(); ++e) {
            const float d2 = lengthSquared(closestOnEdge(p, edges[e]) - p);
            if (d2 < best || (d2 == best && want < 0)) best = d2, want = std::int32_t(e);
        }
        EXPECT_EQ(index.nearest(p, reach), want);
        found += want >= 0;
    }
    EXPECT_GT(found, 300u);
    EXPECT_EQ(NearBoundary({}, 1.0f).nearest({}, 1.0f), -1);
}

}  // namespace
}  // namespace corvelle
