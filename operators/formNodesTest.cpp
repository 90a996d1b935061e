// Nodes that change how many strands there are, how long, or what kind: what each does, and what
// holds for all of them.

#include <array>
#include <numeric>
#include <set>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/guideStrands.h"
#include "operators/matchIds.h"
#include "operators/meshCut.h"
#include "operators/mirror.h"
#include "operators/registerOperators.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

MapSource expression(const char* text) { return {.kind = MapKind::Expression, .source = text}; }

std::map<std::uint64_t, std::size_t> byId(const StrandSet& set) {
    std::map<std::uint64_t, std::size_t> at;
    for (std::size_t s = 0; s < set.strandCount(); ++s) at[set.ids()[s]] = s;
    return at;
}

/// The tuft with the points of about one strand in fifty moved; which, goes to `changed`.
StrandSet edited(const StrandSet& tuft, SplitMix& random, std::vector<std::uint32_t>& changed,
                 bool roots = false) {
    StrandSet out = tuft;
    changed.clear();
    for (std::uint32_t s = 0; s < out.strandCount(); ++s)
        if (random.nextFloat() < 0.02f) changed.push_back(s);
    const auto points = out.mutablePoints();
    const auto widths = out.mutableWidths();
    for (const std::uint32_t s : changed)
        for (std::uint64_t p = out.offsets()[s] + (roots ? 0 : 1); p < out.offsets()[s + 1]; ++p) {
            points[p] +=
                Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
            widths[p] *= 1.5f;
        }
    return out;
}

// --- What holds for all ------------------------------------------------------------------------

struct FormCase {
    const char* name;
    const char* type;
    std::vector<std::pair<std::string, ParamValue>> params;
};

const std::vector<FormCase> kCases = {
    {"Cull", "Cull", {{"keep", 0.6}}},
    {"CullMapped", "Cull", {{"keep", expression("step(4, reach)")}, {"seed", 3.0}}},
    {"MirrorReplace", "Mirror", {{"axis", std::string("z")}, {"offset", 0.5}}},
    {"MirrorAdd", "Mirror", {{"mode", std::string("add")}, {"reattach", false}}},
    {"CutByObstacle", "MeshCut", {{"offset", 0.2}}},
    {"CutInside", "MeshCut", {{"mode", std::string("inside")}}},
    {"RestoreSegments", "RestoreLength", {}},
    {"RestoreScale", "RestoreLength", {{"mode", std::string("scale")}}},
    {"ResampleByCurvature", "Resample", {{"mode", std::string("curvature")}, {"segments", 20.0}}},
    {"ResampleByLength", "Resample", {{"mode", std::string("length")}, {"segments", 20.0}}},
};

class FormNodeTest : public testing::TestWithParam<FormCase> {
protected:
    FormNodeTest() {
        setVerifyIncremental(true);
        bench.data.scalp = std::make_shared<const ScalpMesh>(makeSphere(8, 8, 10.0f));
        bench.data.colliders["collider"] = {
            std::make_shared<const ScalpMesh>(makeIcosphere(3, 5.0f)), -1.0f};
        for (const auto& [name, value] : GetParam().params) bench.op().set(name, value);
        if (bench.op().type() == "MeshCut") bench.connect(1, "ColliderMesh");
        if (bench.op().type() == "RestoreLength") bench.feed(stretched(tuft), 1);
    }
    ~FormNodeTest() override { setVerifyIncremental(false); }

    static StrandSet stretched(const StrandSet& in) {
        StrandSet out = in;
        for (Vec3f& p : out.mutablePoints()) p = p * 1.3f + Vec3f{p.y, 0.0f, 0.0f} * 0.2f;
        return out;
    }

    NodeBench bench{GetParam().type};
    const StrandSet tuft = makeTuft({.strands = 900, .pointsPerStrand = 9, .seed = 5});
};
INSTANTIATE_TEST_SUITE_P(All, FormNodeTest, testing::ValuesIn(kCases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(FormNodeTest, GivesTheSameBitsOnAnyNumberOfThreads) {
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u}) {
        bench.feed(tuft);
        runWithThreads(threads, [&] { hashes.insert(bench.evaluate()->contentHash()); });
    }
    EXPECT_EQ(hashes.size(), 1u);
    EXPECT_NE(*hashes.begin(), tuft.contentHash()) << "a node that does nothing proves nothing";
}

