// What every strand-local node promises, checked for each of them with telling params: roots stay,
// a strand comes out the same alone and in a crowd, on one thread and on many, and an incremental
// run has the bits of a full one.

#include <gtest/gtest.h>

#include "model/flowData.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/partData.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/registerOperators.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

struct NodeCase {
    const char* name;
    const char* type;
    std::vector<std::pair<std::string, ParamValue>> params;
    bool keepsLayout = true;
    bool keepsRoots = true;
};

MapSource expression(const char* text) { return {.kind = MapKind::Expression, .source = text}; }

const std::vector<NodeCase> kCases = {
    {"LengthTrims", "Length", {{"trimMin", 0.1}, {"trimMax", 0.6}, {"fraction", 0.7}}},
    {"LengthByExpression", "Length", {{"keep", expression("fit(rand, 0, 1, 0.2, 1)")}}},
    {"WidthPlain", "Width", {{"randomness", 0.5}}},
    {"WidthPerPoint", "Width", {{"width", expression("0.01 + t * rand")}}},
    {"NoiseStrand", "Noise", {{"amplitude", 0.4}, {"frequency", 1.5}, {"fraction", 0.8}}},
    {"NoiseWorld", "Noise", {{"space", std::string("world")}, {"frequency", 0.2}, {"octaves", 4.0}}},
    {"NoiseKinky", "Noise", {{"mode", std::string("kinky")}, {"frequency", 2.0}, {"amplitude", expression("t")}}},
    {"NoiseKinkyWorld", "Noise", {{"mode", std::string("kinky")}, {"space", std::string("world")}, {"frequency", 0.3}}},
    {"ColorPlain", "HairColor", {{"grey", 0.2}, {"valueRandom", 0.4}}},
    {"ColorTips", "HairColor", {{"tipStrength", expression("rand")}, {"hueRandom", 0.3}, {"saturationScale", 0.5}}},
    {"ColorMix", "HairColor", {{"colorSource", std::string("mix")}, {"dyeAmount", expression("step(0.5, rand)")}}},
    {"StraightenSome", "Straighten", {{"strength", expression("rand")}}},
    {"SmoothPlain", "Smooth", {{"strength", 0.8}, {"iterations", 9.0}}},
    {"SmoothTips", "Smooth", {{"strength", expression("rand")}, {"profile", Ramp({{0.3f, 0.0f}, {1.0f, 1.0f}})}}},
    {"CombPlain", "Comb", {{"direction", Vec3f{1.0f, -0.5f, 0.2f}}}},
    {"CombByExpression", "Comb",
     {{"direction", expression("[rand - 0.5, -rand, 0.3]")},
      {"strength", expression("rand")},
      {"profile", Ramp({{0.0f, 0.0f}, {0.6f, 1.0f}})}}},
    {"DisplacePlain", "Displace", {{"distance", -0.7}}},
    {"DisplacePerPoint", "Displace",
     {{"along", std::string("direction")}, {"direction", expression("[rand, 1, 0]")}, {"distance", expression("t * rand")}}},
    {"BendNormal", "Bend", {{"angle", -60.0}, {"start", 0.2}, {"end", 0.7}, {"randomness", 0.5}}},
    {"BendTangent", "Bend", {{"along", std::string("tangent")}, {"angle", expression("fit(rand, 0, 1, -90, 90)")}}},
    {"BendDirection", "Bend", {{"along", std::string("direction")}, {"start", 0.4}, {"end", 0.4}}},
    {"DirectionPlain", "Direction", {{"inclinationRandom", 20.0}, {"rollRandom", 90.0}, {"strength", 0.7}}},
    {"DirectionMapped",
     "Direction",
     {{"along", std::string("direction")},
      {"inclination", expression("rand * 90")},
      {"roll", expression("reach * 20")},
      {"strength", expression("rand")}}},
    {"TransformAboutRoots",
     "Transform",
     {{"rotate", Vec3f{20, 30, 40}}, {"scale", expression("0.5 + rand")}, {"scaleRandom", 0.3}, {"rotateRandom", Vec3f{9, 9, 9}}}},
    {"TransformMoves", "Transform", {{"translate", Vec3f{1, 2, 3}}, {"translateRandom", Vec3f{1, 0, 2}}}, true, false},
    {"TransformWorld",
     "Transform",
     {{"space", std::string("world")},
      {"rotate", Vec3f{10, 200, -50}},
      {"pivot", Vec3f{3, 4, 5}},
      {"scale", 1.5},
      {"rotateRandom", Vec3f{30, 0, 30}}},
     true,
     false},
    {"RestoreEvenly", "RestoreLength", {{"mode", std::string("even")}}},
    {"CurlHelix", "Curl", {{"tolerance", 0.0}, {"radius", expression("t * rand")}, {"frequencyProfile", Ramp({{0.0f, 0.3f}, {1.0f, 1.0f}})}}},
    {"CurlWave", "Curl", {{"tolerance", 0.0}, {"shape", std::string("wave")}, {"spacingRandom", 0.5}}},
    {"CurlZigzag", "Curl", {{"tolerance", 0.0}, {"shape", std::string("zigzag")}, {"frequency", 0.8}}},
    {"CurlCoil", "Curl", {{"tolerance", 0.0}, {"shape", std::string("coil")}, {"coilWidths", 20.0}}},
    {"CurlAddsPoints", "Curl", {{"frequency", 5.0}, {"maxSegments", 12.0}}, false},
    {"GravityPlain", "Gravity", {{"direction", Vec3f{0.3f, -1.0f, 0.0f}}, {"strength", 1.2}}},
    {"GravityMapped",
     "Gravity",
     {{"direction", expression("[rand - 0.5, -1, 0.3]")},
      {"strength", expression("rand")},
      {"stiffness", 0.6},
      {"stiffnessProfile", Ramp({{0.0f, 1.0f}, {0.4f, 0.2f}})}}},
    {"PartWide", "Part", {{"width", 30.0}, {"profile", Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}})}}},
    {"PartMapped", "Part", {{"width", 12.0}, {"strength", expression("rand")}}},
    {"FlowPlain", "Flow", {}},
    {"FlowMapped", "Flow", {{"lift", expression("rand * 90")}, {"rollRandom", 40.0}}},
    {"FlyawayPlain", "Flyaway", {{"fraction", 0.5}, {"lengthen", 0.4}}},
    {"FlyawayMapped",
     "Flyaway",
     {{"fraction", expression("step(0.4, rand)")}, {"stray", expression("rand * 2")}, {"start", 0.0}}},
    {"ResampleEven", "Resample", {{"segments", 11.0}}, false},
    {"ResampleFewer", "Resample", {{"segments", 3.0}}, false},
};

