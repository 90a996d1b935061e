#include <gmock/gmock.h>

#include "graph/graphEdit.h"
#include "graph/graphJson.h"
#include "graph/testing/testOperators.h"

namespace corvelle {
namespace {

using nlohmann::json;
using testing::ElementsAre;

std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const GraphError& error) {
        return error.what();
    }
    return "no error";
}

/// A stand-in for the node whose centers may be picked or given.
class FakeClump final : public Operator {
public:
    std::string type() const override { return "Clump"; }
    std::string category() const override { return "look"; }
    std::string description() const override { return "Centers, for a test."; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"centers", PortType::Curves, true}};
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "centersFrom",
                 .defaultValue = std::string("pick"),
                 .choices = {"pick", "inputPoints"}}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        return requireStrands(*this, inputs);
    }
};

class GraphEditTest : public testing::Test {
protected:
    GraphEditTest() : edit(start()) {}
    static json start() {
        registerTestOperators();
        OperatorRegistry::instance().add("Clump", [] { return std::make_unique<FakeClump>(); });
        return {{"version", 1},
                {"nodes",
                 {{{"name", "tuft"}, {"type", "TestTuft"}, {"myKey", 5}},
                  {{"name", "move"},
                   {"type", "TestMove"},
                   {"params", {{"amount", 0.5}}},
                   {"position", {1, 2}}},
                  {{"name", "field"}, {"type", "TestField"}},
                  {{"name", "curve"}, {"type", "TestCurve"}},
                  {{"name", "split"}, {"type", "TestSplit"}},
                  {{"name", "width"}, {"type", "TestWidth"}}}},
                {"connections",
                 {{{"from", "tuft"}, {"to", "move"}, {"input", "strands"}, {"color", "red"}},
                  {{"from", "move"}, {"to", "width"}, {"input", "strands"}}}},
                {"output", "width"},
                {"hosts", {1, 2}}};
    }
    GraphEdit edit;
};

TEST_F(GraphEditTest, AddedNodesGetFreeNames) {
    EXPECT_EQ(edit.addNode("TestMove", "", nullptr, nullptr), "testMove");
    EXPECT_EQ(edit.addNode("TestMove", "", nullptr, nullptr), "testMove2");
    EXPECT_EQ(edit.addNode("TestMove", "move", {{"share", 1}}, {4, 5}), "move2");
    EXPECT_EQ(edit.node("move2"), json({{"name", "move2"},
                                        {"type", "TestMove"},
                                        {"version", 1},
                                        {"params", {{"share", 1}}},
                                        {"position", {4, 5}}}));
    EXPECT_EQ(errorOf([&] { edit.addNode("Kite", "", nullptr, nullptr); }),
              "unknown operator type 'Kite'");
    EXPECT_EQ(errorOf([&] { edit.addNode("TestMove", "", 5, nullptr); }),
              "a node's params are a JSON object");
    EXPECT_EQ(errorOf([&] { graphFromJson(edit.json()); }), "no error");
}

TEST_F(GraphEditTest, SeedsDifferFromTheStart) {
    const auto seedOf = [&](const std::string& name) {
        return edit.node(name)["params"].value("seed", 0);
    };
    edit.addNode("Flyaway", "a", nullptr, nullptr);
    edit.addNode("Flyaway", "b", nullptr, nullptr);
    edit.addNode("Flyaway", "c", {{"seed", 0}}, nullptr);
    edit.addNode("Flyaway", "d", nullptr, nullptr);
    EXPECT_EQ(seedOf("a"), 0);
    EXPECT_EQ(seedOf("b"), 1);
    EXPECT_EQ(seedOf("c"), 0) << "a seed that was asked for stays";
    EXPECT_EQ(seedOf("d"), 2);
    edit.addNode("TestMove", "e", nullptr, nullptr);
    EXPECT_FALSE(edit.node("e")["params"].contains("seed"));
}

