#include <new>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/graph.h"
#include "graph/strandDiff.h"
#include "graph/testing/testOperators.h"

namespace corvelle {
namespace {

using testing::HasSubstr;

std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const GraphError& error) {
        return error.what();
    }
    return "no error";
}

class GraphTest : public testing::Test {
protected:
    GraphTest() {
        registerTestOperators();
        setVerifyIncremental(true);
    }
    ~GraphTest() override { setVerifyIncremental(false); }
    NodeId add(const std::string& type, const std::string& name) {
        return addTestNode(graph, type, name);
    }
    /// A chain of types, each into the first input of the next; the first is a source.
    std::vector<NodeId> chain(const std::vector<std::string>& types) {
        std::vector<NodeId> ids;
        for (const std::string& type : types) {
            ids.push_back(add(type, type + std::to_string(ids.size())));
            if (ids.size() > 1) graph.connect(ids[ids.size() - 2], 0, ids.back(), 0);
        }
        graph.setOutput(ids.back());
        return ids;
    }
    std::uint64_t evaluatedBy(NodeId node, const EvaluationData& data = {}) {
        const std::uint64_t before = graph.nodesEvaluated();
        graph.evaluate(node, data);
        return graph.nodesEvaluated() - before;
    }
    Graph graph;
};

TEST_F(GraphTest, ConnectionsAreCheckedInOrder) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWidth"});
    const NodeId guides = add("TestGuides", "guides"), field = add("TestField", "field"),
                 curve = add("TestCurve", "curve");
    struct Case {
        std::function<void()> step;
        std::string error;
    };
    const std::vector<Case> cases = {
        {[&] { graph.addNode(nullptr); }, "addNode: null operator"},
        {[&] { graph.connect(ids[0], 9, ids[1], 5); }, "TestMove has no input slot 5"},
        {[&] { graph.connect(ids[0], 9, ids[1], 0); }, "TestTuft has no output 9"},
        {[&] { graph.connect(guides, 0, ids[1], 0); }, "type mismatch: Guides -> Strands"},
        {[&] { graph.connect(ids[2], 0, ids[1], 0); }, "connection would create a cycle"},
        {[&] { graph.connect(ids[1], 0, ids[1], 0); }, "connection would create a cycle"},
        {[&] { graph.connectParam(field, 0, ids[1], "nothing", {}); },
         "unknown parameter 'nothing'"},
        {[&] { graph.connectParam(curve, 0, ids[1], "amount", {}); },
         "type mismatch: Curve -> Field"},
        {[&] { graph.connectParam(field, 0, ids[1], "profile", {}); },
         "type mismatch: Field -> Curve"},
        {[&] { graph.connectParam(field, 0, ids[1], "share", {}); },
         "param 'share' takes no input: a Field feeds a mappable number, a Curve a ramp"},
        {[&] { graph.connectParam(field, 3, ids[1], "amount", {}); }, "TestField has no output 3"},
        {[&] { graph.node(99); }, "unknown node 99"},
        {[&] { graph.byName("nobody"); }, "unknown node 'nobody'"},
        {[&] { graph.evaluate(77, {}); }, "unknown node 77"},
    };
    for (const Case& c : cases) EXPECT_EQ(errorOf(c.step), c.error);
    EXPECT_EQ(graph.node(ids[1]).inputNodes[0], ids[0]) << "a refused connection changes nothing";
    EXPECT_EQ(graph.nodeOnCycle(), 0u);
}

TEST_F(GraphTest, IdsAreNeverReusedAndRemovalLeavesNoDanglingInput) {
    const auto ids = chain({"TestTuft", "TestMove"});
    const NodeId field = add("TestField", "field");
    graph.connectParam(field, 0, ids[1], "amount", 2.0f);
    graph.removeNode(field);
    EXPECT_TRUE(graph.node(ids[1]).paramInputs.empty());
    graph.removeNode(ids[0]);
    EXPECT_EQ(graph.node(ids[1]).inputNodes[0], 0u);
    EXPECT_GT(add("TestTuft", "again"), field);
    graph.removeNode(ids[1]);
    EXPECT_EQ(graph.output(), 0u);
}

