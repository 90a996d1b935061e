#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "graph/rampText.h"
#include "graph/testing/testOperators.h"
#include "model/hash.h"

namespace corvelle {
namespace {

using nlohmann::json;

std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

class GraphJsonTest : public testing::Test {
protected:
    GraphJsonTest() { registerTestOperators(); }
    /// A tuft, a move node with the keys given, and the output.
    static json graphWith(const json& keys) {
        json move = {{"name", "move"}, {"type", "TestMove"}};
        move.update(keys);
        return {{"nodes",
                 {{{"name", "tuft"}, {"type", "TestTuft"}},
                  move,
                  {{"name", "f"}, {"type", "TestField"}}}},
                {"connections", {{{"from", "tuft"}, {"to", "move"}, {"input", "strands"}}}},
                {"output", "move"}};
    }
    static std::string readError(const json& graph) {
        return errorOf([&] { graphFromJson(graph); });
    }
};

TEST_F(GraphJsonTest, EveryValueGoesThereAndBack) {
    json node = {
        {"params",
         {{"amount", {{"texture", "a.<UDIM>.png"}, {"component", "g"}, {"low", 0.1}, {"high", 3}}},
          {"share", 0.1},
          {"axis", "z"},
          {"on", false},
          {"seed", 12},
          {"direction", {0.1, -2, 1e-20}},
          {"profile", {{"keys", {{0, 0.3}, {0.7, 1}}}, {"linear", true}}}}},
        {"version", 1},
        {"paramControls", {{"share", "dial"}, {"direction", {"a", "b", "c"}}}},
        {"bypass", true},
        {"evaluation", "renderOnly"},
        {"position", {3.5, -7}},
        {"hostsOwn", {{"deep", {1, "two", nullptr}}}}};
    json given = graphWith(node);
    given["backdrops"] = {{{"title", "hair"}}, 7};
    given["hostKey"] = "kept";
    const json written = graphToJson(graphFromJson(given));
    const json& move = written["nodes"][1];
    for (const auto& [key, value] : node.items()) EXPECT_EQ(move[key], value) << key;
    EXPECT_EQ(move["params"]["seed"].dump(), "12");
    EXPECT_EQ(move["params"]["direction"].dump(), "[0.1,-2.0,1e-20]");
    EXPECT_EQ(written["backdrops"], given["backdrops"]);
    EXPECT_EQ(written["hostKey"], "kept");
    EXPECT_EQ(written["connections"], given["connections"]);
    EXPECT_EQ(written["output"], "move");
    EXPECT_EQ(written["version"], 1);
    EXPECT_EQ(graphToJson(graphFromJson(written)), written) << "writing is a fixed point";
    EXPECT_FALSE(written["nodes"][0].contains("bypass"));
    EXPECT_FALSE(written["nodes"][0].contains("evaluation"));
}

TEST_F(GraphJsonTest, ParamInputsAreReadInBothForms) {
    const json object = {{"amount", {{"from", "f"}, {"scale", 0.5}}}};
    const json list =
        json::array({{{"param", "amount"}, {"from", "f"}, {"output", "field"}, {"scale", 0.5}}});
    for (const json& form : {object, list}) {
        const Graph graph = graphFromJson(graphWith({{"paramInputs", form}}));
        EXPECT_EQ(graphToJson(graph)["nodes"][1]["paramInputs"], object);
        const json spec = nodeSpecJson(graph, graph.node(graph.byName("move")));
        EXPECT_EQ(spec["paramInputs"], object);
    }
}

TEST_F(GraphJsonTest, OutputsAreNamedWhereThereAreSeveral) {
    json graph = graphWith({{"type", "TestMerge"}});
    graph["nodes"].push_back({{"name", "split"}, {"type", "TestSplit"}});
    graph["connections"] = {{{"from", "tuft"}, {"to", "split"}, {"input", "strands"}},
                            {{"from", "split"}, {"to", "move"}, {"input", "a"}},
                            {{"from", "split"}, {"to", "move"}, {"input", "b"}, {"output", "b"}}};
    const json written = graphToJson(graphFromJson(graph));
    EXPECT_EQ(written["connections"][0]["output"], "a") << "no output key means the first";
    EXPECT_EQ(written["connections"][1]["output"], "b");
    EXPECT_FALSE(written["connections"][2].contains("output"));
    EXPECT_EQ(graphToJson(graphFromJson(written)), written);
}

TEST_F(GraphJsonTest, EveryErrorSaysWhatAndWhere) {
    const std::string n = "node 'move': ";
    struct Case {
        json keys;
        std::string error;
    };
    const json expr = {{"expression", "1"}};
    const std::vector<Case> cases = {
        {{{"name", "tuft"}}, "duplicate node name 'tuft'"},
        {{{"name", ""}}, "a node needs a name"},
        {{{"name", 3}}, "a node needs a name"},
        {{{"type", "Kite"}}, "unknown operator type 'Kite'"},
        {{{"type", 7}}, n + "a node needs a type"},
        {{{"params", 5}}, n + "a node's params are a JSON object"},
        {{{"params", {{"what", 1}}}}, n + "unknown parameter 'what'"},
        {{{"params", {{"amount", nullptr}}}}, n + "unsupported value for param 'amount'"},
        {{{"params", {{"direction", {1, 2}}}}}, n + "unsupported value for param 'direction'"},
        {{{"params", {{"direction", {1, 2, "x"}}}}}, n + "unsupported value for param 'direction'"},
        {{{"params", {{"direction", {1, 2, 1e300}}}}},
         n + "param 'direction': a vector takes three finite numbers"},
        {{{"params", {{"profile", {{"keys", json::array()}}}}}},
         n + "ramp for param 'profile' needs keys [[position, value], ...]"},
        {{{"params", {{"profile", {{"keys", {{0, "x"}}}}}}}},
         n + "ramp for param 'profile' needs keys [[position, value], ...]"},
        {{{"params", {{"profile", "[]"}}}}, n + "ramp: needs keys [[position, value], ...]"},
        {{{"params", {{"profile", "{{"}}}}, n + "ramp: malformed JSON"},
        {{{"params", {{"amount", json::object()}}}},
         n + "map for param 'amount' needs exactly one of texture, colorSet, attribute, "
             "expression, guide"},
        {{{"params", {{"amount", {{"guide", "a"}, {"texture", "b"}}}}}},
         n + "map for param 'amount' needs exactly one of texture, colorSet, attribute, "
             "expression, guide"},
        {{{"params", {{"amount", {{"texture", "b"}, {"component", "x"}}}}}},
         n + "map for param 'amount': unknown component 'x'"},
        {{{"params", {{"amount", {{"texture", 5}}}}}},
         n + "map for param 'amount': texture must be a string"},
        {{{"params", {{"amount", {{"texture", "b"}, {"low", "x"}}}}}},
         n + "map for param 'amount': low must be a number"},
        {{{"params", {{"share", expr}}}}, n + "param 'share' takes a float, not a map"},
        {{{"params", {{"on", 1}}}}, n + "param 'on' takes a bool, not a float"},
        {{{"paramControls", {1}}}, n + "paramControls must map params to controls"},
        {{{"paramControls", {{"share", {"a", "b"}}}}},
         n + "param 'share' must name its control (or three for a vector)"},
        {{{"paramControls", {{"direction", {"a", "b"}}}}},
         n + "param 'direction' must name its control (or three for a vector)"},
        {{{"paramControls", {{"share", 5}}}},
         n + "param 'share' must name its control (or three for a vector)"},
        {{{"paramControls", {{"direction", {"a", "b", "c"}}}}}, "no error"},
        {{{"paramControls", {{"what", "a"}}}}, n + "unknown parameter 'what'"},
        {{{"paramInputs", 5}},
         n + "paramInputs must map params to {\"from\": node, \"output\", \"scale\"}"},
        {{{"paramInputs", {{"amount", "f"}}}},
         n + "paramInputs must map params to {\"from\": node, \"output\", \"scale\"}"},
        {{{"paramInputs", {{"amount", {{"from", "g"}}}}}}, n + "unknown node 'g'"},
        {{{"paramInputs", {{"amount", {{"from", "f"}, {"output", "x"}}}}}},
         n + "node 'f' has no output 'x'"},
        {{{"paramInputs", {{"share", {{"from", "f"}}}}}},
         n + "param 'share' takes no input: a Field feeds a mappable number, a Curve a ramp"},
        {{{"bypass", "yes"}}, n + "bypass is true or false"},
        {{{"evaluation", "never"}}, n + "evaluation is always, viewportOnly or renderOnly"},
        {{{"evaluation", 1}}, n + "evaluation is always, viewportOnly or renderOnly"},
        {{{"version", 1.5}}, n + "version 1.5 is not a whole number from 1"},
        {{{"version", 0}}, n + "version 0 is not a whole number from 1"},
        {{{"version", "1"}}, n + "version \"1\" is not a whole number from 1"},
        {{{"version", 1.0}}, "no error"},
        {{{"version", 2}, {"params", {{"new", 1}}}},
         "node 'move' is a TestMove of version 2, newer than this Corvelle's (1); update Corvelle "
         "to open it"},
    };
    for (const Case& c : cases) EXPECT_EQ(readError(graphWith(c.keys)), c.error) << c.keys.dump();
}

TEST_F(GraphJsonTest, TheGraphsOwnShapeIsChecked) {
    const auto with = [&](const json& keys) {
        json graph = graphWith(json::object());
        graph.update(keys);
        return readError(graph);
    };
    const auto connection = [&](const json& c) {
        return with({{"connections", json::array({c})}});
    };
    EXPECT_EQ(readError(json::array()), "graph JSON must be an object");
    EXPECT_EQ(readError(json::object()), "graph JSON has no 'output' node");
    EXPECT_EQ(with({{"output", "nobody"}}), "graph JSON has no 'output' node");
    EXPECT_EQ(with({{"output", 3}}), "graph JSON has no 'output' node");
    EXPECT_EQ(with({{"nodes", 3}}), "graph JSON: nodes is a list");
    EXPECT_EQ(with({{"nodes", {3}}}), "graph JSON: a node is an object");
    EXPECT_EQ(
        with({{"version", 2}}),
        "graph version 2 is newer than this Corvelle supports (1); update Corvelle to open it");
    EXPECT_EQ(with({{"version", 1.5}}), "graph version 1.5 is not a whole number");
    EXPECT_EQ(with({{"version", 0}}), "graph version 0 is not valid");
    EXPECT_EQ(connection(3),
              "graph JSON: a connection is an object of from, to, input and maybe output");
    EXPECT_EQ(connection({{"from", "x"}, {"to", "move"}, {"input", "strands"}}),
              "unknown node 'x'");
    EXPECT_EQ(connection({{"from", "tuft"}, {"to", "move"}, {"input", "hair"}}),
              "node 'move' has no input 'hair'");
    EXPECT_EQ(connection({{"from", "tuft"}, {"to", "move"}, {"input", "strands"}, {"output", "b"}}),
              "node 'tuft' has no output 'b'");
    EXPECT_EQ(connection({{"from", "f"}, {"to", "move"}, {"input", "strands"}}),
              "node 'move': type mismatch: Field -> Strands");
    EXPECT_EQ(connection({{"from", "move"}, {"to", "move"}, {"input", "strands"}}),
              "node 'move': connection would create a cycle");
}

TEST_F(GraphJsonTest, BlankTextIsNoGraph) {
    for (const char* blank : {"", " \n\t\r", "{}", " { } "})
        EXPECT_TRUE(blankGraphText(blank)) << blank;
    for (const char* some : {"[]", "{\"nodes\": []}", "x"})
        EXPECT_FALSE(blankGraphText(some)) << some;
}

TEST_F(GraphJsonTest, TheDefaultGraphIsTheChainFromScalpToOutput) {
    const json graph = defaultGraphJson();
    EXPECT_EQ(graph["nodes"].size(), 10u);
    EXPECT_EQ(graph["connections"].size(), 10u);
    EXPECT_EQ(graph["output"], "output");
    EXPECT_EQ(graph["nodes"][4]["params"],
              json({{"fraction", 1.0}, {"trimMin", 0.0}, {"trimMax", 0.2}}));
}

TEST_F(GraphJsonTest, AnOldNodeIsSaidToBeOutdated) {
    const Graph graph = graphFromJson({{"nodes",
                                        {{{"name", "a"}, {"type", "TestNewer"}, {"version", 2}},
                                         {{"name", "b"}, {"type", "TestNewer"}}}},
                                       {"output", "a"}});
    const json a = nodeSpecJson(graph, graph.node(graph.byName("a")));
    EXPECT_EQ(a["version"], 2);
    EXPECT_EQ(a["nodeVersion"], 3);
    EXPECT_EQ(a["outdated"], true);
    const json b = nodeSpecJson(graph, graph.node(graph.byName("b")));
    EXPECT_EQ(b["version"], 3) << "a node without a version follows its type";
    EXPECT_EQ(b["outdated"], false);
    EXPECT_EQ(b["params"][0]["value"].dump(), "0");
    EXPECT_EQ(graphToJson(graph)["nodes"][0]["version"], 2) << "opening keeps what was stored";
}

TEST_F(GraphJsonTest, DeepTextIsRefusedAndNotFollowed) {
    const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
    EXPECT_EQ(errorOf([&] { parseJsonText(deep, "ramp"); }), "ramp: malformed JSON");
    EXPECT_EQ(parseJsonText("[[1]]", "ramp").dump(), "[[1]]");
    EXPECT_EQ(readError(graphWith({{"params", {{"profile", deep}}}})),
              "node 'move': ramp: malformed JSON");
}

/// Graphs with random parts replaced by values of other shapes: read or refused, never a crash, and
/// what is read is written so that it reads the same.
class HostileJson : public GraphJsonTest, public testing::WithParamInterface<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, HostileJson, testing::Range<std::uint64_t>(0, 8));

TEST_P(HostileJson, IsReadOrRefused) {
    SplitMix random(GetParam());
    const std::vector<json> odd = {nullptr,
                                   true,
                                   -1,
                                   1e300,
                                   0.5,
                                   "",
                                   "tuft",
                                   "move",
                                   json::array(),
                                   json::object(),
                                   {1, 2, 3},
                                   {{"from", "f"}},
                                   {{"keys", {{0, 1}}}},
                                   {{"expression", "1"}},
                                   std::uint64_t(-1)};
    const json whole =
        graphWith({{"params", {{"amount", {{"attribute", "x"}}}, {"direction", {1, 2, 3}}}},
                   {"paramInputs", {{"amount", {{"from", "f"}}}}},
                   {"paramControls", {{"share", "c"}}},
                   {"version", 1}});
    const json flat = whole.flatten();
    std::size_t read = 0, refused = 0;
    for (int round = 0; round < 400; ++round) {
        json broken = whole;
        for (std::uint64_t hits = 1 + random.nextU64() % 2; hits > 0; --hits) {
            auto at = flat.begin();
            std::advance(at, std::ptrdiff_t(random.nextU64() % flat.size()));
            json::json_pointer pointer(at.key());
            for (std::uint64_t up = random.nextU64() % 3; up > 0 && !pointer.empty(); --up)
                pointer = pointer.parent_pointer();
            if (broken.contains(pointer)) broken[pointer] = odd[random.nextU64() % odd.size()];
        }
        try {
            const json written = graphToJson(graphFromJson(broken));
            EXPECT_EQ(graphToJson(graphFromJson(written)), written);
            ++read;
        } catch (const GraphError&) {
            ++refused;
        } catch (const SchemaError&) {
            ++refused;
        }
    }
    EXPECT_GT(read, 5u);
    EXPECT_GT(refused, 50u);
}

}  // namespace
}  // namespace corvelle