class StrandNodeTest : public testing::TestWithParam<NodeCase> {
protected:
    StrandNodeTest() {
        setVerifyIncremental(true);
        bench.data.scalp = std::make_shared<const ScalpMesh>(makeSphere(8, 8, 10.0f));  // the tuft's 64 triangles, and UVs
        const PartData parts{{{"equator", {{8, 0.2f, 0.3f}, {20, 0.2f, 0.3f}, {40, 0.2f, 0.3f}}}}};
        const FlowData flow{{{{3, 0.2f, 0.2f}, 1, 0, -1}, {{40, 0.3f, 0.2f}, 0.6f, 0.8f, -1}},
                            {{{20, 0.2f, 0.2f}, 70.0f, 6.0f}}};
        bench.data.parts = partLinesOn(parts, bench.data.scalp);
        bench.data.flow = flowFieldOn(flow, bench.data.scalp);
        for (const auto& [name, value] : GetParam().params) bench.op().set(name, value);
    }
    ~StrandNodeTest() override { setVerifyIncremental(false); }
    NodeBench bench{GetParam().type};
    const StrandSet tuft = makeTuft({.strands = 700, .pointsPerStrand = 9, .seed = 5});
};
INSTANTIATE_TEST_SUITE_P(All, StrandNodeTest, testing::ValuesIn(kCases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(StrandNodeTest, KeepsRootsAndIdsAndDoesSomething) {
    bench.feed(tuft);
    const StrandsPtr out = bench.evaluate();
    ASSERT_TRUE(out->validate());
    EXPECT_TRUE(std::ranges::equal(out->ids(), tuft.ids()));
    EXPECT_EQ(GetParam().keepsLayout, out->sameLayout(tuft));
    for (std::size_t s = 0; s < tuft.strandCount() && GetParam().keepsRoots; ++s)
        EXPECT_EQ(out->pointsOf(s).front(), tuft.pointsOf(s).front());
    EXPECT_TRUE(std::ranges::equal(out->roots(), tuft.roots()));
    EXPECT_NE(out->contentHash(), tuft.contentHash()) << "a node that does nothing proves nothing";
    EXPECT_TRUE(out->extent().finite);
}

TEST_P(StrandNodeTest, TreatsAStrandAloneAsInACrowd) {
    const std::vector<std::uint32_t> some = {3, 77, 401, 699};
    bench.feed(tuft);
    const std::uint64_t inCrowd = bench.evaluate()->subset(some).contentHash();
    bench.feed(tuft.subset(some));
    EXPECT_EQ(bench.evaluate()->contentHash(), inCrowd);
}

TEST_P(StrandNodeTest, GivesTheSameBitsOnAnyNumberOfThreads) {
    std::vector<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u}) {
        bench.feed(tuft);
        runWithThreads(threads, [&] { hashes.push_back(bench.evaluate()->contentHash()); });
    }
    EXPECT_EQ(hashes[0], hashes[1]);
    EXPECT_EQ(hashes[0], hashes[2]);
}

