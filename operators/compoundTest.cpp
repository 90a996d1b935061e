#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "model/hash.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/compoundDefinition.h"
#include "operators/registerOperators.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

using nlohmann::json;

json node(const char* name, const char* type, json params = json::object()) {
    if (params.is_null()) params = json::object();
    return {{"name", name}, {"type", type}, {"params", std::move(params)}};
}
json wire(const char* from, const char* to, const char* input = "strands") {
    return {{"from", from}, {"to", to}, {"input", input}};
}

/// Input -> Noise -> Width, with amplitude and width to be set from outside.
json lookDefinition() {
    return {{"graph",
             {{"nodes",
               {node("in", "Input"), node("noise", "Noise", {{"amplitude", 0.3}, {"frequency", 1}}),
                node("width", "Width")}},
              {"connections", {wire("in", "noise"), wire("noise", "width")}},
              {"output", "width"}}},
            {"inputs", {{{"name", "strands"}, {"type", "Strands"}}}},
            {"expose", {{"wave", "noise.amplitude"}, {"thick", "width.width"}}}};
}

/// Input -> one node, whatever it is.
json oneNode(const char* type, json params = json::object(), json expose = json::object()) {
    return {{"graph",
             {{"nodes", {node("in", "Input"), node("it", type, std::move(params))}},
              {"connections", {wire("in", "it")}},
              {"output", "it"}}},
            {"inputs", {{{"name", "strands"}}}},
            {"expose", std::move(expose)}};
}

const Node* innerNode(const Operator& compound, const std::string& name) {
    const Node* found = nullptr;
    compound.visitInner(false, [&](const Node& inner) {
        if (inner.op->name == name) found = &inner;
        return true;
    });
    return found;
}

class CompoundTest : public testing::Test {
protected:
    CompoundTest() {
        registerOperators();
        setVerifyIncremental(true);
    }
    ~CompoundTest() override { setVerifyIncremental(false); }

    const StrandSet tuft = makeTuft({.strands = 800, .pointsPerStrand = 9, .seed = 2});

    static StrandSet through(const char* type, const StrandSet& in,
                             const std::vector<std::pair<const char*, ParamValue>>& params) {
        NodeBench bench(type);
        for (const auto& [name, value] : params) bench.op().set(name, value);
        bench.feed(in);
        return *bench.evaluate();
    }
    StrandSet edited(const StrandSet& in, SplitMix& random, std::vector<std::uint32_t>& changed) {
        StrandSet out = in;
        changed.clear();
        for (std::uint32_t s = 0; s < out.strandCount(); ++s)
            if (random.nextFloat() < 0.02f) changed.push_back(s);
        for (const std::uint32_t s : changed)
            for (std::uint64_t p = out.offsets()[s] + 1; p < out.offsets()[s + 1]; ++p)
                out.mutablePoints()[p] +=
                    Vec3f{random.nextRange(-1, 1), 0, random.nextRange(-1, 1)};
        return out;
    }
};

TEST_F(CompoundTest, GivesWhatItsNodesGiveInARow) {
    NodeBench bench("Compound", lookDefinition().dump());
    bench.feed(tuft);
    const StrandSet noised = through("Noise", tuft, {{"amplitude", 0.3}, {"frequency", 1.0}});
    EXPECT_EQ(bench.evaluate()->contentHash(), through("Width", noised, {}).contentHash());
    bench.op().set("thick", 0.1);
    EXPECT_EQ(bench.evaluate()->contentHash(),
              through("Width", noised, {{"width", 0.1}}).contentHash());
    bench.op().set("thick", MapSource{.kind = MapKind::Expression, .source = "0.01 + t * rand"});
    EXPECT_EQ(
        bench.evaluate()->contentHash(),
        through("Width", noised,
                {{"width", MapSource{.kind = MapKind::Expression, .source = "0.01 + t * rand"}}})
            .contentHash());
    bench.op().unset("thick");
    EXPECT_EQ(bench.evaluate()->contentHash(), through("Width", noised, {}).contentHash());
    bench.op().set("affect", 0.0);
    EXPECT_EQ(bench.evaluate()->contentHash(), tuft.contentHash())
        << "the common affect is its own";
}

