#include <cmath>
#include <limits>
#include <set>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "graph/operator.h"
#include "graph/testing/testOperators.h"

namespace corvelle {
namespace {

std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

class OperatorTest : public testing::Test {
protected:
    OperatorTest() { registerTestOperators(); }
    OperatorPtr make(const std::string& type) { return OperatorRegistry::instance().create(type); }
};

TEST_F(OperatorTest, UnknownTypesAndPortNamesSayWhatIsKnown) {
    const auto before = OperatorRegistry::instance().types();
    EXPECT_EQ(errorOf([&] { make("Nonsense"); }), "unknown operator type 'Nonsense'");
    EXPECT_EQ(OperatorRegistry::instance().types(), before);
    EXPECT_EQ(errorOf([] { portTypeFromName("strands"); }),
              "unknown port type 'strands' (Strands, Guides, Mesh, Field, Curve or Curves)");
    EXPECT_EQ(errorOf([] { nodeEvaluationFromName("never"); }),
              "unknown evaluation 'never' (always, viewportOnly or renderOnly)");
    EXPECT_STREQ(portTypeName(PortType(17)), "Unknown");
    EXPECT_STREQ(nodeEvaluationName(NodeEvaluation(9)), "always");
    for (int type = 0; type < 6; ++type)
        EXPECT_EQ(portTypeFromName(portTypeName(PortType(type))), PortType(type));
}

TEST_F(OperatorTest, PortsFitWhenTheirKindsMeet) {
    const std::set<std::pair<int, int>> across = {{0, 5}, {1, 5}, {5, 0}, {5, 1}};
    for (int a = 0; a < 6; ++a)
        for (int b = 0; b < 6; ++b)
            EXPECT_EQ(portsFit(PortType(a), PortType(b)), a == b || across.contains({a, b}))
                << a << b;
}

TEST_F(OperatorTest, SetChecksNamesKindsAndMaps) {
    const OperatorPtr op = make("TestMove");
    struct Case {
        std::string param;
        ParamValue value;
        std::string error;
    };
    const MapSource expression{MapKind::Expression, "rand", MapComponent::Luminance, 0, 1};
    const MapSource texture{MapKind::Texture, "a.png", MapComponent::R, 0, 1};
    const std::vector<Case> cases = {
        {"nothing", 1.0, "unknown parameter 'nothing'"},
        {"amount", true, "param 'amount' takes a float or a map, not a bool"},
        {"amount", expression, "no error"},
        {"share", expression, "param 'share' takes a float, not a map"},
        {"share", std::string("x"), "param 'share' takes a float, not a string"},
        {"on", 1.0, "param 'on' takes a bool, not a float"},
        {"direction", 1.0, "param 'direction' takes a vec3 or an expression, not a float"},
        {"direction", expression, "no error"},
        {"direction", texture,
         "param 'direction': a vector takes an expression (a texture map gives one number)"},
        {"profile", Vec3f{}, "param 'profile' takes a ramp, not a vec3"},
        {"profile", std::string(R"({"keys": [[0, 1], [1, 0.5]]})"), "no error"},
        {"profile", std::string("{"), "ramp: malformed JSON"},
        {"profile", std::string("{\"keys\": []}"), "ramp: needs keys [[position, value], ...]"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(errorOf([&] { op->set(c.param, c.value); }), c.error) << c.param;
    EXPECT_EQ(op->ramp("profile")(1.0f), 0.5f);
    EXPECT_TRUE(op->isMapped("amount"));
    EXPECT_EQ(errorOf([&] { op->number("amount"); }),
              "TestMove: param 'amount' reads a map where the node needs one value");
}

TEST_F(OperatorTest, GettersClampRoundAndFallBack) {
    const OperatorPtr tuft = make("TestTuft");
    EXPECT_EQ(tuft->whole("strands"), 20);
    tuft->set("strands", 7.6);
    EXPECT_EQ(tuft->whole("strands"), 8);
    EXPECT_EQ(std::get<double>(tuft->value("strands")), 7.6) << "stored as given";
    tuft->set("strands", -5.0);
    EXPECT_EQ(tuft->whole("strands"), 0);
    tuft->set("strands", std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(tuft->whole("strands"), 20);
    tuft->set("seed", 1e300);
    EXPECT_EQ(errorOf([&] { tuft->seed(); }), "param 'seed' is out of range for an integer");
    EXPECT_EQ(errorOf([&] { tuft->whole("seed"); }), "param 'seed' is out of range for an integer");
    tuft->unset("seed");
    EXPECT_EQ(tuft->seed(), 0u);
    const OperatorPtr move = make("TestMove");
    move->set("axis", std::string("w"));
    EXPECT_EQ(errorOf([&] { move->choice("axis"); }), "TestMove: axis must be x, y or z");
}

TEST_F(OperatorTest, DrivenValuesWinOverStoredOnesAndGo) {
    const OperatorPtr op = make("TestMove");
    op->set("amount", 2.0);
    op->drive("amount", ParamValue(3.0));
    op->drive("profile", std::make_shared<const Ramp>(std::vector<Ramp::Key>{{0.0f, 0.125f}}));
    op->drive("amount", Operator::DrivenField{constantTestField(1.0f), 2.0f});
    EXPECT_EQ(op->number("amount"), 3.0);
    EXPECT_EQ(op->ramp("profile")(0.5f), 0.125f);
    EXPECT_TRUE(op->isMapped("amount"));
    op->clearDriven();
    EXPECT_EQ(op->number("amount"), 2.0);
    EXPECT_EQ(op->ramp("profile")(0.5f), 0.5f);
    EXPECT_FALSE(op->isMapped("amount"));
}

TEST_F(OperatorTest, AffectIsAddedWhereStrandsGoInAndOut) {
    EXPECT_EQ(make("TestMove")->params().back().name, "affect");
    EXPECT_TRUE(make("TestSplit")->hasCommonAffect());
    for (const char* type : {"TestTuft", "TestGuides", "TestField", "Scatter"})
        EXPECT_FALSE(make(type)->hasCommonAffect()) << type;
    const nlohmann::json affect = operatorSpecJson(*make("TestMove"))["params"].back();
    EXPECT_EQ(affect["group"], "Common");
    EXPECT_EQ(affect["unit"], "fraction");
    EXPECT_EQ(affect["mappable"], true);
    EXPECT_EQ(affect["default"], 1.0);
    EXPECT_EQ(affect["softMin"], 0.0);
    EXPECT_EQ(affect["softMax"], 1.0);
    EXPECT_FALSE(affect.contains("min")) << "the slider's range clamps nothing";
}

TEST_F(OperatorTest, AParamIsMappableWhenItsDescriptionSaysSo) {
    const nlohmann::json spec = operatorSpecJson(*make("TestMove"));
    std::map<std::string, nlohmann::json> params;
    for (const auto& p : spec["params"]) params[p["name"]] = p;
    EXPECT_EQ(params["amount"]["mappable"], true);
    EXPECT_FALSE(params["share"].contains("mappable"));
    EXPECT_EQ(params["seed"]["default"].dump(), "0");
    EXPECT_EQ(params["seed"]["whole"], true);
    EXPECT_FALSE(params["seed"].contains("animatable"));
    EXPECT_EQ(params["share"]["animatable"], true);
    EXPECT_FALSE(params["axis"].contains("animatable"));
    EXPECT_EQ(params["axis"]["choices"], nlohmann::json({"x", "y", "z"}));
    EXPECT_EQ(params["share"]["max"], 1.0);
}

TEST_F(OperatorTest, AMissingInputIsNamedByItsKind) {
    const OperatorPtr follow = make("TestFollow");
    EXPECT_EQ(errorOf([&] { requireStrands(*follow, {}); }),
              "TestFollow: strands input not connected");
    EXPECT_EQ(errorOf([&] { requireGuides(*follow, {}, 1); }),
              "TestFollow: guides input not connected");
    EXPECT_EQ(errorOf([&] { requireMesh(*make("Scatter"), {}, 0); }),
              "Scatter: input scalp is not connected");
}

TEST(ContextReads, HashJustWhatIsAskedFor) {
    EvaluationData data;
    EXPECT_EQ(readsWords(reads::kTime | reads::kScalp),
              (std::vector<std::string>{"scalp", "time"}));
    EXPECT_EQ(readsWords(reads::kAll).size(), 12u);
    std::vector<std::uint64_t> before;
    for (std::uint32_t bit = 0; bit < 12; ++bit)
        before.push_back(contextReadsHash(data, 1u << bit));
    data.seconds = 2.0;
    data.viewport = true;
    data.pointBudget = 5.0;
    data.searchPaths = {"a"};
    data.controls["c"] = 1.0;
    const std::uint32_t touched =
        reads::kTime | reads::kViewport | reads::kDensity | reads::kSearchPaths;
    for (std::uint32_t bit = 0; bit < 12; ++bit)
        EXPECT_EQ(contextReadsHash(data, 1u << bit) != before[bit], (touched & (1u << bit)) != 0)
            << bit;
    ContextHasher kept;
    kept.begin(data);
    EXPECT_EQ(kept.hash(reads::kAll), contextReadsHash(data, reads::kAll));
    data.frame = 7.0;
    kept.begin(data);
    EXPECT_EQ(kept.hash(reads::kAll), contextReadsHash(data, reads::kAll));
}

}  // namespace
}  // namespace corvelle
