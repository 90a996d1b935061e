#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "graph/graph.h"
#include "graph/spareStrands.h"

namespace corvelle {

/// The connected input slots that one kind of evaluation uses of a node: the first alone when the node
/// passes it through, the selected ones where the operator selects, else all.
std::vector<std::size_t> usedSlots(const Node& node, bool passes);

/// What names the value of one output of a node of hash `hash`; never 0.
std::uint64_t outputHash(std::uint64_t hash, std::size_t output);

/// One evaluation: the nodes in use in dependency order, their hashes, and their runs.
struct Graph::Walk {
    struct State {
        Node* node = nullptr;
        bool passes = false;
        bool needed = false;
        bool kept = false;  ///< a result of this hash is at hand
        std::vector<std::size_t> slots;
        std::uint64_t hash = 0, selfHash = 0, affectHash = 0, contextHash = 0;
        std::vector<std::uint64_t> inputHashes;
        std::vector<std::optional<SpareStrands>> spares;  ///< per output, for an update to write into
    };

    Walk(Graph& g, const EvaluationData& d, const std::set<NodeId>& runAnyway_)
        : graph(g), data(d), runAnyway(runAnyway_) {}

    /// False when a node that was to pass its first input through turned out to have nothing there:
    /// then `emptyHanded` names it, and the walk is to be taken again with it running.
    bool run(NodeId target);

    // graphHash.cpp
    void order(NodeId target);
    void hashNode(State& state);
    std::uint64_t paramsHash(const State& state, bool affect);

    // graphEvaluate.cpp
    void dropStaleReports();
    void takeSpares();
    std::vector<NodeValue> handedOutputs(State& state) const;
    bool evaluateNode(State& state);
    bool compute(State& state, NodeResult& fresh);
    bool tryUpdate(State& state, const NodeInputs& inputs, const std::vector<SlotChanges>& slots,
                   NodeResult& fresh);
    void applyAffect(State& state, const NodeInputs& inputs, const std::vector<SlotChanges>& slots,
                     bool incremental, NodeResult& fresh);
    NodeInputs gather(const State& state) const;
    std::vector<SlotChanges> slotChanges(const State& state) const;
    void driveParams(const State& state);
    bool restore(State& state);

    const State& stateOf(NodeId id) const { return states[index.at(id)]; }

    Graph& graph;
    const EvaluationData& data;
    const std::set<NodeId>& runAnyway;
    NodeId emptyHanded = 0;
    std::vector<State> states;  ///< dependency order: a node after all it needs
    std::unordered_map<NodeId, std::size_t> index;
    std::unordered_map<std::uint64_t, const Node*> memo;  ///< results made or found in this evaluation
};

}  // namespace corvelle
