#include <cmath>
#include <functional>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/carry.h"
#include "model/hash.h"
#include "model/scalpMesh.h"
#include "model/surfaceTopology.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

template <class Error>
std::string messageOf(const std::function<void()>& act) {
    try {
        act();
    } catch (const Error& error) {
        return error.what();
    }
    return "nothing was thrown";
}
using Invalid = std::invalid_argument;

StrandRoot rootOf(const ScalpMesh& mesh, SplitMix& random) {
    const float r = std::sqrt(random.nextFloat()), s = random.nextFloat();
    return {std::int32_t(random.nextU64() % mesh.triangles().size()), 1.0f - r, r * s};
}

TEST(ScalpMesh, RefusesWhatDoesNotFitAndStaysAsItWas) {
    EXPECT_EQ(messageOf<std::out_of_range>([] {
                  ScalpMesh({{}, {}, {}}, {{0, 1, 3}});
              }),
              "ScalpMesh: triangle index out of range");
    EXPECT_EQ(messageOf<std::out_of_range>([] {
                  ScalpMesh({{}, {}, {}}, {{0, -1, 2}});
              }),
              "ScalpMesh: triangle index out of range");
    ScalpMesh mesh = makePlane(2, 2, 1.0f);
    mesh.addColorSet("tone", std::vector<Color4f>(24));
    const std::uint64_t before = mesh.fullHash();
    const auto refused = [&](const std::function<void()>& act) { return messageOf<Invalid>(act); };
    EXPECT_EQ(refused([&] { mesh.setUvs(std::vector<Vec2f>(23)); }),
              "ScalpMesh: expected one UV per triangle corner");
    EXPECT_EQ(refused([&] { mesh.addColorSet("tone", {}); }),
              "ScalpMesh: expected one color per triangle corner");
    EXPECT_EQ(refused([&] {
                  mesh.setPolygons({4, -1, 5});
              }),
              "ScalpMesh: a polygon with a negative triangle count");
    EXPECT_EQ(refused([&] {
                  mesh.setPolygons({4, 3});
              }),
              "ScalpMesh: the polygons' triangles (7) are not the mesh's (8)");
    EXPECT_EQ(refused([&] { mesh.setRestPoints(std::vector<Vec3f>(8)); }),
              "ScalpMesh: rest points must match the mesh's point count");
    EXPECT_EQ(refused([&] { mesh.withPoints(std::vector<Vec3f>(10)); }),
              "ScalpMesh: new points must match the mesh's point count");
    EXPECT_EQ(refused([&] { mesh.setSubdivision(4, ""); }),
              "ScalpMesh: subdivision levels must be 0 to 3");
    const ScalpPiece first{"scalp", 0, 4, 0, 5, 1};
    EXPECT_EQ(refused([&] {
                  mesh.setScalps({first, {"beard", 5, 3, 5, 4, 2}});
              }),
              "ScalpMesh: the scalp 'beard' does not follow the one before it");
    EXPECT_EQ(refused([&] {
                  mesh.setScalps({first, {"beard", 4, 4, 6, 3, 2}});
              }),
              "ScalpMesh: the scalp 'beard' does not follow the one before it");
    for (const ScalpPiece& last :
         {ScalpPiece{"beard", 4, 3, 5, 4, 2}, ScalpPiece{"beard", 4, 4, 5, 5, 2},
          ScalpPiece{"beard", 4, ~0ull, 5, ~0ull, 2}})
        EXPECT_EQ(refused([&] {
                      mesh.setScalps({first, last});
                  }),
                  "ScalpMesh: the scalps' triangles and points are not the mesh's");
    EXPECT_EQ(mesh.fullHash(), before);
    mesh.setScalps({first, {"beard", 4, 4, 5, 4, 2}});
    EXPECT_NE(mesh.fullHash(), before);
    ASSERT_NE(mesh.scalp("beard"), nullptr);
    EXPECT_EQ(mesh.scalp("nose"), nullptr);
    mesh.setScalps({});
    EXPECT_TRUE(mesh.scalps().empty());
}

TEST(ScalpMesh, AnswersWithoutFaces) {
    for (const ScalpMesh& mesh : {ScalpMesh(), ScalpMesh({{1, 2, 3}}, {})}) {
        SurfaceHit hit;
        EXPECT_FALSE(mesh.closestPoint({}, ScalpMesh::kAnyDistance, hit));
        EXPECT_FALSE(mesh.closestPointFrom({}, ScalpMesh::kAnyDistance, 0, hit));
        EXPECT_FALSE(mesh.rayIntersect({}, {0, 1, 0}, hit));
        EXPECT_EQ(mesh.area(), 0.0);
        EXPECT_EQ(mesh.size(), 0.0f);
        EXPECT_EQ(mesh.surfacePoint({0, 0.2f, 0.2f}), Vec3f{});
    }
}

