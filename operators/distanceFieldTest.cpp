#include "operators/distanceField.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

ScalpPtr shared(ScalpMesh mesh) { return std::make_shared<const ScalpMesh>(std::move(mesh)); }

/// A cube of side 2 round the origin, its faces outward, without shared vertices when `split`.
ScalpMesh makeCube(bool split) {
    std::vector<Vec3f> corners;
    for (int i = 0; i < 8; ++i)
        corners.push_back({i & 1 ? 1.0f : -1.0f, i & 2 ? 1.0f : -1.0f, i & 4 ? 1.0f : -1.0f});
    const int quads[6][4] = {{0, 4, 6, 2}, {1, 3, 7, 5}, {0, 1, 5, 4},
                             {2, 6, 7, 3}, {0, 2, 3, 1}, {4, 5, 7, 6}};
    std::vector<Vec3f> points = split ? std::vector<Vec3f>() : corners;
    std::vector<Triangle> triangles;
    for (const auto& q : quads) {
        std::int32_t v[4] = {q[0], q[1], q[2], q[3]};
        if (split)
            for (std::int32_t& i : v) {
                points.push_back(corners[std::size_t(i)]);
                i = std::int32_t(points.size()) - 1;
            }
        triangles.push_back({v[0], v[1], v[2]});
        triangles.push_back({v[0], v[2], v[3]});
    }
    return ScalpMesh(points, triangles);
}

float cubeDistance(Vec3f p) {
    const Vec3f q{std::fabs(p.x) - 1.0f, std::fabs(p.y) - 1.0f, std::fabs(p.z) - 1.0f};
    const float outside = length(componentMax(q, {}));
    return outside + std::min(std::max({q.x, q.y, q.z}), 0.0f);
}

TEST(ClosestOnTriangle, IsTheNearestOfManyPointsOfIt) {
    SplitMix random(1);
    const auto any = [&] {
        return Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
    };
    for (int i = 0; i < 400; ++i) {
        const Vec3f a = any(), b = i % 5 == 0 ? a : any(), c = i % 7 == 0 ? mix(a, b, 2.0f) : any();
        const Vec3f p = any();
        const TrianglePoint at = closestOnTriangle(p, a, b, c);
        ASSERT_TRUE(isFinite(at.point));
        for (int k = 0; k < 60; ++k) {
            const float s = std::sqrt(random.nextFloat()), t = random.nextFloat();
            const Vec3f q = a * (1 - s) + b * (s * t) + c * (s * (1 - t));
            EXPECT_LE(distance(p, at.point), distance(p, q) + 1e-5f);
        }
    }
}

TEST(ExactDistance, TellsInsideFromOutsideAtFacesEdgesAndCorners) {
    for (const bool split : {false, true}) {  // a seam is no border
        const ExactDistance exact(shared(makeCube(split)));
        SplitMix random(3);
        for (int i = 0; i < 5000; ++i) {
            const Vec3f p{random.nextRange(-2, 2), random.nextRange(-2, 2), random.nextRange(-2, 2)};
            std::int32_t nearTriangle = -1;
            DistanceSample sample;
            ASSERT_TRUE(exact.sample(p, ScalpMesh::kAnyDistance, nearTriangle, sample));
            EXPECT_NEAR(sample.distance, cubeDistance(p), 1e-5f);
            const Vec3f surface = p - sample.gradient * sample.distance;
            EXPECT_NEAR(cubeDistance(surface), 0.0f, 1e-5f);
        }
    }
}

