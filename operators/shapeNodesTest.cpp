// The geometry that Straighten, Smooth, Comb and Displace promise.

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/segmentTurn.h"
#include "operators/segmentTurn.h"
#include "operators/smooth.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

MapSource expression(const char* text) { return {.kind = MapKind::Expression, .source = text}; }

Vec3f randomVector(SplitMix& random) {
    return {random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
}

std::vector<Vec3f> randomWalk(SplitMix& random, std::size_t points) {
    std::vector<Vec3f> walk = {randomVector(random)};
    while (walk.size() < points) walk.push_back(walk.back() + randomVector(random));
    return walk;
}

double angleBetween(Vec3f a, Vec3f b) {
    return std::atan2(double(length(cross(a, b))), double(dot(a, b)));
}

void expectSameSegments(std::span<const Vec3f> a, std::span<const Vec3f> b) {
    ASSERT_EQ(a.size(), b.size());
    if (a.empty()) return;
    EXPECT_EQ(a[0], b[0]);
    for (std::size_t i = 1; i < a.size(); ++i) {
        const float size = distance(a[i], a[i - 1]);
        EXPECT_NEAR(distance(b[i], b[i - 1]), size, 1e-5f * (1.0f + length(a[i]))) << i;
    }
}

/// How far a strand is from straight: the sum of the angles at its inner points.
double totalTurn(std::span<const Vec3f> points) {
    double sum = 0.0;
    for (std::size_t i = 2; i < points.size(); ++i)
        sum += angleBetween(points[i - 1] - points[i - 2], points[i] - points[i - 1]);
    return sum;
}

// --- Turning segments ----------------------------------------------------------------------------

TEST(TurnSegments, TurnsEachByItsShareOfTheAngleInTheirCommonPlane) {
    SplitMix random(4);
    for (int round = 0; round < 60; ++round) {
        const std::vector<Vec3f> in = randomWalk(random, 2 + round);  // past one block of lanes
        const Vec3f toward = randomVector(random);
        std::vector<float> shares(in.size());
        for (float& share : shares) share = random.nextFloat();
        std::vector<Vec3f> out(in.size());
        turnSegments(in, toward, shares, out);
        expectSameSegments(in, out);
        for (std::size_t i = 1; i < in.size(); ++i) {
            const Vec3f from = in[i] - in[i - 1], to = out[i] - out[i - 1];
            const double whole = angleBetween(from, toward);
            EXPECT_NEAR(angleBetween(from, to), whole * shares[i], 2e-4);
            EXPECT_NEAR(angleBetween(to, toward), whole * (1.0 - shares[i]), 2e-4);
        }
    }
}

TEST(TurnSegments, EndsOnTheDirectionAndKeepsWhatDoesNotTurn) {
    SplitMix random(5);
    const std::vector<Vec3f> in = randomWalk(random, 40);
    std::vector<Vec3f> out(in.size());
    const Vec3f toward{0.0f, 0.0f, 5.0f};
    const float all = 1.0f, none = 0.0f;
    turnSegments(in, toward, std::span(&all, 1), out);
    for (std::size_t i = 1; i < in.size(); ++i)
        EXPECT_LT(angleBetween(out[i] - out[i - 1], toward), 1e-5);
    turnSegments(in, toward, std::span(&none, 1), out);
    EXPECT_EQ(in, out);
    turnSegments(in, {}, std::span(&all, 1), out);
    EXPECT_EQ(in, out);
    std::vector<float> late(in.size(), 0.0f);
    std::fill(late.begin() + 20, late.end(), 0.5f);
    turnSegments(in, toward, late, out);
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 20, out.begin()))
        << "the still part, bit by bit";
    EXPECT_NE(in[20], out[20]);
}