TEST(ScalpMesh, KeepsTheHashesThatSavedGroomsDependOn) {
    const ScalpMesh mesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{0, 1, 2}, {0, 2, 3}});
    std::uint64_t topology = mix64(2);
    for (const std::int32_t i : {0, 1, 2, 0, 2, 3}) topology = hashCombine(topology, i);
    EXPECT_EQ(mesh.topologyHash(), topology);
    EXPECT_EQ(mesh.topologyHash(), 10823422616428747022u);
    EXPECT_EQ(mesh.contentHash(), 6966560653611901710u);
    EXPECT_EQ(mesh.fullHash(), 14562614356539266964u);
}

TEST(ScalpMesh, HashesWhatEachIsNamedFor) {
    ScalpMesh mesh = makeSphere(6, 8, 3.0f);
    const auto all = [&] {
        return std::array{mesh.topologyHash(), mesh.contentHash(), mesh.restHash(),
                          mesh.fullHash()};
    };
    auto before = all();
    EXPECT_EQ(mesh.restHash(), mesh.contentHash());
    const auto changes = [&](std::array<bool, 4> expected) {
        const auto now = all();
        for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(now[i] != before[i], expected[i]) << i;
        before = now;
    };
    mesh.setUvs({});
    changes({false, false, false, true});
    mesh.addColorSet("a", std::vector<Color4f>(3 * mesh.triangles().size()));
    changes({false, false, false, true});
    mesh.setPolygons({});
    changes({false, false, false, true});
    mesh.setSubdivision(2, "render settings");
    changes({false, false, false, true});
    mesh.setRestPoints(jitteredPoints(mesh, 0.1f, 1));
    changes({false, false, true, true});
    EXPECT_EQ(mesh.restHash(), mesh.restPose()->contentHash());
    mesh.clearRestPoints();
    changes({false, false, true, true});
    const ScalpPtr moved = mesh.withPoints(jitteredPoints(mesh, 0.1f, 2));
    EXPECT_EQ(moved->topologyHash(), mesh.topologyHash());
    EXPECT_NE(moved->contentHash(), mesh.contentHash());
    EXPECT_EQ(moved->extrasHash(), mesh.extrasHash());
    EXPECT_EQ(moved->withPoints({mesh.points().begin(), mesh.points().end()})->fullHash(),
              mesh.fullHash());
}

TEST(ScalpMesh, SharesExtrasUntilOneMeshWritesThem) {
    ScalpMesh mesh = makePlane(3, 3, 2.0f);
    ScalpMesh copy = mesh;
    copy.setUvs({});
    EXPECT_FALSE(mesh.uvs().empty());
    const ScalpPtr moved = mesh.withPoints(jitteredPoints(mesh, 1.0f, 3));
    EXPECT_EQ(moved->uvs().data(), mesh.uvs().data());
    EXPECT_EQ(moved->triangles().data(), mesh.triangles().data());
    mesh.addColorSet("x", std::vector<Color4f>(3 * mesh.triangles().size()));
    EXPECT_TRUE(moved->colorSets().empty());
}

TEST(ScalpMesh, MeasuresItsSurface) {
    const ScalpMesh sphere = makeIcosphere(5, 10.0f);
    EXPECT_NEAR(sphere.area() / (4.0 * 3.14159265 * 100.0), 1.0, 2e-3);
    EXPECT_NEAR(sphere.size(), 20.0f, 0.1f);
    for (std::size_t i = 0; i < sphere.points().size(); ++i)
        ASSERT_NEAR(dot(sphere.normals()[i], sphere.points()[i]), 10.0f, 1e-3f);
    std::vector<Vec3f> rest(sphere.points().begin(), sphere.points().end());
    for (Vec3f& p : rest) p *= 3.0f;
    const ScalpPtr posed = sphere.withRestPoints(rest);
    EXPECT_NEAR(posed->size(), 60.0f, 0.3f);
    EXPECT_EQ(posed->boundsMax(), sphere.boundsMax());
    EXPECT_EQ(posed->withRestPoints({})->fullHash(), sphere.fullHash());
    // A cube's corner: the three faces count alike, however they are cut into triangles.
    const ScalpMesh corner(
        {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}},
        {{0, 2, 1}, {0, 3, 2}, {0, 1, 5}, {0, 5, 4}, {0, 4, 6}, {0, 6, 3}});
    EXPECT_NEAR(distance(corner.normals()[0], normalized({-1, -1, -1})), 0.0f, 1e-5f);
    EXPECT_EQ(ScalpMesh({{0, 0, 0}, {1, 0, 0}, {5, 5, 5}}, {{0, 1, 1}}).normals()[2], Vec3f{});
}

