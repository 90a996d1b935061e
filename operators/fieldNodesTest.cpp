#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>

#include <gmock/gmock.h>

#include "expr/expressionFunctions.h"
#include "expr/testing/pictures.h"
#include "graph/operator.h"
#include "graph/scalarField.h"
#include "model/hash.h"
#include "model/noise.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/fieldNodes.h"
#include "operators/fieldValues.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

FieldPtr constant(float value) { return std::make_shared<const ConstantFieldValue>(value); }

/// The x of a place: any number can be fed through a field.
class PlaceX final : public FieldValue {
public:
    float sampleAt(Vec3f p) const override { return p.x; }
    float maxValue() const override { return 10.0f; }
};
const FieldPtr kPlaceX = std::make_shared<const PlaceX>();

class FieldNodeTest : public testing::Test {
protected:
    static void SetUpTestSuite() { registerFieldOperators(); }
    static OperatorPtr make(const std::string& type,
                            const std::map<std::string, ParamValue>& params = {}) {
        OperatorPtr op = OperatorRegistry::instance().create(type);
        for (const auto& [name, value] : params) op->set(name, value);
        return op;
    }
    std::vector<NodeValue> run(const OperatorPtr& op, std::vector<NodeValue> values = {}) const {
        NodeInputs inputs;
        inputs.values = std::move(values);
        inputs.values.resize(op->inputs().size());
        for (const NodeValue& v : inputs.values)
            inputs.connected.push_back(!std::holds_alternative<std::monostate>(v));
        return op->evaluateAll(EvalContext(data, op->contextReads()), inputs);
    }
    FieldPtr field(const std::string& type, const std::map<std::string, ParamValue>& params = {},
                   std::vector<NodeValue> values = {}) const {
        return std::get<FieldPtr>(run(make(type, params), std::move(values)).front());
    }
    std::string errorOf(const std::string& type, const std::map<std::string, ParamValue>& params,
                        std::vector<NodeValue> values = {}) const {
        try {
            field(type, params, std::move(values));
        } catch (const GraphError& error) {
            return error.what();
        }
        return "nothing was thrown";
    }
    std::uint64_t hashOfNode(const OperatorPtr& op) const {
        return op->contextHash(EvalContext(data, op->contextReads()));
    }
    EvaluationData data;
};

TEST_F(FieldNodeTest, DeclaresItsPortsAndDefaults) {
    const struct {
        const char* type;
        const char* output;
        const char* description;
        std::size_t params;
    } kTypes[] = {
        {"Curve", "curve", "A ramp shared by several params.", 1},
        {"Control", "field", "A keyable slider on the groom (channel box) driving a param.", 4},
        {"Expression", "field", "A value per strand from a formula, feeding any param.", 2},
        {"FieldNoise", "field", "Smooth noise over the scalp, feeding any param.", 6},
        {"FieldRemap", "field", "Reshapes a field through a curve.", 5},
        {"FieldCombine", "field", "Two fields multiplied, added, mixed...", 3},
        {"Map", "luminance",
         "A map painted in Groom Tools > Paint (or an image), feeding any param.", 1},
    };
    for (const auto& t : kTypes) {
        const OperatorPtr op = make(t.type);
        EXPECT_EQ(op->type(), t.type);
        EXPECT_EQ(op->category(), "field");
        EXPECT_EQ(op->description(), t.description);
        EXPECT_EQ(op->output().name, t.output);
        EXPECT_EQ(op->params().size(), t.params)
            << t.type << ": no `affect` on nodes without strands";
        for (const ParamSpec& spec : op->params())
            EXPECT_FALSE(spec.isMappable() || spec.description.empty());
    }
    std::vector<std::string> names;
    for (const PortSpec& port : make("Map")->outputs()) names.push_back(port.name);
    EXPECT_THAT(names, testing::ElementsAre("luminance", "r", "g", "b", "a"));
    EXPECT_FALSE(make("FieldCombine")->inputs()[0].optional);
    EXPECT_TRUE(make("FieldCombine")->inputs()[1].optional);
    EXPECT_EQ(make("FieldNoise")->number("frequency"), 0.3);
    EXPECT_EQ(make("FieldNoise", {{"octaves", 99.0}})->whole("octaves"), 8);
    EXPECT_EQ(make("Expression")->text("expression"), "1");
}

