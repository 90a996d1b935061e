// What Part, Flow, Flyaway and Gravity do to hair on a sphere, and what they say when they cannot.

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "model/flowData.h"
#include "model/hash.h"
#include "model/partData.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "operators/flow.h"
#include "operators/flyaway.h"
#include "operators/laneKernels.h"
#include "operators/part.h"
#include "operators/rootFrame.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;

float degreesBetween(Vec3f a, Vec3f b) {
    return std::atan2(length(cross(a, b)), dot(a, b)) / kRadians;
}

/// Strands all over a sphere, each bending away from the normal in a direction of its own.
StrandSet sphereHair(const ScalpMesh& sphere, std::size_t count, float length) {
    StrandSet set;
    SplitMix random(21);
    for (std::size_t s = 0; s < count; ++s) {
        const float a = std::sqrt(random.nextFloat()), b = random.nextFloat();
        const StrandRoot root{std::int32_t(random.nextU64() % sphere.triangles().size()), 1.0f - a,
                              a * (1.0f - b)};
        const Vec3f normal = sphere.surfaceNormal(root);
        const Vec3f side =
            Rotation::about(normal, random.nextRange(0.0f, 6.2f))(anyPerpendicular(normal));
        std::vector<Vec3f> points;
        for (int i = 0; i < 9; ++i) {
            const float t = float(i) / 8.0f;
            points.push_back(sphere.surfacePoint(root) + normal * (length * (t - 0.3f * t * t)) +
                             side * (0.6f * length * t * t));
        }
        set.addStrand(mix64(s), points, {}, root);
    }
    return set;
}

class PartFlowTest : public testing::Test {
protected:
    const ScalpPtr sphere = std::make_shared<const ScalpMesh>(makeSphere(32, 48, 10.0f));
    const StrandSet hair = sphereHair(*sphere, 2000, 3.0f);

    PartLine lineAt(const std::string& name, float x) const {
        PartLine line{name, {}};
        for (int i = -20; i <= 20; ++i) {
            SurfaceHit hit;
            sphere->closestPoint({x, 9.0f, 0.3f * float(i)}, 5.0f, hit);
            line.points.push_back(hit.root());
        }
        return line;
    }
    StrandsPtr run(NodeBench& bench, const StrandSet& strands) {
        bench.data.scalp = sphere;
        bench.feed(strands);
        return bench.evaluate();
    }
    StrandsPtr run(NodeBench& bench) { return run(bench, hair); }
    Vec3f normalOf(const StrandSet& set, std::size_t s) const {
        return sphere->surfaceNormal(set.roots()[s]);
    }
};

void expectSameSegments(const StrandSet& a, const StrandSet& b, float tolerance) {
    ASSERT_TRUE(a.sameLayout(b));
    for (std::size_t s = 0; s < a.strandCount(); ++s) {
        const auto p = a.pointsOf(s), q = b.pointsOf(s);
        for (std::size_t i = 1; i < p.size(); ++i)
            EXPECT_NEAR(distance(p[i], p[i - 1]), distance(q[i], q[i - 1]), tolerance);
    }
}

// --- Part --------------------------------------------------------------------------------------

TEST_F(PartFlowTest, PartSaysWhatItMisses) {
    NodeBench bench("Part");
    EXPECT_TRUE(run(bench)->sharesPoints(hair));
    const char* none = "no parts drawn: draw some with the Part tool; the strands pass through";
    EXPECT_EQ(bench.warning(), none);
    bench.data.parts = partLinesOn({}, sphere);
    run(bench);
    EXPECT_EQ(bench.warning(), none);
    bench.data.parts = partLinesOn({{lineAt("middle", 0.0f)}}, sphere);
    bench.op().set("part", std::string("left"));
    EXPECT_TRUE(run(bench)->sharesPoints(hair));
    EXPECT_EQ(bench.warning(), "no part named 'left'; the strands pass through");
    bench.op().set("part", std::string("middle"));
    EXPECT_FALSE(run(bench)->sharesPoints(hair));
    EXPECT_EQ(bench.warning(), "");
    bench.op().set("strength", 0.0);
    EXPECT_TRUE(run(bench)->sharesPoints(hair));
}

