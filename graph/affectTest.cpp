#include <bit>
#include <limits>

#include <gmock/gmock.h>

#include "graph/affect.h"
#include "graph/testing/testOperators.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

/// A weight by strand id, and along the strand when `points`: below 0, between, and above 1.
class DrawnWeight final : public FieldValue {
public:
    DrawnWeight(std::uint64_t seed, bool points) : seed_(seed), points_(points) {}
    float sampleAt(Vec3f) const override { return 0.0f; }
    float sampleStrand(const StrandSet& set, std::size_t s) const override {
        return 2.0f * draw(seed_, set.ids()[s]) - 0.5f;
    }
    float samplePoint(const StrandSet& set, std::size_t s, std::size_t p) const override {
        return points_ ? 2.0f * draw(seed_ + p, set.ids()[s]) - 0.5f : sampleStrand(set, s);
    }
    void sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                       std::span<float> out) const override {
        for (std::size_t i = 0; i < strands.size(); ++i) out[i] = sampleStrand(set, strands[i]);
    }
    void samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                      std::span<float> out) const override {
        std::size_t at = 0;
        for (const std::uint32_t s : strands)
            for (std::size_t p = 0; p < set.pointCountOf(s); ++p)
                out[at++] = samplePoint(set, s, p);
    }
    bool perPoint() const override { return points_; }
    float maxValue() const override { return 1.5f; }

private:
    std::uint64_t seed_;
    bool points_;
};

std::uint32_t bits(float value) { return std::bit_cast<std::uint32_t>(value); }

class AffectTest : public testing::TestWithParam<std::uint64_t> {
protected:
    AffectTest() { registerTestOperators(); }
    StrandSet changed(const StrandSet& from) const {
        StrandSet after = from;
        for (Vec3f& p : after.mutablePoints()) p = p * 1.5f + Vec3f{1, 0, -2};
        for (float& w : after.mutableWidths()) w *= 3.0f;
        for (float& c : after.mutableStrandChannel("clumpId", -1.0f)) c += 100.0f;
        for (float& c : after.mutableStrandChannel("tone", 0.5f)) c += 1.0f;
        for (float& c : after.mutablePointChannel("new", 4.0f)) c = 8.0f;
        for (float& c : after.mutableStrandChannel("newId", -1.0f)) c = 9.0f;
        after.setStrandChannelDiscrete("newId");
        after.removePointChannel("share");
        for (StrandRoot& r : after.mutableRoots()) r.u += 0.25f;
        return after;
    }
    const StrandSet before = makeTuft({.strands = 700, .seed = GetParam(), .uneven = true});
};
INSTANTIATE_TEST_SUITE_P(Seeds, AffectTest, testing::Range<std::uint64_t>(0, 6));

TEST_P(AffectTest, MixesFloatsAndSwitchesIds) {
    const StrandSet after = changed(before);
    for (const bool perPoint : {false, true}) {
        const DrawnWeight weight(GetParam(), perPoint);
        const StrandSet out = blendStrands(before, after, weight);
        std::string why;
        ASSERT_TRUE(out.validate(&why)) << why;
        std::size_t kept = 0, taken = 0, mixed = 0;
        const auto expected = [](float a, float b, float w) {
            return w <= 0 ? a : w >= 1 ? b : a + (b - a) * w;
        };
        for (std::size_t s = 0; s < out.strandCount(); ++s) {
            const float w = weight.sampleStrand(before, s);
            const auto at = [&](const StrandSet& set, const char* name) {
                return (*set.strandChannel(name))[s];
            };
            EXPECT_EQ(at(out, "clumpId"), w >= 0.5f ? at(after, "clumpId") : at(before, "clumpId"));
            EXPECT_EQ(at(out, "newId"), w >= 0.5f ? 9.0f : -1.0f);
            EXPECT_EQ(bits(at(out, "tone")),
                      bits(expected(at(before, "tone"), at(after, "tone"), w)));
            EXPECT_TRUE(out.roots()[s] == (w >= 0.5f ? after : before).roots()[s]);
            for (std::size_t p = before.offsets()[s]; p < before.offsets()[s + 1]; ++p) {
                const float wp = weight.samplePoint(before, s, p - before.offsets()[s]);
                (wp <= 0 ? kept : wp >= 1 ? taken : mixed) += 1;
                EXPECT_EQ(bits(out.points()[p].z),
                          bits(expected(before.points()[p].z, after.points()[p].z, wp)));
                EXPECT_EQ(bits(out.widths()[p]),
                          bits(expected(before.widths()[p], after.widths()[p], wp)));
                EXPECT_EQ((*out.pointChannel("new"))[p], expected(4.0f, 8.0f, wp));
                EXPECT_EQ((*out.pointChannel("share"))[p],
                          expected((*before.pointChannel("share"))[p], 0.25f, wp))
                    << "a channel that is gone reads its default";
            }
        }
        EXPECT_TRUE(out.strandChannels().at("newId").discrete);
        EXPECT_GT(std::min({kept, taken, mixed}), 100u) << "all three branches must be met";
    }
}

TEST_P(AffectTest, ADirtyListGivesTheFullBlend) {
    StrandSet after = changed(before);
    const DrawnWeight weight(GetParam(), true);
    const StrandSet previous = blendStrands(before, after, weight);
    const std::vector<std::uint32_t> dirty = {0, 5, 6, 300, 699};
    const std::span<Vec3f> points = after.mutablePoints();
    for (const std::uint32_t s : dirty)
        for (std::size_t p = after.offsets()[s]; p < after.offsets()[s + 1]; ++p)
            points[p].y += 9.0f;
    const StrandSet full = blendStrands(before, after, weight);
    EXPECT_NE(full.contentHash(), previous.contentHash());
    EXPECT_EQ(blendStrands(before, after, weight, previous, dirty).contentHash(),
              full.contentHash());
    EXPECT_EQ(blendStrands(before, after, weight, full, {}).contentHash(), full.contentHash());
    EXPECT_EQ(blendStrands(before, after, weight, StrandSet(), dirty).contentHash(),
              full.contentHash());
    StrandSet one, many;
    runWithThreads(1, [&] { one = blendStrands(before, after, weight); });
    runWithThreads(8, [&] { many = blendStrands(before, after, weight); });
    EXPECT_EQ(one.contentHash(), many.contentHash());
}

