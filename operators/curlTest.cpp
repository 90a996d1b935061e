#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>
#include <numeric>
#include <set>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/curlLanes.h"
#include "operators/curlPoints.h"
#include "operators/curlShape.h"
#include "operators/strandFrames.h"
#include "operators/testing/nodeBench.h"
#include "operators/turnWave.h"

namespace corvelle {
namespace {

/// One straight strand along +Y.
StrandSet straight(float size, int segments, std::uint64_t id = 7, float x = 0.0f) {
    std::vector<Vec3f> points;
    for (int i = 0; i <= segments; ++i) points.push_back({x, size * float(i) / float(segments), 0});
    StrandSet out;
    out.addStrand(id, points, {}, {});
    return out;
}

MapSource expression(const char* text) { return {.kind = MapKind::Expression, .source = text}; }

class CurlTest : public testing::Test {
protected:
    CurlTest() { setVerifyIncremental(true); }
    ~CurlTest() override { setVerifyIncremental(false); }
    StrandsPtr run(const StrandSet& strands) {
        bench.feed(strands);
        return bench.evaluate();
    }
    void plain() {
        bench.op().set("randomness", 0.0);
        bench.op().set("phaseRandom", 0.0);
    }
    NodeBench bench{"Curl"};
    const StrandSet tuft = makeTuft({.strands = 900, .pointsPerStrand = 17, .seed = 5});
};

TEST(TurnWave, AgreesWithTheLibrary) {
    for (int i = -4000; i <= 4000; ++i) {
        const float turns = 0.0137f * float(i);
        const double angle = 2.0 * std::numbers::pi * double(turns);
        EXPECT_NEAR(sineOfTurns(turns), std::sin(angle), 1e-6);
        EXPECT_NEAR(cosineOfTurns(turns), std::cos(angle), 1e-6);
        EXPECT_NEAR(triangleOfTurns(turns), 2.0 / std::numbers::pi * std::asin(std::sin(angle)),
                    1e-4);
    }
    EXPECT_EQ(sineOfTurns(0.0f), 0.0f);
    EXPECT_EQ(sineOfTurns(1e30f), 0.0f);
}

TEST(StrandFrames, StaySquareAndDoNotTurnAboutTheStrand) {
    std::vector<Vec3f> points;  // one turn of a helix, of no torsion to speak of when flat
    for (int i = 0; i <= 200; ++i) {
        const float a = 0.0314159f * float(i);
        points.push_back({3.0f * std::cos(a), 0.0f, 3.0f * std::sin(a)});
    }
    std::vector<Vec3f> tangents(points.size()), normals(points.size());
    transportFrames(points, {0, 1, 0}, tangents, normals);
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_NEAR(dot(tangents[i], normals[i]), 0.0f, 1e-5f);
        EXPECT_NEAR(length(normals[i]), 1.0f, 1e-5f);
        EXPECT_NEAR(normals[i].y, 1.0f, 1e-4f) << "a plane curve keeps the normal of its plane";
    }
    const Vec3f dot3[] = {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}};
    transportFrames(dot3, {0, 1, 0}, std::span(tangents).first(3), std::span(normals).first(3));
    EXPECT_TRUE(isFinite(normals[2]) && isFinite(tangents[2]));
}