TEST_F(FieldNodeTest, CurveGivesItsRamp) {
    const Ramp ramp({{0.0f, 1.0f}, {0.3f, 0.2f}, {1.0f, 0.5f}});
    EXPECT_EQ(*std::get<CurvePtr>(run(make("Curve", {{"curve", ramp}})).front()), ramp);
    EXPECT_EQ(*std::get<CurvePtr>(run(make("Curve")).front()), Ramp({{0, 0}, {1, 1}}, true));
}

// Remaps.

TEST_F(FieldNodeTest, RemapGoesThroughTheCurve) {
    const Ramp line({{0, 0}, {1, 1}}, true), peak({{0, 0}, {0.5f, 1}, {1, 0}}),
        none(std::vector<Ramp::Key>{});
    const struct {
        float inMin, inMax;
        Ramp curve;
        float outMin, outMax, value, want;
    } kCases[] = {
        {0, 1, line, 0, 1, 0.25f, 0.25f},
        {0, 1, line, 0, 1, -3, 0},
        {0, 1, line, 0, 1, 7, 1},
        {2, 4, line, 10, 20, 3, 15},
        {4, 2, line, 10, 20, 2.5f, 17.5f},  // flipped
        {0, 1, line, 1, 0, 0.25f, 0.75f},
        {0, 1, peak, 0, 2, 0.5f, 2},
        {0, 1, peak, 5, 2, 1, 5},
        {0.5f, 0.5f, line, 3, 4, 0.4f, 3},
        {0.5f, 0.5f, line, 3, 4, 0.5f, 4},  // a step
        {0, 1, none, 0.1f, 0.3f, 0.2f, 0.3f},
        {0, 1, line, 0, 1, NAN, 0},
    };
    for (const auto& c : kCases) {
        const FieldPtr remap = field("FieldRemap",
                                     {{"inMin", double(c.inMin)},
                                      {"inMax", double(c.inMax)},
                                      {"curve", c.curve},
                                      {"outMin", double(c.outMin)},
                                      {"outMax", double(c.outMax)}},
                                     {kPlaceX});
        EXPECT_FLOAT_EQ(remap->sampleAt({c.value, 0, 0}), c.want)
            << c.value << " in " << c.inMin << ".." << c.inMax;
        EXPECT_LE(remap->sampleAt({c.value, 0, 0}), remap->maxValue());
    }
}

TEST_F(FieldNodeTest, RemapsBoundIsTheHighestKey) {
    const Ramp ramp({{0.0f, 0.25f}, {0.5f, 2.0f}, {1.0f, 0.5f}}, true);
    const auto most = [&](double low, double high) {
        return field("FieldRemap", {{"curve", ramp}, {"outMin", low}, {"outMax", high}}, {kPlaceX})
            ->maxValue();
    };
    EXPECT_FLOAT_EQ(most(0.0, 1.0), 2.0f);
    EXPECT_FLOAT_EQ(most(1.0, 0.0), 0.75f) << "the other way round";
    SplitMix random(8);
    const FieldPtr remap =
        field("FieldRemap", {{"curve", ramp}, {"outMin", -1.0}, {"outMax", 3.0}}, {kPlaceX});
    for (int i = 0; i < 1000; ++i)
        EXPECT_LE(remap->sampleAt({random.nextRange(-2, 3), 0, 0}), remap->maxValue());
}

// Combinations.

