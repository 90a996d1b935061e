// BlendNeighbors, Tangle, Twist and Clump: the nodes whose strands look at other strands.

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/partData.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/neighborTable.h"
#include "operators/previewStrands.h"
#include "operators/registerOperators.h"
#include "operators/tangle.h"
#include "operators/testing/nodeBench.h"
#include "operators/twist.h"

namespace corvelle {
namespace {

/// Marks what every preview holds: ids below `always`, as Scatter does.
StrandSet marked(StrandSet set, float always) {
    const auto marks = set.mutableStrandChannel("_preview", 1.0f);
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        marks[s] = unitHash(set.ids()[s]) < always ? 1.0f : 0.0f;
    set.setStrandChannelDiscrete("_preview");
    return set;
}

// --- The table ---------------------------------------------------------------------------------

/// The neighbours of a strand by looking at all.
std::vector<std::uint32_t> plainNeighbors(const StrandSet& set, const NeighborSettings& settings,
                                          std::size_t s) {
    const auto value = [&](const std::string& channel, std::size_t at) {
        const std::vector<float>* values = set.strandChannel(channel);
        return values ? (*values)[at] : 0.0f;
    };
    const auto rootOf = [&](std::size_t at) { return set.pointsOf(at)[0]; };
    struct Found {
        float squared;
        std::uint64_t id;
        std::uint32_t index;
    };
    std::vector<Found> found;
    if (set.pointCountOf(s) == 0) return {};
    for (const std::uint32_t other : previewStrands(set)) {
        if (other == s || set.pointCountOf(other) == 0) continue;
        if (value(settings.regionChannel, s) != value(settings.regionChannel, other)) continue;
        if (value(settings.clumpChannel, s) != value(settings.clumpChannel, other)) continue;
        if (settings.parts && settings.parts->separates(rootOf(s), rootOf(other))) continue;
        const Vec3f d = rootOf(other) - rootOf(s);
        const float squared = d.x * d.x + d.y * d.y + d.z * d.z;
        if (squared > settings.maxDistance * settings.maxDistance) continue;
        found.push_back({squared, set.ids()[other], other});
    }
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return a.squared != b.squared ? a.squared < b.squared : a.id < b.id;
    });
    std::vector<std::uint32_t> indices;
    for (std::size_t i = 0; i < std::min(found.size(), settings.count); ++i)
        indices.push_back(found[i].index);
    return indices;
}

/// A straight part through the tuft's disc, along z at x = 1.
std::shared_ptr<const PartLines> middlePart() {
    const auto plane = std::make_shared<const ScalpMesh>(makePlane(20, 20, 24.0f));
    PartLine line{"middle", {}};
    for (int i = -11; i <= 11; ++i) {
        SurfaceHit hit;
        plane->closestPoint({1.0f, 0.0f, float(i)}, 5.0f, hit);
        line.points.push_back(hit.root());
    }
    return partLinesOn({{line}}, plane);
}

/// Hair with some roots twice, and strands of few points.
StrandSet tuftWithTwins(std::size_t strands, std::uint64_t seed) {
    StrandSet set = makeTuft({.strands = strands,
                              .pointsPerStrand = 6,
                              .seed = seed,
                              .uneven = true,
                              .degenerate = true});
    const auto points = set.mutablePoints();
    for (std::size_t s = 1; s < set.strandCount(); s += 9)
        if (set.pointCountOf(s) > 0 && set.pointCountOf(s - 1) > 0)
            points[set.offsets()[s]] = points[set.offsets()[s - 1]];
    const auto region = set.mutableStrandChannel("region", -1.0f);
    for (std::size_t s = 0; s < set.strandCount(); ++s) region[s] = float(s % 3) - 1.0f;
    return set;
}

TEST(NeighborTableTest, FindsWhatLookingAtAllFinds) {
    const StrandSet all = tuftWithTwins(1200, 4);
    const auto parts = middlePart();
    const std::vector<NeighborSettings> cases = {
        {.count = 4},
        {.count = 16},
        {.count = 1, .regionChannel = "region"},
        {.count = 5, .regionChannel = "region", .clumpChannel = "clumpId"},
        {.count = 8, .maxDistance = 0.8f, .clumpChannel = "clumpId"},
        {.count = 4, .regionChannel = "no such channel", .parts = parts},
    };
    for (const StrandSet& set : {all, marked(all, 0.3f)})
        for (const NeighborSettings& settings : cases) {
            const NeighborTable table(set, settings);
            std::vector<std::vector<std::uint32_t>> to(set.strandCount());
            for (std::size_t s = 0; s < set.strandCount(); ++s) {
                const auto wanted = plainNeighbors(set, settings, s);
                EXPECT_TRUE(std::ranges::equal(table.of(s), wanted)) << s;
                for (const std::uint32_t other : table.of(s)) to[other].push_back(std::uint32_t(s));
            }
            for (std::size_t s = 0; s < set.strandCount(); s += 7)
                EXPECT_TRUE(std::ranges::equal(table.neighborsTo(s), to[s]));
        }
}