TEST_F(GraphEditTest, RemovalTakesConnectionsAndParamInputs) {
    edit.connect("field", "", "move", "amount");
    edit.removeNode("field");
    EXPECT_FALSE(edit.node("move").contains("paramInputs"));
    edit.removeNode("move");
    EXPECT_TRUE(edit.json()["connections"].empty());
    EXPECT_EQ(edit.json()["output"], "width");
    edit.removeNode("width");
    EXPECT_FALSE(edit.json().contains("output"));
    EXPECT_EQ(errorOf([&] { edit.removeNode("move"); }), "no node named move");
}

TEST_F(GraphEditTest, RenamingFollowsEverywhere) {
    edit.connect("field", "", "move", "amount");
    edit.node("width")["paramInputs"] = json::array({{{"param", "width"}, {"from", "field"}}});
    edit.renameNode("field", "wind");
    edit.renameNode("move", "shift");
    edit.renameNode("width", "last");
    EXPECT_EQ(edit.node("shift")["paramInputs"]["amount"]["from"], "wind");
    EXPECT_EQ(edit.node("last")["paramInputs"][0]["from"], "wind");
    EXPECT_EQ(edit.json()["connections"],
              json({{{"from", "tuft"}, {"to", "shift"}, {"input", "strands"}, {"color", "red"}},
                    {{"from", "shift"}, {"to", "last"}, {"input", "strands"}}}));
    EXPECT_EQ(edit.json()["output"], "last");
    EXPECT_EQ(errorOf([&] { edit.renameNode("shift", ""); }), "a node needs a name");
    EXPECT_EQ(errorOf([&] { edit.renameNode("shift", "tuft"); }), "a node named 'tuft' exists");
    EXPECT_EQ(errorOf([&] { edit.renameNode("nobody", "x"); }), "no node named nobody");
    EXPECT_EQ(errorOf([&] { edit.renameNode("shift", "shift"); }), "no error");
    EXPECT_EQ(errorOf([&] { graphFromJson(edit.json()); }), "no error");
}

TEST_F(GraphEditTest, ConnectReplacesAndChecks) {
    edit.connect("tuft", "", "split", "strands");
    edit.connect("split", "b", "width", "strands");
    const json& list = edit.json()["connections"];
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.back(),
              json({{"from", "split"}, {"to", "width"}, {"input", "strands"}, {"output", "b"}}));
    const std::vector<std::tuple<std::string, std::string, std::string, std::string, std::string>>
        cases = {
            {"nobody", "", "width", "strands", "no node named nobody"},
            {"tuft", "", "nobody", "strands", "no node named nobody"},
            {"tuft", "", "width", "hair", "node 'width' has no input 'hair'"},
            {"tuft", "", "width", "", "node 'width' has no input ''"},
            {"tuft", "x", "width", "strands", "node 'tuft' has no output 'x'"},
            {"field", "", "width", "strands",
             "cannot connect field (it gives Field) to width (it takes Strands)"},
            {"tuft", "", "width", "width",
             "cannot connect tuft (it gives Strands) to width (it takes Field)"},
            {"field", "", "move", "profile",
             "cannot connect field (it gives Field) to move (it takes Curve)"},
            {"field", "", "move", "share", "node 'move' has no input 'share'"},
            {"width", "", "tuft", "strands", "node 'tuft' has no input 'strands'"},
            {"width", "", "split", "strands", "connecting width to split would create a cycle"},
            {"move", "", "move", "strands", "connecting move to move would create a cycle"},
        };
    const json before = edit.json();
    for (const auto& [from, output, to, input, error] : cases)
        EXPECT_EQ(errorOf([&] { edit.connect(from, output, to, input); }), error)
            << from << to << input;
    EXPECT_EQ(edit.json(), before);
    EXPECT_TRUE(edit.disconnect("width", "strands"));
    EXPECT_FALSE(edit.disconnect("width", "strands"));
}

TEST_F(GraphEditTest, PortsThatStandInParamsAreRead) {
    edit.addNode("TestOuter", "outer", {{"type", "Field"}}, nullptr);
    edit.connect("outer", "", "move", "amount");
    EXPECT_EQ(errorOf([&] { edit.connect("outer", "", "width", "strands"); }),
              "cannot connect outer (it gives Field) to width (it takes Strands)");
}