TEST_F(GraphTest, RunsOnlyWhatChangedAndGoingBackCostsNothing) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWidth", "TestTag"});
    EXPECT_EQ(evaluatedBy(ids[3]), 4u);
    EXPECT_EQ(evaluatedBy(ids[3]), 0u);
    const StrandsPtr first = evaluateStrands(graph, ids[3]);
    graph.setParam(ids[1], "amount", 2.0);
    EXPECT_EQ(evaluatedBy(ids[3]), 3u);
    graph.setParam(ids[1], "amount", 0.5);
    EXPECT_EQ(evaluatedBy(ids[3]), 0u);
    EXPECT_EQ(evaluateStrands(graph, ids[3]), first) << "the very same object";
    graph.setParam(ids[1], "amount", 2.0);
    EXPECT_EQ(evaluatedBy(ids[3]), 0u) << "and forward again";
    graph.node(ids[1]).op->name = "renamed";
    EXPECT_EQ(evaluatedBy(ids[3]), 0u) << "a name is no part of a result";
    EXPECT_EQ(graph.node(ids[1]).runs, 2u);
}

TEST_F(GraphTest, PreviewAndRenderResultsBothStay) {
    const auto ids = chain({"TestTuft", "TestView", "TestWidth"});
    EvaluationData preview, render;
    preview.viewport = true;
    EXPECT_EQ(evaluatedBy(ids[2], preview), 3u);
    EXPECT_EQ(evaluatedBy(ids[2], render), 2u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(evaluatedBy(ids[2], preview), 0u);
        EXPECT_EQ(evaluatedBy(ids[2], render), 0u);
    }
}

TEST_F(GraphTest, EqualNodesShareOneResultWithinAnEvaluation) {
    const NodeId tuft = add("TestTuft", "tuft"), a = add("TestMove", "a"), b = add("TestMove", "b"),
                 merge = add("TestMerge", "merge");
    graph.connect(tuft, 0, a, 0);
    graph.connect(tuft, 0, b, 0);
    graph.connect(a, 0, merge, 0);
    graph.connect(b, 0, merge, 1);
    EXPECT_EQ(evaluatedBy(merge), 3u);
    EXPECT_EQ(graph.node(a).outputs, graph.node(b).outputs);
    EXPECT_EQ(graph.node(b).runs, 0u);
    EXPECT_EQ(graph.changesSince(b, graph.node(b).cachedHash)->strands.size(), 0u);
}

TEST_F(GraphTest, BypassAndEvaluationPassTheFirstInput) {
    const auto ids = chain({"TestTuft", "TestThin", "TestWidth"});
    const std::size_t thinned = evaluateStrands(graph, ids[2])->strandCount();
    ASSERT_LT(thinned, 20u);
    EvaluationData viewport;
    viewport.viewport = true;
    graph.node(ids[1]).evaluation = NodeEvaluation::RenderOnly;
    EXPECT_EQ(evaluateStrands(graph, ids[2], viewport)->strandCount(), 20u);
    EXPECT_EQ(graph.status().at(ids[1]), "bypass");
    EXPECT_EQ(evaluateStrands(graph, ids[2])->strandCount(), thinned);
    graph.node(ids[1]).evaluation = NodeEvaluation::ViewportOnly;
    EXPECT_EQ(evaluateStrands(graph, ids[2], viewport)->strandCount(), thinned);
    EXPECT_EQ(evaluateStrands(graph, ids[2])->strandCount(), 20u);
    graph.node(ids[1]).bypass = true;
    EXPECT_EQ(evaluateStrands(graph, ids[1], viewport), evaluateStrands(graph, ids[0], viewport));
    graph.setParam(ids[1], "keep", 0.1);
    EXPECT_EQ(evaluatedBy(ids[2], viewport), 0u) << "params of a bypassed node change nothing";
    graph.node(ids[0]).bypass = true;
    EXPECT_EQ(evaluateStrands(graph, ids[2], viewport)->strandCount(), 20u)
        << "a source still runs";
    EXPECT_EQ(graph.status().at(ids[0]), "bypass");
    const NodeId follow = add("TestFollow", "follow");
    graph.node(follow).bypass = true;
    EXPECT_EQ(errorOf([&] { graph.evaluate(follow, {}); }),
              "node 'follow': TestFollow: strands input not connected")
        << "nothing to pass: it runs";
}