TEST_P(FormNodeTest, MakesOfAStrandWhatItMakesOfItInAThinnedSet) {
    // The longest strand is in every preview, so that a Resample by length measures by the same.
    StrandSet marked = tuft;
    const auto preview = marked.mutableStrandChannel("_preview", 0.0f);
    float longest = 0.0f;
    std::size_t at = 0;
    for (std::size_t s = 0; s < marked.strandCount(); ++s) {
        preview[s] = unitHash(marked.ids()[s]) < 0.2f ? 1.0f : 0.0f;
        if (const float l = polylineLength(marked.pointsOf(s)); preview[s] > 0.0f && l > longest)
            longest = l, at = s;
    }
    ASSERT_LT(at, marked.strandCount());
    bench.feed(marked);
    const StrandsPtr all = bench.evaluate();
    bench.feed(marked.thinned(0.3f));
    const StrandsPtr some = bench.evaluate();
    ASSERT_GT(some->strandCount(), 50u);
    ASSERT_LT(some->strandCount(), all->strandCount());
    const auto whole = byId(*all);
    for (std::uint32_t s = 0; s < some->strandCount(); ++s) {
        const std::uint32_t there = std::uint32_t(whole.at(some->ids()[s]));
        EXPECT_EQ(some->subset(std::span(&s, 1)).contentHash(),
                  all->subset(std::span(&there, 1)).contentHash());
    }
}

TEST_P(FormNodeTest, FollowsEditsWithTheBitsOfAFullRun) {
    bench.feed(tuft);
    bench.evaluate();
    StrandSet now = tuft;
    SplitMix random(9);
    std::vector<std::uint32_t> changed;
    for (int round = 0; round < 8; ++round) {
        now = edited(now, random, changed, round % 3 == 2);
        bench.feedChanged(now, changed);  // the verify switch compares, and throws
        const std::uint64_t updated = bench.evaluate()->contentHash();
        bench.feed(now);
        EXPECT_EQ(bench.evaluate()->contentHash(), updated);
    }
}

TEST_P(FormNodeTest, SurvivesDegenerateStrands) {
    for (const bool uneven : {true, false}) {
        bench.feed(makeTuft({.strands = 300,
                             .pointsPerStrand = 6,
                             .seed = 3,
                             .uneven = uneven,
                             .degenerate = true}));
        const StrandsPtr out = bench.evaluate();
        std::string why;
        EXPECT_TRUE(out->validate(&why)) << why;
        EXPECT_TRUE(out->extent().finite);
    }
    bench.feed(StrandSet());
    EXPECT_EQ(bench.evaluate()->strandCount(), 0u);
}

// --- What each does ----------------------------------------------------------------------------

class FormTest : public testing::Test {
protected:
    FormTest() { setVerifyIncremental(true); }
    ~FormTest() override { setVerifyIncremental(false); }
    const StrandSet tuft = makeTuft({.strands = 2000, .pointsPerStrand = 9, .seed = 11});
};

TEST_F(FormTest, NodesWithNothingToDoHandTheirInputOn) {
    StrandSet flat = tuft;  // all roots on the plane that Mirror reflects across
    for (std::size_t s = 0; s < flat.strandCount(); ++s)
        flat.mutablePoints()[flat.offsets()[s]].x = 0.0f;
    for (const char* type : {"Cull", "MeshCut", "RestoreLength", "Mirror"}) {
        NodeBench bench(type);
        bench.feed(flat);
        const std::string what = type;
        if (what == "MeshCut") {
            bench.data.colliders["collider"] = {
                std::make_shared<const ScalpMesh>(makeIcosphere(1, 1000.0f)), -1.0f};
            bench.connect(1, "ColliderMesh");
            bench.op().set("mode", std::string("inside"));
        }
        if (what == "RestoreLength")
            bench.graph().connect(bench.graph().byName("fed0"), 0, bench.graph().byName("node"), 1);
        EXPECT_EQ(bench.evaluate(), bench.fed()) << type;
    }
}

