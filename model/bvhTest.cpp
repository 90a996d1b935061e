#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "model/bvh.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/scalpMesh.h"
#include "model/testing/meshes.h"
#include "model/triangleQueries.h"

namespace corvelle {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::array<Vec3f, 3> cornersOf(const ScalpMesh& mesh, std::size_t t) {
    const Triangle& corners = mesh.triangles()[t];
    return {mesh.points()[std::size_t(corners[0])], mesh.points()[std::size_t(corners[1])],
            mesh.points()[std::size_t(corners[2])]};
}

/// The answer by asking every triangle in order.
SurfaceHit plainClosest(const ScalpMesh& mesh, Vec3f p, float maxDistance) {
    SurfaceHit hit;
    float best = maxDistance * maxDistance;
    const auto [first, end] = mesh.activeTriangles();
    for (std::size_t t = first; t < end; ++t) {
        const auto [a, b, c] = cornersOf(mesh, t);
        const TriangleClosest<float> closest = sharesOfClosest(a, b, c, p);
        if (!(closest.distanceSquared < best)) continue;
        best = closest.distanceSquared;
        hit.triangle = std::int32_t(t);
        hit.u = 1.0f - closest.v - closest.w;
        hit.v = closest.v;
        hit.distance = std::sqrt(best);
    }
    return hit;
}

SurfaceHit plainRay(const ScalpMesh& mesh, Vec3f origin, Vec3f direction) {
    SurfaceHit hit;
    hit.distance = kInfinity;
    const ShearedRay ray(origin, direction);
    const auto [first, end] = mesh.activeTriangles();
    for (std::size_t t = first; t < end; ++t) {
        const auto [a, b, c] = cornersOf(mesh, t);
        float at, w0, w1;
        if (!intersectTriangle(ray, a, b, c, at, w0, w1) || !(at < hit.distance)) continue;
        hit = {std::int32_t(t), w0, w1, at, {}};
    }
    return hit;
}

void expectSame(const SurfaceHit& a, const SurfaceHit& b) {
    EXPECT_EQ(a.triangle, b.triangle);
    EXPECT_EQ(a.u, b.u);
    EXPECT_EQ(a.v, b.v);
    EXPECT_EQ(a.distance, b.distance);
}

Vec3f randomPoint(SplitMix& random, float extent) {
    const float x = random.nextRange(-extent, extent);
    const float y = random.nextRange(-extent, extent);
    const float z = random.nextRange(-extent, extent);
    return {x, y, z};
}

/// A soup, a smooth closed mesh or a rough one, by seed; far from the origin for some.
ScalpMesh meshOf(std::uint64_t seed) {
    switch (seed % 4) {
        case 0:
            return makeTriangleSoup(1 + seed * 37 % 400, 10.0f, 4.0f, seed);
        case 1:
            return makeSphere(9, 14, 7.0f);
        case 2: {
            const ScalpMesh sphere = makeIcosphere(3, 8.0f);
            return ScalpMesh(jitteredPoints(sphere, 0.4f, seed),
                             {sphere.triangles().begin(), sphere.triangles().end()});
        }
        default: {
            const ScalpMesh plane = makePlane(12, 10, 15.0f);
            std::vector<Vec3f> points = jitteredPoints(plane, 0.1f, seed);
            for (Vec3f& p : points) p += Vec3f{400.0f, -90.0f, 1000.0f};
            return ScalpMesh(std::move(points),
                             {plane.triangles().begin(), plane.triangles().end()});
        }
    }
}

class BvhTest : public testing::TestWithParam<std::uint64_t> {
protected:
    /// A place to ask from: anywhere, near the surface, on it, or exactly at a point.
    Vec3f queryAt(const ScalpMesh& mesh, SplitMix& random) const {
        const Vec3f middle = (mesh.boundsMin() + mesh.boundsMax()) * 0.5f;
        const std::uint64_t kind = random.nextU64() % 4;
        if (kind == 0) return middle + randomPoint(random, 40.0f);
        if (kind == 1) return middle + randomPoint(random, 8.0f);
        if (kind == 2) return mesh.points()[random.nextU64() % mesh.points().size()];
        const std::int32_t t = std::int32_t(random.nextU64() % mesh.triangles().size());
        const float u = random.nextFloat();
        return mesh.surfacePoint({t, u, (1.0f - u) * random.nextFloat()}) +
               randomPoint(random, 0.01f);
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, BvhTest, testing::Range<std::uint64_t>(0, 40));

TEST_P(BvhTest, FindsTheClosestPointThatAskingEveryTriangleFinds) {
    const ScalpMesh mesh = meshOf(GetParam());
    SplitMix random(GetParam());
    std::size_t found = 0;
    for (int i = 0; i < 300; ++i) {
        const Vec3f p = queryAt(mesh, random);
        const float reach = i % 3 == 0 ? 3.0f * random.nextFloat() : ScalpMesh::kAnyDistance;
        const SurfaceHit plain = plainClosest(mesh, p, reach);
        SurfaceHit hit;
        ASSERT_EQ(mesh.closestPoint(p, reach, hit), plain.triangle >= 0);
        expectSame(hit, plain);
        const std::int32_t near =
            std::int32_t(random.nextU64() % (mesh.triangles().size() + 2)) - 1;
        SurfaceHit warm;
        ASSERT_EQ(mesh.closestPointFrom(p, reach, near, warm), plain.triangle >= 0);
        expectSame(warm, plain);
        if (plain.triangle >= 0) {
            SurfaceHit warmest;
            ASSERT_TRUE(mesh.closestPointFrom(p, reach, plain.triangle, warmest));
            expectSame(warmest, plain);
        }
        found += plain.triangle >= 0;
    }
    EXPECT_GT(found, 100u);
}

TEST_P(BvhTest, FindsTheHitThatAskingEveryTriangleFinds) {
    const ScalpMesh mesh = meshOf(GetParam());
    SplitMix random(GetParam() + 1000);
    std::size_t found = 0;
    for (int i = 0; i < 300; ++i) {
        const Vec3f origin = queryAt(mesh, random);
        Vec3f direction = i % 2 == 0 ? randomPoint(random, 1.0f) : queryAt(mesh, random) - origin;
        if (i % 5 == 0) direction = {0.0f, i % 10 == 0 ? 1.0f : -1.0f, 0.0f};
        if (direction == Vec3f{}) continue;
        const SurfaceHit plain = plainRay(mesh, origin, direction);
        SurfaceHit hit;
        hit.distance = kInfinity;
        ASSERT_EQ(mesh.rayIntersect(origin, direction, hit), plain.triangle >= 0);
        expectSame(hit, plain);
        found += plain.triangle >= 0;
        if (plain.triangle < 0) continue;
        SurfaceHit within;
        ASSERT_TRUE(mesh.rayIntersect(origin, direction, within, plain.distance));
        expectSame(within, plain);
        EXPECT_FALSE(
            mesh.rayIntersect(origin, direction, within, std::nextafter(plain.distance, 0.0f)));
    }
    EXPECT_GT(found, 20u);
}

TEST_P(BvhTest, ManyRaysFindWhatEachFindsAlone) {
    const ScalpMesh mesh = meshOf(GetParam());
    SplitMix random(GetParam() + 3000);
    std::vector<Vec3f> origins, directions;
    for (int i = 0; i < 2500; ++i) {  // more than go down the tree at once
        origins.push_back(queryAt(mesh, random));
        directions.push_back(i % 3 == 0 ? randomPoint(random, 1.0f)
                                        : queryAt(mesh, random) - origins.back());
        if (i % 5 == 0) directions.back() = {0.0f, i % 10 == 0 ? 1.0f : -1.0f, 0.0f};
        if (i % 97 == 0) directions.back() = {};
        if (i % 101 == 0) origins.back().y = kNan;
        if (i % 103 == 0) directions.back().x = kInfinity;
    }
    std::size_t found = 0;
    for (const float reach : {1.0f, kInfinity}) {
        std::vector<float> distances(origins.size());
        mesh.rayDistances(origins, directions, distances, reach);
        for (std::size_t i = 0; i < origins.size(); ++i) {
            SurfaceHit hit;
            const bool alone = mesh.rayIntersect(origins[i], directions[i], hit, reach);
            ASSERT_EQ(distances[i], alone ? hit.distance : kInfinity) << i;
            found += alone;
        }
    }
    EXPECT_GT(found, 100u);
    EXPECT_THROW(mesh.rayDistances(origins, directions, std::span<float>()), std::invalid_argument);
}

TEST_P(BvhTest, AnswersTheSameRefittedAsBuiltAnew) {
    const ScalpMesh mesh = meshOf(GetParam());
    mesh.prepareQueries();
    std::vector<Vec3f> points = jitteredPoints(mesh, 1.5f, GetParam() + 7);
    const ScalpPtr moved = mesh.withPoints(points);
    const ScalpMesh fresh(points, {mesh.triangles().begin(), mesh.triangles().end()});
    SplitMix random(GetParam() + 2000);
    for (int i = 0; i < 200; ++i) {
        const Vec3f p = queryAt(*moved, random);
        SurfaceHit a, b;
        ASSERT_EQ(moved->closestPoint(p, kInfinity, a), fresh.closestPoint(p, kInfinity, b));
        expectSame(a, b);
        const Vec3f direction = randomPoint(random, 1.0f);
        a = b = {};
        ASSERT_EQ(moved->rayIntersect(p, direction, a), fresh.rayIntersect(p, direction, b));
        expectSame(a, b);
    }
}

TEST(Bvh, RefitsUntilTheOrderIsWornOut) {
    const ScalpMesh soup = makeTriangleSoup(2000, 10.0f, 0.3f, 1);
    const std::span<const Triangle> triangles = soup.triangles();
    const LazyBvh lazy;
    const auto order = lazy.get(soup.points(), triangles, 0, triangles.size()).order();
    const std::vector<Vec3f> bent = jitteredPoints(soup, 0.01f, 1);
    const auto moved = lazy.sibling();
    EXPECT_EQ(moved->get(bent, triangles, 0, triangles.size()).order(), order);
    // Each triangle goes elsewhere: what lay together lies far apart. They are sorted anew, and
    // meshes after that keep the new order.
    std::vector<Vec3f> rolled(bent);
    for (std::size_t i = 0; i < rolled.size(); ++i) {
        SplitMix random(i / 3);
        rolled[i] += randomPoint(random, 10.0f);
    }
    const auto torn = lazy.sibling(), after = lazy.sibling();
    const auto sorted = torn->get(rolled, triangles, 0, triangles.size()).order();
    EXPECT_NE(sorted, order);
    EXPECT_EQ(after->get(rolled, triangles, 0, triangles.size()).order(), sorted);
}

TEST(Bvh, FindsNothingFromAPositionThatIsNotFinite) {
    const ScalpMesh mesh = makeSphere(6, 8, 1.0f);
    SurfaceHit hit;
    for (const float bad : {kNan, kInfinity, -kInfinity})
        for (int axis = 0; axis < 3; ++axis) {
            Vec3f p{0.1f, 0.2f, 0.3f};
            p[axis] = bad;
            EXPECT_FALSE(mesh.closestPoint(p, kInfinity, hit));
            EXPECT_FALSE(mesh.closestPointFrom(p, kInfinity, 3, hit));
            EXPECT_FALSE(mesh.rayIntersect(p, {0.0f, 1.0f, 0.0f}, hit));
            EXPECT_FALSE(mesh.rayIntersect({}, p, hit));
        }
    EXPECT_FALSE(mesh.rayIntersect({}, {}, hit));
    EXPECT_FALSE(mesh.closestPoint({}, kNan, hit));
    EXPECT_FALSE(mesh.closestPoint({}, -1.0f, hit));
    EXPECT_EQ(hit.triangle, -1) << "a miss leaves the hit as it was";
}

TEST(Bvh, PassesOverTrianglesThatAreNotFinite) {
    const ScalpMesh good = makePlane(8, 8, 8.0f);
    std::vector<Vec3f> points(good.points().begin(), good.points().end());
    points[10].y = kNan;
    points[40].x = kInfinity;
    const ScalpMesh mesh(points, {good.triangles().begin(), good.triangles().end()});
    SplitMix random(3);
    std::size_t found = 0;
    for (int i = 0; i < 200; ++i) {
        const Vec3f p = randomPoint(random, 5.0f);
        const SurfaceHit plain = plainClosest(mesh, p, kInfinity);
        SurfaceHit hit;
        ASSERT_EQ(mesh.closestPoint(p, kInfinity, hit), plain.triangle >= 0);
        expectSame(hit, plain);
        found += plain.triangle >= 0;
        SurfaceHit through;
        mesh.rayIntersect(p, {0.0f, -p.y, 0.0f}, through);
    }
    EXPECT_EQ(found, 200u);
}

TEST(Bvh, GivesTiesToTheLowerTriangle) {
    // Each triangle eight times, and a query right above a corner that six of them share.
    const ScalpMesh plane = makePlane(4, 4, 4.0f);
    std::vector<Triangle> triangles;
    for (int copy = 0; copy < 8; ++copy)
        triangles.insert(triangles.end(), plane.triangles().begin(), plane.triangles().end());
    const ScalpMesh mesh({plane.points().begin(), plane.points().end()}, triangles);
    for (std::size_t i = 0; i < plane.points().size(); ++i) {
        std::int32_t lowest = -1;
        for (std::size_t t = 0; t < triangles.size() && lowest < 0; ++t)
            for (const std::int32_t corner : triangles[t])
                if (corner == std::int32_t(i)) lowest = std::int32_t(t);
        SurfaceHit hit;
        ASSERT_TRUE(mesh.closestPoint(plane.points()[i] + Vec3f{0.0f, 2.0f, 0.0f}, 5.0f, hit));
        EXPECT_EQ(hit.triangle, lowest);
        ASSERT_TRUE(mesh.closestPointFrom(plane.points()[i] + Vec3f{0.0f, 2.0f, 0.0f}, 5.0f,
                                          std::int32_t(triangles.size()) - 1, hit));
        EXPECT_EQ(hit.triangle, lowest);
        ASSERT_TRUE(mesh.rayIntersect(plane.points()[i] + Vec3f{0.0f, 2.0f, 0.0f},
                                      {0.0f, -1.0f, 0.0f}, hit));
        EXPECT_LT(hit.triangle, std::int32_t(plane.triangles().size()));
        EXPECT_EQ(hit.distance, 2.0f);
    }
}

TEST(Bvh, LetsNoRaySlipThroughAClosedSurface) {
    const ScalpMesh sphere = makeIcosphere(4, 5.0f);
    SplitMix random(9);
    for (int i = 0; i < 4000; ++i) {
        // From inside, towards a vertex or a point of an edge: the places where gaps would be.
        const Triangle& t = sphere.triangles()[random.nextU64() % sphere.triangles().size()];
        const Vec3f a = sphere.points()[std::size_t(t[0])], b = sphere.points()[std::size_t(t[1])];
        const Vec3f origin = randomPoint(random, 1.0f);
        const Vec3f target = i % 2 == 0 ? a : mix(a, b, random.nextFloat());
        SurfaceHit hit;
        ASSERT_TRUE(sphere.rayIntersect(origin, target - origin, hit));
        EXPECT_NEAR(hit.distance, 1.0f, 1e-4f);
    }
}

TEST(Bvh, SeesBothSidesAndOnlyAhead) {
    const ScalpMesh plane = makePlane(2, 2, 2.0f);
    SurfaceHit hit;
    ASSERT_TRUE(plane.rayIntersect({0.3f, 1.0f, 0.2f}, {0.0f, -2.0f, 0.0f}, hit));
    EXPECT_FLOAT_EQ(hit.distance, 0.5f);
    EXPECT_NEAR(distance(hit.position, {0.3f, 0.0f, 0.2f}), 0.0f, 1e-6f);
    EXPECT_TRUE(plane.rayIntersect({0.3f, -1.0f, 0.2f}, {0.0f, 1.0f, 0.0f}, hit));
    EXPECT_FALSE(plane.rayIntersect({0.3f, 1.0f, 0.2f}, {0.0f, 1.0f, 0.0f}, hit));
    EXPECT_FALSE(plane.rayIntersect({0.3f, 0.0f, 0.2f}, {0.0f, 1.0f, 0.0f}, hit))
        << "t = 0 is no hit";
    EXPECT_FALSE(plane.rayIntersect({3.0f, 1.0f, 0.2f}, {0.0f, -1.0f, 0.0f}, hit));
}

TEST(Bvh, HoldsAPolygonOfAMillionCorners) {
    const ScalpMesh fan = makeFan(1'000'000, 10.0f);
    SurfaceHit hit;
    ASSERT_TRUE(fan.closestPoint({1.0f, 2.0f, 3.0f}, kInfinity, hit));
    EXPECT_NEAR(hit.distance, 2.0f, 1e-5f);
    ASSERT_TRUE(fan.closestPoint({20.0f, 0.0f, 0.0f}, kInfinity, hit));
    EXPECT_NEAR(hit.distance, 10.0f, 1e-5f);
    EXPECT_TRUE(fan.rayIntersect({1.0f, 2.0f, 3.0f}, {0.0f, -1.0f, 0.0f}, hit));
}

TEST(Bvh, IsBuiltOnceUnderManyThreads) {
    for (int round = 0; round < 20; ++round) {
        const ScalpMesh mesh = makeIcosphere(3, 5.0f);
        std::vector<std::int32_t> found(2000), again(2000);
        const auto ask = [&](std::vector<std::int32_t>& out) {
            parallelRange(0, out.size(), 1, [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i) {
                    SplitMix random(i);
                    SurfaceHit hit;
                    mesh.closestPoint(randomPoint(random, 9.0f), kInfinity, hit);
                    out[i] = hit.triangle;
                }
            });
        };
        runWithThreads(8, [&] { ask(found); });
        runWithThreads(1, [&] { ask(again); });
        ASSERT_EQ(found, again);
    }
}

}  // namespace
}  // namespace corvelle
