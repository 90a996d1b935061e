#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/scalpMirror.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

void expectPartners(const ScalpMirror& mirror, std::span<const Vec3f> points, int axis,
                    float tolerance) {
    ASSERT_TRUE(mirror.valid());
    EXPECT_EQ(mirror.axis(), axis);
    for (std::size_t v = 0; v < points.size(); ++v) {
        const std::int32_t partner = mirror.partners()[v];
        if (partner < 0) continue;
        EXPECT_EQ(mirror.partners()[std::size_t(partner)], std::int32_t(v));
        Vec3f image = points[v];
        image[axis] = -image[axis];
        EXPECT_LT(distance(points[std::size_t(partner)], image), tolerance);
    }
}

TEST(ScalpMirror, PairsTheSidesOfSymmetricMeshes) {
    const ScalpMesh sphere = makeSphere(16, 24, 8.0f), plane = makePlane(8, 6, 10.0f);
    expectPartners(ScalpMirror(sphere), sphere.points(), 0, 1e-3f);
    expectPartners(ScalpMirror(plane), plane.points(), 0, 1e-3f);
}

TEST(ScalpMirror, HoldsInEveryPose) {
    const ScalpMesh rest = makeSphere(16, 24, 8.0f);
    std::vector<Vec3f> bent;
    for (const Vec3f& p : rest.points())
        bent.push_back({p.x + 0.1f * p.y * p.y, p.y + 0.3f * p.x, p.z + 5.0f});
    const ScalpPtr posed =
        rest.withRestPoints({rest.points().begin(), rest.points().end()})->withPoints(bent);
    const auto mirror = ScalpMirror::of(posed);
    expectPartners(*mirror, rest.points(), 0, 1e-3f);
    EXPECT_EQ(ScalpMirror::of(posed), mirror) << "made once";
    const auto place = mirror->mirroredPlace(*posed, {40, 0.2f, 0.3f});
    const auto restPlace = mirror->mirroredPlace(rest, {40, 0.2f, 0.3f});
    ASSERT_TRUE(place && restPlace);
    const Vec3f was = *restPlace;
    EXPECT_LT(distance(*place, {was.x + 0.1f * was.y * was.y, was.y + 0.3f * was.x, was.z + 5.0f}),
              0.2f);
    EXPECT_FALSE(mirror->mirroredPlace(*posed, {-1, 0, 0}));
    EXPECT_FALSE(mirror->mirroredPlace(makePlane(2, 2, 1.0f), {0, 0.2f, 0.2f})) << "another mesh";
}

TEST(ScalpMirror, SaysWhenThereIsNone) {
    EXPECT_FALSE(ScalpMirror(ScalpMesh()).valid());
    EXPECT_FALSE(ScalpMirror(makeFan(3, 2.0f)).valid());
    EXPECT_FALSE(ScalpMirror(makeTriangleSoup(500, 10.0f, 1.0f, 3)).valid());
    const ScalpMesh sphere = makeSphere(12, 18, 8.0f);
    const ScalpPtr rough = sphere.withPoints(jitteredPoints(sphere, 0.5f, 4));
    EXPECT_FALSE(ScalpMirror(*rough).valid()) << "no two polygons reflect each other";
}

TEST(ScalpMirror, BearsAnEarThatIsNotQuiteTheOther) {
    const ScalpMesh sphere = makeSphere(24, 32, 8.0f);
    std::vector<Vec3f> points(sphere.points().begin(), sphere.points().end());
    for (Vec3f& p : points)
        if (p.x > 6.0f) p += Vec3f{0.3f, 0.2f, 0.0f};
    const ScalpMirror mirror(*sphere.withPoints(points));
    expectPartners(mirror, points, 0, 0.5f);
}

}  // namespace
}  // namespace corvelle