TEST_F(FormTest, ErrorsSayWhatIsWrong) {
    const auto tell = [&](const char* type, const auto& setup) {
        NodeBench bench(type);
        setup(bench);
        return bench.error();
    };
    const auto plain = [](NodeBench&) {};
    EXPECT_EQ(tell("Cull", plain), "node 'node': Cull: strands input not connected");
    EXPECT_EQ(tell("Mirror", plain), "node 'node': Mirror: strands input not connected");
    EXPECT_EQ(tell("MeshCut", plain), "node 'node': MeshCut: strands input not connected");
    EXPECT_EQ(tell("ToGuides", plain), "node 'node': ToGuides: strands input not connected");
    EXPECT_EQ(tell("ToStrands", plain), "node 'node': ToStrands: guides input not connected");
    EXPECT_EQ(tell("RestoreLength", plain),
              "node 'node': RestoreLength: strands input not connected");
    const auto fed = [&](NodeBench& bench) { bench.feed(tuft); };
    EXPECT_EQ(tell("MeshCut", fed), "node 'node': MeshCut: input mesh is not connected");
    EXPECT_EQ(tell("RestoreLength", fed),
              "node 'node': RestoreLength: input reference is not connected");
    const auto word = [&](const char* param) {
        return [&, param](NodeBench& bench) {
            bench.feed(tuft);
            if (bench.op().type() == "MeshCut") bench.connect(1, "Scalp");
            bench.data.scalp = std::make_shared<const ScalpMesh>(makeIcosphere(1, 1.0f));
            bench.op().set(param, std::string("sideways"));
        };
    };
    EXPECT_EQ(tell("RestoreLength", word("mode")),
              "node 'node': RestoreLength: mode must be segments, scale or even");
    EXPECT_EQ(tell("MeshCut", word("mode")),
              "node 'node': MeshCut: mode must be obstacle or inside");
    EXPECT_EQ(tell("Mirror", word("mode")), "node 'node': Mirror: mode must be replace or add");
    EXPECT_EQ(tell("Mirror", word("axis")), "node 'node': Mirror: axis must be x, y or z");
    EXPECT_EQ(tell("Mirror", word("side")),
              "node 'node': Mirror: side must be positive or negative");
    StrandSet twice = tuft;
    twice.mutableIds()[1] = 7;
    twice.mutableIds()[2] = 7;
    EXPECT_EQ(tell("ToGuides", [&](NodeBench& bench) { bench.feed(twice); }),
              "node 'node': guides: guide ID 7 is given twice");
}

TEST_F(FormTest, MatchesIdsInOrderAndOutOfIt) {
    using List = std::vector<std::uint32_t>;
    const auto match = [](std::vector<std::uint64_t> a, std::vector<std::uint64_t> b) {
        return matchIds(a, b);
    };
    EXPECT_EQ(match({3, 1, 2}, {3, 1, 2}), List{});
    EXPECT_EQ(match({3, 2}, {3, 1, 2}), (List{0, 2}));
    EXPECT_EQ(match({3, 1, 2}, {1, 2}), (List{kNoMatch, 0, 1}));
    EXPECT_EQ(match({9, 2, 3}, {3, 1, 2, 2}), (List{kNoMatch, 2, 0}));
    EXPECT_EQ(match({1, 2}, {}), (List{kNoMatch, kNoMatch}));
}

TEST_F(FormTest, CullKeepsItsShareAndALowerOneASubsetOfIt) {
    std::set<std::uint64_t> before(tuft.ids().begin(), tuft.ids().end());
    for (const double keep : {0.8, 0.5, 0.1, 0.0}) {
        NodeBench bench("Cull");
        bench.op().set("keep", keep);
        bench.feed(tuft);
        const StrandsPtr out = bench.evaluate();
        EXPECT_NEAR(double(out->strandCount()) / double(tuft.strandCount()), keep, 0.04);
        const std::set<std::uint64_t> now(out->ids().begin(), out->ids().end());
        EXPECT_TRUE(std::ranges::includes(before, now));
        before = now;
    }
}