TEST(ScalpMesh, LimitsQueriesToAPieceAndKeepsTheNumbers) {
    ScalpMesh mesh = makePlane(8, 8, 8.0f);
    const ScalpPiece piece{"beard", 40, 30, 0, 0, 0};
    const ScalpPtr limited = mesh.limitedTo(piece);
    EXPECT_EQ(limited->activeTriangles(), std::make_pair(std::size_t(40), std::size_t(70)));
    EXPECT_EQ(limited->topologyHash(), mesh.topologyHash());
    EXPECT_NE(limited->contentHash(), mesh.contentHash());
    SplitMix random(4);
    std::size_t outside = 0;
    for (int i = 0; i < 200; ++i) {
        const StrandRoot root = rootOf(mesh, random);
        const Vec3f above = mesh.surfacePoint(root) + Vec3f{0, 0.5f, 0};
        SurfaceHit hit;
        ASSERT_TRUE(limited->closestPointFrom(above, ScalpMesh::kAnyDistance, root.triangle, hit));
        EXPECT_TRUE(hit.triangle >= 40 && hit.triangle < 70);
        const bool inside = root.triangle >= 40 && root.triangle < 70;
        EXPECT_EQ(limited->rayIntersect(above, {0, -1, 0}, hit), inside);
        outside += !inside;
        EXPECT_EQ(limited->surfacePoint(root), mesh.surfacePoint(root));
    }
    EXPECT_GT(outside, 50u);
    EXPECT_EQ(mesh.limitedTo({"far", 1000, 5, 0, 0, 0})->activeTriangles().first,
              mesh.triangles().size());
}

class SurfaceTest : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, SurfaceTest, testing::Range<std::uint64_t>(0, 12));

TEST_P(SurfaceTest, FramesAreOrthonormalEvenOnBrokenTriangles) {
    const ScalpMesh mesh = GetParam() % 2 == 0 ? makeTriangleSoup(200, 5.0f, 2.0f, GetParam())
                                               : makeSphere(9, 12, 4.0f);
    SplitMix random(GetParam());
    for (int i = 0; i < 300; ++i) {
        const StrandRoot root = rootOf(mesh, random);
        const SurfaceFrame f = mesh.surfaceFrame(root);
        EXPECT_NEAR(length(f.normal), 1.0f, 1e-5f);
        EXPECT_NEAR(length(f.tangent), 1.0f, 1e-5f);
        EXPECT_NEAR(length(f.binormal), 1.0f, 1e-5f);
        EXPECT_NEAR(dot(f.normal, f.tangent), 0.0f, 1e-5f);
        EXPECT_NEAR(distance(cross(f.normal, f.tangent), f.binormal), 0.0f, 1e-6f);
        EXPECT_EQ(f.origin, mesh.surfacePoint(root));
        const Vec3f u = mesh.surfaceTangentU(root);
        EXPECT_NEAR(dot(u, mesh.surfaceNormal(root)), 0.0f, 1e-5f);
        EXPECT_TRUE(u == Vec3f{} || std::fabs(length(u) - 1.0f) < 1e-5f);
    }
    EXPECT_EQ(mesh.surfaceFrame({}).normal, (Vec3f{0, 1, 0}));
}