TEST_F(CompoundTest, ShowsItsPortsAndExposedParams) {
    NodeBench bench("Compound", lookDefinition().dump());
    EXPECT_EQ(bench.op().inputPorts().at(0).name, "strands");
    EXPECT_EQ(bench.op().outputPorts().at(0).type, PortType::Strands);
    std::vector<std::string> names;
    for (const ParamSpec& spec : bench.op().params()) names.push_back(spec.name);
    EXPECT_EQ(names, (std::vector<std::string>{"thick", "wave", "repeat", "affect"}));
    const ParamSpec& wave = *bench.op().paramSpec("wave");
    EXPECT_EQ(std::get<double>(wave.defaultValue), 0.3) << "the inner node's own value";
    EXPECT_TRUE(wave.description.ends_with(" (exposed noise.amplitude)")) << wave.description;
    EXPECT_TRUE(wave.isMappable());

    // Conditions name outer params; those that stay inside are settled.
    const auto shown = readCompoundDefinition(
        oneNode("Resample", {{"mode", "curvature"}}, {{"how", "it.mode"}, {"turn", "it.maxAngle"}})
            .dump());
    EXPECT_EQ(shown->exposed[1].spec.showWhen.at(0).param, "how");
    const auto alone =
        readCompoundDefinition(oneNode("Resample", {}, {{"turn", "it.maxAngle"}}).dump());
    EXPECT_TRUE(alone->exposed[0].spec.showWhen.empty());

    json several = {{"graph", {{"nodes", {node("m", "Map")}}, {"output", "m"}}}};
    EXPECT_EQ(NodeBench("Compound", several.dump()).op().outputPorts().size(), 5u);
    several = lookDefinition();
    several["output"] = "noise";
    EXPECT_EQ(readCompoundDefinition(several.dump())->graph.output(), 2u);
    several["output"] = {{"name", "hair"}};
    EXPECT_EQ(readCompoundDefinition(several.dump())->outputs[0].name, "hair");
}

TEST_F(CompoundTest, RunsOnlyWhatAnExposedParamTouches) {
    NodeBench bench("Compound", lookDefinition().dump());
    bench.feed(tuft);
    bench.evaluate();
    const auto runs = [&](const char* name) { return innerNode(bench.op(), name)->runs; };
    const std::uint64_t noise = runs("noise"), width = runs("width");
    bench.op().set("thick", 0.02);
    bench.evaluate();
    EXPECT_EQ(runs("noise"), noise);
    EXPECT_EQ(runs("width"), width + 1);
    bench.op().unset("thick");
    bench.evaluate();
    EXPECT_EQ(runs("width"), width + 1) << "the result before is kept";
}

TEST_F(CompoundTest, FollowsEditsIncrementally) {
    NodeBench bench("Compound", lookDefinition().dump());
    bench.feed(tuft);
    bench.evaluate();
    StrandSet now = tuft;
    SplitMix random(3);
    std::vector<std::uint32_t> changed;
    for (int round = 0; round < 8; ++round) {
        now = edited(now, random, changed);
        bench.feedChanged(now, changed);
        const std::uint64_t updated = bench.evaluate()->contentHash();
        EXPECT_EQ(bench.status(), "incremental " + std::to_string(changed.size()));
        EXPECT_EQ(innerNode(bench.op(), "noise")->statusText, bench.status());
        if (round % 3 == 2) {  // there and back: the inner graph has been elsewhere since
            bench.op().set("thick", 0.03 * round);
            bench.evaluate();
            bench.op().unset("thick");
            bench.evaluate();
        }
        if (round % 4 == 3) {
            Graph copy = bench.graph();  // a warm copy: nothing runs
            const std::uint64_t evaluated = copy.nodesEvaluated();
            EXPECT_EQ(std::get<StrandsPtr>(copy.evaluate(copy.output(), bench.data))->contentHash(),
                      updated);
            EXPECT_EQ(copy.nodesEvaluated(), evaluated);
            EXPECT_TRUE(innerNode(*copy.node(copy.output()).op, "noise")->cached);
            bench.graph() = std::move(copy);
        }
        bench.feed(now);
        EXPECT_EQ(bench.evaluate()->contentHash(), updated);
    }
}

