// What Bend, Direction and Transform promise of shapes: lengths, angles and roots.

#include <numbers>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/bend.h"
#include "operators/rootFrame.h"
#include "operators/testing/nodeBench.h"
#include "operators/transform.h"

namespace corvelle {
namespace {

constexpr float kPi = std::numbers::pi_v<float>;
constexpr float kRadians = kPi / 180.0f;

void expectNear(Vec3f a, Vec3f b, float tolerance) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}
/// Degrees between two directions.
float between(Vec3f a, Vec3f b) { return std::atan2(length(cross(a, b)), dot(a, b)) / kRadians; }
Vec3f segmentOf(std::span<const Vec3f> points, std::size_t i) { return points[i + 1] - points[i]; }
Vec3f randomUnit(SplitMix& random) {
    for (;;) {
        const Vec3f v{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
        if (lengthSquared(v) > 0.01f && lengthSquared(v) < 1.0f) return normalized(v);
    }
}

// --- Frames and arcs ---------------------------------------------------------------------------

TEST(RootFrame, IsOrthonormalAndFollowsTheScalp) {
    const ScalpMesh sphere = makeSphere(12, 16, 5.0f);
    const ScalpMesh bare = makeIcosphere(2, 5.0f);
    SplitMix random(4);
    for (int i = 0; i < 300; ++i) {
        for (const ScalpMesh* mesh : {&sphere, &bare}) {
            const float u = random.nextFloat(), v = random.nextFloat() * (1.0f - u);
            const auto triangle = std::int32_t(random.nextU64() % mesh->triangles().size());
            const StrandRoot root{triangle, u, v};
            const RootFrame frame = rootFrame(mesh, root, {1, 0, 0});
            EXPECT_EQ(frame.y, mesh->surfaceNormal(root));
            EXPECT_NEAR(length(frame.x), 1.0f, 1e-5f);
            EXPECT_NEAR(dot(frame.x, frame.y), 0.0f, 1e-5f);
            expectNear(frame.z, cross(frame.x, frame.y), 1e-6f);
            if (mesh == &sphere) {
                EXPECT_EQ(frame.x, mesh->surfaceTangentU(root));
            } else {
                EXPECT_GT(frame.x.x, 0.0f) << "world X laid on the surface";
            }
        }
    }
}

TEST(RootFrame, StandsOnTheStrandWithoutAScalp) {
    const ScalpMesh plane = makePlane(1, 1, 2.0f);
    const StrandRoot foreign{99, 0.2f, 0.2f};
    for (const ScalpMesh* mesh : {static_cast<const ScalpMesh*>(nullptr), &plane}) {
        const RootFrame along = rootFrame(mesh, foreign, {1, 0, 0});
        EXPECT_EQ(along.y, (Vec3f{1, 0, 0}));
        EXPECT_EQ(along.x, (Vec3f{0, 0, 1})) << "X is parallel to the normal: Z";
        EXPECT_EQ(rootFrame(mesh, StrandRoot{}, {}).y, (Vec3f{0, 1, 0}));
    }
    const std::vector<Vec3f> stutter = {{1, 1, 1}, {1, 1, 1}, {1, 3, 1}};
    EXPECT_EQ(firstDirection(stutter), (Vec3f{0, 1, 0}));
    EXPECT_EQ(firstDirection(std::span(stutter).first(2)), Vec3f{});
    EXPECT_EQ(laidOnto({0, 5, 0}, {0, 1, 0}), Vec3f{});
}

TEST(ShortestArc, TurnsOneDirectionToTheOther) {
    SplitMix random(8);
    for (int i = 0; i < 500; ++i) {
        const Vec3f from = randomUnit(random);
        // Also all but parallel and all but opposite ones.
        const float nudge = i % 3 == 0 ? 1.0f : 1e-4f;
        const Vec3f to = normalized((i % 2 ? from : -from) + randomUnit(random) * nudge);
        const ShortestArc arc = shortestArc(from, to);
        expectNear(Rotation::about(arc.axis, arc.angle)(from), to, 3e-6f);
    }
    for (const Vec3f axis : {Vec3f{1, 0, 0}, Vec3f{0, 0, -1}}) {
        EXPECT_EQ(shortestArc(axis, axis).angle, 0.0f);
        const ShortestArc half = shortestArc(axis, -axis);
        EXPECT_EQ(half.axis, anyPerpendicular(axis));
        EXPECT_FLOAT_EQ(half.angle, kPi);
    }
}

// --- The nodes ---------------------------------------------------------------------------------

/// Hair rooted on a sphere: straight, in any direction above the surface, of nine points.
StrandSet sphereHair(const ScalpMesh& sphere, std::size_t count) {
    StrandSet set;
    SplitMix random(21);
    for (std::size_t s = 0; s < count; ++s) {
        const float u = random.nextRange(0.1f, 0.4f), v = random.nextRange(0.1f, 0.4f);
        const StrandRoot root{std::int32_t(random.nextU64() % sphere.triangles().size()), u, v};
        const Vec3f normal = sphere.surfaceNormal(root);
        Vec3f direction = randomUnit(random);
        if (dot(direction, normal) < 0.0f) direction = -direction;
        direction = normalized(direction + normal * 0.05f);
        std::vector<Vec3f> points;
        for (int i = 0; i < 9; ++i)
            points.push_back(sphere.surfacePoint(root) + direction * (0.5f * float(i)));
        set.addStrand(mix64(s), points, {}, root);
    }
    return set;
}

class TransformNodesTest : public testing::Test {
protected:
    const ScalpPtr sphere = std::make_shared<const ScalpMesh>(makeSphere(12, 16, 5.0f));
    const StrandSet hair = sphereHair(*sphere, 300);
    const StrandSet tuft = makeTuft({.strands = 400, .pointsPerStrand = 9, .seed = 2});

    using Params = std::vector<std::pair<std::string, ParamValue>>;
    StrandsPtr run(const char* type, const Params& params, const StrandSet& strands) {
        NodeBench bench(type);
        bench.data.scalp = sphere;
        for (const auto& [name, value] : params) bench.op().set(name, value);
        bench.feed(strands);
        return bench.evaluate();
    }
    Vec3f normalOf(std::size_t s) const { return sphere->surfaceNormal(hair.roots()[s]); }
};

TEST_F(TransformNodesTest, ANodeWithNothingToDoHandsItsInputOn) {
    EXPECT_TRUE(run("Bend", {{"angle", 0.0}}, tuft)->sharesPoints(tuft));
    EXPECT_TRUE(run("Bend", {{"along", std::string("direction")}, {"direction", Vec3f{}}}, tuft)
                    ->sharesPoints(tuft));
    EXPECT_TRUE(run("Direction", {{"strength", 0.0}}, tuft)->sharesPoints(tuft));
    EXPECT_TRUE(run("Transform", {}, tuft)->sharesPoints(tuft));
    EXPECT_TRUE(run("Transform", {{"space", std::string("world")}, {"pivot", Vec3f{1, 2, 3}}}, tuft)
                    ->sharesPoints(tuft));
}

TEST_F(TransformNodesTest, BendAndDirectionKeepSegmentLengthsAndRoots) {
    const auto word = [](const char* text) { return std::string(text); };
    const std::vector<std::pair<const char*, Params>> cases = {
        {"Bend", {{"angle", -80.0}, {"start", 0.3}}},
        {"Bend", {{"angle", 170.0}, {"along", word("tangent")}, {"randomness", 0.7}}},
        {"Bend", {{"angle", 120.0}, {"along", word("direction")}, {"direction", Vec3f{0, 0, 9}}}},
        {"Direction", {{"inclinationRandom", 40.0}, {"rollRandom", 180.0}, {"strength", 0.4}}},
    };
    for (const auto& [type, params] : cases) {
        const StrandsPtr out = run(type, params, tuft);
        EXPECT_TRUE(out->sharesWidths(tuft));
        for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
            EXPECT_EQ(out->pointsOf(s)[0], tuft.pointsOf(s)[0]);
            for (std::size_t i = 0; i < 8; ++i)
                EXPECT_NEAR(length(segmentOf(out->pointsOf(s), i)),
                            length(segmentOf(tuft.pointsOf(s), i)), 5e-6f);
        }
    }
}

TEST_F(TransformNodesTest, BendTurnsByAnyAngleToAFloatsRounding) {
    const std::vector<Vec3f> points = {{0, 0, 0}, {0.6f, 0, 0.8f}};
    const std::vector<float> shares = {0.0f, 1.0f};
    const Vec3f axis = normalized(Vec3f{1, 2, -3});
    for (int degrees = -180; degrees <= 180; ++degrees) {
        std::vector<Vec3f> out(2);
        bendStrand(points, shares, {}, axis, float(degrees) * kRadians, out);
        expectNear(out[1], Rotation::about(axis, float(degrees) * kRadians)(points[1]), 5e-7f);
    }
}

TEST_F(TransformNodesTest, BendWithStartAndEndZeroStandsStrandsUp) {
    const StrandsPtr out = run("Bend", {{"angle", 180.0}, {"end", 0.0}}, hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s)
        for (std::size_t i = 0; i < 8; ++i)
            EXPECT_LT(between(segmentOf(out->pointsOf(s), i), normalOf(s)), 0.02f);
}

TEST_F(TransformNodesTest, BendStaysBetweenTheNormalAndTheTangentPlane) {
    for (const double angle : {25.0, 180.0, -25.0, -180.0}) {
        const StrandsPtr out = run("Bend", {{"angle", angle}}, hair);
        for (std::size_t s = 0; s < hair.strandCount(); ++s) {
            const float before = between(segmentOf(hair.pointsOf(s), 0), normalOf(s));
            const float after = between(segmentOf(out->pointsOf(s), 7), normalOf(s));
            EXPECT_NEAR(after, std::clamp(before - float(angle), 0.0f, 90.0f), 0.03f);
        }
    }
    // Below the tangent plane a strand sinks no further, and may still rise.
    EXPECT_EQ(limitedToScalp(-1.0f, 2.0f), 0.0f);
    EXPECT_EQ(limitedToScalp(0.5f, 2.0f), 0.5f);
}

TEST_F(TransformNodesTest, BendTurnsEvenlyBetweenStartAndEndAndHoldsPastIt) {
    const StrandsPtr out = run("Bend",
                               {{"angle", 60.0},
                                {"start", 0.25},
                                {"end", 0.75},
                                {"along", std::string("direction")},
                                {"direction", Vec3f{0, 1, 0}}},
                               hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const Vec3f straight = segmentOf(hair.pointsOf(s), 0);
        const float expected[] = {0, 0, 15, 30, 45, 60, 60, 60};
        for (std::size_t i = 0; i < 8; ++i)
            EXPECT_NEAR(between(segmentOf(out->pointsOf(s), i), straight), expected[i], 0.05f);
        const Vec3f turned = segmentOf(out->pointsOf(s), 7);
        const float gap = between(straight, {0, 1, 0});
        EXPECT_NEAR(between(turned, {0, 1, 0}), std::abs(gap - 60.0f), 0.05f)
            << "in the plane of the direction";
    }
}

TEST_F(TransformNodesTest, BendFromAStartAlongTheStrandKinksThere) {
    const StrandsPtr out = run(
        "Bend", {{"angle", 40.0}, {"start", 0.5}, {"end", 0.1}, {"along", std::string("tangent")}},
        hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const Vec3f straight = segmentOf(hair.pointsOf(s), 0);
        for (std::size_t i = 0; i < 8; ++i)
            EXPECT_NEAR(between(segmentOf(out->pointsOf(s), i), straight), i < 4 ? 0.0f : 40.0f,
                        0.5f);
        const Vec3f tangent = sphere->surfaceTangentU(hair.roots()[s]);
        const float gap = between(straight, tangent);
        EXPECT_NEAR(between(segmentOf(out->pointsOf(s), 7), tangent), std::abs(gap - 40.0f), 0.5f);
    }
}

TEST_F(TransformNodesTest, BendRandomnessOnlyLessensTheAngle) {
    const StrandsPtr out = run(
        "Bend",
        {{"angle", 50.0}, {"end", 0.0}, {"randomness", 0.6}, {"along", std::string("direction")}},
        hair);
    float least = 50.0f, most = 0.0f;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const float turn = between(segmentOf(out->pointsOf(s), 0), segmentOf(hair.pointsOf(s), 0));
        least = std::min(least, turn);
        most = std::max(most, turn);
    }
    EXPECT_GT(least, 19.9f);
    EXPECT_LT(least, 22.0f);
    EXPECT_LT(most, 50.1f);
    EXPECT_GT(most, 48.0f);
}