TEST_F(PartFlowTest, PartLeansHairAwayFromTheLineAtItsOwnElevation) {
    NodeBench bench("Part");
    const auto parts = partLinesOn({{lineAt("a", -1.0f), lineAt("b", 3.0f)}}, sphere);
    bench.data.parts = parts;
    bench.op().set("part", std::string("b"));
    bench.op().set("width", 3.0);
    const StrandsPtr out = run(bench);
    expectSameSegments(*out, hair, 2e-5f);
    std::size_t parted = 0, passed = 0;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        PartPlace place;
        const auto before = hair.pointsOf(s), after = out->pointsOf(s);
        EXPECT_EQ(before[0], after[0]);
        if (!parts->nearest(before[0], 1, 3.0f, place)) {
            EXPECT_TRUE(std::ranges::equal(before, after));
            ++passed;
            continue;
        }
        const Vec3f normal = normalOf(hair, s);
        const Vec3f away = laidOnto(before[0] - place.position, normal);
        const Vec3f was = laidOnto(before[8] - before[0], normal);
        const Vec3f is = laidOnto(after[8] - after[0], normal);
        for (std::size_t i = 1; i < 9; ++i)
            EXPECT_NEAR(dot(after[i] - after[i - 1], normal),
                        dot(before[i] - before[i - 1], normal), 2e-5f);
        const float x = place.distance / 3.0f;
        const float share = 1.0f - x * x * (3.0f - 2.0f * x);
        EXPECT_NEAR(degreesBetween(is, away), (1.0f - share) * degreesBetween(was, away), 0.5f);
        ++parted;
    }
    EXPECT_GT(parted, 50u);
    EXPECT_GT(passed, 1000u);
}

TEST_F(PartFlowTest, PartFindsPlacesForManyRootsWithTheBitsOfOneAlone) {
    const auto parts =
        partLinesOn({{lineAt("a", -1.0f), lineAt("b", 3.0f), lineAt("c", 0.3f)}}, sphere);
    std::vector<std::uint32_t> all(hair.strandCount() - 3);
    for (std::uint32_t s = 0; s < all.size(); ++s) all[s] = s;
    std::size_t found = 0;
    for (const float most : {1.0f, 5.0f, 1e30f})
        for (const std::int32_t part : {-1, 1})
            for (const SplineLanes lanes :
                 {SplineLanes::Four, SplineLanes::Eight, SplineLanes::Sixteen}) {
                alignas(kLaneAlignment) std::array<float, 4 * 2000> from;
                std::vector<float> segments(all.size());
                laneKernels(lanes).nearPart({.points = &hair.points()[0].x,
                                             .offsets = hair.offsets().data(),
                                             .strands = all.data(),
                                             .table = parts->table(),
                                             .part = part,
                                             .maxDistance = most,
                                             .from = from.data(),
                                             .segments = segments.data()},
                                            all.size());
                for (const std::uint32_t s : all) {
                    PartPlace place;
                    const Vec3f root = hair.pointsOf(s)[0];
                    const bool near = parts->nearest(root, part, most, place);
                    ASSERT_EQ(segments[s] >= 0.0f, near);
                    if (!near) continue;
                    ++found;
                    const Vec3f to = root - place.position;
                    EXPECT_EQ(to, (Vec3f{from[4 * s], from[4 * s + 1], from[4 * s + 2]}));
                    EXPECT_EQ(place.distance, from[4 * s + 3]);
                    const PartSegment& segment = parts->table().segments[std::size_t(segments[s])];
                    EXPECT_EQ(place.along, (Vec3f{segment.way[0], segment.way[1], segment.way[2]}));
                }
            }
    EXPECT_GT(found, 2 * 3 * all.size());
    EXPECT_LT(found, 5 * 3 * all.size());
}

TEST_F(PartFlowTest, PartSplitsHairOnTheLineItselfBothWays) {
    SurfaceHit hit;
    ASSERT_TRUE(sphere->closestPoint({0.0f, 10.0f, 0.0f}, 5.0f, hit));
    const PartLine line = lineAt("middle", 0.0f);
    const auto parts = partLinesOn({{line}}, sphere);
    PartPlace place;
    StrandSet set;
    for (std::uint64_t s = 0; s < 200; ++s) {
        const StrandRoot root = line.points[s % line.points.size()];
        const Vec3f from = sphere->surfacePoint(root), up = sphere->surfaceNormal(root);
        ASSERT_TRUE(parts->nearest(from, -1, 1.0f, place));
        set.addStrand(mix64(s), std::vector<Vec3f>{from, from + up + Vec3f{0, 0, 0.5f}}, {}, root);
    }
    NodeBench bench("Part");
    bench.data.parts = parts;
    const StrandsPtr out = run(bench, set);
    std::size_t left = 0;
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        const Vec3f lean = out->pointsOf(s)[1] - set.pointsOf(s)[0];
        EXPECT_GT(std::abs(lean.x), 0.3f) << "across the line, not along it";
        left += lean.x < 0.0f;
    }
    EXPECT_GT(left, 60u);
    EXPECT_LT(left, 140u);
}