TEST(CurlWinder, WindsStrandsSideBySideToTheBitsOfEachAlone) {
    StrandSet set = makeTuft(
        {.strands = 400, .pointsPerStrand = 40, .seed = 3, .uneven = true, .degenerate = true});
    auto points = set.mutablePoints();
    for (const std::size_t s :
         {11u, 30u, 52u})  // a doubled point, one that is no number, a far one
        if (set.pointCountOf(s) > 2)
            points[set.offsets()[s] + 1] = s == 11   ? points[set.offsets()[s]]
                                           : s == 30 ? Vec3f{std::nanf(""), 0.0f, 0.0f}
                                                     : Vec3f{3e38f, -3e38f, 0.0f};
    std::vector<std::uint32_t> order(set.strandCount());  // so that lanes fill up
    std::iota(order.begin(), order.end(), 0u);
    std::ranges::stable_sort(order, {}, [&](std::uint32_t s) { return set.pointCountOf(s); });
    for (const CurlKind kind : {CurlKind::Helix, CurlKind::Wave, CurlKind::Zigzag})
        for (const float spacing : {0.0f, 0.5f}) {
            CurlSettings settings{.kind = kind, .spacingRandom = spacing};
            settings.profile = Ramp({{0.0f, 0.2f}, {0.4f, 1.0f}, {1.0f, 0.5f}});
            CurlWinder winder(settings, 40);
            CurlScratch scratch;
            scratch.reserve(40);
            std::vector<Vec3f> wound(points.size()), alone(points.size());
            std::vector<float> radii(points.size());
            for (std::size_t i = 0; i < radii.size(); ++i) radii[i] = 0.01f * float(i % 70);
            for (const std::uint32_t s : order) {
                const std::size_t at = set.offsets()[s], n = set.pointCountOf(s);
                if (n < 2) continue;
                const auto own = std::span<const float>(radii).subspan(at, n);
                const CurlDraws draws = curlDraws(settings, set.ids()[s]);
                winder.wind(set.pointsOf(s), own, {1, 0, 0}, draws,
                            std::span(wound).subspan(at, n));
                curlStrand(set.pointsOf(s), own, {1, 0, 0}, draws, settings, scratch,
                           std::span(alone).subspan(at, n));
            }
            winder.finish();
            for (std::size_t i = 0; i < wound.size(); ++i)
                for (int x = 0; x < 3; ++x)
                    if (!std::isnan(alone[i][x]) || !std::isnan(wound[i][x])) {
                        ASSERT_EQ(std::bit_cast<std::uint32_t>(wound[i][x]),
                                  std::bit_cast<std::uint32_t>(alone[i][x]))
                            << "point " << i;
                    }
        }
}

TEST_F(CurlTest, AskForTheSegmentsThatATurnNeeds) {
    EXPECT_EQ(segmentsPerTurn(0.0), 0);
    EXPECT_EQ(segmentsPerTurn(0.5), 3);
    EXPECT_EQ(segmentsPerTurn(0.3), 4);
    EXPECT_EQ(segmentsPerTurn(0.1), 7);
    EXPECT_EQ(segmentsPerTurn(0.03), 13);
    EXPECT_EQ(segmentsPerTurn(0.99), 3);
}

TEST_F(CurlTest, AHelixLiesAtItsRadiusAndMakesItsTurns) {
    plain();
    bench.op().set("radius", 0.5);
    bench.op().set("frequency", 0.5);
    bench.op().set("tolerance", 0.0);
    const StrandSet strand = straight(10.0f, 400);
    const StrandsPtr out = run(strand);
    const auto points = out->pointsOf(0);
    EXPECT_EQ(points[0], strand.pointsOf(0)[0]);
    double angle = 0.0;
    for (std::size_t i = 1; i < points.size(); ++i) {
        EXPECT_FLOAT_EQ(points[i].y, strand.pointsOf(0)[i].y);
        const float radius = std::hypot(points[i].x, points[i].z);
        const float turns = 0.5f * points[i].y;
        EXPECT_NEAR(radius, 0.5f * curlEase(turns), 1e-4f);
        if (turns < 0.25f) continue;
        EXPECT_NEAR(radius, 0.5f, 1e-4f);
        angle += std::atan2(
            double(points[i - 1].x) * points[i].z - double(points[i - 1].z) * points[i].x,
            double(points[i - 1].x) * points[i].x + double(points[i - 1].z) * points[i].z);
    }
    EXPECT_NEAR(std::abs(angle) / (2.0 * std::numbers::pi), 4.75, 0.05);
    EXPECT_EQ(bench.warning(), "");
}