TEST_F(TransformNodesTest, DirectionGivesTheInclinationAndTheRoll) {
    for (const double inclination : {0.0, 35.0, 90.0})
        for (const double roll : {0.0, 70.0, -180.0}) {
            const StrandsPtr out =
                run("Direction", {{"inclination", inclination}, {"roll", roll}}, hair);
            for (std::size_t s = 0; s < hair.strandCount(); ++s) {
                const Vec3f direction = segmentOf(out->pointsOf(s), 4);
                const RootFrame frame = rootFrame(sphere.get(), hair.roots()[s], {});
                EXPECT_NEAR(between(direction, frame.y), float(inclination), 0.03f);
                if (inclination == 0.0) continue;
                // Right-handed about the normal, so from x away from z.
                const Vec3f side = Rotation::about(frame.y, float(roll) * kRadians)(frame.x);
                EXPECT_LT(between(laidOnto(direction, frame.y), side), 0.05f);
            }
        }
}

TEST_F(TransformNodesTest, DirectionLaysItsDirectionOntoTheScalp) {
    const StrandsPtr out = run("Direction",
                               {{"inclination", 90.0},
                                {"along", std::string("direction")},
                                {"direction", Vec3f{0, -3, 1}}},
                               hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s)
        EXPECT_LT(between(segmentOf(out->pointsOf(s), 0), laidOnto({0, -3, 1}, normalOf(s))),
                  0.05f);
}