TEST_F(CompoundTest, TakesEditsInsideAnAffectedAndANestedOne) {
    json outer = oneNode("Compound", {{"definition", lookDefinition()}, {"thick", 0.02}},
                         {{"w", "it.wave"}});
    NodeBench bench("Compound", outer.dump());
    bench.op().set("affect", MapSource{.kind = MapKind::Expression, .source = "rand"});
    bench.feed(tuft);
    bench.evaluate();
    StrandSet now = tuft;
    SplitMix random(4);
    std::vector<std::uint32_t> changed;
    for (int round = 0; round < 4; ++round) {
        now = edited(now, random, changed);
        bench.feedChanged(now, changed);
        bench.evaluate();
        EXPECT_EQ(bench.status(), "incremental " + std::to_string(changed.size()));
    }
    bench.op().set("affect", 1.0);
    bench.op().set("w", 0.7);
    const StrandSet noised = through("Noise", now, {{"amplitude", 0.7}, {"frequency", 1.0}});
    EXPECT_EQ(bench.evaluate()->contentHash(),
              through("Width", noised, {{"width", 0.02}}).contentHash());
}

TEST_F(CompoundTest, RepeatsItsSubgraphEachPassFedByTheLast) {
    json definition = oneNode("Length", {{"keep", 0.9}});
    NodeBench bench("Compound", definition.dump());
    bench.op().set("repeat", 3.0);
    bench.feed(tuft);
    StrandSet wanted = tuft;
    for (int pass = 0; pass < 3; ++pass) wanted = through("Length", wanted, {{"keep", 0.9}});
    EXPECT_EQ(bench.evaluate()->contentHash(), wanted.contentHash());
    bench.op().set("repeat", 500.0);
    bench.op().set("repeat", -3.0);
    EXPECT_EQ(bench.evaluate()->contentHash(),
              through("Length", tuft, {{"keep", 0.9}}).contentHash());

    // Widths of the pass: what an Input named iteration gives.
    definition = oneNode("Width");
    definition["graph"]["nodes"].push_back(
        node("n", "Input", {{"name", "iteration"}, {"type", "Field"}}));
    definition["graph"]["nodes"][1]["paramInputs"] = {{"width", {{"from", "n"}, {"scale", 1}}}};
    definition["graph"]["nodes"][1]["params"] = {{"profile", {{"keys", {{0, 1}}}}}};
    NodeBench counted("Compound", definition.dump());
    counted.feed(tuft);
    for (const double passes : {1.0, 4.0, 64.0}) {
        counted.op().set("repeat", passes);
        EXPECT_FLOAT_EQ(counted.evaluate()->widths()[5], float(passes - 1.0));
    }
}

TEST_F(CompoundTest, LetsAFieldDriveAnExposedParam) {
    const auto drive = [&](NodeBench& bench, const char* param) {
        OperatorPtr field = OperatorRegistry::instance().create("FieldNoise");
        field->name = "field";
        const NodeId id = bench.graph().addNode(std::move(field));
        bench.graph().connectParam(id, 0, bench.graph().byName("node"), param, 2.0f);
        bench.feed(tuft);
        return id;
    };
    NodeBench plain("Width");
    NodeBench bench("Compound", lookDefinition().dump());
    NodeBench flat("Compound", oneNode("Width", {}, {{"thick", "it.width"}}).dump());
    drive(plain, "width");
    const NodeId field = drive(flat, "thick");
    EXPECT_EQ(flat.evaluate()->contentHash(), plain.evaluate()->contentHash());
    const std::uint64_t runs = innerNode(flat.op(), "it")->runs;
    flat.feed(tuft);
    flat.evaluate();
    StrandSet now = tuft;
    SplitMix random(5);
    std::vector<std::uint32_t> changed;
    now = edited(now, random, changed);
    flat.feedChanged(now, changed);
    flat.evaluate();
    EXPECT_EQ(flat.status(), "incremental " + std::to_string(changed.size()));
    EXPECT_GT(innerNode(flat.op(), "it")->runs, runs);
    flat.graph().setParam(field, "seed", 4.0);
    plain.graph().setParam(plain.graph().byName("field"), "seed", 4.0);
    plain.feed(now);
    EXPECT_EQ(flat.evaluate()->contentHash(), plain.evaluate()->contentHash());
    flat.graph().removeNode(field);
    EXPECT_EQ(flat.evaluate()->contentHash(), through("Width", now, {}).contentHash());
}