TEST_F(GraphTest, ABypassedSplitSendsAllStrandsOneWay) {
    const NodeId tuft = add("TestTuft", "tuft"), split = add("TestSplit", "split"),
                 merge = add("TestMerge", "merge");
    graph.connect(tuft, 0, split, 0);
    graph.connect(split, 0, merge, 0);
    graph.connect(split, 1, merge, 1);
    EXPECT_EQ(evaluateStrands(graph, merge)->strandCount(), 20u);
    graph.node(split).bypass = true;
    EXPECT_EQ(evaluateStrands(graph, merge)->strandCount(), 20u);
    graph.connect(split, 1, merge, 0);
    EXPECT_EQ(evaluateStrands(graph, merge)->strandCount(), 0u)
        << "the other output of one hash is another value";
}

TEST_F(GraphTest, ASwitchWalksThePickedBranchAlone) {
    const NodeId good = add("TestTuft", "good"), bad = add("TestFail", "bad"),
                 pick = add("TestSwitch", "pick");
    graph.connect(good, 0, bad, 0);
    graph.setParam(bad, "text", std::string("broken"));
    graph.connect(good, 0, pick, 0);
    graph.connect(bad, 0, pick, 1);
    EXPECT_NE(evaluateStrands(graph, pick), nullptr);
    std::vector<std::string> seen;
    graph.forEachActiveUpstream(pick, false, [&](const Node& n) {
        seen.push_back(n.op->name);
        return true;
    });
    EXPECT_THAT(seen, testing::UnorderedElementsAre("pick", "good"));
    graph.setParam(pick, "second", true);
    EXPECT_EQ(errorOf([&] { graph.evaluate(pick, {}); }), "node 'bad': broken");
    EXPECT_EQ(graph.node(bad).lastError, "broken");
    EXPECT_FALSE(graph.node(bad).cached);
    graph.setParam(pick, "second", false);
    EXPECT_EQ(evaluatedBy(pick), 0u);
}

TEST_F(GraphTest, ABypassedSwitchWhoseFirstInputHoldsNothingRuns) {
    const NodeId outer = add("TestOuter", "outer"), tuft = add("TestTuft", "tuft"),
                 pick = add("TestSwitch", "pick");
    graph.connect(outer, 0, pick, 0);
    graph.connect(tuft, 0, pick, 1);
    graph.setParam(pick, "second", true);
    graph.node(pick).bypass = true;
    EXPECT_EQ(evaluateStrands(graph, pick)->strandCount(), 20u);
    EvaluationData data;
    data.inputs["strands"] = {std::make_shared<const StrandSet>(), 5, 0, nullptr};
    EXPECT_EQ(evaluateStrands(graph, pick, data)->strandCount(), 0u);
}

