#include <cmath>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/subdivisionPlan.h"
#include "model/surfaceTopology.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

ScalpMesh makeCube() {
    std::vector<Vec3f> points;
    for (int i = 0; i < 8; ++i)
        points.push_back({i & 1 ? 1.0f : -1.0f, i & 2 ? 1.0f : -1.0f, i & 4 ? 1.0f : -1.0f});
    const std::int32_t quads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                      {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    std::vector<Triangle> triangles;
    for (const auto& q : quads) {
        triangles.push_back({q[0], q[1], q[2]});
        triangles.push_back({q[0], q[2], q[3]});
    }
    ScalpMesh mesh(points, triangles);
    mesh.setPolygons(std::vector<std::int32_t>(6, 2));
    return mesh;
}

std::string messageOf(auto&& act) {
    try {
        act();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(SubdivisionPlan, GivesTheKnownPointsOfACube) {
    const ScalpMesh cube = makeCube();
    const ScalpPtr refined = SubdivisionPlan(cube, 1).apply(cube);
    ASSERT_EQ(refined->points().size(), 8u + 12u + 6u);
    ASSERT_EQ(refined->triangles().size(), 48u);
    // Vertices go to (Q + 2 R) / 3 with Q = 1/3 and R = 2/3 of the corner; edges to 3/4; faces
    // stay.
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_NEAR(distance(refined->points()[i], cube.points()[i] * (5.0f / 9.0f)), 0.0f, 1e-6f);
    for (std::size_t i = 8; i < 20; ++i) {
        float zeros = 0.0f;
        for (int k = 0; k < 3; ++k) {
            const float c = std::fabs(refined->points()[i][k]);
            EXPECT_TRUE(c == 0.0f || c == 0.75f) << c;
            zeros += c == 0.0f;
        }
        EXPECT_EQ(zeros, 1.0f);
    }
    for (std::size_t i = 20; i < 26; ++i) EXPECT_EQ(length(refined->points()[i]), 1.0f);
}

TEST(SubdivisionPlan, ConvergesToTheLimitSurface) {
    const ScalpMesh cube = makeCube();
    // The limit of a valence 3 vertex: (9 v + 4 sum of edge points' sources + ...) from the masks
    // of Halstead, Kass, DeRose, "Efficient, fair interpolation using Catmull-Clark surfaces",
    // 1993: (n^2 v1 + 4 sum e1 + sum f1) / (n (n + 5)) over the points of the first refinement.
    const ScalpPtr one = SubdivisionPlan(cube, 1).apply(cube);
    const Vec3f corner = one->points()[7];
    Vec3f edges, faces;
    for (std::size_t i = 8; i < 20; ++i)
        if (one->points()[i].x >= 0 && one->points()[i].y >= 0 && one->points()[i].z >= 0)
            edges += one->points()[i];
    for (std::size_t i = 20; i < 26; ++i)
        if (one->points()[i].x + one->points()[i].y + one->points()[i].z > 0)
            faces += one->points()[i];
    const Vec3f limit = (corner * 9.0f + edges * 4.0f + faces) / 24.0f;
    float last = distance(corner, limit);
    for (int levels = 2; levels <= 3; ++levels) {
        const float now = distance(SubdivisionPlan(cube, levels).apply(cube)->points()[7], limit);
        EXPECT_LT(now, 0.5f * last);
        last = now;
    }
    EXPECT_LT(last, 0.02f);
    const ScalpPtr three = SubdivisionPlan(cube, 3).apply(cube);
    EXPECT_EQ(three->triangles().size(), 6u * 64 * 2);
    EXPECT_TRUE(SurfaceTopology(three->triangles(), three->points().size()).openBoundary().empty());
    for (std::size_t t = 0; t < three->triangles().size(); ++t) {
        const Triangle& c = three->triangles()[t];
        const Vec3f middle = three->points()[std::size_t(c[0])] +
                             three->points()[std::size_t(c[1])] +
                             three->points()[std::size_t(c[2])];
        EXPECT_GT(dot(three->faceNormal(std::int32_t(t)), middle), 0.0f) << "windings stay";
    }
}

TEST(SubdivisionPlan, KeepsAPlaneFlatAndItsBoundaryACurve) {
    ScalpMesh plane = makePlane(6, 5, 4.0f);
    std::vector<Color4f> ramp;
    for (const Vec2f uv : plane.uvs()) ramp.push_back({uv.x, uv.y, 0.0f, 1.0f});
    plane.addColorSet("ramp", ramp);
    const SubdivisionPlan plan(plane, 2);
    const ScalpPtr refined = plan.apply(plane);
    EXPECT_EQ(plan.faceCount(), 30u);
    EXPECT_EQ(refined->triangles().size(), 30u * 16 * 2);
    EXPECT_EQ(refined->polygons().size(), 30u * 16);
    for (std::size_t t = 0; t < refined->triangles().size(); ++t)
        EXPECT_EQ(plan.cageFace()[t], std::int32_t(t / 32));
    // Straight sides stay where they are, the four corners are cut like a B-spline's.
    EXPECT_EQ(refined->boundsMin().y, 0.0f);
    EXPECT_EQ(refined->boundsMax().y, 0.0f);
    EXPECT_EQ(refined->boundsMax().x, 2.0f);
    const auto& colors = refined->colorSets().at("ramp");
    for (std::size_t c = 0; c < colors.size(); ++c) {
        EXPECT_EQ(colors[c].r, refined->uvs()[c].x);
        EXPECT_EQ(colors[c].g, refined->uvs()[c].y);
        const Vec3f p = refined->points()[std::size_t(refined->triangles()[c / 3][c % 3])];
        // Inside, positions and UVs stay the same affine map of each other.
        if (std::fabs(p.x) < 1.0f && std::fabs(p.z) < 1.0f) {
            EXPECT_NEAR(p.x, (refined->uvs()[c].x - 0.5f) * 4.0f, 1e-5f);
            EXPECT_NEAR(p.z, (0.5f - refined->uvs()[c].y) * 4.0f, 1e-5f);
        }
    }
}

TEST(SubdivisionPlan, ReusesOnePlanForEveryPose) {
    ScalpMesh cage = makeSphere(8, 10, 3.0f);
    cage.setRestPoints(jitteredPoints(cage, 0.2f, 5));
    const SubdivisionPlan plan(cage, 2);
    const ScalpPtr first = plan.apply(cage);
    const ScalpPtr moved = cage.withPoints(jitteredPoints(cage, 0.3f, 6));
    const ScalpPtr second = plan.apply(*moved);
    EXPECT_EQ(second->triangles().data(), first->triangles().data()) << "shared, not made again";
    EXPECT_EQ(second->uvs().data(), first->uvs().data());
    EXPECT_EQ(second->fullHash(), SubdivisionPlan(*moved, 2).apply(*moved)->fullHash());
    EXPECT_NE(second->contentHash(), first->contentHash());
    EXPECT_EQ(second->restHash(), first->restHash());
    const std::vector<Vec3f> rest = plan.refinePoints(cage.restPoints());
    EXPECT_TRUE(std::equal(rest.begin(), rest.end(), first->restPoints().begin(),
                           first->restPoints().end()));
    std::vector<float> heights;
    for (const Vec3f p : cage.points()) heights.push_back(p.y);
    const std::vector<float> refined = plan.refineValues(heights, 1);
    ASSERT_EQ(refined.size(), first->points().size());
    for (std::size_t i = 0; i < refined.size(); ++i) EXPECT_EQ(refined[i], first->points()[i].y);
    ScalpPtr one, many;
    runWithThreads(1, [&] { one = plan.apply(*moved); });
    runWithThreads(8, [&] { many = plan.apply(*moved); });
    EXPECT_EQ(one->fullHash(), many->fullHash());
}

TEST(SubdivisionPlan, KeepsPiecesAsRuns) {
    const ScalpMesh a = makeSphere(5, 6, 1.0f), b = makePlane(3, 2, 1.0f);
    std::vector<Vec3f> points(a.points().begin(), a.points().end());
    std::vector<Triangle> triangles(a.triangles().begin(), a.triangles().end());
    std::vector<std::int32_t> polygons(a.polygons().begin(), a.polygons().end());
    const std::int32_t shift = std::int32_t(points.size());
    points.insert(points.end(), b.points().begin(), b.points().end());
    polygons.insert(polygons.end(), b.polygons().begin(), b.polygons().end());
    for (Triangle t : b.triangles()) {
        for (std::int32_t& i : t) i += shift;
        triangles.push_back(t);
    }
    ScalpMesh cage(points, triangles);
    cage.setPolygons(polygons);
    cage.setScalps({{"scalp", 0, a.triangles().size(), 0, a.points().size(), 1},
                    {"beard", a.triangles().size(), b.triangles().size(), a.points().size(),
                     b.points().size(), 2}});
    const SubdivisionPlan plan(cage, 2);
    const ScalpPtr refined = plan.apply(cage);
    const ScalpPtr alone = SubdivisionPlan(b, 2).apply(b);
    const ScalpPiece* beard = refined->scalp("beard");
    ASSERT_NE(beard, nullptr);
    EXPECT_EQ(beard->triangleCount, alone->triangles().size());
    ASSERT_EQ(beard->pointCount, alone->points().size());
    for (std::size_t i = 0; i < alone->points().size(); ++i)
        EXPECT_EQ(refined->points()[std::size_t(beard->firstPoint) + i], alone->points()[i]);
    const ScalpPtr limited = plan.apply(*cage.limitedTo(*cage.scalp("beard")));
    EXPECT_EQ(limited->activeTriangles().first, beard->firstTriangle);
    EXPECT_EQ(limited->activeTriangles().second, beard->firstTriangle + beard->triangleCount);
}

TEST(SubdivisionPlan, RefusesWhatItWasNotMadeFor) {
    const ScalpMesh cube = makeCube();
    for (const int levels : {-1, 0, 4})
        EXPECT_EQ(messageOf([&] { SubdivisionPlan(cube, levels); }),
                  "SubdivisionPlan: levels must be 1 to 3");
    const SubdivisionPlan plan(cube, 1);
    ScalpMesh other = cube;
    other.setPolygons(std::vector<std::int32_t>(12, 1));
    for (const ScalpMesh& wrong : {other, makePlane(2, 3, 1.0f)})
        EXPECT_EQ(messageOf([&] { plan.apply(wrong); }), "SubdivisionPlan: not this plan's cage");
    EXPECT_EQ(messageOf([&] { plan.refinePoints(std::vector<Vec3f>(7)); }),
              "SubdivisionPlan: the points are not the cage's");
    EXPECT_EQ(messageOf([&] { plan.refineValues(std::vector<float>(9), 1); }),
              "SubdivisionPlan: the values are not the cage's vertices'");
}

TEST(SubdivisionPlan, TakesBrokenMeshes) {
    // No face; three faces on one edge; a repeated corner; a polygon whose triangles are no fan; a
    // point of no face; a polygon of a hundred thousand corners.
    const ScalpMesh empty({{1, 2, 3}}, {});
    EXPECT_EQ(SubdivisionPlan(empty, 2).apply(empty)->points()[0], (Vec3f{1, 2, 3}));
    ScalpMesh broken({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, -1, 0}, {7, 7, 7}},
                     {{0, 1, 2}, {0, 1, 3}, {0, 1, 4}, {2, 2, 3}});
    broken.setPolygons({2, 0, 2});
    const SubdivisionPlan plan(broken, 3);
    const ScalpPtr refined = plan.apply(broken);
    EXPECT_EQ(refined->points()[5], (Vec3f{7, 7, 7}));
    for (const Vec3f p : refined->points()) EXPECT_TRUE(isFinite(p));
    const ScalpMesh fan = makeFan(100'000, 10.0f);
    const ScalpPtr round = SubdivisionPlan(fan, 1).apply(fan);
    EXPECT_EQ(round->triangles().size(), 200'000u);
    EXPECT_NEAR(round->area(), 100.0 * 3.14159265, 0.1);
}

}  // namespace
}  // namespace corvelle
