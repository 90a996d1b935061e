#pragma once

#include <string>
#include <vector>

#include "graph/graph.h"
#include "model/strandSet.h"

namespace corvelle {

/// One real node fed with strands of the test's own: what a graph does with it, and nothing else.
/// Feeding again with `changed` runs the node's incremental path, checked against a full run when
/// the verify switch is on.
class NodeBench {
public:
    explicit NodeBench(const std::string& type);
    Operator& op() { return *graph_.node(node_).op; }
    EvaluationData data;

    /// Another set in place of the last one.
    void feed(StrandSet strands);
    /// The last set with some strands changed.
    void feedChanged(StrandSet strands, std::vector<std::uint32_t> changed);
    StrandsPtr evaluate();
    /// How the last evaluation went: "full", "incremental 3", ...
    std::string status() const { return graph_.status().at(node_); }
    std::string warning() const;

private:
    Graph graph_;
    NodeId source_ = 0, node_ = 0;
};

}  // namespace corvelle