TEST_P(StrandNodeTest, UpdatesChangedStrandsWithTheBitsOfAFullRun) {
    bench.feed(tuft);
    bench.evaluate();
    StrandSet edited = tuft;
    SplitMix random(9);
    for (int round = 0; round < 6; ++round) {
        std::vector<std::uint32_t> changed;
        for (std::uint32_t s = 0; s < edited.strandCount(); ++s)
            if (random.nextFloat() < 0.02f) changed.push_back(s);
        const auto points = edited.mutablePoints();
        for (const std::uint32_t s : changed)
            for (std::uint64_t p = edited.offsets()[s] + 1; p < edited.offsets()[s + 1]; ++p)
                points[p] += Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
        // The verify switch compares with a full run, and throws on a difference.
        bench.feedChanged(edited, changed);
        const StrandsPtr updated = bench.evaluate();
        EXPECT_EQ(bench.status(), "incremental " + std::to_string(changed.size()));
        bench.feed(edited);
        EXPECT_EQ(bench.evaluate()->contentHash(), updated->contentHash());
    }
}

TEST_P(StrandNodeTest, SurvivesDegenerateStrands) {
    bench.feed(makeTuft({.strands = 300, .pointsPerStrand = 6, .seed = 3, .uneven = true, .degenerate = true}));
    const StrandsPtr out = bench.evaluate();
    EXPECT_TRUE(out->validate());
    EXPECT_TRUE(out->extent().finite);
    bench.feed(StrandSet());
    EXPECT_EQ(bench.evaluate()->strandCount(), 0u);
}

// --- What each node does -----------------------------------------------------------------------

float lengthOf(std::span<const Vec3f> points) {
    float sum = 0.0f;
    for (std::size_t i = 1; i < points.size(); ++i) sum += distance(points[i], points[i - 1]);
    return sum;
}

class OneNodeTest : public testing::Test {
protected:
    const StrandSet tuft = makeTuft({.strands = 4000, .pointsPerStrand = 9, .seed = 11});
    StrandsPtr run(NodeBench& bench) {
        bench.feed(tuft);
        return bench.evaluate();
    }
};

TEST_F(OneNodeTest, ANodeWithNothingToDoHandsItsInputOn) {
    for (const char* type : {"Length", "Output"}) {
        NodeBench bench(type);
        bench.feed(tuft);
        const StrandsPtr out = bench.evaluate();
        EXPECT_TRUE(out->sharesPoints(tuft)) << type;
    }
    NodeBench noise("Noise");
    noise.op().set("amplitude", 0.0);
    EXPECT_TRUE(run(noise)->sharesPoints(tuft));
    NodeBench resample("Resample");
    resample.op().set("segments", 0.0);
    EXPECT_TRUE(run(resample)->sharesPoints(tuft));
}

TEST_F(OneNodeTest, LengthKeepsTheShareItIsTold) {
    NodeBench bench("Length");
    bench.op().set("keep", 0.4);
    const StrandsPtr out = run(bench);
    for (std::size_t s = 0; s < 50; ++s)
        EXPECT_NEAR(lengthOf(out->pointsOf(s)) / lengthOf(tuft.pointsOf(s)), 0.4f, 0.02f);
    EXPECT_TRUE(out->sharesWidths(tuft)) << "only points are written";
}