TEST(TurnSegments, TurnsWhatPointsStraightOrNearlyStraightAway) {
    for (const float aside : {0.0f, 1e-7f, 1e-5f, 1e-3f, 0.014f, 0.015f, 0.1f}) {
        const std::vector<Vec3f> in = {{}, {aside, 1.0f, 0.0f}, {2.0f * aside, 2.0f, 0.0f}};
        std::vector<Vec3f> out(3);
        for (const float share : {0.1f, 0.5f, 0.9f, 1.0f}) {
            turnSegments(in, {0, -1, 0}, std::span(&share, 1), out);
            expectSameSegments(in, out);
            EXPECT_NEAR(angleBetween(out[1], in[1]), share * 3.14159265, aside + 2e-4) << aside;
            EXPECT_LT(angleBetween(out[1], out[2] - out[1]), 1e-3) << "alike segments turn alike";
        }
    }
}

// --- Straighten ----------------------------------------------------------------------------------

class ShapeNodesTest : public testing::Test {
protected:
    const StrandSet tuft = makeTuft({.strands = 500, .pointsPerStrand = 12, .seed = 21});
    StrandsPtr run(NodeBench& bench) {
        bench.feed(tuft);
        return bench.evaluate();
    }
};

TEST_F(ShapeNodesTest, StraightenGivesTheChordAndKeepsTheLength) {
    NodeBench bench("Straighten");
    const StrandsPtr straight = run(bench);
    bench.op().set("strength", 0.5);
    const StrandsPtr half = run(bench);
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        const auto from = tuft.pointsOf(s), to = straight->pointsOf(s);
        expectSameSegments(from, to);
        expectSameSegments(from, half->pointsOf(s));
        EXPECT_LT(angleBetween(from.back() - from.front(), to.back() - to.front()), 1e-4);
        EXPECT_NEAR(distance(to.front(), to.back()), polylineLength(from), 1e-4f);
        EXPECT_NEAR(totalTurn(half->pointsOf(s)), 0.5 * totalTurn(from), 0.1 * totalTurn(from));
    }
    EXPECT_TRUE(straight->sharesWidths(tuft)) << "only points are written";
}

TEST_F(ShapeNodesTest, StraightenLaysAClosedStrandAlongItsFirstSegment) {
    StrandSet loop;
    loop.addStrand(1, std::vector<Vec3f>{{0, 0, 0}, {0, 1, 0}, {1, 1, 0}, {1, 0, 0}, {0, 0, 0}}, {},
                   {});
    NodeBench bench("Straighten");
    bench.feed(loop);
    const StrandsPtr out = bench.evaluate();
    EXPECT_LT(distance(out->pointsOf(0)[4], Vec3f{0, 4, 0}), 1e-4f);
}

// --- Smooth --------------------------------------------------------------------------------------

TEST(Smooth, ShrinksAZigzagInEveryPassAtFullStrength) {
    std::vector<Vec3f> zigzag;
    for (int i = 0; i < 12; ++i) zigzag.push_back({i % 2 ? 0.5f : 0.0f, float(i), 0.0f});
    const std::vector<float> full(zigzag.size(), 1.0f);
    std::vector<Vec3f> before(zigzag.size()), out(zigzag.size());
    double last = totalTurn(zigzag);
    for (int passes = 1; passes <= 100; ++passes) {
        smoothStrand(zigzag, full, passes, before, out);
        expectSameSegments(zigzag, out);
        const double now = totalTurn(out);
        EXPECT_LE(now, last + 1e-4) << passes;
        last = now;
    }
    EXPECT_LT(last, 0.01 * totalTurn(zigzag));
}

TEST_F(ShapeNodesTest, SmoothRelaxesMoreWithStrengthAndPassesAndLeavesStraightStrands) {
    const auto turnOf = [&](double strength, double iterations) {
        NodeBench bench("Smooth");
        bench.op().set("strength", strength);
        bench.op().set("iterations", iterations);
        const StrandsPtr out = run(bench);
        double sum = 0.0;
        for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
            expectSameSegments(tuft.pointsOf(s), out->pointsOf(s));
            sum += totalTurn(out->pointsOf(s));
        }
        return sum;
    };
    const double weak = turnOf(0.1, 2.0), middle = turnOf(0.5, 4.0), strong = turnOf(1.0, 60.0);
    EXPECT_GT(turnOf(0.0, 4.0), weak);
    EXPECT_GT(weak, middle);
    EXPECT_GT(middle, strong);

    StrandSet straight;
    std::vector<Vec3f> line;
    for (int i = 0; i < 9; ++i) line.push_back({0.0f, float(i), float(i)});
    straight.addStrand(1, line, {}, {});
    NodeBench bench("Smooth");
    bench.feed(straight);
    const StrandsPtr out = bench.evaluate();
    for (std::size_t i = 0; i < line.size(); ++i)
        EXPECT_LT(distance(out->pointsOf(0)[i], line[i]), 1e-5f);
}