TEST(NeighborTableTest, StopsLookingPastAPartThatEnclosesAStrand) {
    // More strands beyond the part than it looks at.
    StrandSet set;
    for (std::uint64_t s = 0; s < 400; ++s)
        set.addStrand(mix64(s), std::vector<Vec3f>{{2.0f + 0.01f * float(s), 0, 0}}, {}, {});
    set.addStrand(7, std::vector<Vec3f>{{0.9f, 0, 0}}, {}, {});
    const NeighborTable table(set, {.count = 3, .parts = middlePart()});
    EXPECT_TRUE(table.of(400).empty());
    EXPECT_EQ(table.of(0).size(), 3u);
}

TEST(NeighborTableTest, IsKeptWhileRootsRegionsAndPartsStay) {
    const StrandSet set = tuftWithTwins(500, 9);
    NeighborSettings settings{.count = 4, .regionChannel = "region"};
    NeighborCache cache;
    const auto table = cache.table(set, settings);
    StrandSet bent = set;
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        for (std::size_t i = 1; i < set.pointCountOf(s); ++i)
            bent.mutablePoints()[bent.offsets()[s] + i].x += 1.0f;
    EXPECT_EQ(cache.table(bent, settings), table) << "shapes do not matter";
    const std::vector<std::uint32_t> changed = {3, 5};
    EXPECT_EQ(cache.kept(bent, changed, settings), table);

    StrandSet moved = set;
    moved.mutablePoints()[moved.offsets()[5]].x += 0.5f;
    EXPECT_EQ(cache.kept(moved, changed, settings), nullptr);
    StrandSet other = set;
    other.mutableStrandChannel("region", -1.0f)[3] = 7.0f;
    EXPECT_EQ(cache.kept(other, changed, settings), nullptr);
    NeighborCache copy;
    copy.copyFrom(cache);
    EXPECT_EQ(copy.kept(set, changed, settings), table);
    EXPECT_NE(cache.table(moved, settings), table);
    settings.parts = middlePart();
    EXPECT_EQ(copy.kept(set, changed, settings), nullptr);
}

// --- What these nodes promise ------------------------------------------------------------------

struct NodeCase {
    const char* name;
    const char* type;
    std::vector<std::pair<std::string, ParamValue>> params;
    enum class Updates { Never, RootsStay, Always } updates = Updates::Never;
};
using Updates = NodeCase::Updates;
MapSource expression(const char* text) { return {.kind = MapKind::Expression, .source = text}; }

const std::vector<NodeCase> kCases = {
    {"BlendPlain", "BlendNeighbors", {}, Updates::RootsStay},
    {"BlendMapped",
     "BlendNeighbors",
     {{"strength", expression("rand")},
      {"neighbors", 9.0},
      {"preserveLength", false},
      {"profile", Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}})}},
     Updates::RootsStay},
    {"BlendInRegions",
     "BlendNeighbors",
     {{"regionChannel", std::string("clumpId")}, {"respectParts", false}, {"strength", 1.0}},
     Updates::RootsStay},
    {"TanglePlain", "Tangle", {{"radius", 1.5}}},
    {"TangleAcross",
     "Tangle",
     {{"sameClump", false},
      {"fraction", expression("0.8")},
      {"radius", 1.0},
      {"reach", 1.5},
      {"seed", 4.0}}},
    {"TwistClumps", "Twist", {{"turn", expression("rand * 0.3")}}},
    {"ClumpPlain", "Clump", {{"count", 60.0}, {"strengthRandom", 0.4}}, Updates::RootsStay},
    {"ClumpLocks",
     "Clump",
     {{"count", 40.0},
      {"lockRadius", 0.4},
      {"lockRadiusRandom", 0.3},
      {"flatness", 0.5},
      {"pastTip", std::string("extend")},
      {"clumpChannel", std::string("lockId")}},
     Updates::RootsStay},
    {"ClumpVolumized",
     "Clump",
     {{"clumpBy", std::string("size")},
      {"size", 1.5},
      {"strength", expression("t * rand")},
      {"volumize", expression("rand - 0.3")},
      {"centerWeight", 0.6}},
     Updates::RootsStay},
    {"ClumpParts",
     "Clump",
     {{"count", 20.0},
      {"strength", -0.7},
      {"repelRadius", 5.0},
      {"clumpChannel", std::string("sideId")},
      {"regionChannel", std::string("clumpId")}},
     Updates::RootsStay},
    {"CurlOfClumps",
     "Curl",
     {{"coherence", std::string("clump")}, {"tolerance", 0.0}, {"spacingRandom", 0.3}},
     Updates::Always},
};

