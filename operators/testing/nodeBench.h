#pragma once

#include <string>
#include <vector>

#include "graph/graph.h"
#include "model/strandSet.h"

namespace corvelle {

/// One real node fed with strands of the test's own: what a graph does with it, and nothing else.
/// Feeding again with `changed` runs the node's incremental path, checked against a full run when
/// the verify switch is on. Inputs are fed by their slot.
class NodeBench {
public:
    /// `definition`: of a type that takes one.
    explicit NodeBench(const std::string& type, const std::string& definition = {});
    Operator& op() { return *graph_.node(node_).op; }
    EvaluationData data;

    /// Another set in place of the last one.
    void feed(StrandSet strands, std::size_t slot = 0);
    /// The last set with some strands changed.
    void feedChanged(StrandSet strands, std::vector<std::uint32_t> changed, std::size_t slot = 0);
    /// A node of a type that reads the session, on an input.
    Operator& connect(std::size_t slot, const std::string& type);
    /// What was fed last.
    StrandsPtr fed(std::size_t slot = 0);
    StrandsPtr evaluate() { return std::get<StrandsPtr>(value()); }
    NodeValue value();
    /// How the last evaluation went: "full", "incremental 3", ...
    std::string status() const { return graph_.status().at(node_); }
    std::string warning() const;
    /// What the node told of its last run.
    const std::string& details() { return graph_.node(node_).runDetails; }

    /// What the node says to an evaluation that fails; empty when it does not.
    std::string error();
    Graph& graph() { return graph_; }

private:
    NodeId source(std::size_t slot);
    Graph graph_;
    NodeId node_ = 0;
    std::vector<NodeId> sources_;  ///< by slot; 0 none
};

}  // namespace corvelle
