// Random graphs of small operators under random edits: what a warm graph gives must be what a cold
// one gives, bit by bit, and what it says has changed must be all that has.

#include <gmock/gmock.h>

#include "graph/strandDiff.h"
#include "graph/testing/testOperators.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

class GraphFuzz : public testing::TestWithParam<std::uint64_t> {
protected:
    GraphFuzz() {
        registerTestOperators();
        setVerifyIncremental(true);
        build();
    }
    ~GraphFuzz() override { setVerifyIncremental(false); }

    std::size_t pick(std::size_t count) { return std::size_t(random.nextU64() % count); }
    double step(int steps) { return double(pick(std::size_t(steps) + 1)) / steps; }

    void build() {
        guides = addTestNode(graph, "TestGuides", "guides");
        field = addTestNode(graph, "TestField", "field");
        curve = addTestNode(graph, "TestCurve", "curve");
        for (int i = 0; i < 2; ++i)
            strands.push_back(addTestNode(graph, "TestTuft", "tuft" + std::to_string(i)));
        graph.setParam(strands[0], "strands", 700.0);
        graph.setParam(strands[1], "strands", 60.0);
        static const std::vector<std::string> types = {
            "TestMove",  "TestMove",   "TestWidth",  "TestTag",   "TestSmear",
            "TestReach", "TestReach",  "TestThin",   "TestMerge", "TestSwitch",
            "TestSplit", "TestFollow", "TestFollow", "TestClock", "TestView"};
        for (int i = 0; i < 14; ++i) {
            const std::string& type = types[pick(types.size())];
            const NodeId node = addTestNode(graph, type, type + std::to_string(i));
            for (std::size_t slot = 0; slot < graph.node(node).inputNodes.size(); ++slot)
                connectSlot(node, slot);
            strands.push_back(node);
        }
        graph.setOutput(strands.back());
        for (std::uint64_t id = 1; id <= 9; ++id) tips.push_back(0.0f);
    }
    void connectSlot(NodeId node, std::size_t slot) {
        if (graph.node(node).op->inputPorts()[slot].type == PortType::Guides) {
            graph.connect(guides, 0, node, slot);
            return;
        }
        // Mostly the newest, so that chains are long.
        const std::size_t back = std::min(strands.size() - 1, pick(3) * pick(3));
        const NodeId from = strands[strands.size() - 1 - back];
        graph.connect(from, pick(graph.node(from).op->outputPorts().size()), node, slot);
    }

    void edit() {
        const NodeId id = strands[pick(strands.size())];
        Node& node = graph.node(id);
        const std::string type = node.op->type();
        switch (pick(14)) {
            case 0:
                node.bypass = !node.bypass;
                return;
            case 1:
                node.evaluation = NodeEvaluation(pick(3));
                return;
            case 2:
                data.viewport = !data.viewport;
                return;
            case 3:
                data.frame = double(pick(3));
                return;
            case 4:
                graph.setParam(field, "value", step(4));
                return;
            case 5:
                graph.setParam(curve, "curve", Ramp({{0.0f, 0.0f}, {1.0f, float(step(3))}}, true));
                return;
            case 6:
            case 7:
                tips[pick(tips.size())] = float(step(5));
                return;
            case 8:
                if (!node.op->hasCommonAffect()) return;
                if (!node.paramInputs.erase("affect") && pick(2) == 0)
                    graph.connectParam(field, 0, id, "affect", 1.0f);
                else if (pick(3) == 0)
                    graph.setParam(id, "affect",
                                   MapSource{MapKind::Expression, "smoothstep(0, 1, t)", {}, 0, 1});
                else if (pick(2) == 0)
                    graph.setParam(id, "affect",
                                   MapSource{MapKind::Expression, "rand", {}, -0.5f, 1.5f});
                else
                    graph.setParam(id, "affect", step(2));
                return;
            default:
                break;
        }
        if (type == "TestMove" && pick(5) == 0) {
            if (!node.paramInputs.erase("profile")) graph.connectParam(curve, 0, id, "profile", {});
        } else if (type == "TestMove") {
            graph.setParam(id, pick(2) ? "share" : "amount", step(10));
        } else if (type == "TestWidth") {
            if (pick(3) == 0 && !node.paramInputs.erase("width"))
                graph.connectParam(field, 0, id, "width", {});
            else
                graph.setParam(id, "width", step(3));
        } else if (type == "TestTag") {
            graph.setParam(id, "value", double(pick(3)));
        } else if (type == "TestThin") {
            graph.setParam(id, "keep", 0.4 + 0.1 * double(pick(3)));
        } else if (type == "TestSwitch") {
            graph.setParam(id, "second", pick(2) == 0);
        } else if (type == "TestSplit") {
            graph.setParam(id, "share", 0.4 + 0.1 * double(pick(3)));
        } else if (type == "TestTuft") {
            graph.setParam(id, "shift", step(2));
        }
    }