TEST_P(SurfaceTest, CarryThereAndBackIsNoMove) {
    const ScalpMesh a = makeSphere(9, 12, 4.0f);
    const ScalpPtr b = a.withPoints(jitteredPoints(a, 0.4f, GetParam()));
    SplitMix random(GetParam());
    float farthest = 0.0f;
    for (int i = 0; i < 200; ++i) {
        const StrandRoot root = rootOf(a, random);
        std::vector<Vec3f> strand{a.surfacePoint(root)};
        for (int k = 0; k < 6; ++k)
            strand.push_back(strand.back() + Vec3f{0.3f, 0.5f, random.nextFloat()});
        std::vector<Vec3f> there(strand.size()), back(strand.size());
        carry(strand, root, a, *b, there);
        carry(there, root, *b, a, back);
        EXPECT_NEAR(distance(there[0], b->surfacePoint(root)), 0.0f, 1e-5f);
        for (std::size_t k = 0; k < strand.size(); ++k) {
            EXPECT_NEAR(distance(back[k], strand[k]), 0.0f, 2e-4f);
            EXPECT_NEAR(distance(there[k], there[0]), distance(strand[k], strand[0]), 1e-4f)
                << "rigid";
            farthest = std::max(farthest, distance(there[k], strand[k]));
        }
    }
    EXPECT_GT(farthest, 0.5f) << "this motion is too easy to prove anything";
}

TEST(Carry, FollowsARigidMotionExactlyAndCopiesWhatStoodStill) {
    const ScalpMesh a = makeSphere(9, 12, 4.0f);
    const Rotation turn = Rotation::about(normalized({1, 2, 3}), 2.2f);
    const Vec3f shift{5, -3, 11};
    std::vector<Vec3f> points(a.points().begin(), a.points().end());
    for (Vec3f& p : points) p = turn(p) + shift;
    const ScalpPtr b = a.withPoints(points);
    SplitMix random(8);
    for (int i = 0; i < 200; ++i) {
        const StrandRoot root = rootOf(a, random);
        const Vec3f p = a.surfacePoint(root) + Vec3f{1, 2, 0.5f};
        Vec3f out;
        carry(std::span(&p, 1), root, a, *b, std::span(&out, 1));
        EXPECT_NEAR(distance(out, turn(p) + shift), 0.0f, 1e-4f);
        EXPECT_TRUE(
            rootMotion(root, a, *a.withPoints({a.points().begin(), a.points().end()})).identity);
    }
    const Vec3f p{0.1f, 0.2f, 0.3f};
    for (const StrandRoot root : {StrandRoot{}, StrandRoot{100000, 0.3f, 0.3f}}) {
        Vec3f out;
        carry(std::span(&p, 1), root, a, *b, std::span(&out, 1));
        EXPECT_EQ(out, p);
    }
}

TEST(SurfaceTopology, KnowsEdgesBoundaryAndNeighbours) {
    const ScalpMesh plane = makePlane(5, 4, 1.0f);
    const SurfaceTopology open(plane.triangles(), plane.points().size());
    EXPECT_EQ(open.openBoundary().size(), 2u * (5 + 4));
    EXPECT_EQ(open.nonManifoldEdges(), 0u);
    for (const BoundaryEdge& e : open.openBoundary()) {
        const Triangle& t = plane.triangles()[std::size_t(e.triangle)];
        EXPECT_EQ(t[std::size_t(e.side)], e.from);
        EXPECT_EQ(t[std::size_t((e.side + 1) % 3)], e.to);
        EXPECT_EQ(open.across(e.triangle, e.side), -1);
    }
    const ScalpMesh ball = makeSphere(6, 9, 1.0f);
    const SurfaceTopology closed(ball.triangles(), ball.points().size());
    EXPECT_TRUE(closed.openBoundary().empty());
    for (std::int32_t t = 0; t < std::int32_t(ball.triangles().size()); ++t)
        for (int side = 0; side < 3; ++side) {
            const std::int32_t other = closed.across(t, side);
            ASSERT_GE(other, 0);
            EXPECT_TRUE(closed.across(other, 0) == t || closed.across(other, 1) == t ||
                        closed.across(other, 2) == t);
        }
    EXPECT_EQ(closed.neighborsOf(0).size(), 9u);
    EXPECT_EQ(closed.trianglesOf(0).size(), 9u);
    // Three leaves on one edge, a triangle with a repeated corner, a point of no face.
    const SurfaceTopology book(std::vector<Triangle>{{0, 1, 2}, {0, 1, 3}, {1, 0, 4}, {2, 2, 5}},
                               7);
    EXPECT_EQ(book.nonManifoldEdges(), 1u);
    EXPECT_EQ(book.across(0, 0), -1);
    EXPECT_EQ(book.openBoundary().size(), 6u);
    EXPECT_THAT(book.neighborsOf(1), testing::ElementsAre(0, 2, 3, 4));
    EXPECT_THAT(book.trianglesOf(2), testing::ElementsAre(0, 3));
    EXPECT_TRUE(book.neighborsOf(6).empty());
}

}  // namespace
}  // namespace corvelle