TEST_F(ShapeNodesTest, SmoothKeepsThePointsWhereItsProfileIsZero) {
    NodeBench bench("Smooth");
    bench.op().set("profile", Ramp({{0.0f, 0.0f}, {0.5f, 0.0f}, {0.6f, 1.0f}}, true));
    const StrandsPtr out = run(bench);
    std::size_t moved = 0;
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        std::vector<float> shares(tuft.pointCountOf(s));
        polylineShares(tuft.pointsOf(s), shares);
        for (std::size_t i = 0; i < shares.size(); ++i) {
            const float by = distance(out->pointsOf(s)[i], tuft.pointsOf(s)[i]);
            moved += by > 1e-3f;
            if (shares[i] > 0.5f) continue;
            EXPECT_LT(by, 1e-4f);
        }
    }
    EXPECT_GT(moved, 500u);
}

// --- Comb ----------------------------------------------------------------------------------------

/// Strands standing on a sphere of radius 10, one a triangle.
StrandSet onSphere(const ScalpMesh& scalp) {
    StrandSet set;
    for (std::int32_t t = 0; t < std::int32_t(scalp.triangles().size()); ++t) {
        const StrandRoot root{t, 0.3f, 0.3f};
        const Vec3f from = scalp.surfacePoint(root), normal = scalp.surfaceNormal(root);
        std::vector<Vec3f> points;
        for (int i = 0; i < 8; ++i) points.push_back(from + normal * (0.4f * float(i)));
        set.addStrand(std::uint64_t(t) + 1, points, {}, root);
    }
    return set;
}

TEST(Comb, LaysStrandsAlongTheSurfaceOrTurnsThemToTheDirectionItself) {
    const auto scalp = std::make_shared<const ScalpMesh>(makeIcosphere(2, 10.0f));
    const StrandSet set = onSphere(*scalp);
    const Vec3f down{0, -1, 0};
    NodeBench bench("Comb");
    bench.data.scalp = scalp;
    bench.op().set("strength", 1.0);
    bench.feed(set);
    const StrandsPtr laid = bench.evaluate();
    bench.op().set("alongSurface", false);
    const StrandsPtr plain = bench.evaluate();
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        expectSameSegments(set.pointsOf(s), laid->pointsOf(s));
        const Vec3f normal = scalp->surfaceNormal(set.roots()[s]);
        const Vec3f way = laid->pointsOf(s).back() - laid->pointsOf(s).front();
        EXPECT_NEAR(angleBetween(way, laidOnSurface(down, normal)), 0.0, 1e-3);
        EXPECT_NEAR(dot(normalized(way), normal), 0.0f, 1e-3f);
        const auto points = plain->pointsOf(s);
        EXPECT_LT(angleBetween(points.back() - points.front(), down), 1e-3);
    }
    // The scalp is part of what the node reads: without one there is no plane to lie in.
    bench.op().set("alongSurface", true);
    bench.data.scalp = nullptr;
    EXPECT_EQ(bench.evaluate()->contentHash(), plain->contentHash());
}

TEST(Comb, LeavesAStrandThatTheDirectionStandsOn) {
    EXPECT_EQ(laidOnSurface({0, -3, 0}, {0, 1, 0}), Vec3f{});
    EXPECT_EQ(laidOnSurface({2, -3, 0}, {0, 1, 0}), (Vec3f{1, 0, 0}));
    EXPECT_EQ(laidOnSurface({0, 4, 0}, {}), (Vec3f{0, 1, 0}));
    const auto plane = std::make_shared<const ScalpMesh>(makePlane(2, 2, 4.0f));
    StrandSet set;
    set.addStrand(1, std::vector<Vec3f>{{0, 0, 0}, {0.1f, 1, 0}, {0, 2, 0.2f}}, {},
                  {0, 0.3f, 0.3f});
    NodeBench bench("Comb");
    bench.data.scalp = plane;
    bench.feed(set);
    EXPECT_EQ(bench.evaluate()->contentHash(), set.contentHash());
}

