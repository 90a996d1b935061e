#include <cmath>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/surfaceGraph.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

StrandRoot rootOf(const ScalpMesh& mesh, SplitMix& random) {
    const float r = std::sqrt(random.nextFloat()), s = random.nextFloat();
    return {std::int32_t(random.nextU64() % mesh.triangles().size()), 1.0f - r, r * s};
}

/// A plane of irregular triangles: points jittered within the plane, by too little to fold it.
ScalpPtr roughPlane(std::uint64_t seed) {
    const ScalpMesh plane = makePlane(30, 30, 10.0f);
    std::vector<Vec3f> points(plane.points().begin(), plane.points().end());
    SplitMix random(seed);
    for (Vec3f& p : points) {
        const bool edge = std::fabs(p.x) > 4.99f || std::fabs(p.z) > 4.99f;
        const float x = random.nextRange(-0.08f, 0.08f), z = random.nextRange(-0.08f, 0.08f);
        if (!edge) p += Vec3f{x, 0.0f, z};
    }
    return plane.withPoints(std::move(points));
}

class SurfaceGraphTest : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, SurfaceGraphTest, testing::Range<std::uint64_t>(0, 6));

TEST_P(SurfaceGraphTest, IsExactOnAPlane) {
    const ScalpPtr plane = roughPlane(GetParam());
    const SurfaceGraph graph(plane);
    SplitMix random(GetParam());
    std::size_t reached = 0;
    for (int i = 0; i < 20; ++i) {
        const StrandRoot from = rootOf(*plane, random);
        const auto front = graph.front(from, 4.0f);
        for (int k = 0; k < 100; ++k) {
            const StrandRoot to = rootOf(*plane, random);
            const Vec3f place = plane->surfacePoint(to);
            const float straight = distance(plane->surfacePoint(from), place);
            const float along = graph.distance(*front, to, place);
            if (straight < 3.999f) {
                EXPECT_NEAR(along, straight, 1e-4f * straight + 1e-6f);
                EXPECT_GE(along, straight * 0.9999999f);
                ++reached;
            } else if (straight > 4.001f) {
                EXPECT_EQ(along, kInfinity);
            }
        }
    }
    EXPECT_GT(reached, 300u);
}

TEST_P(SurfaceGraphTest, FollowsGreatCirclesOnASphere) {
    const ScalpPtr sphere = std::make_shared<const ScalpMesh>(makeIcosphere(5, 10.0f));
    const auto graph = SurfaceGraph::of(sphere);
    SplitMix random(GetParam());
    for (int i = 0; i < 10; ++i) {
        const StrandRoot from = rootOf(*sphere, random);
        const auto front = graph->front(from, 25.0f);
        const Vec3f a = normalized(sphere->surfacePoint(from));
        for (int k = 0; k < 100; ++k) {
            const StrandRoot to = rootOf(*sphere, random);
            const Vec3f place = sphere->surfacePoint(to);
            const float arc =
                10.0f * std::atan2(length(cross(a, normalized(place))), dot(a, place) / 10.0f);
            if (arc > 24.0f) continue;
            EXPECT_NEAR(graph->distance(*front, to, place), arc, 0.006f * arc + 0.01f);
        }
    }
}

TEST(SurfaceGraph, IsOneForAMeshContentAndKeepsFewAlive) {
    const ScalpPtr mesh = std::make_shared<const ScalpMesh>(makeSphere(8, 9, 3.0f));
    const ScalpPtr twin = std::make_shared<const ScalpMesh>(makeSphere(8, 9, 3.0f));
    const auto graph = SurfaceGraph::of(mesh);
    EXPECT_EQ(SurfaceGraph::of(twin), graph);
    const std::weak_ptr<const SurfaceGraph> watched =
        SurfaceGraph::of(mesh->withPoints(jitteredPoints(*mesh, 0.1f, 1)));
    EXPECT_FALSE(watched.expired());
    for (std::uint64_t seed = 2; seed < 6; ++seed)
        SurfaceGraph::of(mesh->withPoints(jitteredPoints(*mesh, 0.1f, seed)));
    EXPECT_TRUE(watched.expired());
}