TEST_F(FieldNodeTest, CombineKnowsSixModes) {
    const struct {
        const char* mode;
        float value, withNumber, most, mostWithNumber;
    } kCases[] = {
        // a = 3, b = -2 or the number 0.5; a fraction of 0.25
        {"multiply", -6.0f, 1.5f, -6.0f, 1.5f}, {"add", 1.0f, 3.5f, 1.0f, 3.5f},
        {"subtract", 5.0f, 2.5f, 5.0f, 2.5f},   {"min", -2.0f, 0.5f, -2.0f, 0.5f},
        {"max", 3.0f, 3.0f, 3.0f, 3.0f},        {"mix", 1.75f, 2.375f, 3.0f, 2.375f},
    };
    for (const auto& c : kCases) {
        const std::map<std::string, ParamValue> params = {
            {"mode", std::string(c.mode)}, {"bValue", 0.5}, {"fraction", 0.25}};
        const FieldPtr both = field("FieldCombine", params, {constant(3.0f), constant(-2.0f)});
        const FieldPtr number = field("FieldCombine", params, {constant(3.0f), NodeValue{}});
        EXPECT_FLOAT_EQ(both->sampleAt({}), c.value) << c.mode;
        EXPECT_FLOAT_EQ(number->sampleAt({}), c.withNumber) << c.mode;
        EXPECT_FLOAT_EQ(both->maxValue(), c.most) << c.mode;
        EXPECT_FLOAT_EQ(number->maxValue(), c.mostWithNumber) << c.mode;
        EXPECT_EQ(both->constant(), both->sampleAt({})) << c.mode;
    }
    const FieldPtr positive = field("FieldCombine", {{"mode", std::string("subtract")}},
                                    {constant(3.0f), constant(2.0f)});
    EXPECT_EQ(positive->maxValue(), 3.0f) << "b may be 0 elsewhere";
    EXPECT_EQ(field("FieldCombine", {}, {kPlaceX, constant(2.0f)})->constant(), std::nullopt);
}

TEST_F(FieldNodeTest, SaysWhatIsWrong) {
    const ScalpPtr scalp = std::make_shared<const ScalpMesh>(makePlane(2, 2, 4.0f));
    const TempFolder folder;
    writeBytes(folder.file("bad.png"), "no picture");
    auto catalog = std::make_shared<MapCatalogValue>();
    const auto sized = [](std::size_t n) {
        return std::make_shared<const std::vector<float>>(n, 0.5f);
    };
    catalog->maps = {
        {"old", {.kind = PaintedMap::Kind::Vertices, .values = sized(4), .vertices = 4}},
        {"unpainted", {.kind = PaintedMap::Kind::Texture}},
        {"layer", {.kind = PaintedMap::Kind::Guides}}};
    data.maps = catalog;
    data.scalp = scalp;
    data.directory = folder.path();
    const auto map = [&](const char* name) {
        return errorOf("Map", {{"name", std::string(name)}});
    };
    EXPECT_EQ(map(""), "Map: name the map (Groom Tools > Paint)");
    EXPECT_EQ(map("nobody"),
              "Map: no map or image named 'nobody' (Groom Tools > Paint > New... makes a map)");
    EXPECT_EQ(
        map("unpainted"),
        "Map 'unpainted': the texture map has no image file yet (paint it in Groom Tools > Paint)");
    EXPECT_EQ(map("old"),
              "Map 'old': the vertex map does not fit this scalp (paint it again, or convert it, "
              "in Groom "
              "Tools > Paint)");
    EXPECT_EQ(map("layer"),
              "Map 'layer': no guide carries the layer (paint it in Groom Tools > Paint)");
    EXPECT_THAT(map("bad.png"), testing::StartsWith("Map 'bad.png': cannot read '"));
    data.scalp = std::make_shared<const ScalpMesh>(makeIcosphere(0, 1.0f));
    EXPECT_EQ(map("bad.png"), "Map 'bad.png': a texture map needs a scalp with UVs");

    EXPECT_EQ(errorOf("FieldCombine", {{"mode", std::string("divide")}}, {constant(1)}),
              "FieldCombine: unknown mode 'divide'");
    EXPECT_EQ(errorOf("FieldCombine", {}), "FieldCombine: input a is not connected");
    EXPECT_EQ(errorOf("FieldRemap", {}), "FieldRemap: input field is not connected");
    const auto variables = [&](const char* json) {
        return errorOf("Expression", {{"variables", std::string(json)}});
    };
    EXPECT_EQ(variables("[1]"), "Expression: variables are a JSON object of numbers and vectors");
    EXPECT_EQ(variables("{\"a-b\": 1}"),
              "Expression: 'a-b' is not a variable name (letters, digits and _)");
    EXPECT_EQ(variables("{\"a\": \"x\"}"),
              "Expression: a is neither a number nor a vector of three");
    EXPECT_THAT(errorOf("Expression", {{"expression", std::string("1 +")}}),
                testing::StartsWith("Expression: expression '1 +': "));
    EXPECT_THAT(errorOf("Expression", {{"expression", std::string("P")}}),
                testing::HasSubstr("gives a vector"));
}

// Noise.