TEST_F(CurlTest, AWaveIsPlanarAndAZigzagIsStraightBetweenItsKinks) {
    plain();
    bench.op().set("phase", 0.1);
    bench.op().set("radius", 0.3);
    bench.op().set("frequency", 0.8);
    for (const char* shape : {"wave", "zigzag"}) {
        bench.op().set("shape", std::string(shape));
        const StrandsPtr out = run(straight(10.0f, 6));
        const auto points = out->pointsOf(0);
        ASSERT_GT(points.size(), 15u);
        const Vec3f plane = normalized(Vec3f{points[3].x, 0, points[3].z});
        for (const Vec3f p : points)
            EXPECT_NEAR(length(Vec3f{p.x, 0, p.z} - plane * dot(p, plane)), 0.0f, 1e-4f);
        if (std::string(shape) == "wave") continue;
        // Kinks of the wave at +-radius, and straight from one to the next.
        std::vector<Vec3f> corners{points[0]};
        for (std::size_t i = 1; i + 1 < points.size(); ++i) {
            const Vec3f in = normalized(points[i] - points[i - 1]);
            const Vec3f on = normalized(points[i + 1] - points[i]);
            if (dot(in, on) < 0.999f && points[i].y > 0.5f) {
                EXPECT_NEAR(std::abs(dot(points[i], plane)), 0.3f, 2e-3f);
                corners.push_back(points[i]);
            }
        }
        EXPECT_GE(corners.size(), 15u);
        for (std::size_t i = 2; i < corners.size(); ++i)
            EXPECT_NEAR(corners[i].y - corners[i - 1].y, 0.5f / 0.8f, 5e-3f);
    }
    EXPECT_EQ(bench.warning(),
              "added points to 1 strand too few a turn for the tolerance (more Resample segments "
              "keep the GPU preview)");
}

TEST_F(CurlTest, AddsPointsOnlyWhereTheyAreTooFew) {
    plain();
    bench.op().set("frequency", 1.0);
    StrandSet three = straight(4.0f, 8, 1);
    three.append(straight(8.0f, 8, 2));
    three.append(straight(8.0f, 40, 3));
    const auto widths = three.mutableWidths();
    for (std::size_t p = 0; p < widths.size(); ++p) widths[p] = 0.1f;
    const auto tone = three.mutablePointChannel("tone", 0.0f);
    for (std::size_t p = 0; p < tone.size(); ++p) tone[p] = three.points()[p].y;
    three.mutableStrandChannel("age", 2.0f)[1] = 9.0f;

    const StrandsPtr out = run(three);
    ASSERT_TRUE(out->validate());
    EXPECT_EQ(out->pointCountOf(0), 13u);
    EXPECT_EQ(out->pointCountOf(1), 25u);
    EXPECT_EQ(out->pointCountOf(2), 41u) << "fine enough as it is";
    EXPECT_EQ((*out->strandChannel("age"))[1], 9.0f);
    for (std::size_t p = 0; p < out->pointCount(); ++p) {
        EXPECT_FLOAT_EQ(out->widths()[p], 0.1f);
        EXPECT_NEAR((*out->pointChannel("tone"))[p], out->points()[p].y, 1e-3f);
    }
    EXPECT_EQ(bench.warning(),
              "added points to 2 strands too few a turn for the tolerance (more Resample segments "
              "keep the GPU preview)");
    bench.op().set("maxSegments", 15.0);
    EXPECT_EQ(run(three)->pointCountOf(1), 16u);
    EXPECT_EQ(bench.warning(),
              "added points to 2 strands too few a turn for the tolerance (more Resample segments "
              "keep the GPU preview)");
    // A radius of 0 along the whole strand winds nothing.
    bench.op().set("radius", expression("step(1, age - 2)"));
    EXPECT_EQ(run(three)->pointCountOf(0), 9u);
    bench.op().set("tolerance", 0.0);
    EXPECT_TRUE(run(three)->sameLayout(three));
    EXPECT_EQ(bench.warning(), "");
}

