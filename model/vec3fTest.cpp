#include <limits>
#include <numbers>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/vec3f.h"

namespace corvelle {
namespace {

Vec3f direction(SplitMix& random) {
    Vec3f d;
    do d = {random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
    while (lengthSquared(d) < 0.01f);
    return normalized(d);
}

void expectNear(Vec3f a, Vec3f b, float tolerance) {
    EXPECT_LE(distance(a, b), tolerance)
        << a.x << " " << a.y << " " << a.z << " against " << b.x << " " << b.y << " " << b.z;
}

float determinant(const Rotation& r) { return dot(r.row0, cross(r.row1, r.row2)); }

TEST(Vec3f, NormalizesAllButZero) {
    EXPECT_EQ(normalized({0, 0, 0}), (Vec3f{0, 0, 0}));
    expectNear(normalized({3, 0, 4}), {0.6f, 0, 0.8f}, 1e-7f);
    EXPECT_FALSE(isFinite({0, std::numeric_limits<float>::quiet_NaN(), 0}));
}

TEST(AnyPerpendicular, IsUnitAndSquareAtAnyLength) {
    SplitMix random(1);
    for (int i = 0; i < 2000; ++i) {
        const Vec3f d = direction(random);
        for (const float scale : {1.0f, 1e-30f, 1e30f}) {
            const Vec3f n = anyPerpendicular(d * scale);
            EXPECT_NEAR(length(n), 1.0f, 1e-6f);
            EXPECT_NEAR(dot(n, d), 0.0f, 1e-6f);
        }
    }
}

TEST(AnyPerpendicular, CrossesWithTheSmallestAxisAndPrefersXThenY) {
    EXPECT_EQ(anyPerpendicular({0, 0, 0}), (Vec3f{1, 0, 0}));
    EXPECT_EQ(anyPerpendicular({std::numeric_limits<float>::infinity(), 0, 0}), (Vec3f{1, 0, 0}));
    expectNear(anyPerpendicular({0, 0, 2}), cross({0, 0, 1}, {1, 0, 0}), 0.0f);
    expectNear(anyPerpendicular({2, 0, 0}), cross({1, 0, 0}, {0, 1, 0}), 0.0f);
    expectNear(anyPerpendicular({3, 2, 1}), normalized(cross({3, 2, 1}, {0, 0, 1})), 1e-7f);
    expectNear(anyPerpendicular({3, 1, 1}), normalized(cross({3, 1, 1}, {0, 1, 0})), 1e-7f);
}

TEST(Rotation, ShortestTakesOneDirectionToTheOtherRigidly) {
    SplitMix random(2);
    for (int i = 0; i < 2000; ++i) {
        const Vec3f from = direction(random), to = direction(random);
        const Rotation r = Rotation::shortest(from, to);
        expectNear(r(from), to, 1e-6f);
        EXPECT_NEAR(determinant(r), 1.0f, 1e-5f);
        const Vec3f axis = cross(from, to);
        expectNear(r(axis), axis, 1e-6f);  // shortest: the axis of the arc stays
        expectNear(r.inverse()(to), from, 1e-6f);
    }
}

TEST(Rotation, ShortestCopesWithOppositeNearlyOppositeAndZeroDirections) {
    SplitMix random(3);
    for (int i = 0; i < 500; ++i) {
        const Vec3f from = direction(random);
        for (const float bend : {0.0f, 1e-7f, 1e-5f, 1e-3f}) {
            const Vec3f to = normalized(anyPerpendicular(from) * bend - from);
            const Rotation r = Rotation::shortest(from, to);
            expectNear(r(from), to, 2e-6f);
            EXPECT_NEAR(determinant(r), 1.0f, 1e-5f);
        }
        const Rotation half = Rotation::shortest(from, -from);
        expectNear(half(anyPerpendicular(from)), anyPerpendicular(from), 2e-6f);
    }
    expectNear(Rotation::shortest({0, 0, 0}, {1, 0, 0})({1, 2, 3}), {1, 2, 3}, 0.0f);
    expectNear(Rotation::shortest({1, 0, 0}, {0, 0, 0})({1, 2, 3}), {1, 2, 3}, 0.0f);
}

TEST(Rotation, AboutTurnsRightHandedAndAfterChains) {
    const float quarter = std::numbers::pi_v<float> / 2;
    const Rotation z = Rotation::about({0, 0, 1}, quarter), x = Rotation::about({1, 0, 0}, quarter);
    expectNear(z({1, 0, 0}), {0, 1, 0}, 1e-6f);
    expectNear(x.after(z)({1, 0, 0}), x(z({1, 0, 0})), 1e-6f);
    expectNear(x.after(z)({1, 0, 0}), {0, 0, 1}, 1e-6f);
    expectNear(z.after(z.inverse())({1, 2, 3}), {1, 2, 3}, 1e-6f);
}

}  // namespace
}  // namespace corvelle