TEST_F(GraphTest, ErrorsNameTheNodeAndWhatWentWrong) {
    const NodeId tuft = add("TestTuft", "tuft"), fail = add("TestFail", "fail"),
                 outer = add("TestOuter", "outer"), follow = add("TestFollow", "follow"),
                 move = add("TestMove", "move");
    EXPECT_EQ(errorOf([&] { graph.evaluate(fail, {}); }),
              "node 'fail': TestFail: strands input not connected");
    graph.connect(outer, 0, fail, 0);
    EXPECT_EQ(
        errorOf([&] { graph.evaluate(fail, {}); }),
        "node 'fail': input 'strands' takes strands but gets nothing from the node before it");
    EvaluationData data;
    data.inputs["strands"] = {std::make_shared<const GuideSet>(), 5, 0, nullptr};
    EXPECT_EQ(errorOf([&] { graph.evaluate(fail, data); }),
              "node 'fail': input 'strands' takes strands but gets guides from the node before it");
    graph.connect(tuft, 0, fail, 0);
    graph.setParam(fail, "values", 3.0);
    EXPECT_EQ(errorOf([&] { graph.evaluate(fail, {}); }),
              "node 'fail': TestFail made 3 values for 1 outputs");
    graph.setParam(fail, "values", 1.0);
    EXPECT_EQ(errorOf([&] { graph.evaluate(fail, {}); }), "no error");
    graph.connect(tuft, 0, follow, 0);
    EXPECT_EQ(errorOf([&] { graph.evaluate(follow, {}); }),
              "node 'follow': TestFollow: guides input not connected");
    graph.setParam(outer, "type", std::string("Field"));
    graph.connect(tuft, 0, move, 0);
    graph.connectParam(outer, 0, move, "amount", {});
    EXPECT_EQ(errorOf([&] { graph.evaluate(move, {}); }),
              "node 'move': input 'amount' takes field but gets nothing from the node before it");
    graph.setParam(outer, "type", std::string("Kite"));
    EXPECT_THAT(errorOf([&] { graph.evaluate(outer, {}); }),
                HasSubstr("node 'outer': unknown port type 'Kite'"));
}

TEST_F(GraphTest, OutOfMemoryPassesAsItIsAndLeavesTheRestWarm) {
    const auto ids = chain({"TestTuft", "TestMove", "TestFail"});
    graph.evaluate(ids[2], {});
    graph.setParam(ids[2], "text", std::string("memory"));
    EXPECT_THROW(graph.evaluate(ids[2], {}), std::bad_alloc);
    EXPECT_TRUE(graph.node(ids[1]).cached);
    graph.setParam(ids[2], "text", std::string());
    EXPECT_EQ(evaluatedBy(ids[2]), 0u) << "a failure drops no good result";
}

TEST_F(GraphTest, WarningsStayWithTheResultTheyBelongTo) {
    const auto ids = chain({"TestTuft", "TestWarn"});
    graph.setParam(ids[1], "text", std::string("soft trouble"));
    graph.evaluate(ids[1], {});
    EXPECT_EQ(graph.warnings().at(ids[1]), "soft trouble; and more");
    graph.evaluate(ids[1], {});
    EXPECT_EQ(graph.warnings().at(ids[1]), "soft trouble; and more");
    graph.setParam(ids[1], "text", std::string());
    graph.evaluate(ids[1], {});
    EXPECT_FALSE(graph.warnings().contains(ids[1]));
    graph.setParam(ids[1], "text", std::string("soft trouble"));
    EXPECT_EQ(evaluatedBy(ids[1]), 0u);
    EXPECT_EQ(graph.warnings().at(ids[1]), "soft trouble; and more");
    graph.disconnect(ids[1], 0);
    EXPECT_NE(errorOf([&] { graph.evaluate(ids[1], {}); }), "");
    EXPECT_FALSE(graph.warnings().contains(ids[1])) << "a failure is told alone";
}

TEST_F(GraphTest, ReportsTellOfNoRunThatWasNotMade) {
    const auto ids = chain({"TestTuft", "TestWarn", "TestFail", "TestWarn"});
    const NodeId aside = add("TestWarn", "aside");
    graph.connect(ids[0], 0, aside, 0);
    for (const NodeId id : {ids[1], ids[3], aside}) graph.setParam(id, "text", std::string("hm"));
    graph.evaluate(aside, {});
    const auto reported = [&](NodeId id) {
        const bool told = graph.status().contains(id);
        EXPECT_EQ(graph.timings().contains(id), told);
        EXPECT_EQ(graph.warnings().contains(id), told && graph.node(id).op->type() == "TestWarn");
        return told;
    };
    for (int round = 0; round < 2; ++round) {
        graph.setParam(ids[2], "text", std::string());
        graph.evaluate(ids[3], {});
        for (const NodeId id : ids) EXPECT_TRUE(reported(id));
        graph.setParam(ids[2], "text", std::string("broken"));
        EXPECT_NE(errorOf([&] { graph.evaluate(ids[3], {}); }), "");
        EXPECT_TRUE(reported(ids[0]) && reported(ids[1])) << "these ran";
        EXPECT_FALSE(reported(ids[2]) || reported(ids[3])) << "these did not";
        EXPECT_TRUE(graph.node(ids[3]).cached) << "its result is kept all the same";
        EXPECT_TRUE(reported(aside)) << "nobody asked for it";
    }
    graph.setParam(ids[2], "text", std::string());
    EXPECT_EQ(evaluatedBy(ids[3]), 0u);
    EXPECT_TRUE(reported(ids[3]));
}