class NeighborNodeTest : public testing::TestWithParam<NodeCase> {
protected:
    NeighborNodeTest() { setVerifyIncremental(true); }
    ~NeighborNodeTest() override { setVerifyIncremental(false); }
    StrandsPtr run(const StrandSet& strands) {
        NodeBench bench(GetParam().type);
        prepare(bench);
        bench.feed(strands);
        return bench.evaluate();
    }
    void prepare(NodeBench& bench) {
        bench.data.parts = middlePart();
        for (const auto& [name, value] : GetParam().params) bench.op().set(name, value);
    }
    const StrandSet tuft =
        makeTuft({.strands = 1500, .pointsPerStrand = 9, .seed = 5, .radius = 6});
};
INSTANTIATE_TEST_SUITE_P(All, NeighborNodeTest, testing::ValuesIn(kCases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(NeighborNodeTest, KeepsRootsAndGivesTheSameBitsOnAnyNumberOfThreads) {
    std::vector<StrandsPtr> results;
    for (const unsigned threads : {1u, 2u, 8u})
        runWithThreads(threads, [&] { results.push_back(run(tuft)); });
    const StrandSet& out = *results[0];
    EXPECT_EQ(results[1]->contentHash(), out.contentHash());
    EXPECT_EQ(results[2]->contentHash(), out.contentHash());
    ASSERT_TRUE(out.sameLayout(tuft));
    std::size_t moved = 0;
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        EXPECT_EQ(out.pointsOf(s)[0], tuft.pointsOf(s)[0]);
        moved += out.pointsOf(s)[5] != tuft.pointsOf(s)[5];
    }
    EXPECT_GT(moved, tuft.strandCount() / 6) << "a node that does nothing proves nothing";
    EXPECT_TRUE(out.extent().finite);
}

TEST_P(NeighborNodeTest, GivesAStrandOfAThinnedViewThePointsOfTheWhole) {
    const StrandSet full = marked(tuft, 0.25f);
    const StrandsPtr whole = run(full);
    for (const float share : {0.25f, 0.6f})
        EXPECT_EQ(run(full.thinned(share))->contentHash(), whole->thinned(share).contentHash());
    EXPECT_NE(whole->contentHash(), marked(*run(tuft), 0.25f).contentHash())
        << "other neighbours than without marks, else this proves nothing";
}

TEST_P(NeighborNodeTest, StatesItsChangesWithTheBitsOfAFullRun) {
    NodeBench bench(GetParam().type);
    prepare(bench);
    StrandSet edited = marked(tuft, 0.5f);
    bench.feed(edited);
    bench.evaluate();
    SplitMix random(9);
    const Updates updates = GetParam().updates;
    for (int round = 0; round < 6; ++round) {
        std::vector<std::uint32_t> changed;
        for (std::uint32_t s = 0; s < edited.strandCount(); ++s)
            if (random.nextFloat() < 0.01f) changed.push_back(s);
        const auto points = edited.mutablePoints();
        for (const std::uint32_t s : changed)
            for (std::uint64_t p = edited.offsets()[s] + 1; p < edited.offsets()[s + 1]; ++p)
                points[p] += Vec3f{random.nextRange(-1, 1), 0.2f, random.nextRange(-1, 1)};
        if (round == 4) points[edited.offsets()[changed[0]]].x += 0.7f;  // a root: other neighbours
        bench.feedChanged(edited, changed);
        const StrandsPtr updated = bench.evaluate();  // compared with a full run by the switch
        const bool incremental = bench.status().starts_with("incremental ");
        EXPECT_EQ(incremental,
                  updates == Updates::Always || (updates == Updates::RootsStay && round != 4))
            << bench.status();
        EXPECT_EQ(run(edited)->contentHash(), updated->contentHash());
    }
}

TEST_P(NeighborNodeTest, SurvivesDegenerateStrands) {
    StrandSet odd = tuftWithTwins(400, 3);
    odd.mutableStrandChannel("clumpId", -1.0f)[3] = std::nanf("");
    odd.mutablePoints()[40].x = std::nanf("");
    EXPECT_TRUE(run(odd)->validate());
    EXPECT_EQ(run(tuft.subset(std::vector<std::uint32_t>{}))->strandCount(), 0u);
    const StrandSet one = tuft.subset(std::vector<std::uint32_t>{8});
    EXPECT_EQ(run(one)->strandCount(), 1u);
}

// --- BlendNeighbors ----------------------------------------------------------------------------

/// A row of straight strands 1 cm apart, leaning as `lean` says, in cm at the tip.
StrandSet row(const std::vector<float>& lean) {
    StrandSet set;
    for (std::size_t s = 0; s < lean.size(); ++s) {
        std::vector<Vec3f> points;
        for (int i = 0; i <= 8; ++i) {
            const float t = float(i) / 8.0f;
            points.push_back({float(s) + lean[s] * t, 5.0f * t, 0.0f});
        }
        set.addStrand(s + 1, points, {}, {});
    }
    return set;
}

TEST(BlendNeighborsTest, GoesTowardThePlainMeanOfTheOthers) {
    const StrandSet set = row({0.0f, 2.0f, -4.0f});
    NodeBench bench("BlendNeighbors");
    bench.op().set("neighbors", 2.0);
    bench.op().set("preserveLength", false);
    bench.feed(set);
    StrandsPtr out = bench.evaluate();
    for (std::size_t i = 0; i <= 8; ++i) {
        const float t = float(i) / 8.0f;
        EXPECT_NEAR(out->pointsOf(0)[i].x, -0.5f * t, 1e-5f) << "half of (2 - 4) / 2";
        EXPECT_NEAR(out->pointsOf(1)[i].x, 1.0f + (2.0f - 2.0f) * t, 1e-5f);
    }
    bench.op().set("preserveLength", true);
    out = bench.evaluate();
    for (std::size_t s = 0; s < 3; ++s)
        EXPECT_NEAR(polylineLength(out->pointsOf(s)), polylineLength(set.pointsOf(s)), 1e-5f);
    bench.op().set("strength", 0.0);
    EXPECT_TRUE(bench.evaluate()->sharesPoints(set));
}

TEST(BlendNeighborsTest, KeepsToItsSideOfAPartAndToItsRegion) {
    StrandSet set = row({1.0f, 1.0f, -3.0f, -3.0f});  // the part runs along x = 1
    for (Vec3f& p : set.mutablePoints()) p.x -= 0.5f;
    NodeBench bench("BlendNeighbors");
    bench.data.parts = middlePart();
    bench.op().set("strength", 1.0);
    bench.feed(set);
    const auto tips = [&] {
        std::vector<float> leans;
        const StrandsPtr out = bench.evaluate();
        for (std::size_t s = 0; s < 4; ++s)
            leans.push_back(out->pointsOf(s)[8].x - out->pointsOf(s)[0].x);
        return leans;
    };
    const std::vector<float> apart = {1, 1, -3, -3};
    for (std::size_t s = 0; s < 4; ++s) EXPECT_NEAR(tips()[s], apart[s], 1e-5f);
    bench.op().set("respectParts", false);
    EXPECT_LT(tips()[0], 0.0f);
    const auto region = set.mutableStrandChannel("region", -1.0f);
    for (std::size_t s = 0; s < 4; ++s) region[s] = s < 2 ? 0.0f : 1.0f;
    bench.feed(set);
    for (std::size_t s = 0; s < 4; ++s) EXPECT_NEAR(tips()[s], apart[s], 1e-5f);
}

// --- Tangle ------------------------------------------------------------------------------------

TEST(TangleTest, TwoStrandsMeetAtFullStrength) {
    StrandSet set = row({0.0f, 0.0f});
    NodeBench bench("Tangle");
    bench.op().set("radius", 2.0);
    bench.op().set("fraction", 1.0);
    bench.op().set("strength", 1.0);
    bench.op().set("span", 1.0);
    bench.op().set("start", 0.0);
    bench.feed(set);
    const StrandsPtr out = bench.evaluate();
    EXPECT_NEAR(distance(out->pointsOf(0)[4], out->pointsOf(1)[4]), 0.0f, 1e-5f);
    for (std::size_t i : {0u, 8u})
        EXPECT_NEAR(distance(out->pointsOf(0)[i], out->pointsOf(1)[i]), 1.0f, 1e-5f)
            << "apart at the ends of the span";
    bench.op().set("reach", 0.9);
    EXPECT_TRUE(std::ranges::equal(bench.evaluate()->points(), set.points())) << "too far apart";
    bench.op().set("reach", 1.1);
    EXPECT_FALSE(std::ranges::equal(bench.evaluate()->points(), set.points()));
    const auto clumps = set.mutableStrandChannel("clumpId", -1.0f);
    clumps[1] = 3.0f;
    bench.feed(set);
    EXPECT_TRUE(std::ranges::equal(bench.evaluate()->points(), set.points())) << "two clumps";
    bench.op().set("sameClump", false);
    EXPECT_FALSE(std::ranges::equal(bench.evaluate()->points(), set.points()));
    bench.op().set("fraction", 0.0);
    EXPECT_TRUE(bench.evaluate()->sharesPoints(set));
}

TEST(TangleTest, NeverSticksAcrossAPart) {
    StrandSet set = row({0.0f, 0.0f, 0.0f, 0.0f});  // the part runs along x = 1
    for (Vec3f& p : set.mutablePoints()) p.x -= 0.5f;
    NodeBench bench("Tangle");
    bench.op().set("radius", 9.0);
    bench.op().set("fraction", 1.0);
    const auto crossings = [&](double seed) {
        bench.op().set("seed", seed);
        bench.feed(set);
        const StrandsPtr out = bench.evaluate();
        int count = 0;
        for (std::size_t s = 0; s < 4; ++s)
            for (const Vec3f& p : out->pointsOf(s)) count += (p.x < 1.0f) != (s < 2);
        return count;
    };
    int without = 0;
    for (int seed = 0; seed < 8; ++seed) without += crossings(seed);
    EXPECT_GT(without, 0) << "else this proves nothing";
    bench.data.parts = middlePart();
    for (int seed = 0; seed < 8; ++seed) EXPECT_EQ(crossings(seed), 0);
}

TEST(TangleTest, PullsWithinItsSpanAndNotPastThePartnersTip) {
    std::vector<Vec3f> points, partner;
    for (int i = 0; i <= 20; ++i) points.push_back({0, 0.5f * float(i), 0});
    for (int i = 0; i <= 7; ++i) partner.push_back({1, float(i), 0});
    std::vector<float> lengths(21), partnerLengths(8);
    polylineLengths(points, lengths);
    polylineLengths(partner, partnerLengths);
    std::vector<Vec3f> out(21);
    EXPECT_TRUE(stickStrand(points, lengths, partner, partnerLengths, {0.3f, 0.9f}, 0.8f, 0, out));
    for (std::size_t i = 0; i <= 20; ++i) {
        EXPECT_EQ(out[i].y, points[i].y) << "as far from the root on both";
        if (lengths[i] <= 3.0f || lengths[i] >= 7.0f)
            EXPECT_EQ(out[i], points[i]);
        else
            EXPECT_GT(out[i].x, 0.0f);
    }
    EXPECT_NEAR(out[10].x, 0.8f, 1e-6f) << "the middle of what both have";
    EXPECT_FALSE(stickStrand(points, lengths, partner, partnerLengths, {0.75f, 1}, 1, 0, out));
    EXPECT_EQ(out, points);
}

// --- Twist -------------------------------------------------------------------------------------

TEST(TwistTest, NeedsAxesOrClumps) {
    NodeBench bench("Twist");
    StrandSet set = row({0.0f, 1.0f});
    bench.feed(set);
    const auto errorOf = [&] {
        try {
            bench.evaluate();
        } catch (const GraphError& error) {
            return std::string(error.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(errorOf(),
              "node 'node': Twist: connect axes (guides), or put a Clump before it (no 'clumpId' "
              "channel to find the clumps)");
    bench.op().set("clumpChannel", std::string("locks"));
    EXPECT_NE(errorOf().find("(no 'locks' channel"), std::string::npos);
    set.mutableStrandChannel("locks", -1.0f);
    bench.feed(set);
    EXPECT_TRUE(std::ranges::equal(bench.evaluate()->points(), set.points()))
        << "outside of clumps";
    bench.op().set("turn", 0.0);
    EXPECT_TRUE(bench.evaluate()->sharesPoints(set));
}

TEST(TwistTest, TurnsAboutTheMeanOfTheClump) {
    // Four upright strands round the y axis: after t of 5 cm they have turned 0.1 * 5 t times.
    StrandSet set;
    for (int s = 0; s < 4; ++s) {
        std::vector<Vec3f> points;
        const Vec3f off = s == 0   ? Vec3f{1, 0, 0}
                          : s == 1 ? Vec3f{-1, 0, 0}
                          : s == 2 ? Vec3f{0, 0, 2}
                                   : Vec3f{0, 0, -2};
        for (int i = 0; i <= 10; ++i) points.push_back(off + Vec3f{0, 0.5f * float(i), 0});
        set.addStrand(std::uint64_t(s) + 1, points, {}, {});
    }
    std::ranges::fill(set.mutableStrandChannel("clumpId", -1.0f), 5.0f);
    NodeBench bench("Twist");
    bench.op().set("turn", -0.1);
    bench.feed(set);
    const StrandsPtr out = bench.evaluate();
    for (std::size_t s = 0; s < 4; ++s)
        for (std::size_t i = 0; i <= 10; ++i) {
            const float angle = -0.1f * 0.5f * float(i) * 2.0f * std::numbers::pi_v<float>;
            const Vec3f wanted = Rotation::about({0, 1, 0}, angle)(set.pointsOf(s)[i]);
            EXPECT_LT(distance(out->pointsOf(s)[i], wanted), 2e-5f);
        }
}

TEST(TwistTest, TurnsABigClumpAboutTheMeanOfAllItsStrands) {
    // As many strands on both sides of the y axis, of two point counts: half a turn swaps the
    // sides.
    StrandSet set;
    SplitMix random(6);
    for (std::uint64_t s = 0; s < 70; s += 2) {
        const Vec3f off{random.nextRange(-1, 1), 0, random.nextRange(-1, 1)};
        for (const float side : {1.0f, -1.0f}) {
            std::vector<Vec3f> points;
            const int segments = s < 40 ? 10 : 6;
            for (int i = 0; i <= segments; ++i)
                points.push_back(off * side + Vec3f{0, 5.0f * float(i) / float(segments), 0});
            set.addStrand(s + std::uint64_t(side > 0), points, {}, {});
        }
    }
    std::ranges::fill(set.mutableStrandChannel("clumpId", -1.0f), 2.0f);
    NodeBench bench("Twist");
    bench.op().set("turn", 0.1);
    bench.feed(set);
    const StrandsPtr out = bench.evaluate();
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        const Vec3f from = set.pointsOf(s).back(), to = out->pointsOf(s).back();
        EXPECT_LT(distance(to, {-from.x, from.y, -from.z}), 1e-4f);
    }
}

TEST(TwistTest, TurnsAboutTheNearestGuideConnected) {
    StrandSet set = row({0.0f, 0.0f});
    std::vector<GuideCurve> curves(2);
    for (std::size_t g = 0; g < 2; ++g) {
        curves[g].id = g + 1;
        for (int i = 0; i < 4; ++i)
            curves[g].points.push_back({3.0f * float(g) - 0.5f, 5.0f * float(i) / 3.0f, 0.0f});
    }
    registerOperators();
    const OperatorPtr op = OperatorRegistry::instance().create("Twist");
    op->set("turn", 0.1);
    EvaluationData data;
    NodeInputs inputs;
    inputs.values = {std::make_shared<const StrandSet>(set),
                     std::make_shared<const GuideSet>(curves)};
    inputs.connected = {true, true};
    const auto out = std::get<StrandsPtr>(op->evaluate(EvalContext(data), inputs));
    // Half a turn at the tip: to the other side of its axis, at x = -0.5 or 2.5.
    EXPECT_LT(distance(out->pointsOf(0)[8], {-1.0f, 5, 0}), 1e-4f);
    EXPECT_LT(distance(out->pointsOf(1)[8], {-2.0f, 5, 0}), 1e-4f);
    inputs.values[1] = std::make_shared<const GuideSet>();
    EXPECT_TRUE(std::get<StrandsPtr>(op->evaluate(EvalContext(data), inputs))->sharesPoints(set));
}

}  // namespace
}  // namespace corvelle