TEST_F(PartFlowTest, PartTurnsAWavyStrandOneWayRound) {
    // Heads nearly straight at the part, wavering about that: half turned, it must still hold
    // together.
    const Vec3f normal{0, 1, 0}, away{1, 0, 0};
    std::vector<Vec3f> points = {{0, 0, 0}};
    for (int i = 1; i < 12; ++i)
        points.push_back(points.back() + Vec3f{-1.0f, 0.2f, i % 2 ? 0.3f : -0.29f});
    std::vector<Vec3f> out(points.size());
    turnAway(points, normal, away, std::vector<float>(points.size(), 0.5f), out);
    for (std::size_t i = 2; i < out.size(); ++i)
        EXPECT_LT(degreesBetween(out[i] - out[i - 1], out[i - 1] - out[i - 2]), 40.0f);
    EXPECT_NEAR(std::abs(out.back().z), 11.0f, 1.0f) << "a quarter turn";
}

// --- Flow --------------------------------------------------------------------------------------

TEST_F(PartFlowTest, FlowSaysThatThereAreNoArrowsAndLaysHairItsOwnWay) {
    NodeBench bench("Flow");
    bench.op().set("rollRandom", 0.0);
    bench.op().set("lift", 20.0);
    const StrandsPtr out = run(bench);
    EXPECT_EQ(
        bench.warning(),
        "no flow arrows: draw some with the Flow tool; strands lie along their own direction");
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const Vec3f normal = normalOf(hair, s);
        const Vec3f before = hair.pointsOf(s)[8] - hair.pointsOf(s)[0];
        const Vec3f after = out->pointsOf(s)[8] - out->pointsOf(s)[0];
        EXPECT_NEAR(90.0f - degreesBetween(after, normal), 20.0f, 0.05f);
        EXPECT_LT(degreesBetween(laidOnto(after, normal), laidOnto(before, normal)), 0.1f);
    }
}

TEST_F(PartFlowTest, FlowLaysHairAlongTheFieldWithoutTwistingItOver) {
    SplitMix random(3);
    FlowData data;
    while (data.pins.size() < 60) {
        const StrandRoot at{std::int32_t(random.nextU64() % sphere->triangles().size()), 0.3f,
                            0.3f};
        const Vec3f normal = sphere->faceNormal(at.triangle);
        data.pins.push_back(flowPin(*sphere, at, cross(normal, Vec3f{0.3f, 1.0f, 0.1f})));
    }
    NodeBench bench("Flow");
    bench.data.flow = flowFieldOn(data, sphere);
    for (const double roll : {0.0, 10.0}) {
        bench.op().set("rollRandom", roll);
        const StrandsPtr out = run(bench);
        EXPECT_EQ(bench.warning(), "");
        expectSameSegments(*out, hair, 2e-5f);
        float most = 0.0f;
        for (std::size_t s = 0; s < hair.strandCount(); ++s) {
            const auto points = out->pointsOf(s);
            const Vec3f normal = normalOf(hair, s), chord = points[8] - points[0];
            EXPECT_NEAR(90.0f - degreesBetween(chord, normal), 12.0f, 0.05f);
            const float off =
                degreesBetween(laidOnto(chord, normal), bench.data.flow->at(points[0], normal));
            EXPECT_LT(off, float(roll) + 0.05f);
            most = std::max(most, off);
            // The middle bulged away from the skin before, and still does.
            const Vec3f bulge = points[4] - (points[0] + points[8]) * 0.5f;
            EXPECT_GT(dot(bulge, normal), 0.0f);
            EXPECT_LT(std::abs(dot(bulge, normalized(cross(chord, normal)))), 1e-3f);
        }
        EXPECT_EQ(most > 8.0f, roll > 0.0);
    }
    // Lift 90 stands hair up, and hair that stood straight up goes down the flow.
    std::vector<Vec3f> up = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}}, laid(3);
    layStrand(up, {0, 1, 0}, {0, 0, 1}, 0.0f, laid);
    EXPECT_LT(distance(laid[2], {0, 0, 2}), 1e-5f);
    layStrand(laid, {0, 1, 0}, {1, 0, 0}, 90.0f * kRadians, up);
    EXPECT_LT(distance(up[2], {0, 2, 0}), 1e-5f);
}

// --- Flyaway -----------------------------------------------------------------------------------