TEST_F(CurlTest, NothingToWindHandsTheInputOn) {
    for (const auto& [param, shape] : {std::pair("radius", "helix"), std::pair("frequency", "wave"),
                                       std::pair("coilWidths", "coil")}) {
        NodeBench idle("Curl");
        idle.op().set("shape", std::string(shape));
        idle.op().set(param, 0.0);
        idle.feed(tuft);
        EXPECT_TRUE(idle.evaluate()->sharesPoints(tuft)) << param;
        EXPECT_EQ(idle.warning(), "");
    }
}

TEST_F(CurlTest, ACoilFollowsTheWidths) {
    plain();
    bench.op().set("shape", std::string("coil"));
    bench.op().set("coilWidths", 4.0);
    bench.op().set("tolerance", 0.0);
    StrandSet strand = straight(10.0f, 200);
    run(strand);
    EXPECT_EQ(bench.warning(),
              "coil reads the strands' widths, and these have none set (1 everywhere): put a Width "
              "node before it");
    run(StrandSet());
    EXPECT_EQ(bench.warning(), "") << "no strands, nothing to tell of them";
    const auto widths = strand.mutableWidths();
    for (std::size_t p = 0; p < widths.size(); ++p) widths[p] = 0.1f - 0.0004f * float(p);
    const StrandsPtr out = run(strand);
    EXPECT_EQ(bench.warning(), "");
    for (std::size_t p = 30; p < widths.size(); ++p)
        EXPECT_NEAR(std::hypot(out->points()[p].x, out->points()[p].z), 4.0f * widths[p], 1e-4f);
}

TEST_F(CurlTest, ProfilesShapeRadiusAndFrequency) {
    plain();
    bench.op().set("frequency", 0.5);
    bench.op().set("tolerance", 0.0);
    bench.op().set("profile", Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}, true));
    const StrandsPtr out = run(straight(10.0f, 100));
    for (std::size_t p = 20; p <= 100; ++p)
        EXPECT_NEAR(std::hypot(out->points()[p].x, out->points()[p].z),
                    0.5f * (1.0f - 0.01f * float(p)), 1e-4f);
    // The integral of the frequency, by hand: 5 turns times a mean of 0.5.
    CurlSettings settings{.frequency = 0.5f,
                          .randomness = 0.0f,
                          .frequencyProfile = Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}, true)};
    CurlScratch scratch;
    scratch.reserve(101);
    std::vector<float> shares(101), turns(101);
    for (std::size_t i = 0; i < shares.size(); ++i) shares[i] = 0.01f * float(i);
    EXPECT_NEAR(integrateTurns(shares, 10.0f, curlDraws(settings, 1), settings, scratch, turns),
                2.5f, 1e-3f);
    // Random spacing: never backwards, about as many turns, and not all alike.
    settings.frequencyProfile = Ramp();
    settings.spacingRandom = 1.0f;
    settings.frequency = 1.0f;
    std::set<int> steps;
    double sum = 0.0;
    for (std::uint64_t who = 0; who < 200; ++who) {
        sum += integrateTurns(shares, 10.0f, curlDraws(settings, who), settings, scratch, turns);
        for (std::size_t i = 1; i < turns.size(); ++i) {
            EXPECT_GE(turns[i], turns[i - 1]);
            steps.insert(int(100.0f * (turns[i] - turns[i - 1])));
        }
    }
    EXPECT_NEAR(sum / 200.0, 10.0, 0.5);
    EXPECT_GT(steps.size(), 10u);
}