TEST_F(ShapeNodesTest, CombTakesADirectionPerStrand) {
    NodeBench bench("Comb");
    bench.op().set("strength", 1.0);
    bench.op().set("direction", expression("[index < 250 ? 1 : -1, 0, 0]"));
    const StrandsPtr out = run(bench);
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        const auto points = out->pointsOf(s);
        EXPECT_LT(angleBetween(points.back() - points.front(), {s < 250 ? 1.0f : -1.0f, 0, 0}),
                  1e-4);
    }
}

// --- Displace ------------------------------------------------------------------------------------

TEST(Displace, MovesRootedStrandsAlongTheNormalAndOthersAlongTheDirection) {
    const auto scalp = std::make_shared<const ScalpMesh>(makeIcosphere(1, 10.0f));
    StrandSet set = onSphere(*scalp);
    const std::size_t rooted = set.strandCount();
    set.addStrand(9999, std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, {}, {});
    NodeBench bench("Displace");
    bench.data.scalp = scalp;
    bench.op().set("distance", 1.5);
    bench.op().set("direction", Vec3f{0.0f, 0.0f, 4.0f});
    for (const bool byDirection : {false, true}) {
        if (byDirection) bench.op().set("along", std::string("direction"));
        bench.feed(set);
        const StrandsPtr out = bench.evaluate();
        for (std::size_t s = 0; s < set.strandCount(); ++s) {
            const Vec3f way =
                byDirection || s == rooted ? Vec3f{0, 0, 1} : scalp->surfaceNormal(set.roots()[s]);
            const auto from = set.pointsOf(s), to = out->pointsOf(s);
            EXPECT_EQ(from.front(), to.front());
            EXPECT_LT(distance(to.back() - from.back(), way * 1.5f), 1e-4f);
        }
    }
    bench.op().set("along", std::string("up"));
    EXPECT_THROW(bench.evaluate(), GraphError);
}

TEST_F(ShapeNodesTest, DisplaceFollowsItsProfileAndADistancePerPoint) {
    NodeBench bench("Displace");
    bench.op().set("distance", expression("-2 * t"));
    bench.op().set("profile", Ramp({{0.0f, 1.0f}, {1.0f, 0.5f}}, true));
    const StrandsPtr out = run(bench);
    for (std::size_t s = 0; s < 50; ++s) {
        std::vector<float> shares(tuft.pointCountOf(s));
        polylineShares(tuft.pointsOf(s), shares);
        for (std::size_t i = 0; i < shares.size(); ++i) {
            const float by = -2.0f * shares[i] * (1.0f - 0.5f * shares[i]);
            const Vec3f moved = out->pointsOf(s)[i] - tuft.pointsOf(s)[i];
            EXPECT_LT(distance(moved, Vec3f{0, by, 0}), 1e-4f);
        }
    }
}

// --- All of them ---------------------------------------------------------------------------------

TEST_F(ShapeNodesTest, WithNothingToDoTheInputGoesOn) {
    const std::vector<std::pair<const char*, std::pair<const char*, ParamValue>>> cases = {
        {"Straighten", {"strength", 0.0}},
        {"Smooth", {"strength", 0.0}},
        {"Smooth", {"iterations", 0.0}},
        {"Smooth", {"profile", Ramp({{0.0f, 0.0f}})}},
        {"Comb", {"strength", 0.0}},
        {"Comb", {"direction", Vec3f{}}},
        {"Comb", {"profile", Ramp({{0.0f, 0.0f}})}},
        {"Displace", {"distance", 0.0}},
        {"Displace", {"profile", Ramp({{0.0f, 0.0f}})}},
    };
    for (const auto& [type, param] : cases) {
        NodeBench bench(type);
        bench.op().set(param.first, param.second);
        EXPECT_TRUE(run(bench)->sharesPoints(tuft)) << type << " " << param.first;
    }
}

}  // namespace
}  // namespace corvelle