TEST_F(FieldNodeTest, NoiseStaysWithinItsEndsAndFollowsItsParams) {
    const std::map<std::string, ParamValue> params = {
        {"low", 2.0},     {"high", -1.0}, {"frequency", 0.7},
        {"octaves", 3.0}, {"seed", 5.0},  {"offset", Vec3f{1, 2, 3}}};
    const FieldPtr noise = field("FieldNoise", params);
    EXPECT_EQ(noise->maxValue(), 2.0f);
    SplitMix random(1);
    float least = 9, most = -9;
    for (int i = 0; i < 4000; ++i) {
        const float x = random.nextRange(-30, 30), y = random.nextRange(-30, 30);
        const Vec3f p{x, y, random.nextRange(-30, 30)};
        const float n = std::clamp(fbm(p * 0.7f + Vec3f{1, 2, 3}, 5, 3) * 0.5f + 0.5f, 0.0f, 1.0f);
        const float v = noise->sampleAt(p);
        ASSERT_EQ(v, 2.0f - 3.0f * n);
        least = std::min(least, v);
        most = std::max(most, v);
    }
    EXPECT_LT(least, 0.0f);
    EXPECT_GT(most, 1.0f);
    EXPECT_NE(field("FieldNoise")->sampleAt({1.3f, 2, 3}),
              field("FieldNoise", {{"seed", 1.0}})->sampleAt({1.3f, 2, 3}));
}

// Controls and expressions.

TEST_F(FieldNodeTest, ControlGivesTheHostsValueWithinItsRange) {
    const std::map<std::string, ParamValue> params = {
        {"name", std::string("wet")}, {"default", 0.5}, {"min", 0.0}, {"max", 2.0}};
    const auto value = [&] { return field("Control", params)->constant(); };
    const OperatorPtr op = make("Control", params);
    const std::uint64_t before = hashOfNode(op);
    EXPECT_EQ(value(), 0.5f);
    data.controls["dry"] = 1.0;
    EXPECT_EQ(hashOfNode(op), before);
    data.controls["wet"] = 1.25;
    EXPECT_EQ(value(), 1.25f);
    EXPECT_NE(hashOfNode(op), before);
    data.controls["wet"] = 7.0;
    EXPECT_EQ(value(), 2.0f);
    data.controls["wet"] = -7.0;
    EXPECT_EQ(value(), 0.0f);
    data.controls["wet"] = NAN;
    EXPECT_EQ(value(), 0.5f);
    EXPECT_EQ(field("Control", {{"min", 5.0}, {"max", 3.0}, {"default", 4.0}})->constant(), 4.0f)
        << "ends in either order";
}

TEST_F(FieldNodeTest, ExpressionReadsItsVariablesAndControls) {
    const StrandSet tuft = makeTuft({.strands = 50, .seed = 2});
    const auto value = [&](const char* text, const char* variables) {
        const FieldPtr f = field("Expression", {{"expression", std::string(text)},
                                                {"variables", std::string(variables)}});
        return boundTo(f, tuft)->sampleStrand(tuft, 3);
    };
    EXPECT_EQ(value("1", "{}"), 1.0f);
    EXPECT_EQ(value("$a + $v.y", "{\"a\": 0.5, \"v\": [1, 2, 3]}"), 2.5f);
    const char* kKeyed = "{\"a\": {\"value\": 0.25, \"control\": \"wet\"}}";
    EXPECT_EQ(value("$a", kKeyed), 0.25f);
    const OperatorPtr op = make("Expression", {{"variables", std::string(kKeyed)}});
    const std::uint64_t before = hashOfNode(op);
    data.controls["wet"] = 4.0;
    EXPECT_EQ(value("$a", kKeyed), 4.0f);
    EXPECT_NE(hashOfNode(op), before);
    EXPECT_EQ(variablesWithControls("no json", data.controls), "no json");
    EXPECT_EQ(variablesWithControls("{\"a\":{\"value\":1}}", data.controls),
              "{\"a\":{\"value\":1}}");
}

TEST_F(FieldNodeTest, TheHelpOnFormulasNamesFunctionsThatAreThere) {
    const std::string help = make("Expression")->paramSpec("expression")->description;
    EXPECT_TRUE(
        help.starts_with("Per strand: length, longest, reach, straightness, lift, tipx/y/z"));
    const std::size_t begin = help.find("sin cos"), end = help.find("(\"name\") ...");
    ASSERT_LT(begin, end);
    std::string words = help.substr(begin, end - begin);
    std::replace(words.begin(), words.end(), ',', ' ');
    std::istringstream list(words);
    std::size_t count = 0;
    for (std::string word; list >> word; ++count)
        EXPECT_TRUE(std::ranges::any_of(expressionFunctions(), [&](const ExpressionFunction& f) {
            return f.name == word;
        })) << word;
    EXPECT_EQ(count, 29u);
}