TEST_F(GraphTest, GrowSegmentsComeFromTheResampleOfTheOutput) {
    const auto ids = chain({"TestTuft", "TestGrow", "Resample"});
    const auto grown = [&](NodeId view) { return evaluateStrands(graph, view)->widths()[0]; };
    EXPECT_EQ(grown(ids[2]), 8.0f);
    for (const auto& [segments, expected] :
         {std::pair{0.0, 8.0f}, {5.0, 5.0f}, {1000.0, 256.0f}, {1.0, 1.0f}}) {
        graph.setParam(ids[2], "segments", segments);
        EXPECT_EQ(grown(ids[2]), expected) << segments;
        EXPECT_EQ(evaluatedBy(ids[1]), 0u) << "looking at a node before it grows nothing anew";
    }
    graph.setParam(ids[2], "segments", 12.0);
    graph.node(ids[2]).bypass = true;
    EXPECT_EQ(grown(ids[2]), 8.0f);
    EvaluationData given;
    given.growSegments = 3;
    EXPECT_EQ(evaluateStrands(graph, ids[2], given)->widths()[0], 3.0f);
}

TEST_F(GraphTest, ControlsDriveParamsUntilTheyGo) {
    const auto ids = chain({"TestTuft", "TestMove"});
    Node& node = graph.node(ids[1]);
    node.paramControls["share"] = {"keep"};
    node.paramControls["on"] = {"switch"};
    EvaluationData data;
    const StrandsPtr plain = evaluateStrands(graph, ids[1], data);
    data.controls = {{"keep", 0.0}, {"switch", 0.7}};
    EXPECT_NE(strandDiff(*evaluateStrands(graph, ids[1], data), *plain), noChanges());
    data.controls["keep"] = 1.0;
    EXPECT_EQ(evaluateStrands(graph, ids[1], data), plain);
    data.controls["switch"] = 0.4;
    EXPECT_EQ(evaluateStrands(graph, ids[1], data)->points()[3],
              evaluateStrands(graph, ids[0])->points()[3]);
    data.controls.clear();
    EXPECT_EQ(evaluateStrands(graph, ids[1], data), plain)
        << "a missing control leaves the stored value";
}

TEST_F(GraphTest, FieldsAndCurvesDriveParams) {
    const auto ids = chain({"TestTuft", "TestWidth", "TestMove"});
    const NodeId field = add("TestField", "field"), curve = add("TestCurve", "curve");
    graph.setParam(ids[1], "width", 0.5);
    graph.connectParam(field, 0, ids[1], "width", {});
    const auto width = [&] {
        const StrandsPtr s = evaluateStrands(graph, ids[1]);
        return s->widths()[0] / (1.0f + s->points()[0].x);
    };
    EXPECT_FLOAT_EQ(width(), 0.5f) << "a field drives as field x the param's own number";
    graph.setParam(field, "value", 3.0);
    EXPECT_FLOAT_EQ(width(), 1.5f);
    graph.connectParam(field, 0, ids[1], "width", 2.0f);
    EXPECT_FLOAT_EQ(width(), 6.0f);
    graph.setParam(ids[1], "width", 0.25);
    EXPECT_EQ(evaluatedBy(ids[1]), 0u) << "with a scale of its own the stored number is not read";
    graph.connectParam(curve, 0, ids[2], "profile", {});
    const StrandsPtr linear = evaluateStrands(graph, ids[2]);
    graph.setParam(curve, "curve", Ramp({{0.0f, 0.0f}}));
    EXPECT_EQ(evaluateStrands(graph, ids[2])->points()[5],
              evaluateStrands(graph, ids[1])->points()[5]);
    EXPECT_NE(linear->points()[5], evaluateStrands(graph, ids[1])->points()[5]);
    EXPECT_EQ(graph.node(ids[2]).op->drivenField("profile"), nullptr);
}