TEST_F(FormTest, CullUpdatesWhileNoStrandComesOrGoes) {
    NodeBench bench("Cull");
    bench.op().set("keep", 0.5);
    bench.feed(tuft);
    bench.evaluate();
    SplitMix random(1);
    std::vector<std::uint32_t> changed;
    StrandSet now = edited(tuft, random, changed);
    bench.feedChanged(now, changed);
    bench.evaluate();
    EXPECT_EQ(bench.status().substr(0, 11), "incremental");
    // A copy of the graph goes on where this one stands.
    bench.graph() = Graph(bench.graph());
    now = edited(now, random, changed);
    bench.feedChanged(now, changed);
    bench.evaluate();
    EXPECT_EQ(bench.status().substr(0, 11), "incremental");
    // Back to an older param and on from there: the list of the other one must not serve.
    bench.op().set("keep", 0.3);
    bench.evaluate();
    bench.op().set("keep", 0.5);
    bench.evaluate();
    now = edited(now, random, changed);
    bench.feedChanged(now, changed);
    const std::uint64_t updated = bench.evaluate()->contentHash();
    bench.feed(now);
    EXPECT_EQ(bench.evaluate()->contentHash(), updated);

    bench.op().set("keep", expression("step(4, reach)"));
    bench.evaluate();
    std::uint32_t tall = 0;
    while (distance(now.pointsOf(tall).front(), now.pointsOf(tall).back()) < 5.0f) ++tall;
    for (std::uint64_t p = now.offsets()[tall] + 1; p < now.offsets()[tall + 1]; ++p)
        now.mutablePoints()[p] = now.pointsOf(tall)[0] + Vec3f{0.0f, 0.001f * float(p % 9), 0.0f};
    bench.feedChanged(now, {tall});
    bench.evaluate();
    EXPECT_EQ(bench.status().substr(0, 4), "full") << "a strand went";
}

TEST_F(FormTest, RestoreLengthGivesTheLengthsOfTheReference) {
    StrandSet bent = tuft;
    for (Vec3f& p : bent.mutablePoints()) p = Vec3f{p.x + 0.3f * p.y * p.y, 0.7f * p.y, p.z};
    for (const char* mode : {"segments", "scale"}) {
        NodeBench bench("RestoreLength");
        bench.op().set("mode", std::string(mode));
        bench.feed(bent);
        bench.feed(tuft, 1);
        const StrandsPtr out = bench.evaluate();
        for (std::size_t s = 0; s < 200; ++s) {
            const auto is = out->pointsOf(s), was = bent.pointsOf(s), wanted = tuft.pointsOf(s);
            EXPECT_EQ(is[0], was[0]);
            EXPECT_NEAR(polylineLength(is), polylineLength(wanted), 1e-4f * polylineLength(wanted));
            if (std::string(mode) == "scale") continue;
            for (std::size_t i = 1; i < is.size(); ++i) {
                EXPECT_NEAR(distance(is[i], is[i - 1]), distance(wanted[i], wanted[i - 1]), 1e-5f);
                EXPECT_GT(dot(normalized(is[i] - is[i - 1]), normalized(was[i] - was[i - 1])),
                          0.9999f);
            }
        }
        EXPECT_TRUE(out->sharesWidths(bent)) << "only points are written";
        bench.feed(tuft);
        EXPECT_EQ(bench.evaluate()->contentHash(), tuft.contentHash())
            << "strands that have their length keep their bits";
    }
}

TEST_F(FormTest, RestoreLengthFindsItsReferenceByIdAndFollowsEditsOfIt) {
    const std::vector<std::uint32_t> some = {5, 9, 40, 41, 900};
    StrandSet longer = tuft;
    for (Vec3f& p : longer.mutablePoints()) p.y *= 2.0f;
    NodeBench bench("RestoreLength");
    bench.feed(tuft);
    bench.feed(longer.subset(some), 1);
    StrandsPtr out = bench.evaluate();
    for (std::uint32_t s = 0; s < tuft.strandCount(); ++s) {
        const StrandSet& from = std::ranges::find(some, s) != some.end() ? longer : tuft;
        EXPECT_NEAR(polylineLength(out->pointsOf(s)), polylineLength(from.pointsOf(s)),
                    1e-4f * polylineLength(from.pointsOf(s)));
    }
    StrandSet reference = longer.subset(some);
    for (std::uint64_t p = reference.offsets()[2]; p < reference.offsets()[3]; ++p)
        reference.mutablePoints()[p].y *= 3.0f;
    bench.feedChanged(reference, {2}, 1);
    out = bench.evaluate();
    EXPECT_EQ(bench.status(), "incremental 1");
    EXPECT_NEAR(polylineLength(out->pointsOf(40)), polylineLength(reference.pointsOf(2)), 1e-3f);
}