TEST(ExactDistance, AnOpenSheetHasAnInsideUnderItAloneAndABorderIsOutside) {
    const ExactDistance exact(shared(makePlane(4, 4, 2.0f)));
    const auto at = [&](Vec3f p) {
        std::int32_t nearTriangle = -1;
        DistanceSample sample;
        EXPECT_TRUE(exact.sample(p, ScalpMesh::kAnyDistance, nearTriangle, sample));
        return sample.distance;
    };
    EXPECT_FLOAT_EQ(at({0.1f, 0.5f, 0.2f}), 0.5f);
    EXPECT_FLOAT_EQ(at({0.1f, -0.5f, 0.2f}), -0.5f);
    EXPECT_GT(at({1.5f, -0.1f, 0.0f}), 0.0f);
    std::int32_t nearTriangle = -1;
    DistanceSample sample;
    EXPECT_FALSE(exact.sample({0, 5, 0}, 1.0f, nearTriangle, sample));
}

TEST(DistanceField, AgreesWithTheExactDistanceOnASphere) {
    const ScalpMesh sphere = makeSphere(48, 96, 10.0f);
    const DistanceField field(sphere, 0.5f);
    const ExactDistance exact(shared(sphere));
    SplitMix random(9);
    std::size_t places = 0, aligned = 0;
    for (int i = 0; i < 20000; ++i) {
        Vec3f p{random.nextRange(-12, 12), random.nextRange(-12, 12), random.nextRange(-12, 12)};
        std::int32_t nearTriangle = -1;
        DistanceSample want;
        ASSERT_TRUE(exact.sample(p, ScalpMesh::kAnyDistance, nearTriangle, want));
        const DistanceSample got = field.sample(p);
        // Beyond the grid it may say more, never less.
        const float error = got.distance - want.distance;
        if (std::fabs(want.distance) < 0.5f) {
            EXPECT_LT(std::fabs(error), 0.02f);
        } else {
            EXPECT_GT(error, -0.005f * std::fabs(want.distance));
        }
        if (want.distance < 0.0f) {
            EXPECT_LT(error, 0.005f * std::fabs(want.distance) + 0.02f);
        }
        if (length(p) > 5.0f) {
            ++places;
            aligned += dot(got.gradient, want.gradient) > 0.95f;
        }
        EXPECT_EQ(got.distance, field.distance(p));
        if (std::fabs(want.distance) > 0.02f) {
            EXPECT_EQ(got.distance < 0.0f, want.distance < 0.0f) << want.distance;
        }
    }
    EXPECT_GT(aligned, places * 99 / 100);
}

ScalpMesh makeTorus(int around, int across) {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    const auto vertex = [&](int i, int j) { return i % around * across + j % across; };
    for (int i = 0; i < around; ++i)
        for (int j = 0; j < across; ++j) {
            const float u = 6.2831853f * float(i) / float(around);
            const float v = 6.2831853f * float(j) / float(across);
            const float r = 8.0f + 3.0f * std::cos(v);
            points.push_back({r * std::cos(u), 3.0f * std::sin(v), r * std::sin(u)});
            triangles.push_back({vertex(i, j), vertex(i, j + 1), vertex(i + 1, j)});
            triangles.push_back({vertex(i, j + 1), vertex(i + 1, j + 1), vertex(i + 1, j)});
        }
    return ScalpMesh(points, triangles);
}

TEST(DistanceField, FarNodesHoldTheDistanceToATriangleAsGoodAsTheClosest) {
    const ScalpMesh smooth = makeIcosphere(5, 5.0f);
    const ScalpMesh bumpy(jitteredPoints(smooth, 0.05f, 3),
                          {smooth.triangles().begin(), smooth.triangles().end()});
    for (const ScalpMesh& mesh : {makeTorus(160, 90), bumpy}) {
        const DistanceField field(mesh, 0.1f);
        const ExactDistance exact(shared(mesh));
        const FieldGrid grid = field.grid();
        SplitMix random(4);
        std::size_t far = 0, off = 0;
        double sum = 0.0, most = 0.0;
        for (int i = 0; i < 40000; ++i) {
            const std::size_t n = std::size_t(random.nextU64() % field.nodeCount());
            const std::size_t at[3] = {n % grid.row, n % grid.plane / grid.row, n / grid.plane};
            Vec3f p;
            for (int axis = 0; axis < 3; ++axis)
                p[axis] = grid.low[axis] + float(at[axis]) * field.cell();
            std::int32_t nearTriangle = -1;
            DistanceSample want;
            ASSERT_TRUE(exact.sample(p, ScalpMesh::kAnyDistance, nearTriangle, want));
            const float depth = std::fabs(want.distance);
            if (depth < 2.0f * field.cell()) continue;
            EXPECT_EQ(grid.values[n] < 0.0f, want.distance < 0.0f);
            const double error = double(std::fabs(grid.values[n]) - depth) / double(depth);
            EXPECT_GE(error, -1e-5);
            ++far;
            off += error > 0.005;
            sum += error;
            most = std::max(most, error);
        }
        EXPECT_GT(far, 20000u);
        EXPECT_LT(sum / double(far), 0.0005);
        EXPECT_LT(off, far / 100);
        EXPECT_LT(most, 0.03);
    }
}