TEST_F(GraphTest, CopiesAreWarmAndApart) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWidth"});
    graph.evaluate(ids[2], {});
    Graph copy = graph;
    const std::uint64_t before = copy.nodesEvaluated();
    EXPECT_EQ(evaluateStrands(copy, ids[2]), evaluateStrands(graph, ids[2]));
    EXPECT_EQ(copy.nodesEvaluated(), before);
    copy.setParam(ids[1], "amount", 3.0);
    copy.evaluate(ids[2], {});
    EXPECT_EQ(evaluatedBy(ids[2]), 0u);
    EXPECT_EQ(copy.node(ids[1]).op->version, 1);
}

TEST_F(GraphTest, ARebuiltGraphAdoptsByNameAndType) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWidth", "TestWarn"});
    graph.setParam(ids[3], "text", std::string("hm"));
    graph.evaluate(ids[3], {});
    Graph next;
    const NodeId extra = addTestNode(next, "TestTag", "extra");
    const NodeId warn = addTestNode(next, "TestWarn", "TestWarn3");
    const NodeId move = addTestNode(next, "TestMove", "moved");
    const NodeId tuft = addTestNode(next, "TestTuft", "TestTuft0");
    const NodeId width = addTestNode(next, "TestTag", "TestWidth2");
    next.connect(tuft, 0, move, 0);
    next.connect(move, 0, width, 0);
    next.connect(width, 0, extra, 0);
    next.connect(extra, 0, warn, 0);
    next.setOutput(warn);
    next.adopt(graph, {{"TestMove1", "moved"}});
    EXPECT_EQ(next.byName("moved"), ids[1]);
    EXPECT_EQ(next.byName("TestTuft0"), ids[0]);
    EXPECT_EQ(next.output(), ids[3]);
    EXPECT_GT(next.byName("extra"), ids[3]) << "new nodes get ids that were never given";
    EXPECT_GT(next.byName("TestWidth2"), ids[3]) << "another type is another node";
    EXPECT_EQ(next.warnings().at(ids[3]), "hm; and more");
    next.evaluate(next.output(), {});
    EXPECT_EQ(next.node(ids[1]).runs, 1u) << "it did not run again";
    EXPECT_EQ(next.nodesEvaluated(), 3u);
}

TEST_F(GraphTest, TimeIsReadWhereANodeInUseReadsIt) {
    const auto ids = chain({"TestTuft", "TestClock", "TestMove"});
    EXPECT_TRUE(graph.readsTime(ids[2], false));
    graph.node(ids[1]).evaluation = NodeEvaluation::RenderOnly;
    EXPECT_TRUE(graph.readsTime(ids[2], true));
    EXPECT_FALSE(graph.readsTime(ids[2], false));
    graph.setParam(ids[2], "amount", MapSource{MapKind::Expression, "frame * 2", {}, 0, 1});
    EXPECT_TRUE(graph.readsTime(ids[2], false));
    graph.setParam(ids[2], "amount", MapSource{MapKind::Expression, "rand", {}, 0, 1});
    EXPECT_FALSE(graph.readsTime(ids[2], false));
}

TEST_F(GraphTest, ADeepGraphNeedsNoStack) {
    NodeId last = add("TestTuft", "tuft");
    for (int i = 0; i < 20'000; ++i) {
        const NodeId next = add("Flyaway", "n" + std::to_string(i));
        graph.connect(last, 0, next, 0, true);
        last = next;
    }
    EXPECT_EQ(graph.nodeOnCycle(), 0u);
    EXPECT_EQ(evaluateStrands(graph, last)->strandCount(), 20u);
    graph.connect(last, 0, graph.byName("n0"), 0, true);
    EXPECT_NE(graph.nodeOnCycle(), 0u);
}