TEST_F(FormTest, RestoreLengthSpreadsTheLengthOfAReferenceOfOtherPointCount) {
    const std::vector<Vec3f> in = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}};
    const std::vector<Vec3f> reference = {{0, 0, 0}, {0, 4, 0}, {0, 10, 0}};
    StrandSet a, b;
    a.addStrand(1, in, {}, {});
    b.addStrand(1, reference, {}, {});
    NodeBench bench("RestoreLength");
    bench.feed(a);
    bench.feed(b, 1);
    const auto points = bench.evaluate()->pointsOf(0);
    const float wanted[] = {0, 2, 4, 7, 10};
    for (std::size_t i = 0; i < 5; ++i) EXPECT_FLOAT_EQ(points[i].x, wanted[i]);
}

TEST_F(FormTest, ResampleByCurvatureUpdatesWhileNoCountChanges) {
    NodeBench bench("Resample");
    bench.op().set("mode", std::string("curvature"));
    bench.op().set("segments", 30.0);
    bench.feed(tuft);
    bench.evaluate();
    StrandSet now = tuft;
    const auto points = now.mutablePoints();
    for (std::uint64_t p = now.offsets()[5]; p < now.offsets()[6]; ++p) points[p].z += 1.0f;
    bench.feedChanged(now, {5});
    bench.evaluate();
    EXPECT_EQ(bench.status(), "incremental 1") << "moved as a whole: the turning stays";
    for (std::uint64_t p = now.offsets()[5]; p < now.offsets()[6]; p += 2) points[p].x += 2.0f;
    bench.feedChanged(now, {5});
    bench.evaluate();
    EXPECT_EQ(bench.status().substr(0, 4), "full") << "bent: more points";
}

TEST_F(FormTest, MirrorMakesBothHalvesAlike) {
    NodeBench bench("Mirror");
    bench.data.scalp = std::make_shared<const ScalpMesh>(makePlane(8, 8, 40.0f));
    bench.feed(tuft);
    const StrandsPtr out = bench.evaluate();
    const auto at = byId(*out);
    std::size_t images = 0;
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        const bool kept = tuft.pointsOf(s)[0].x > 0.0f;
        EXPECT_EQ(at.contains(tuft.ids()[s]), kept);
        if (!kept) continue;
        ASSERT_TRUE(at.contains(mirroredId(tuft.ids()[s], 0)));
        const std::size_t image = at.at(mirroredId(tuft.ids()[s], 0));
        EXPECT_TRUE(out->roots()[image].rooted());
        for (std::size_t i = 0; i < 9; ++i) {
            const Vec3f p = tuft.pointsOf(s)[i], q = out->pointsOf(image)[i];
            EXPECT_NEAR(distance(q, {-p.x, p.y, p.z}), 0.0f, 1e-4f);
        }
        ++images;
    }
    EXPECT_EQ(out->strandCount(), 2 * images);
    bench.op().set("mode", std::string("add"));
    EXPECT_EQ(bench.evaluate()->strandCount(), 2 * tuft.strandCount());
}