TEST_F(CompoundTest, FollowsTheControlsAndContextOfItsInside) {
    json definition = oneNode("Width");
    definition["graph"]["nodes"][1]["paramControls"] = {{"width", "thickness"}};
    NodeBench bench("Compound", definition.dump());
    bench.feed(tuft);
    for (const double thickness : {0.5, 0.25}) {
        bench.data.controls["thickness"] = thickness;
        EXPECT_FLOAT_EQ(bench.evaluate()->widths()[0], float(thickness));
    }
    definition = oneNode("Width", {{"width", {{"expression", "frame"}}}});
    NodeBench timed("Compound", definition.dump());
    timed.feed(tuft);
    for (const double frame : {3.0, 8.0}) {
        timed.data.frame = frame;
        EXPECT_FLOAT_EQ(timed.evaluate()->widths()[0], float(frame));
    }
    const NodeId id = timed.graph().byName("node");
    EXPECT_TRUE(timed.graph().readsTime(id, false));
    EXPECT_FALSE(bench.graph().readsTime(bench.graph().byName("node"), false));

    NodeBench mirror("Compound", oneNode("Mirror", {}, {{"again", "it.reattach"}}).dump());
    EXPECT_TRUE(mirror.op().contextReads() & reads::kScalp);
    mirror.op().set("again", false);
    EXPECT_FALSE(mirror.op().contextReads() & reads::kScalp);
}

TEST_F(CompoundTest, ScattersWithTheSegmentsOfAResampleInside) {
    Graph graph = graphFromJson(
        {{"nodes",
          {node("scalp", "Scalp"), node("scatter", "Scatter", {{"density", 1}}),
           node(
               "look", "Compound",
               {{"definition", oneNode("Resample", {{"segments", 5}}, {{"points", "it.segments"}})},
                {"points", 13}})}},
         {"connections", {wire("scalp", "scatter", "scalp"), wire("scatter", "look")}},
         {"output", "look"}});
    EvaluationData data;
    data.scalp = std::make_shared<const ScalpMesh>(makeIcosphere(2, 5.0f));
    const StrandsPtr out = std::get<StrandsPtr>(graph.evaluate(graph.output(), data));
    EXPECT_EQ(out->maxPointsPerStrand(), 14u);
    EXPECT_EQ(
        std::get<StrandsPtr>(graph.node(graph.byName("scatter")).outputs[0])->maxPointsPerStrand(),
        14u);
}

TEST_F(CompoundTest, ANewDefinitionKeepsTheCachesThatStillHold) {
    const auto graphOf = [](const json& definition) {
        return graphFromJson(
            {{"nodes",
              {node("guides", "Guides"), node("hair", "ToStrands"),
               node("look", "Compound", {{"definition", definition}})}},
             {"connections", {wire("guides", "hair", "guides"), wire("hair", "look")}},
             {"output", "look"}});
    };
    EvaluationData data;
    NodeBench bench("ToGuides");
    bench.feed(tuft);
    data.flatGuides = std::get<GuidesPtr>(bench.value());
    Graph old = graphOf(lookDefinition());
    old.evaluate(old.output(), data);
    json changed = lookDefinition();
    changed["graph"]["nodes"][2]["params"]["width"] = 0.5;
    Graph now = graphOf(changed);
    now.adopt(old);
    const StrandsPtr out = std::get<StrandsPtr>(now.evaluate(now.output(), data));
    const Operator& look = *now.node(now.output()).op;
    EXPECT_EQ(innerNode(look, "noise")->runs, 1u);
    EXPECT_EQ(innerNode(look, "width")->runs, 2u);
    EXPECT_FLOAT_EQ(out->widths()[0], 0.5f);
}