TEST(Affect, EqualBitsStayWhatTheyAre) {
    const float inf = std::numeric_limits<float>::infinity();
    const std::vector<float> same = {-0.0f,  inf,  -inf,
                                     1e-45f, 0.1f, std::numeric_limits<float>::quiet_NaN()};
    std::vector<float> out(same.size());
    mixFloats(same.data(), same.data(), 0.3f, out.data(), same.size());
    for (std::size_t i = 0; i < same.size(); ++i) EXPECT_EQ(bits(out[i]), bits(same[i])) << i;
    const StrandSet a = makeTuft({.strands = 3}), b = makeTuft({.strands = 4});
    EXPECT_THROW(blendStrands(a, b, DrawnWeight(0, false)), std::invalid_argument);
}

class AffectNodeTest : public testing::Test {
protected:
    AffectNodeTest() {
        registerTestOperators();
        setVerifyIncremental(true);
        tuft = addTestNode(graph, "TestTuft", "tuft");
        tag = addTestNode(graph, "TestTag", "tag");
        move = addTestNode(graph, "TestMove", "move");
        width = addTestNode(graph, "TestWidth", "width");
        graph.connect(tuft, 0, tag, 0);
        graph.connect(tag, 0, move, 0);
        graph.connect(move, 0, width, 0);
    }
    ~AffectNodeTest() override { setVerifyIncremental(false); }
    StrandsPtr at(NodeId node) { return evaluateStrands(graph, node); }
    static MapSource expression(const std::string& text) {
        return {MapKind::Expression, text, {}, 0.0f, 1.0f};
    }
    Graph graph;
    NodeId tuft, tag, move, width;
};

TEST_F(AffectNodeTest, TheConstantsZeroAndOneCostNothing) {
    const StrandsPtr whole = at(move);
    graph.setParam(move, "affect", 0.0);
    EXPECT_EQ(at(move), at(tag));
    EXPECT_EQ(graph.status().at(move), "bypass");
    graph.setParam(move, "affect", -3.0);
    EXPECT_EQ(at(move), at(tag));
    graph.setParam(move, "affect", 7.0);
    EXPECT_EQ(at(move)->contentHash(), whole->contentHash());
    EXPECT_EQ(graph.node(move).runs, 1u);
}

TEST_F(AffectNodeTest, AMapThatIsZeroEverywhereGivesTheBitsThatCameIn) {
    graph.setParam(tag, "affect", expression("0"));
    EXPECT_EQ(at(tag)->points().data(), at(tuft)->points().data());
    graph.setParam(move, "affect", expression("0"));
    EXPECT_EQ(at(move)->contentHash(), at(tag)->contentHash());
}

TEST_F(AffectNodeTest, HalfIsTheMiddleAndTheIdsAreTheResults) {
    graph.setParam(tag, "affect", 0.5);
    graph.setParam(tag, "value", 50.0);
    graph.setParam(move, "affect", 0.5);
    const StrandsPtr in = at(tuft), out = at(move), tagged = at(tag);
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        EXPECT_EQ((*tagged->strandChannel("clumpId"))[s], 50.0f + float(in->ids()[s] % 7));
        const std::size_t tip = std::size_t(out->offsets()[s + 1]) - 1;
        EXPECT_FLOAT_EQ(out->points()[tip].x, in->points()[tip].x + 0.25f);
    }
    graph.setParam(tag, "affect", 0.499);
    EXPECT_EQ(*at(tag)->strandChannel("clumpId"), *in->strandChannel("clumpId"));
}

TEST_F(AffectNodeTest, AChangedLayoutLeavesItAloneWithOneWarning) {
    const NodeId thin = addTestNode(graph, "TestThin", "thin");
    const NodeId split = addTestNode(graph, "TestSplit", "split");
    graph.connect(move, 0, thin, 0);
    graph.connect(move, 0, split, 0);
    graph.setParam(thin, "affect", 0.5);
    graph.setParam(split, "affect", 0.5);
    const std::string text =
        "affect is not applied: this node changes how many strands or points there are";
    EXPECT_LT(at(thin)->strandCount(), 20u);
    EXPECT_EQ(graph.warnings().at(thin), text);
    graph.evaluate(split, {});
    EXPECT_EQ(graph.warnings().at(split), text);
    graph.setParam(thin, "keep", 1.0);
    EXPECT_EQ(at(thin)->strandCount(), 20u);
    EXPECT_FALSE(graph.warnings().contains(thin));
}

TEST_F(AffectNodeTest, ChangingAffectAloneRunsNothingAgain) {
    graph.setParam(move, "affect", 0.5);
    at(width);
    const std::uint64_t runs = graph.node(move).runs;
    graph.setParam(move, "affect", expression("0.25"));
    const StrandsPtr quarter = at(width);
    EXPECT_EQ(graph.node(move).runs, runs);
    Graph cold;
    cold = graph;
    for (const auto& [id, node] : cold.nodes()) {
        cold.node(id).cached = false;
        cold.node(id).earlier.clear();
    }
    EXPECT_EQ(evaluateStrands(cold, width)->contentHash(), quarter->contentHash());
}

}  // namespace
}  // namespace corvelle