TEST_F(FieldNodeTest, ExpressionDeclaresTimeOnlyWhereItReadsIt) {
    const OperatorPtr still = make("Expression", {{"expression", std::string("length")}});
    const OperatorPtr moving = make("Expression", {{"expression", std::string("sin(time)")}});
    EXPECT_FALSE(still->readsTime());
    EXPECT_TRUE(moving->readsTime());
    const std::uint64_t stillHash = hashOfNode(still), movingHash = hashOfNode(moving);
    data.seconds = 2.0;
    data.scalp = std::make_shared<const ScalpMesh>(makePlane(2, 2, 4.0f));
    EXPECT_EQ(hashOfNode(still), stillHash);
    EXPECT_NE(hashOfNode(moving), movingHash);
}

TEST_F(FieldNodeTest, AChannelThatIsNotThereFailsWhenBound) {
    const FieldPtr f = field("Expression", {{"expression", std::string("wavy * 2")}});
    const StrandSet tuft = makeTuft({.strands = 5});
    try {
        boundTo(f, tuft);
        ADD_FAILURE();
    } catch (const GraphError& error) {
        EXPECT_THAT(error.what(),
                    testing::EndsWith("the expression reads 'wavy', which is neither a variable "
                                      "nor a channel of the strands"));
    }
}

// Maps.