TEST(DistanceField, ItsQuickAnswersAreNeverWrong) {
    for (const ScalpMesh& mesh : {makeSphere(16, 24, 4.0f), makePlane(6, 6, 9.0f), makeCube(false),
                                  makeTriangleSoup(200, 4.0f, 2.0f, 2)}) {
        const DistanceField field(mesh, 0.1f);
        SplitMix random(11);
        std::size_t quick = 0;
        std::vector<Vec3f> places;
        for (int i = 0; i < 20000; ++i) {
            const Vec3f p{random.nextRange(-7, 7), random.nextRange(-7, 7), random.nextRange(-7, 7)};
            places.push_back(p);
            const DistanceSample whole = field.sample(p);
            DistanceSample within;
            EXPECT_EQ(field.sampleWithin(p, -0.5f, 0.1f, within),
                      whole.distance >= -0.5f && whole.distance < 0.1f);
            if (field.sampleWithin(p, -9.0f, 9.0f, within)) {
                EXPECT_EQ(within.distance, whole.distance);
                EXPECT_EQ(within.gradient, whole.gradient);
            }
            if (!field.surelyOutside(p, -0.5f, 0.1f)) continue;
            ++quick;
            const float d = field.distance(p);
            EXPECT_TRUE(d >= 0.1f || d < -0.5f) << d;
        }
        EXPECT_GT(quick, 300u);
        places[3].x = places[40].z = std::nanf("");
        places[41] = {1e30f, -1e30f, 0.0f};
        for (std::size_t i = 0; i + 32 <= 2000; i += 7) {
            const auto some = std::span<const Vec3f>(places).subspan(i, i % 33);
            std::uint32_t wanted = 0;
            for (std::size_t k = 0; k < some.size(); ++k)
                wanted |= std::uint32_t(!field.surelyOutside(some[k], -0.5f, 0.1f)) << k;
            EXPECT_EQ(field.perhapsWithin(some, -0.5f, 0.1f), wanted);
        }
        places[3] = places[40] = {};
        std::vector<float> batch(places.size());
        field.distances(places, batch);
        for (std::size_t i = 0; i < places.size(); i += 97)
            EXPECT_EQ(batch[i], field.distance(places[i]));
    }
}

/// What a grid says at a place: trilinear, and beyond its border by the distance to that.
float readGrid(const FieldGrid& grid, Vec3f p) {
    Vec3f at, off;
    std::size_t first = 0;
    const std::size_t strides[3] = {1, grid.row, grid.plane};
    for (int x = 0; x < 3; ++x) {
        const float place = (p[x] - grid.low[x]) * grid.inverse;
        const float inside = std::clamp(place, 0.0f, grid.last[x]);
        const float cell = std::min(std::floor(inside), grid.last[x] - 1.0f);
        off[x] = (place - inside) * grid.cell;
        at[x] = inside - cell;
        first += std::size_t(cell) * strides[x];
    }
    float sum = 0.0f;
    for (std::size_t c = 0; c < 8; ++c) {
        float weight = 1.0f;
        std::size_t node = first;
        for (int x = 0; x < 3; ++x) {
            const bool far = (c >> x & 1) != 0;
            weight *= far ? at[x] : 1.0f - at[x];
            node += far ? strides[x] : 0;
        }
        sum += weight * grid.values[node];
    }
    return sum + length(off);
}