TEST_F(TransformNodesTest, DirectionStrengthIsAShareOfTheTurn) {
    const StrandsPtr whole = run("Direction", {{"roll", 30.0}}, hair);
    const StrandsPtr part = run("Direction", {{"roll", 30.0}, {"strength", 0.25}}, hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const Vec3f from = segmentOf(hair.pointsOf(s), 0);
        const float turn = between(segmentOf(whole->pointsOf(s), 0), from);
        EXPECT_NEAR(between(segmentOf(part->pointsOf(s), 0), from), 0.25f * turn, 0.03f);
        EXPECT_NEAR(between(segmentOf(part->pointsOf(s), 0), segmentOf(whole->pointsOf(s), 0)),
                    0.75f * turn, 0.03f);
    }
}

TEST_F(TransformNodesTest, DirectionRandomStaysAboveTheScalp) {
    const StrandsPtr out =
        run("Direction", {{"inclination", 80.0}, {"inclinationRandom", 30.0}}, hair);
    std::size_t flat = 0;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const float lean = between(segmentOf(out->pointsOf(s), 0), normalOf(s));
        EXPECT_GT(lean, 49.9f);
        EXPECT_LT(lean, 90.05f);
        flat += lean > 89.9f;
    }
    EXPECT_NEAR(double(flat) / double(hair.strandCount()), 1.0 / 3.0, 0.1);
}