TEST_F(FormTest, MirrorTurnsChannelsAboutAndLeavesThePlane) {
    StrandSet three;
    for (const float x : {2.0f, 0.00005f, -3.0f}) {
        const std::vector<Vec3f> points = {{x, 0, 0}, {x + 1, 1, 0}};
        three.addStrand(std::uint64_t(10.0f + x), points, {}, {3, 0.2f, 0.3f});
    }
    for (const char* name : {"clumpId", "braidId", "side", "vaneNormalX", "vaneNormalY", "tone"})
        std::ranges::fill(three.mutableStrandChannel(name, -1.0f), 5.0f);
    three.mutableStrandChannel("braidId", -1.0f)[0] = -1.0f;
    const auto mirrored =
        mirrorStrands(std::make_shared<const StrandSet>(three), {.axis = 0}, nullptr);
    ASSERT_EQ(mirrored->strandCount(), 3u);
    const auto value = [&](const char* name) { return (*mirrored->strandChannel(name))[2]; };
    EXPECT_EQ(mirrored->ids()[1], 10u) << "on the plane: stays, without an image";
    EXPECT_EQ(mirrored->pointsOf(2)[1], (Vec3f{-3, 1, 0}));
    EXPECT_FALSE(mirrored->roots()[2].rooted());
    EXPECT_NE(value("clumpId"), 5.0f);
    EXPECT_EQ(value("clumpId"), std::trunc(value("clumpId")));
    EXPECT_EQ(value("braidId"), -1.0f);
    EXPECT_EQ(value("side"), -5.0f);
    EXPECT_EQ(value("vaneNormalX"), -5.0f);
    EXPECT_EQ(value("vaneNormalY"), 5.0f);
    EXPECT_EQ(value("tone"), 5.0f);
}

TEST_F(FormTest, MirrorTakesGuidesWithTheirFramesAndParents) {
    auto parent = std::make_shared<GuideDetail>();
    parent->frameUp = {1, 2, 3};
    parent->tubeTwist = 0.5f;
    parent->attributes["side"] = 1.0f;
    auto child = std::make_shared<GuideDetail>();
    child->parent = 4;
    const GuidesPtr guides = std::make_shared<const GuideSet>(std::vector<GuideCurve>{
        {4, {}, {{1, 0, 0}, {2, 5, 0}}, parent}, {5, {}, {{2, 0, 0}, {2, 5, 1}}, child}});
    NodeBench bench("Mirror");
    bench.data.flatGuides = guides;
    bench.data.scalp = std::make_shared<const ScalpMesh>(makePlane(4, 4, 40.0f));
    bench.connect(0, "Guides");
    const GuidesPtr out = std::get<GuidesPtr>(bench.value());
    ASSERT_EQ(out->size(), 4u);
    EXPECT_EQ(out->ids()[2], mirroredId(4, 0));
    EXPECT_NEAR(distance(out->pointsOf(2)[1], {-2, 5, 0}), 0.0f, 1e-5f);
    EXPECT_EQ(out->detail(2).frameUp, (Vec3f{-1, 2, 3}));
    EXPECT_EQ(out->detail(2).tubeTwist, -0.5f);
    EXPECT_EQ(out->detail(2).attributes.at("side"), -1.0f);
    EXPECT_EQ(out->detail(3).parent, mirroredId(4, 0));
    EXPECT_TRUE(out->roots()[2].rooted());
    bench.op().set("side", std::string("negative"));
    EXPECT_EQ(std::get<GuidesPtr>(bench.value())->size(), 0u);
}