TEST(DistanceField, ItsFloorLiesCloseBelow) {
    for (const ScalpMesh& mesh : {makeSphere(96, 192, 4.0f), makePlane(6, 6, 9.0f),
                                  makeCube(false), makeTriangleSoup(200, 4.0f, 2.0f, 2)}) {
        const DistanceField field(mesh, 0.1f);
        const bool smooth = mesh.triangles().size() > 10'000;
        SplitMix random(12);
        double gap = 0.0;
        for (int i = 0; i < 20000; ++i) {
            const Vec3f p{random.nextRange(-7, 7), random.nextRange(-7, 7), random.nextRange(-7, 7)};
            const float own = field.distance(p), below = readGrid(field.floor(), p);
            EXPECT_NEAR(readGrid(field.grid(), p), own, 1e-4f);
            EXPECT_LE(below, own);
            gap += own - below;
        }
        if (smooth) {
            EXPECT_LT(gap / 20000.0, double(field.cell()));
        }
    }
}

TEST(DistanceField, GivesTheSameBitsOnOneThreadAndOnMany) {
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u})
        runWithThreads(threads, [&] {
            hashes.insert(DistanceField(makeTriangleSoup(500, 4.0f, 1.0f, 8), 0.2f).contentHash());
        });
    EXPECT_EQ(hashes.size(), 1u);
}

TEST(DistanceField, RefusesMeshesWithoutASizeOrTooBig) {
    const ScalpMesh point({{1, 2, 3}, {1, 2, 3}, {1, 2, 3}}, {{0, 1, 2}});
    const ScalpMesh huge({{0, 0, 0}, {2e6f, 0, 0}, {0, 1, 0}}, {{0, 1, 2}});
    const ScalpMesh broken({{0, 0, 0}, {NAN, 0, 0}, {0, 1, 0}}, {{0, 1, 2}});
    EXPECT_EQ(DistanceField::refusal(ScalpMesh()), "its scalp has no size");
    EXPECT_EQ(DistanceField::refusal(point), "its scalp has no size");
    EXPECT_EQ(DistanceField::refusal(huge),
              "its scalp is too big for the clearance field's grid");
    EXPECT_EQ(DistanceField::refusal(broken),
              "its scalp is too big for the clearance field's grid");
    EXPECT_THROW(DistanceField(point, 0.1f), std::invalid_argument);
    std::string why;
    EXPECT_EQ(sharedDistanceField(shared(huge), 0.1f, &why), nullptr);
    EXPECT_EQ(why, "its scalp is too big for the clearance field's grid");
}

TEST(DistanceField, IsSharedByContentAndFollowsTheOffsetNotTheHistory) {
    const ScalpPtr a = shared(makeSphere(8, 12, 3.0f)), b = shared(makeSphere(8, 12, 3.0f));
    const DistanceFieldPtr field = sharedDistanceField(a, 0.05f);
    EXPECT_EQ(sharedDistanceField(b, 0.06f), field);
    const DistanceFieldPtr wide = sharedDistanceField(a, 2.0f);
    EXPECT_NE(wide, field);
    EXPECT_EQ(sharedDistanceField(a, 0.05f), field);
    for (int i = 0; i < 4; ++i) sharedDistanceField(shared(makeSphere(6, 9, 1.0f + float(i))), 0.1f);
    const DistanceFieldPtr again = sharedDistanceField(a, 0.05f);  // four others pushed it out
    EXPECT_NE(again, field);
    EXPECT_EQ(again->contentHash(), field->contentHash());
}

}  // namespace
}  // namespace corvelle