TEST_F(FieldNodeTest, MapGivesItsChannels) {
    const TempFolder folder;
    writePng(folder.file("p.png"), 1, 1, 4, {255, 51, 102, 204});
    data.directory = folder.path();
    data.scalp = std::make_shared<const ScalpMesh>(makePlane(2, 2, 4.0f));
    auto catalog = std::make_shared<MapCatalogValue>();
    catalog->maps = {
        {"gray", {.values = std::make_shared<const std::vector<float>>(9, 0.5f), .vertices = 9}},
        {"painted", {.kind = PaintedMap::Kind::Texture, .file = "p.png"}}};
    data.maps = catalog;
    std::vector<GuideCurve> curves;
    GuideDetail detail;
    detail.attributes["layer"] = 0.75f;
    curves.push_back(
        {1, {}, {Vec3f{}, Vec3f{0, 1, 0}}, std::make_shared<const GuideDetail>(detail)});
    data.flatGuides = std::make_shared<const GuideSet>(std::move(curves));
    const auto values = [&](const char* name) {
        std::vector<float> out;
        for (const NodeValue& v : run(make("Map", {{"name", std::string(name)}})))
            out.push_back(std::get<FieldPtr>(v)->sampleAt({0.5f, 0.2f, 0.5f}));
        return out;
    };
    using testing::ElementsAre;
    using testing::FloatEq;
    const auto color = ElementsAre(FloatEq(luminance(1.0f, 0.2f, 0.4f)), FloatEq(1.0f),
                                   FloatEq(0.2f), FloatEq(0.4f), FloatEq(0.8f));
    EXPECT_THAT(values("p.png"), color);
    EXPECT_THAT(values("painted"), color);
    EXPECT_THAT(values("gray"), ElementsAre(0.5f, 0.5f, 0.5f, 0.5f, 1.0f));
    EXPECT_THAT(values("layer"), ElementsAre(0.75f, 0.75f, 0.75f, 0.75f, 1.0f));

    StrandSet tuft = makeTuft({.strands = 20});
    const FieldPtr layer =
        std::get<FieldPtr>(run(make("Map", {{"name", std::string("layer")}})).front());
    EXPECT_EQ(boundTo(layer, tuft)->sampleStrand(tuft, 1), 0.75f);
    for (float& v : tuft.mutableStrandChannel("layer", 0.0f)) v = 0.125f;
    EXPECT_EQ(boundTo(layer, tuft)->sampleStrand(tuft, 1), 0.125f)
        << "what the strands carry comes first";

    const OperatorPtr op = make("Map", {{"name", std::string("p.png")}});
    const std::uint64_t before = hashOfNode(op);
    writePng(folder.file("p.png"), 2, 1, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_NE(hashOfNode(op), before);
}

// All of them.

TEST_F(FieldNodeTest, BatchesGiveTheBitsOfSingleSamplesOnAnyThreadCount) {
    StrandSet tuft = makeTuft({.strands = 900, .pointsPerStrand = 12, .seed = 3, .uneven = true});
    const FieldPtr noise = field("FieldNoise");
    const FieldPtr along = field("Expression", {{"expression", std::string("t + tone")}});
    const FieldPtr shifted = field("FieldCombine", {{"mode", std::string("add")}}, {noise, along});
    const std::vector<FieldPtr> fields = {
        constant(0.5f),
        noise,
        boundTo(along, tuft),
        boundTo(field("FieldRemap", {{"curve", Ramp({{0, 1}, {0.4f, 0}, {1, 1}})}}, {along}), tuft),
        field("FieldRemap", {{"inMax", 0.5}}, {noise}),
        boundTo(shifted, tuft),
        boundTo(field("FieldCombine", {{"mode", std::string("mix")}}, {along, noise}), tuft),
        boundTo(field("FieldCombine", {{"mode", std::string("subtract")}, {"bValue", 0.25}},
                      {along, NodeValue{}}),
                tuft),
        field("FieldCombine", {{"mode", std::string("max")}}, {noise, constant(0.4f)}),
    };
    std::vector<std::uint32_t> all(tuft.strandCount());
    std::iota(all.begin(), all.end(), 0u);
    for (std::size_t k = 0; k < fields.size(); ++k) {
        SCOPED_TRACE(k);
        const FieldPtr& f = fields[k];
        std::vector<float> strandsOut(all.size()), pointsOut(tuft.pointCount()),
            rootsOut(all.size());
        f->sampleStrands(tuft, all, strandsOut);
        f->samplePoints(tuft, all, pointsOut);
        std::vector<Vec3f> positions;
        for (const std::uint32_t s : all) positions.push_back(tuft.pointsOf(s)[0]);
        f->sampleRoots(tuft.roots(), positions, rootsOut);
        for (const std::uint32_t s : all) {
            ASSERT_EQ(strandsOut[s], f->sampleStrand(tuft, s));
            ASSERT_EQ(rootsOut[s], f->sampleRoot(tuft.roots()[s], positions[s]));
            for (std::size_t p = 0; p < tuft.pointCountOf(s); ++p)
                ASSERT_EQ(pointsOut[tuft.offsets()[s] + p], f->samplePoint(tuft, s, p));
        }
        for (const unsigned threads : {1u, 8u}) {
            std::vector<float> parallel(all.size());
            runWithThreads(threads, [&] {
                parallelRange(0, all.size(), 7, [&](std::size_t b, std::size_t e) {
                    f->sampleStrands(tuft, std::span(all).subspan(b, e - b),
                                     std::span(parallel).subspan(b, e - b));
                });
            });
            EXPECT_EQ(parallel, strandsOut);
        }
    }
    EXPECT_TRUE(shifted->perPoint());
    EXPECT_TRUE(shifted->readsSet());
    EXPECT_FALSE(shifted->worksAtPosition());
    EXPECT_FALSE(noise->perPoint() || noise->readsSet());
    EXPECT_TRUE(noise->worksAtPosition());
}

TEST_F(FieldNodeTest, AStrandOfManyPointsCombinesLikeAnyOther) {
    StrandSet set;
    std::vector<Vec3f> points(10000);
    for (std::size_t i = 0; i < points.size(); ++i) points[i] = {0, float(i), 0};
    set.addStrand(1, points, {}, {});
    set.addStrand(2, std::span(points).first(5), {}, {});
    const FieldPtr along = field("Expression", {{"expression", std::string("t")}});
    const FieldPtr both =
        boundTo(field("FieldCombine", {{"mode", std::string("add")}}, {along, along}), set);
    const std::uint32_t strands[] = {1, 0, 1};
    std::vector<float> out(10010);
    both->samplePoints(set, strands, out);
    EXPECT_EQ(out[4], 2.0f);
    EXPECT_EQ(out[5 + 9999], 2.0f);
    EXPECT_EQ(out[10009], 2.0f);
    EXPECT_EQ(out[10005], 0.0f);
}

}  // namespace
}  // namespace corvelle