TEST_F(CurlTest, ASecondCurlWindsRoundTheFirst) {
    plain();
    bench.op().set("tolerance", 0.0);
    bench.op().set("frequency", 0.2);
    const StrandSet strand = straight(10.0f, 400);
    const StrandsPtr first = run(strand);
    bench.op().set("frequency", 4.0);
    bench.op().set("radius", 0.05);
    const StrandsPtr second = run(*first);
    for (std::size_t p = 50; p < 401; ++p)
        EXPECT_NEAR(distance(first->points()[p], second->points()[p]), 0.05f, 1e-4f);
}

// --- Clumps --------------------------------------------------------------------------------------

TEST_F(CurlTest, AClumpCurlsAsOneBundle) {
    plain();
    bench.op().set("coherence", std::string("clump"));
    bench.op().set("clumpChannel", std::string("lockId"));
    bench.op().set("phaseRandom", 1.0);
    bench.op().set("frequency", 0.5);
    StrandSet bundle;
    for (std::uint64_t i = 0; i < 12; ++i)
        bundle.append(straight(10.0f, 60, i + 1, (i < 6 ? 0.0f : 20.0f) + 0.1f * float(i % 6)));
    bundle.mutableStrandChannel("other", 0.0f);
    EXPECT_THROW(run(bundle), GraphError);
    EXPECT_EQ(bench.error(),
              "node 'node': Curl: coherence clump needs a Clump before it (no 'lockId' channel to "
              "find the clumps)");
    const auto locks = bundle.mutableStrandChannel("lockId", -1.0f);
    for (std::size_t s = 0; s < 12; ++s) locks[s] = s < 6 ? 3.0f : s < 11 ? 8.0f : -1.0f;
    const StrandsPtr out = run(bundle);
    const auto moved = [&](std::size_t s, std::size_t i) {
        return out->pointsOf(s)[i] - bundle.pointsOf(s)[i];
    };
    for (std::size_t i = 20; i <= 60; ++i) {
        for (std::size_t s = 1; s < 11; ++s)
            EXPECT_NEAR(distance(moved(s, i), moved(s < 6 ? 0 : 6, i)), 0.0f, 2e-3f);
        EXPECT_NEAR(length(moved(0, i)), 0.5f, 2e-3f);
        EXPECT_GT(distance(moved(0, i), moved(6, i)), 0.01f) << "clumps start on their own";
    }
    EXPECT_GT(distance(moved(11, 40), moved(6, 40)), 0.01f) << "an unclumped strand is on its own";
}

/// The tuft with preview marks.
StrandSet marked(const StrandSet& tuft) {
    StrandSet out = tuft;
    const auto marks = out.mutableStrandChannel("_preview", 1.0f);
    for (std::size_t s = 0; s < marks.size(); ++s)
        marks[s] = unitHash(out.ids()[s]) < 0.25f ? 1.0f : 0.0f;
    return out;
}

TEST_F(CurlTest, AStrandInAThinnedPreviewHasThePointsItHasInTheWhole) {
    const StrandSet whole = marked(tuft);
    for (const char* shape : {"helix", "zigzag"})
        for (const char* coherence : {"strand", "clump"}) {
            bench.op().set("shape", std::string(shape));
            bench.op().set("coherence", std::string(coherence));
            bench.op().set("frequency", 1.5);
            bench.op().set("spacingRandom", 0.5);
            const StrandsPtr full = run(whole);
            const StrandsPtr thin = run(whole.thinned(0.4f));
            EXPECT_GT(full->pointCount(), tuft.pointCount());
            EXPECT_EQ(full->thinned(0.4f).contentHash(), thin->contentHash()) << shape << coherence;
        }
}

TEST_F(CurlTest, GivesTheSameBitsOnAnyNumberOfThreads) {
    for (const char* shape : {"helix", "wave", "zigzag", "coil"}) {
        bench.op().set("shape", std::string(shape));
        bench.op().set("coherence", std::string("clump"));
        bench.op().set("frequency", 1.0);
        bench.op().set("frequencyProfile", Ramp({{0.0f, 0.4f}, {1.0f, 1.0f}}));
        std::set<std::uint64_t> hashes;
        for (const unsigned threads : {1u, 2u, 8u}) {
            bench.feed(tuft);
            runWithThreads(threads, [&] { hashes.insert(bench.evaluate()->contentHash()); });
        }
        EXPECT_EQ(hashes.size(), 1u) << shape;
    }
}