TEST_F(GraphEditTest, FieldsConnectToParamsAndDoNotMuteThem) {
    edit.connect("field", "", "move", "amount");
    EXPECT_EQ(edit.node("move")["paramInputs"], json({{"amount", {{"from", "field"}}}}));
    edit.node("width")["params"]["width"] = 0.0;
    edit.connect("field", "field", "width", "width");
    EXPECT_EQ(edit.node("width")["paramInputs"]["width"]["scale"], 1) << "0 x a field would be 0";
    edit.connect("curve", "", "move", "profile");
    EXPECT_EQ(errorOf([&] { graphFromJson(edit.json()); }), "no error");
    EXPECT_TRUE(edit.disconnect("move", "amount"));
    EXPECT_TRUE(edit.disconnect("move", "profile"));
    EXPECT_FALSE(edit.node("move").contains("paramInputs"));
}

TEST_F(GraphEditTest, CentersConnectedToAClumpAreUsed) {
    edit.addNode("Clump", "clump", nullptr, nullptr);
    edit.connect("tuft", "", "clump", "centers");
    EXPECT_EQ(edit.node("clump")["params"]["centersFrom"], "inputPoints");
    edit.node("clump")["params"]["centersFrom"] = "other";
    edit.connect("tuft", "", "clump", "centers");
    EXPECT_EQ(edit.node("clump")["params"]["centersFrom"], "other");
}

TEST_F(GraphEditTest, SmallSettingsAndUnknownKeysStay) {
    edit.setBypass("move", true);
    edit.setEvaluation("move", "renderOnly");
    edit.setPosition("tuft", 1.5, 2);
    edit.setOutput("move");
    EXPECT_EQ(edit.node("move")["bypass"], true);
    EXPECT_EQ(edit.node("move")["evaluation"], "renderOnly");
    EXPECT_EQ(edit.node("tuft")["position"], json({1.5, 2.0}));
    edit.setBypass("move", false);
    edit.setEvaluation("move", "always");
    EXPECT_FALSE(edit.node("move").contains("bypass") || edit.node("move").contains("evaluation"));
    EXPECT_EQ(errorOf([&] { edit.setEvaluation("move", "x"); }),
              "unknown evaluation 'x' (always, viewportOnly or renderOnly)");
    EXPECT_EQ(errorOf([&] { edit.setOutput("x"); }), "no node named x");
    EXPECT_EQ(edit.json()["hosts"], json({1, 2}));
    EXPECT_EQ(edit.node("tuft")["myKey"], 5);
    EXPECT_EQ(edit.node("move")["position"], json({1, 2}));
    EXPECT_EQ(errorOf([] { GraphEdit{json::array()}; }), "graph JSON must be an object");
    EXPECT_EQ(errorOf([] { GraphEdit{json{{"nodes", 3}}}; }), "graph JSON: nodes is a list");
}

TEST_F(GraphEditTest, UpgradingRaisesTheVersionAndFillsDefaults) {
    edit.addNode("TestNewer", "old", nullptr, nullptr);
    edit.node("old")["version"] = 1;
    EXPECT_TRUE(edit.upgradeNode("old"));
    EXPECT_EQ(edit.node("old")["version"], 3);
    EXPECT_EQ(edit.node("old")["params"], json({{"seed", 0}, {"affect", 1.0}}));
    EXPECT_FALSE(edit.upgradeNode("old"));
    EXPECT_FALSE(edit.upgradeNode("tuft")) << "a node without a version is current";
}