TEST_F(GraphTest, ChangesGoDownTheChainAsLists) {
    const auto ids =
        chain({"TestTuft", "TestMove", "TestReach", "TestWidth", "TestSmear", "TestTag"});
    graph.setParam(ids[0], "strands", 2000.0);
    graph.setParam(ids[1], "share", 0.1);
    graph.evaluate(ids[5], {});
    const std::uint64_t stamp = graph.node(ids[5]).cachedHash, before = graph.nodesIncremental();
    graph.setParam(ids[1], "share", 0.11);
    graph.evaluate(ids[5], {});
    EXPECT_EQ(graph.nodesIncremental() - before, 3u)
        << "Reach, Width and Tag; Move and Smear ran in full";
    const std::size_t moved =
        graph.changesSince(ids[1], graph.node(ids[1]).previousHash)->strands.size();
    const StrandChangesPtr changes = graph.changesSince(ids[5], stamp);
    ASSERT_NE(changes, nullptr);
    EXPECT_GT(moved, 5u);
    EXPECT_LT(moved, 60u);
    EXPECT_GT(changes->strands.size(), moved) << "neighbours changed too";
    EXPECT_EQ(graph.status().at(ids[5]), "incremental " + std::to_string(changes->strands.size()));
    EXPECT_EQ(graph.status().at(ids[1]), "full " + std::to_string(moved));
    EXPECT_EQ(graph.changesSince(ids[5], 12345), nullptr);
    graph.setParam(ids[1], "share", 0.1);
    const std::uint64_t there = graph.node(ids[5]).cachedHash;
    EXPECT_EQ(evaluatedBy(ids[5]), 0u);
    ASSERT_NE(graph.changesSince(ids[5], there), nullptr) << "the way back is known as well";
    EXPECT_EQ(graph.changesSince(ids[5], there)->strands, changes->strands);
}

TEST_F(GraphTest, AMovedGuideReachesItsStrandsAlone) {
    const NodeId tuft = add("TestTuft", "tuft"), guides = add("TestGuides", "guides"),
                 follow = add("TestFollow", "follow"), width = add("TestWidth", "width");
    graph.connect(tuft, 0, follow, 0);
    graph.connect(guides, 0, follow, 1);
    graph.connect(follow, 0, width, 0);
    graph.setParam(tuft, "strands", 100.0);
    const auto flat = [](float tip) {
        std::vector<GuideCurve> curves;
        for (std::uint64_t id = 1; id <= 10; ++id)
            curves.push_back({id, {}, {{0, 0, 0}, {float(id), id == 4 ? tip : 1.0f, 0}}, nullptr});
        return std::make_shared<const GuideSet>(std::move(curves));
    };
    EvaluationData data;
    data.flatGuides = flat(1.0f);
    graph.evaluate(width, data);
    data.flatGuides = flat(2.0f);
    graph.evaluate(width, data);
    EXPECT_EQ(graph.status().at(guides), "incremental 1");
    EXPECT_EQ(graph.status().at(follow), "incremental 10");
    EXPECT_EQ(graph.status().at(width), "incremental 10");
    data.flatGuides = flat(2.0f);
    EXPECT_EQ(evaluatedBy(width, data), 0u) << "other objects, the same guides";
}