TEST_F(CompoundTest, ReadsItsDefinitionInAnyFormAndWritesItBack) {
    const json definition = lookDefinition();
    json graph = {{"nodes",
                   {node("guides", "Guides"), node("hair", "ToStrands"),
                    node("look", "Compound", {{"definition", definition}, {"wave", 0.5}})}},
                  {"connections", {wire("guides", "hair", "guides"), wire("hair", "look")}},
                  {"output", "look"}};
    const Graph read = graphFromJson(graph);
    const json written = graphToJson(read);
    EXPECT_EQ(written["nodes"][2]["params"]["definition"], definition);
    EXPECT_EQ(written["nodes"][2]["params"]["wave"], 0.5);
    EXPECT_EQ(graphToJson(graphFromJson(written)), written);
    graph["nodes"][2]["params"]["definition"] = definition.dump(4);
    const Graph fromText = graphFromJson(graph);
    EXPECT_EQ(graphToJson(fromText), written);
    const auto sourceHash = [](const Graph& g) {
        return g.node(g.byName("look")).op->sourceHash();
    };
    EXPECT_EQ(sourceHash(fromText), sourceHash(read));
    const json spec = nodeSpecJson(read, read.node(read.byName("look")));
    EXPECT_EQ(spec["inputs"], json::parse(R"([{"name": "strands", "type": "Strands"}])"));
    EXPECT_EQ(spec["params"][1]["name"], "wave");
    EXPECT_EQ(spec["params"][1]["value"], 0.5);
    graph["nodes"][2]["params"].erase("definition");
    graph["nodes"][2]["params"].erase("wave");
    graph["connections"].erase(1);
    EXPECT_FALSE(graphToJson(graphFromJson(graph))["nodes"][2]["params"].contains("definition"));
}

TEST_F(CompoundTest, BadDefinitionsAreRefusedWithTheReason) {
    const auto refusal = [](const std::string& text) -> std::string {
        try {
            readCompoundDefinition(text);
        } catch (const SchemaError& error) {
            return error.what();
        } catch (const GraphError& error) {
            return std::string("graph: ") + error.what();
        }
        return "taken";
    };
    const auto with = [&](const char* key, json value) {
        json definition = lookDefinition();
        definition[key] = std::move(value);
        return refusal(definition.dump());
    };
    EXPECT_EQ(refusal("[1]"), "the definition is not a JSON object");
    EXPECT_EQ(refusal("{}"), "the definition has no graph");
    EXPECT_EQ(with("graph", 3), "the definition has no graph");
    EXPECT_EQ(with("graph", {{"nodes", json::array()}}), "graph: graph JSON has no 'output' node");
    EXPECT_EQ(with("inputs", 3), "the definition's inputs are not a list");
    EXPECT_EQ(with("inputs", {{{"type", "Strands"}}}), "the definition's inputs each need a name");
    EXPECT_EQ(with("inputs", {{{"name", "a"}}, {{"name", "a"}}}),
              "the definition's input 'a' is there twice");
    EXPECT_EQ(with("inputs", {{{"name", "a"}, {"type", "Hair"}}}),
              "unknown port type 'Hair' (Strands, Guides, Mesh, Field, Curve or Curves)");
    EXPECT_EQ(with("inputs", {{{"name", "a"}, {"optional", 1}}}),
              "the definition's input 'a': optional is true or false");
    const char* shape = "the definition's expose is not an object of name: \"node.param\"";
    EXPECT_EQ(with("expose", 3), shape);
    EXPECT_EQ(with("expose", {{"a", 3}}), shape);
    EXPECT_EQ(with("expose", {{"a", "noise"}}), "exposed param 'a' must name node.param");
    EXPECT_EQ(with("expose", {{"a", "noise.waves"}}), "noise has no param 'waves' to expose");
    EXPECT_EQ(with("expose", {{"a", "nose.seed"}}), "exposed param 'a': unknown node 'nose'");
    EXPECT_EQ(with("expose", {{"strands", "noise.seed"}}),
              "param 'strands' has the name of an input of Compound");
    EXPECT_EQ(with("expose", {{"a", "noise.seed"}, {"b", "noise.seed"}}),
              "param 'b' exposed twice");
    for (const char* own : {"repeat", "affect", "definition"})
        EXPECT_EQ(with("expose", {{own, "noise.seed"}}),
                  std::string("param '") + own + "' has the name of one of Compound's own");
    EXPECT_EQ(with("output", "nose"), "the definition's output: unknown node 'nose'");
    EXPECT_EQ(with("outputs", json::array()), "the definition names 0 outputs, but width has 1");
    EXPECT_EQ(with("output", {{"name", "x"}, {"type", "Field"}}),
              "type mismatch: Strands -> Field");

    json deep = lookDefinition();
    for (int level = 1; level < kDeepestCompound; ++level)
        deep = oneNode("Compound", {{"definition", std::move(deep)}});
    EXPECT_EQ(refusal(deep.dump()), "taken");
    deep = oneNode("Compound", {{"definition", std::move(deep)}});
    EXPECT_NE(refusal(deep.dump()).find("compounds are nested more than 16 deep"),
              std::string::npos);
    EXPECT_THROW(
        graphFromJson({{"nodes", {node("c", "Compound", {{"definition", {{"graph", 1}}}})}},
                       {"output", "c"}}),
        SchemaError);
}