TEST(SeedCollisions, AreFoundWhereStrandsComeFromOneSource) {
    registerTestOperators();
    json graph = {{"nodes", json::array()}, {"connections", json::array()}};
    const auto node = [&](const char* name, const char* type, int seed) {
        graph["nodes"].push_back({{"name", name}, {"type", type}, {"params", {{"seed", seed}}}});
    };
    const auto connect = [&](const char* from, const char* to, const char* input) {
        graph["connections"].push_back({{"from", from}, {"to", to}, {"input", input}});
    };
    node("scalp", "Scalp", 0);
    node("other", "Scalp", 0);
    node("s1", "Scatter", 0);
    node("s2", "Scatter", 0);
    node("s3", "Scatter", 1);
    node("s4", "Scatter", 0);
    node("f1", "Flyaway", 3);
    node("f2", "Flyaway", 3);
    node("f3", "Flyaway", 3);
    for (const char* s : {"s1", "s2", "s3"}) connect("scalp", s, "scalp");
    connect("other", "s4", "scalp");
    connect("s1", "f1", "strands");
    connect("f1", "f2", "strands");
    connect("s4", "f3", "strands");
    EXPECT_THAT(
        seedCollisions(graph),
        ElementsAre(
            "s1 and s2: their strands coincide (same roots and IDs); give each its own seed",
            "f1 and f2: they pick the same strays; give each its own seed"));
    EXPECT_TRUE(seedCollisions(json(5)).empty());
    connect("f2", "f1", "strands");  // a cycle ends
    EXPECT_THAT(seedCollisions(graph), testing::Contains(testing::HasSubstr("f1 and f2")));
    EXPECT_TRUE(seedCollisions({{"nodes", {5, nullptr}}, {"connections", 7}}).empty());
}

TEST(SeedCollisions, TellTheFirstHundredOfManyPairs) {
    registerTestOperators();
    json graph = {{"nodes", json::array()}, {"connections", json::array()}};
    graph["nodes"].push_back({{"name", "s"}, {"type", "Scatter"}});
    std::string last = "s";
    for (int i = 0; i < 3000; ++i) {
        const std::string name = "f" + std::to_string(i);
        graph["nodes"].push_back({{"name", name}, {"type", "Flyaway"}});
        graph["connections"].push_back({{"from", last}, {"to", name}, {"input", "strands"}});
        last = name;
    }
    const std::vector<std::string> warnings = seedCollisions(graph);
    ASSERT_EQ(warnings.size(), 101u);
    EXPECT_EQ(warnings.front(), "f0 and f1: they pick the same strays; give each its own seed");
    EXPECT_EQ(warnings.back(), "more nodes have the same seed; give each its own");
}

TEST(ScaleGraph, ScalesByUnitAndLeavesTheRest) {
    registerTestOperators();
    json graph = {
        {"nodes",
         {{{"name", "a"},
           {"type", "TestMove"},
           {"params", {{"amount", {{"texture", "t"}, {"low", 1.0}}}, {"seed", 3}}}},
          {{"name", "b"}, {"type", "TestMove"}},
          {{"name", "t"}, {"type", "TestTag"}, {"params", {{"value", 8.0}}}},
          {{"name", "w"}, {"type", "TestWidth"}, {"params", {{"width", {{"expression", "1"}}}}}}}},
        {"output", "a"}};
    scaleGraph(graph, 2.0);
    EXPECT_EQ(graph["nodes"][0]["params"],
              json({{"amount", {{"texture", "t"}, {"low", 2.0}, {"high", 2.0}}}, {"seed", 3}}));
    EXPECT_EQ(graph["nodes"][1]["params"], json({{"amount", 1.0}}))
        << "a default that changes is written";
    EXPECT_EQ(graph["nodes"][2]["params"], json({{"value", 2.0}, {"rate", 1.0}}))
        << "density, perLength";
    EXPECT_EQ(graph["nodes"][3]["params"]["width"], json({{"expression", "1"}, {"high", 2.0}}));
    const json before = graph;
    scaleGraph(graph, 1.0);
    EXPECT_EQ(graph, before);
    EXPECT_EQ(errorOf([&] { scaleGraph(graph, 0.0); }), "a graph is scaled by a number above 0");
    graph["nodes"][2]["type"] = "Kite";
    EXPECT_EQ(errorOf([&] { scaleGraph(graph, 3.0); }), "unknown operator type 'Kite'");
    EXPECT_EQ(graph["nodes"][1], before["nodes"][1]) << "nothing half done";
}

}  // namespace
}  // namespace corvelle