TEST(SurfaceGraph, CrossesSeamsOfCoincidentPointsButNotGaps) {
    // Two sheets that meet in equal points without sharing them, and a third a gap away.
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    const auto addSheet = [&](float x) {
        const std::int32_t at = std::int32_t(points.size());
        points.insert(points.end(), {{x, 0, 1}, {x + 1, 0, 1}, {x + 1, 0, 0}, {x, 0, 0}});
        triangles.push_back({at, at + 1, at + 2});
        triangles.push_back({at, at + 2, at + 3});
    };
    addSheet(0.0f), addSheet(1.0f), addSheet(2.1f);
    triangles.push_back({0, 0, 5});  // degenerate
    points.push_back({9, 9, 9});     // of no face
    const SurfaceGraph graph(std::make_shared<const ScalpMesh>(points, triangles));
    const StrandRoot from{0, 0.3f, 0.3f};
    const auto front = graph.front(from, 10.0f);
    const StrandRoot over{2, 0.2f, 0.5f}, beyond{4, 0.3f, 0.3f};
    const Vec3f place = graph.mesh()->surfacePoint(over);
    EXPECT_NEAR(graph.distance(*front, over, place),
                distance(place, graph.mesh()->surfacePoint(from)), 1e-5f);
    EXPECT_EQ(graph.distance(*front, beyond, graph.mesh()->surfacePoint(beyond)), kInfinity);
    EXPECT_EQ(graph.front({}, 1.0f), nullptr);
    EXPECT_EQ(graph.front({7, 0.3f, 0.3f}, 1.0f), nullptr);
    EXPECT_EQ(graph.distance(*front, {}, {}), kInfinity);
    // A radius inside the root's own triangle.
    const auto tiny = graph.front(from, 0.01f);
    EXPECT_EQ(graph.distance(*tiny, from, graph.mesh()->surfacePoint(from)), 0.0f);
    EXPECT_EQ(graph.distance(*tiny, over, place), kInfinity);
}

TEST(SurfaceGraph, ReachesAcrossTrianglesLargerThanTheRadius) {
    const auto plane = std::make_shared<const ScalpMesh>(makePlane(3, 3, 300.0f));
    const SurfaceGraph graph(plane);
    SurfaceHit from, to;
    ASSERT_TRUE(plane->closestPoint({-1.0f, 0.0f, 0.5f}, 10.0f, from));
    const auto front = graph.front(from.root(), 3.0f);
    for (int i = 0; i < 16; ++i) {
        const float turn = 0.3927f * float(i);
        ASSERT_TRUE(plane->closestPoint(
            from.position + Vec3f{2.5f * std::cos(turn), 0, 2.5f * std::sin(turn)}, 10.0f, to));
        EXPECT_NEAR(graph.distance(*front, to.root(), to.position), 2.5f, 1e-3f);
    }
}

TEST(SurfaceGraph, HoldsAPolygonOfManyCorners) {
    const SurfaceGraph graph(std::make_shared<const ScalpMesh>(makeFan(100'000, 10.0f)));
    const StrandRoot from{50'000, 0.5f, 0.25f}, to{20'000, 0.3f, 0.3f};
    const auto front = graph.front(from, 100.0f);
    const Vec3f place = graph.mesh()->surfacePoint(to);
    const float straight = distance(graph.mesh()->surfacePoint(from), place);
    EXPECT_NEAR(graph.distance(*front, to, place), straight, 0.03f * straight);
}

TEST(SurfaceFronts, ReuseTheFrontsOfRootsThatStayed) {
    const ScalpPtr sphere = std::make_shared<const ScalpMesh>(makeIcosphere(4, 10.0f));
    const auto graph = SurfaceGraph::of(sphere);
    SplitMix random(1);
    std::vector<StrandRoot> roots;
    for (int i = 0; i < 50; ++i) roots.push_back(rootOf(*sphere, random));
    roots[7] = {};
    const SurfaceFronts first(graph, roots, 6.0f);
    const StrandRoot to = roots[3];
    const Vec3f place = sphere->surfacePoint(to);
    EXPECT_EQ(first.distance(3, to, place), 0.0f);
    EXPECT_EQ(first.distance(7, to, place), kInfinity);
    roots[5] = rootOf(*sphere, random);
    const SurfaceFronts second(graph, roots, 6.0f, &first);
    std::vector<float> one, many;
    for (auto* out : {&one, &many})
        runWithThreads(out == &one ? 1 : 8, [&] {
            const SurfaceFronts fresh(std::make_shared<const SurfaceGraph>(sphere), roots, 6.0f);
            for (std::size_t i = 0; i < fresh.size(); ++i)
                out->push_back(fresh.distance(i, to, place));
        });
    EXPECT_EQ(one, many);
    for (std::size_t i = 0; i < second.size(); ++i)
        EXPECT_EQ(second.distance(i, to, place), one[i]);
}

}  // namespace
}  // namespace corvelle