TEST_F(PartFlowTest, FlyawayMovesItsShareFromTheStartOn) {
    NodeBench bench("Flyaway");
    bench.op().set("fraction", 0.3);
    bench.op().set("start", 0.5);
    const StrandsPtr out = run(bench);
    std::size_t strays = 0;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const auto before = hair.pointsOf(s), after = out->pointsOf(s);
        strays += before[8] != after[8];
        for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(before[i], after[i]);
    }
    EXPECT_NEAR(double(strays) / double(hair.strandCount()), 0.3, 0.04);
    for (const char* off : {"stray", "standOut"}) bench.op().set(off, 0.0);
    EXPECT_TRUE(run(bench)->sharesPoints(hair)) << "nothing is left for it to do";
    bench.op().set("lengthen", 0.4);
    bench.op().set("fraction", 1.0);
    const StrandsPtr longer = run(bench);
    float least = 9.0f, most = 0.0f;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const float grown = polylineLength(longer->pointsOf(s)) / polylineLength(hair.pointsOf(s));
        least = std::min(least, grown);
        most = std::max(most, grown);
    }
    EXPECT_NEAR(least, 1.0f, 0.01f);
    EXPECT_NEAR(most, 1.4f, 0.02f) << "up to lengthen of the whole length";
}

TEST(StrayStrand, StandsOutAndStraysByTheSquare) {
    std::vector<Vec3f> points;  // up, then over to the side
    for (int i = 0; i <= 4; ++i) points.push_back({0, float(i), 0});
    for (int i = 1; i <= 4; ++i) points.push_back({float(i), 4, 0});
    std::vector<float> shares(9);
    const float length = polylineShares(points, shares);
    std::vector<Vec3f> out(9);
    strayStrand(points, shares, length, {.start = 0.5f, .standOut = 1.0f, .stray = 0.0f}, out);
    EXPECT_EQ(out[4], points[4]);
    EXPECT_LT(distance(out[8], {0, 8, 0}), 1e-5f) << "the tip on the line of the root";
    EXPECT_LT(distance(out[6], mix(points[6], Vec3f{0, 6, 0}, 0.25f)), 1e-5f);
    strayStrand(points, shares, length,
                {.start = 0.5f, .standOut = 0.0f, .stray = 2.0f, .arcs = 4.0f}, out);
    for (std::size_t i = 5; i < 9; ++i) {
        const float x = float(i - 4) / 4.0f;
        EXPECT_NEAR(distance(out[i], points[i]), 2.0f * x * x, 1e-5f);
        EXPECT_NEAR((out[i] - points[i]).x, 0.0f, 1e-5f) << "square to where the rest heads";
    }
    EXPECT_NEAR(dot(normalized(out[6] - points[6]), normalized(out[8] - points[8])), -1.0f, 1e-5f)
        << "4 arcs a strand: half a turn in a quarter of it";
}

// --- Gravity -----------------------------------------------------------------------------------

TEST_F(PartFlowTest, GravityHangsTipsAndLeavesStiffRoots) {
    NodeBench bench("Gravity");
    bench.op().set("strength", 1.0);
    const StrandsPtr out = run(bench);
    expectSameSegments(*out, hair, 2e-5f);
    const Vec3f down{0, -1, 0};
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const auto before = hair.pointsOf(s), after = out->pointsOf(s);
        for (std::size_t i = 1; i < 9; ++i) {
            const float was = degreesBetween(before[i] - before[i - 1], down);
            const float is = degreesBetween(after[i] - after[i - 1], down);
            const float t = (float(i) - 0.5f) / 8.0f;  // about: points are not quite even
            EXPECT_NEAR(is, (1.0f - t) * was, 0.06f * was + 0.1f);
        }
    }
    bench.op().set("strength", 2.0);
    EXPECT_LT(degreesBetween(run(bench)->pointsOf(0)[8] - run(bench)->pointsOf(0)[7], down), 0.1f);
    bench.op().set("stiffness", 0.0);
    const StrandsPtr limp = run(bench);
    for (std::size_t s = 0; s < 50; ++s)
        EXPECT_LT(degreesBetween(limp->pointsOf(s)[1] - limp->pointsOf(s)[0], down), 0.1f);
    bench.op().set("stiffness", 1.0);
    bench.op().set("stiffnessProfile", Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}));
    EXPECT_TRUE(run(bench)->sharesPoints(hair)) << "stiff all along";
    bench.op().set("strength", 0.0);
    EXPECT_TRUE(run(bench)->sharesPoints(hair));
}

}  // namespace
}  // namespace corvelle