TEST_F(OneNodeTest, LengthTrimsTheFractionWithinItsBounds) {
    NodeBench bench("Length");
    bench.op().set("fraction", 0.3);
    bench.op().set("trimMin", 0.5);  // swapped bounds are put right
    bench.op().set("trimMax", 0.2);
    const StrandsPtr out = run(bench);
    std::size_t trimmed = 0;
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
        const float kept = lengthOf(out->pointsOf(s)) / lengthOf(tuft.pointsOf(s));
        if (kept > 0.999f) continue;
        ++trimmed;
        EXPECT_GT(kept, 0.47f);
        EXPECT_LT(kept, 0.82f);
    }
    EXPECT_NEAR(double(trimmed) / double(tuft.strandCount()), 0.3, 0.03);
}

TEST_F(OneNodeTest, WidthFollowsItsProfile) {
    NodeBench bench("Width");
    bench.op().set("width", 2.0);
    bench.op().set("profile", Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}, true));
    const StrandsPtr out = run(bench);
    for (std::size_t s = 0; s < 50; ++s) {
        const auto points = tuft.pointsOf(s);
        const float total = lengthOf(points);
        for (std::size_t i = 0; i < points.size(); ++i)
            EXPECT_NEAR(out->widths()[tuft.offsets()[s] + i], 2.0f * (1.0f - lengthOf(points.first(i + 1)) / total), 1e-4f);
    }
    EXPECT_TRUE(out->sharesPoints(tuft)) << "only widths are written";
    // A map may say what the param itself may not.
    for (const char* text : {"rand - 0.5", "t - 0.5"}) {
        bench.op().set("width", expression(text));
        const auto widths = run(bench)->widths();
        EXPECT_EQ(std::ranges::min(widths), 0.0f) << text;
        EXPECT_GT(std::ranges::max(widths), 0.0f) << text;
    }
}

TEST_F(OneNodeTest, NoiseWarnsWhereTheStrandsAreTooCoarseForIt) {
    NodeBench bench("Noise");
    bench.op().set("frequency", 6.5);
    run(bench);
    EXPECT_EQ(bench.warning(),
              "frequency 6.5 is finer than the strands' 8 segments draw: the noise fades out; raise "
              "Resample's segments or lower the frequency");
    bench.op().set("frequency", 1.0);
    run(bench);
    EXPECT_EQ(bench.warning(), "");
    bench.op().set("frequency", 6.5);
    StrandSet hair;  // one strand that says nothing before many that do
    const Vec3f alone[] = {{0, 0, 0}};
    hair.addStrand(9, alone, {}, {});
    hair.append(tuft);
    bench.feed(hair);
    bench.evaluate();
    EXPECT_NE(bench.warning(), "");
    bench.op().set("space", std::string("sideways"));
    EXPECT_THROW(run(bench), GraphError);
}

TEST_F(OneNodeTest, WorldNoiseMovesNeighboursAlikeAndStrandNoiseDoesNot) {
    StrandSet pair;
    std::vector<Vec3f> a, b;
    for (int i = 0; i < 9; ++i) {
        a.push_back({0.0f, float(i), 0.0f});
        b.push_back({0.001f, float(i), 0.0f});
    }
    pair.addStrand(1, a, {}, {});
    pair.addStrand(2, b, {}, {});
    for (const bool world : {true, false}) {
        NodeBench bench("Noise");
        bench.op().set("space", std::string(world ? "world" : "strand"));
        bench.op().set("frequency", world ? 0.1 : 1.0);
        bench.op().set("amplitude", 1.0);
        bench.feed(pair);
        const StrandsPtr out = bench.evaluate();
        const Vec3f apart = (out->pointsOf(0)[8] - a[8]) - (out->pointsOf(1)[8] - b[8]);
        if (world)
            EXPECT_LT(length(apart), 0.01f);
        else
            EXPECT_GT(length(apart), 0.05f);
    }
}