TEST_F(FormTest, MeshCutEndsStrandsOnTheObstacle) {
    NodeBench bench("MeshCut");
    ScalpMesh plane = makePlane(4, 4, 100.0f);
    std::vector<Vec3f> points(plane.points().begin(), plane.points().end());
    for (Vec3f& p : points) p.y = 2.5f;
    bench.data.colliders["collider"] = {plane.withPoints(points), -1.0f};
    bench.connect(1, "ColliderMesh");
    bench.feed(tuft);
    for (const float offset : {0.0f, 0.4f}) {
        bench.op().set("offset", double(offset));
        const StrandsPtr out = bench.evaluate();
        ASSERT_TRUE(out->validate());
        const auto at = byId(tuft);
        std::size_t cut = 0;
        for (std::size_t s = 0; s < out->strandCount(); ++s) {
            const std::size_t from = at.at(out->ids()[s]);
            const auto is = out->pointsOf(s), was = tuft.pointsOf(from);
            ASSERT_GE(is.size(), 2u);
            for (std::size_t i = 0; i + 1 < is.size(); ++i) EXPECT_EQ(is[i], was[i]);
            const bool crosses = firstCrossing(was, *bench.data.colliders["collider"].mesh) < 1e9f;
            if (!crosses) {
                EXPECT_EQ(is.size(), was.size());
                continue;
            }
            ++cut;
            if (offset == 0.0f) {
                EXPECT_NEAR(is.back().y, 2.5f, 1e-4f);
                const float share = (*out->pointChannel("share"))[out->offsets()[s + 1] - 1];
                EXPECT_LE(share, float(is.size() - 1) / 8.0f + 1e-5f);
                EXPECT_GE(share, float(is.size() - 2) / 8.0f - 1e-5f);
            } else {
                EXPECT_NEAR(polylineLength(is),
                            firstCrossing(was, *bench.data.colliders["collider"].mesh) - offset,
                            1e-4f);
            }
        }
        EXPECT_GT(cut, 500u);
        EXPECT_LT(cut, out->strandCount()) << "some are too short to reach";
        EXPECT_EQ(out->strandChannels().at("clumpId").discrete, true);
    }
    bench.op().set("offset", 50.0);
    const StrandsPtr rest = bench.evaluate();
    for (std::size_t s = 0; s < rest->strandCount(); ++s)
        EXPECT_EQ(rest->pointCountOf(s), 9u) << "what crosses is gone";
}

TEST_F(FormTest, MeshCutInsideKeepsWhatTheHullHolds) {
    NodeBench bench("MeshCut");
    const auto hull = std::make_shared<const ScalpMesh>(makeIcosphere(3, 6.0f));
    bench.data.colliders["collider"] = {hull, -1.0f};
    bench.connect(1, "ColliderMesh");
    bench.op().set("mode", std::string("inside"));
    bench.feed(tuft);
    const StrandsPtr out = bench.evaluate();
    const auto at = byId(*out);
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        const float root = length(tuft.pointsOf(s)[0]);
        if (root < 5.8f || root > 6.0f) {
            EXPECT_EQ(at.contains(tuft.ids()[s]), root < 6.0f);
        }
    }
    for (const Vec3f p : out->points()) EXPECT_LT(length(p), 6.001f);
    EXPECT_GT(out->strandCount(), 200u);
}

TEST_F(FormTest, CrossingsAreThoseOfEverySegmentsRay) {
    const ScalpMesh hull = makeIcosphere(3, 6.0f), plane = makePlane(4, 4, 100.0f);
    std::vector<Vec3f> level(plane.points().begin(), plane.points().end());
    for (Vec3f& p : level) p.y = 2.5f;
    const ScalpPtr sheet = plane.withPoints(level);
    StrandSet hair = tuft;
    const auto points = hair.mutablePoints();
    for (std::size_t i = 0; i < points.size(); i += 13) points[i].y = 2.5f;  // upon the sheet
    for (std::size_t i = 6; i < points.size(); i += 91) points[i].x = NAN;
    std::size_t crossed = 0;
    for (const ScalpMesh* mesh : {&hull, sheet.get()}) {
        const CrossingCut cut(*mesh);
        constexpr float kOffsets[] = {0.0f, 0.3f, 4.0f};
        std::vector<std::uint32_t> list(hair.strandCount());
        std::iota(list.begin(), list.end(), 0u);
        std::array<std::vector<StrandCut>, std::size(kOffsets)> cuts;
        for (std::size_t k = 0; k < cuts.size(); ++k) {
            cuts[k].resize(hair.strandCount());
            cut(hair, list, kOffsets[k], cuts[k]);
        }
        for (std::size_t s = 0; s < hair.strandCount(); ++s) {
            const auto own = hair.pointsOf(s);
            float wanted = 0.0f;
            std::size_t i = 0;
            SurfaceHit hit;
            for (; i + 1 < own.size(); ++i) {
                const Vec3f along = own[i + 1] - own[i];
                if (mesh->rayIntersect(own[i], along, hit, 1.0f + 1e-5f)) {
                    wanted += length(along) * std::min(hit.distance, 1.0f);
                    break;
                }
                wanted += length(along);
            }
            const float is = firstCrossing(own, *mesh);
            if (i + 1 >= own.size()) {
                EXPECT_TRUE(std::isinf(is));
            } else {
                EXPECT_TRUE(is == wanted || (std::isnan(is) && std::isnan(wanted)));
                ++crossed;
            }
            for (std::size_t k = 0; k < cuts.size(); ++k) {
                const StrandCut a = cuts[k][s];
                EXPECT_EQ(a.whole, !(is < INFINITY));
                if (a.whole) continue;
                const StrandCut b = cutAt(own, is - kOffsets[k]);
                EXPECT_EQ(a.points, b.points);
                EXPECT_EQ(a.share, b.share);
            }
        }
    }
    EXPECT_GT(crossed, 500u);
}