TEST_F(TransformNodesTest, TransformTurnsAboutXThenYThenZ) {
    const Rotation turn = turnInFrame({90, 90, 0}, {});
    expectNear(turn({0, 1, 0}), {1, 0, 0}, 1e-6f);  // y to z about x, then z to x about y
    const RootFrame frame{{0, 0, 1}, {1, 0, 0}, {0, 1, 0}};
    expectNear(turnInFrame({0, 0, 90}, frame)(frame.x), frame.y, 1e-6f);
}

TEST_F(TransformNodesTest, TransformScalesAndTurnsAboutTheRoot) {
    const StrandsPtr scaled = run("Transform", {{"scale", 1.5}}, tuft);
    const StrandsPtr upright = run("Transform", {{"rotate", Vec3f{0, 75, 0}}}, hair);
    for (std::size_t s = 0; s < 300; ++s) {
        EXPECT_EQ(scaled->pointsOf(s)[0], tuft.pointsOf(s)[0]);
        EXPECT_NEAR(polylineLength(scaled->pointsOf(s)), 1.5f * polylineLength(tuft.pointsOf(s)),
                    1e-4f);
        EXPECT_EQ(upright->pointsOf(s)[0], hair.pointsOf(s)[0]);
        const Vec3f before = segmentOf(hair.pointsOf(s), 3),
                    after = segmentOf(upright->pointsOf(s), 3);
        EXPECT_NEAR(between(after, normalOf(s)), between(before, normalOf(s)), 0.05f)
            << "y is the normal";
        expectNear(after, Rotation::about(normalOf(s), 75.0f * kRadians)(before), 1e-5f);
    }
    EXPECT_TRUE(scaled->sharesWidths(tuft));
}