TEST_F(OneNodeTest, ResampleSpacesPointsEvenlyAlongTheSameCurve) {
    NodeBench bench("Resample");
    bench.op().set("segments", 16.0);
    const StrandsPtr out = run(bench);
    EXPECT_EQ(out->maxPointsPerStrand(), 17u);
    for (std::size_t s = 0; s < 100; ++s) {
        const auto points = out->pointsOf(s);
        EXPECT_EQ(points.back(), tuft.pointsOf(s).back());
        const float step = lengthOf(points) / 16.0f;
        for (std::size_t i = 1; i < points.size(); ++i)
            EXPECT_NEAR(distance(points[i], points[i - 1]), step, 0.03f * step);
        EXPECT_NEAR(lengthOf(points), lengthOf(tuft.pointsOf(s)), 0.05f * lengthOf(points));
    }
    ASSERT_TRUE(out->pointChannel("share"));
    EXPECT_FLOAT_EQ((*out->pointChannel("share"))[16], 1.0f);
    EXPECT_TRUE(out->strandChannels().at("clumpId").discrete);
}

TEST_F(OneNodeTest, ResampleByCurvatureSpendsPointsOnBendsInRendersAlone) {
    StrandSet two;
    std::vector<Vec3f> straight, bent;
    for (int i = 0; i < 20; ++i) {
        straight.push_back({0.0f, float(i), 0.0f});
        bent.push_back({3.0f * std::sin(float(i)), float(i), 0.0f});
    }
    two.addStrand(1, straight, {}, {});
    two.addStrand(2, bent, {}, {});
    NodeBench bench("Resample");
    bench.op().set("segments", 40.0);
    bench.op().set("mode", std::string("curvature"));
    bench.feed(two);
    const StrandsPtr render = bench.evaluate();
    EXPECT_EQ(render->pointCountOf(0), 3u);
    EXPECT_EQ(render->pointCountOf(1), 41u);
    bench.data.viewport = true;
    EXPECT_EQ(bench.evaluate()->pointCountOf(0), 41u);
    bench.op().set("mode", std::string("length"));
    bench.op().set("segments", 10.0);
    const StrandsPtr byLength = bench.evaluate();
    EXPECT_EQ(byLength->pointCountOf(1), 11u);
    EXPECT_LT(byLength->pointCountOf(0), 11u);
}

TEST_F(OneNodeTest, HairColorGreysItsFractionAndTellsOfAForgottenTip) {
    NodeBench bench("HairColor");
    bench.op().set("grey", 0.25);
    bench.op().set("tipColor", Vec3f{1.0f, 0.0f, 0.0f});
    const StrandsPtr out = run(bench);
    EXPECT_EQ(bench.warning(), "tipColor is set but tipStrength is 0: raise tipStrength to see it");
    std::size_t grey = 0;
    for (const float melanin : *out->strandChannel("melanin")) grey += melanin == 0.02f;
    EXPECT_NEAR(double(grey) / double(tuft.strandCount()), 0.25, 0.02);
    EXPECT_FALSE(out->pointChannel("colorR"));
    bench.op().set("tipStrength", 1.0);
    const StrandsPtr tipped = bench.evaluate();
    ASSERT_TRUE(tipped->pointChannel("colorR"));
    EXPECT_NEAR((*tipped->pointChannel("colorR"))[tuft.offsets()[1] - 1], 1.0f, 1e-4f);
    EXPECT_NEAR((*tipped->pointChannel("colorG"))[tuft.offsets()[1] - 1], 0.0f, 1e-4f);
    bench.op().set("colorSource", std::string("blue"));
    try {
        bench.evaluate();
        FAIL() << "a color source that is none";
    } catch (const GraphError& error) {
        EXPECT_STREQ(error.what(), "node 'node': HairColor: colorSource must be auto, melanin, rgb or mix");
    }
}

TEST_F(OneNodeTest, AnUnconnectedInputSaysSo) {
    for (const char* type :
         {"Length", "Width", "Noise", "Resample", "HairColor", "Output", "Bend", "Direction", "Transform", "Comb",
          "Displace", "Smooth", "Straighten", "Gravity", "Part", "Flow", "Flyaway", "Twist", "BlendNeighbors",
          "Tangle",
          "Clump", "Curl"}) {
        registerOperators();
        const OperatorPtr op = OperatorRegistry::instance().create(type);
        EvaluationData data;
        NodeInputs none;
        none.values.resize(1);
        none.connected = {false};
        try {
            op->evaluate(EvalContext(data), none);
            FAIL() << type;
        } catch (const GraphError& error) {
            EXPECT_EQ(std::string(error.what()), std::string(type) + ": strands input not connected");
        }
    }
}

}  // namespace
}  // namespace corvelle