TEST_F(CompoundTest, SaysWhatFailsOrWarnsInside) {
    const auto fed = [&](const json& definition) {
        auto bench = std::make_unique<NodeBench>("Compound", definition.dump());
        if (!bench->op().inputPorts().empty()) bench->feed(tuft);
        return bench;
    };
    EXPECT_EQ(fed(oneNode("Noise", {{"space", "sideways"}}))->error(),
              "node 'node': Compound: node 'it': Noise: space must be strand or world");
    EXPECT_EQ(NodeBench("Compound", lookDefinition().dump()).error(),
              "node 'node': Compound: strands input not connected");
    EXPECT_EQ(NodeBench("Compound").error(), "node 'node': Compound: the definition has no graph");

    const json source = {{"graph",
                          {{"nodes", {node("g", "Guides"), node("s", "ToStrands")}},
                           {"connections", {wire("g", "s", "guides")}},
                           {"output", "s"}}}};
    const auto grown = fed(source);
    EXPECT_EQ(grown->error(), "") << "one pass needs no strands input";
    grown->op().set("repeat", 2.0);
    EXPECT_EQ(grown->error(), "node 'node': Compound: repeat needs a Strands input to feed back");

    const auto warned = fed(oneNode("HairColor", {{"tipColor", {1, 0, 0}}}));
    warned->evaluate();
    EXPECT_EQ(warned->warning(),
              "it: tipColor is set but tipStrength is 0: raise tipStrength to see it");

    json optional = oneNode("RestoreLength");
    optional["inputs"].push_back({{"name", "reference"}, {"optional", true}});
    optional["graph"]["nodes"].push_back(node("ref", "Input", {{"name", "reference"}}));
    optional["graph"]["connections"].push_back(wire("ref", "it", "reference"));
    EXPECT_EQ(fed(optional)->error(),
              "node 'node': Compound: node 'it': RestoreLength: input reference is not connected");
    const json unfed = {{"graph",
                         {{"nodes", {node("in", "Input"), node("it", "Noise")}},
                          {"connections", {wire("in", "it")}},
                          {"output", "it"}}}};
    EXPECT_EQ(fed(unfed)->error(),
              "node 'node': Compound: node 'it': input 'strands' takes strands but gets nothing "
              "from the node before it");
}

}  // namespace
}  // namespace corvelle