TEST_F(TransformNodesTest, TransformMovesAlongTheRootsFrame) {
    const StrandsPtr out = run("Transform", {{"translate", Vec3f{0.5, 2, -1}}}, hair);
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const RootFrame frame = rootFrame(sphere.get(), hair.roots()[s], {});
        for (std::size_t i = 0; i < 9; ++i)
            expectNear(out->pointsOf(s)[i] - hair.pointsOf(s)[i],
                       frame.x * 0.5f + frame.y * 2.0f - frame.z, 5e-6f);
    }
    EXPECT_TRUE(std::ranges::equal(out->roots(), hair.roots())) << "the roots' coordinates stay";
}

TEST_F(TransformNodesTest, TransformOfTheWorldIsOneSimilarityAboutThePivot) {
    const Vec3f pivot{1, -2, 3}, move{0.5f, 0, 4}, degrees{20, -130, 75};
    const StrandsPtr out = run("Transform",
                               {{"space", std::string("world")},
                                {"pivot", pivot},
                                {"translate", move},
                                {"rotate", degrees},
                                {"scale", 0.6}},
                               tuft);
    const Rotation turn = turnInFrame(degrees, {});
    for (std::size_t p = 0; p < tuft.points().size(); ++p)
        expectNear(out->points()[p], pivot + turn(tuft.points()[p] - pivot) * 0.6f + move, 1e-5f);
}

TEST_F(TransformNodesTest, TransformRandomnessActsAboutEachStrandsOwnRoot) {
    for (const char* space : {"strand", "world"}) {
        const StrandsPtr turned = run("Transform",
                                      {{"space", std::string(space)},
                                       {"pivot", Vec3f{50, 0, 0}},
                                       {"rotateRandom", Vec3f{0, 20, 0}},
                                       {"scaleRandom", 0.4}},
                                      hair);
        float least = 9.0f, most = 0.0f;
        for (std::size_t s = 0; s < hair.strandCount(); ++s) {
            EXPECT_EQ(turned->pointsOf(s)[0], hair.pointsOf(s)[0]);
            EXPECT_LT(between(segmentOf(turned->pointsOf(s), 0), segmentOf(hair.pointsOf(s), 0)),
                      20.05f);
            const float ratio =
                polylineLength(turned->pointsOf(s)) / polylineLength(hair.pointsOf(s));
            least = std::min(least, ratio);
            most = std::max(most, ratio);
        }
        EXPECT_NEAR(least, 0.6f, 0.03f);
        EXPECT_NEAR(most, 1.4f, 0.03f);
    }
    const StrandsPtr moved = run(
        "Transform", {{"space", std::string("world")}, {"translateRandom", Vec3f{3, 0, 1}}}, hair);
    Vec3f sum, reach;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const Vec3f by = moved->pointsOf(s)[0] - hair.pointsOf(s)[0];
        expectNear(moved->pointsOf(s)[8] - hair.pointsOf(s)[8], by, 1e-5f);
        sum += by;
        reach = componentMax(reach, {std::abs(by.x), std::abs(by.y), std::abs(by.z)});
    }
    expectNear(sum / float(hair.strandCount()), {}, 0.3f);
    EXPECT_NEAR(reach.x, 3.0f, 0.1f);
    EXPECT_EQ(reach.y, 0.0f);
    EXPECT_NEAR(reach.z, 1.0f, 0.04f);
}

TEST_F(TransformNodesTest, AnUnknownWordNamesTheChoices) {
    const auto textOf = [&](const char* type, const char* param) -> std::string {
        try {
            run(type, {{param, std::string("sideways")}}, tuft);
        } catch (const GraphError& error) {
            return error.what();
        }
        return "nothing thrown";
    };
    EXPECT_EQ(textOf("Bend", "along"),
              "node 'node': Bend: along must be normal, tangent or direction");
    EXPECT_EQ(textOf("Direction", "along"),
              "node 'node': Direction: along must be tangent or direction");
    EXPECT_EQ(textOf("Transform", "space"),
              "node 'node': Transform: space must be strand or world");
}

}  // namespace
}  // namespace corvelle