TEST_F(CurlTest, UpdatesChangedStrandsAndTheirClumpsWithTheBitsOfAFullRun) {
    const StrandSet whole = marked(tuft);
    for (const bool together : {false, true})
        for (const double most : {256.0, 20.0, 1.0}) {
            NodeBench fresh("Curl");
            fresh.op().set("coherence", std::string(together ? "clump" : "strand"));
            fresh.op().set("frequency", most == 256.0 ? 0.2 : 6.0);
            fresh.op().set("maxSegments", most);  // 20: all strands have that many whatever moves
            fresh.op().set("radius", expression("0.2 + 0.3 * t"));
            fresh.feed(whole);
            const StrandsPtr first = fresh.evaluate();
            EXPECT_EQ(first->sameLayout(whole), most != 20.0);
            StrandSet edited = whole;
            SplitMix random(4);
            for (int round = 0; round < 5; ++round) {
                std::vector<std::uint32_t> changed;
                for (std::uint32_t s = 0; s < edited.strandCount(); ++s)
                    if (random.nextFloat() < 0.004f) changed.push_back(s);
                const auto points = edited.mutablePoints();
                for (const std::uint32_t s : changed)
                    for (std::uint64_t p = edited.offsets()[s] + 1; p < edited.offsets()[s + 1];
                         ++p)
                        points[p] += Vec3f{random.nextRange(-0.02f, 0.02f), 0.0f,
                                           random.nextRange(-0.02f, 0.02f)};
                // The verify switch compares with a full run, and throws on a difference.
                fresh.feedChanged(edited, changed);
                fresh.evaluate();
                EXPECT_TRUE(fresh.status().starts_with("incremental ")) << fresh.status();
                EXPECT_TRUE(together ||
                            fresh.status() == "incremental " + std::to_string(changed.size()));
            }
            // Another clump: what led the old one may have changed.
            if (!together) continue;
            edited.mutableStrandChannel("clumpId", -1.0f)[3] += 1.0f;
            fresh.feedChanged(edited, {3});
            fresh.evaluate();
            EXPECT_TRUE(fresh.status().starts_with("full")) << fresh.status();
        }
}

TEST_F(CurlTest, SurvivesDegenerateStrandsAndWildParams) {
    const StrandSet odd = makeTuft(
        {.strands = 300, .pointsPerStrand = 6, .seed = 3, .uneven = true, .degenerate = true});
    for (const char* shape : {"helix", "wave", "zigzag", "coil"})
        for (const char* coherence : {"strand", "clump"}) {
            NodeBench wild("Curl");
            wild.op().set("shape", std::string(shape));
            wild.op().set("coherence", std::string(coherence));
            wild.op().set("frequency", 1e30);
            wild.op().set("spacingRandom", 1.0);
            wild.op().set("tolerance", 0.01);
            wild.op().set("phase", -1e20);
            wild.feed(odd);
            const StrandsPtr out = wild.evaluate();
            EXPECT_TRUE(out->validate());
            EXPECT_TRUE(out->extent().finite) << shape << coherence;
            EXPECT_LE(out->maxPointsPerStrand(), 257u);
            if (std::string(coherence) == "strand") {
                wild.feed(StrandSet());
                EXPECT_EQ(wild.evaluate()->strandCount(), 0u);
            }
        }
    NodeBench failing("Curl");
    failing.op().set("shape", std::string("spring"));
    failing.feed(odd);
    EXPECT_EQ(failing.error(), "node 'node': Curl: shape must be helix, wave, zigzag or coil");
}

}  // namespace
}  // namespace corvelle