TEST_F(GraphTest, AStrokeWritesIntoTheArraysOfTheOneBeforeLast) {
    setVerifyIncremental(false);
    const NodeId tuft = add("TestTuft", "tuft"), guides = add("TestGuides", "guides"),
                 follow = add("TestFollow", "follow"), tag = add("TestTag", "tag"),
                 move = add("TestMove", "move");
    graph.connect(tuft, 0, follow, 0);
    graph.connect(guides, 0, follow, 1);
    graph.connect(follow, 0, tag, 0);
    graph.connect(tag, 0, move, 0);
    graph.setParam(tuft, "strands", 1000.0);
    std::vector<std::vector<const void*>> arrays;
    EvaluationData data;
    for (int stroke = 0; stroke < 6; ++stroke) {
        std::vector<GuideCurve> curves;
        for (std::uint64_t id = 1; id <= 50; ++id)
            curves.push_back(
                {id, {}, {{0, 0, 0}, {id == 7 ? float(stroke) : 1.0f, 0, 0}}, nullptr});
        data.flatGuides = std::make_shared<const GuideSet>(std::move(curves));
        graph.evaluate(move, data);
        EXPECT_EQ(graph.status().at(move), stroke == 0 ? "full" : "incremental 20");
        const StrandsPtr moved = evaluateStrands(graph, move, data),
                         tagged = evaluateStrands(graph, tag, data);
        arrays.push_back({moved->points().data(), tagged->points().data(),
                          tagged->strandChannel("glow")->data()});
    }
    EXPECT_EQ(arrays[3], arrays[5]);
    EXPECT_EQ(arrays[2], arrays[4]);
    EXPECT_NE(arrays[4], arrays[5]);
}

TEST_F(GraphTest, TheVerifySwitchCatchesWhatAnUpdateSaysWrong) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWrong"});
    graph.setParam(ids[0], "strands", 200.0);
    const std::string start = "node 'TestWrong2': output 'out' evaluated incrementally: ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"none", "no error"},
        {"kind", start + "it made another kind of value than a full evaluation"},
        {"all", start + "its strands differ from a full evaluation's"},
        {"strands", start + "its strands differ from a full evaluation's"},
        {"layout", start + "it says only some strands changed, but the set's layout did"},
        {"past", start + "it lists a strand past the set's end"},
        {"count", "node 'TestWrong2': TestWrong made 2 values incrementally for 1 outputs"},
    };
    double share = 0.1;
    for (const auto& [lie, error] : cases) {
        graph.setParam(ids[1], "share", share);
        graph.setParam(ids[2], "lie", lie);
        graph.evaluate(ids[2], {});
        graph.setParam(ids[1], "share", share += 0.1);
        EXPECT_EQ(errorOf([&] { graph.evaluate(ids[2], {}); }), error) << lie;
    }
    graph.setParam(ids[1], "share", 0.0);
    graph.setParam(ids[2], "lie", std::string("unlisted"));
    graph.evaluate(ids[2], {});
    graph.setParam(ids[1], "share", 1.0);
    EXPECT_THAT(errorOf([&] { graph.evaluate(ids[2], {}); }),
                testing::MatchesRegex(
                    ".*evaluated incrementally: strand .+ changed but is not listed as changed"));
}

TEST_F(GraphTest, IncrementalEvaluationCanBeSwitchedOff) {
    const auto ids = chain({"TestTuft", "TestMove", "TestWidth"});
    graph.setParam(ids[1], "share", 0.1);
    graph.evaluate(ids[2], {});
    setIncrementalEvaluation(false);
    graph.setParam(ids[1], "share", 0.2);
    graph.evaluate(ids[2], {});
    setIncrementalEvaluation(true);
    EXPECT_EQ(graph.nodesIncremental(), 0u);
}

TEST_F(GraphTest, CountsTheBytesOfDistinctArraysAndListsChannels) {
    const auto ids = chain({"TestTuft", "Flyaway", "TestTag"});
    EXPECT_EQ(graph.cachedBytes(), 0u);
    const StrandsPtr out = evaluateStrands(graph, ids[2]);
    EXPECT_GE(graph.cachedBytes(), out->byteSize());
    EXPECT_LT(graph.cachedBytes(), out->byteSize() + out->byteSize() / 2);
    EXPECT_THAT(graph.nodeChannels(ids[2]),
                testing::UnorderedElementsAre("clumpId", "glow", "tone"));
    EXPECT_TRUE(graph.nodeChannels(add("TestTuft", "cold")).empty());
}

}  // namespace
}  // namespace corvelle