    void refreshGuides() {
        std::vector<GuideCurve> curves;
        for (std::size_t g = 0; g < tips.size(); ++g)
            curves.push_back({g + 1, {}, {{0, 0, 0}, {0, tips[g], float(g)}}, nullptr});
        data.flatGuides = std::make_shared<const GuideSet>(std::move(curves));
    }

    Graph cold() const {
        Graph copy = graph;
        for (const auto& [id, node] : graph.nodes()) {
            Node& cleared = copy.node(id);
            cleared.cached = false;
            cleared.earlier.clear();
        }
        return copy;
    }

    SplitMix random{GetParam()};
    Graph graph;
    EvaluationData data;
    NodeId guides = 0, field = 0, curve = 0;
    std::vector<NodeId> strands;
    std::vector<float> tips;
};
INSTANTIATE_TEST_SUITE_P(Seeds, GraphFuzz, testing::Range<std::uint64_t>(0, 30));

TEST_P(GraphFuzz, WarmEqualsColdAndChangesAreComplete) {
    StrandsPtr last;
    std::uint64_t stamp = 0;
    std::size_t listed = 0;
    for (int round = 0; round < 40; ++round) {
        for (std::size_t e = 0, edits = 1 + pick(2); e < edits; ++e) edit();
        if (pick(8) == 0) {
            Graph rebuilt = cold();
            rebuilt.adopt(graph);
            graph = std::move(rebuilt);
        }
        refreshGuides();
        // Now and then another node is looked at, or nothing was changed at all.
        if (pick(5) == 0) graph.evaluate(strands[pick(strands.size())], data);
        StrandsPtr now;
        ASSERT_NO_THROW(now = evaluateStrands(graph, graph.output(), data)) << "round " << round;
        ASSERT_NE(now, nullptr);
        Graph fresh = cold();
        ASSERT_EQ(now->contentHash(), evaluateStrands(fresh, fresh.output(), data)->contentHash())
            << "round " << round;
        if (last) {
            const StrandChangesPtr changes = graph.changesSince(graph.output(), stamp);
            if (isList(changes)) {
                ++listed;
                const auto pairs = StrandPairs::of(*last, *now);
                ASSERT_TRUE(pairs);
                for (std::size_t s = 0; s < now->strandCount(); ++s)
                    ASSERT_TRUE(!pairs->strandDiffers(s) ||
                                std::ranges::binary_search(changes->strands, std::uint32_t(s)))
                        << s;
            }
        }
        last = now;
        stamp = graph.node(graph.output()).cachedHash;
    }
    EXPECT_GT(listed, 5u);
    RecordProperty("incremental", int(graph.nodesIncremental()));
}

TEST_P(GraphFuzz, ThreadsDoNotShow) {
    for (int e = 0; e < 20; ++e) edit();
    refreshGuides();
    std::uint64_t one = 0, many = 0;
    Graph a = cold(), b = cold();
    runWithThreads(1, [&] { one = evaluateStrands(a, a.output(), data)->contentHash(); });
    runWithThreads(8, [&] { many = evaluateStrands(b, b.output(), data)->contentHash(); });
    EXPECT_EQ(one, many);
}

}  // namespace
}  // namespace corvelle