TEST_F(FormTest, CutAtEndsWhereItIsTold) {
    const std::vector<Vec3f> line = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}, {0, 3, 0}};
    EXPECT_EQ(cutAt(line, 1e-7f).points, 0u);
    EXPECT_EQ(cutAt(line, -1.0f).points, 0u);
    EXPECT_EQ(cutAt(line, 1.5f).points, 3u);
    EXPECT_FLOAT_EQ(cutAt(line, 1.5f).share, 0.5f);
    EXPECT_EQ(cutAt(line, 1.0f).points, 2u) << "no piece of nothing behind a point";
    EXPECT_EQ(cutAt(line, 0.25f).points, 2u) << "two points at the least";
    EXPECT_TRUE(cutAt(line, 3.5f).whole);
}

TEST_F(FormTest, StrandsBecomeGuidesAndStrandsAgain) {
    NodeBench bench("ToGuides");
    bench.feed(tuft);
    const GuidesPtr guides = std::get<GuidesPtr>(bench.value());
    ASSERT_EQ(guides->size(), tuft.strandCount());
    const StrandSet back = strandsFromGuides(*guides, {});
    EXPECT_TRUE(back.sameLayout(tuft));
    EXPECT_TRUE(std::ranges::equal(back.points(), tuft.points()));
    EXPECT_TRUE(std::ranges::equal(back.roots(), tuft.roots()));
    EXPECT_EQ(*back.strandChannel("tone"), *tuft.strandChannel("tone"));
    EXPECT_TRUE(back.strandChannels().at("clumpId").discrete);
    for (std::size_t p = 0; p < back.pointCount(); ++p)
        EXPECT_NEAR((*back.pointChannel("share"))[p], (*tuft.pointChannel("share"))[p], 1e-5f);
    EXPECT_EQ(back.widths()[3], 0.005f);

    const StrandSet finer = strandsFromGuides(*guides, {.segments = 20, .width = 0.01f});
    EXPECT_EQ(finer.maxPointsPerStrand(), 21u);
    for (std::size_t s = 0; s < 50; ++s) {
        EXPECT_EQ(finer.pointsOf(s).back(), tuft.pointsOf(s).back());
        EXPECT_NEAR(polylineLength(finer.pointsOf(s)), polylineLength(tuft.pointsOf(s)), 0.2f);
    }
    bench.op().set("channels", false);
    EXPECT_TRUE(std::get<GuidesPtr>(bench.value())->attributeNames().empty());
}

TEST_F(FormTest, ToGuidesPicksByIdAmongWhatEveryPreviewHolds) {
    StrandSet marked = tuft;
    const auto preview = marked.mutableStrandChannel("_preview", 0.0f);
    for (std::size_t s = 0; s < marked.strandCount(); ++s)
        preview[s] = unitHash(marked.ids()[s]) < 0.25f ? 1.0f : 0.0f;
    const ToGuidesSettings half{.fraction = 0.5f, .seed = 3};
    const GuidesPtr all = guidesFromStrands(marked, half);
    EXPECT_EQ(*all, *guidesFromStrands(marked.thinned(0.4f), half));
    EXPECT_NEAR(double(all->size()) / double(tuft.strandCount()), 0.125, 0.03);
    EXPECT_FALSE(all->hasAttribute("_preview"));
    EXPECT_NEAR(double(guidesFromStrands(tuft, half)->size()) / double(tuft.strandCount()), 0.5,
                0.05);
}

}  // namespace
}  // namespace corvelle
