#include "operators/testing/nodeBench.h"

#include "operators/registerOperators.h"

namespace corvelle {

namespace {

/// Gives what the test put into it, and says what the test says of its changes.
class FedStrands final : public Operator {
public:
    std::string type() const override { return "FedStrands"; }
    std::string category() const override { return "source"; }
    std::string description() const override { return "Strands of a test."; }
    std::vector<PortSpec> inputs() const override { return {}; }
    std::uint64_t sourceHash() const override { return stamp; }
    bool updatesOwnChanges() const override { return true; }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override { return strands; }
    bool update(const EvalContext&, const NodeInputs&, const UpdateRequest&, UpdateResult& result) override {
        if (!changes) return false;
        result.outputs = {strands};
        result.changes = {changes};
        return true;
    }

    StrandsPtr strands;
    StrandChangesPtr changes;
    std::uint64_t stamp = 0;
};

FedStrands& fed(Graph& graph, NodeId id) { return dynamic_cast<FedStrands&>(*graph.node(id).op); }

}  // namespace

NodeBench::NodeBench(const std::string& type) {
    registerOperators();
    OperatorRegistry& registry = OperatorRegistry::instance();
    if (!registry.has("FedStrands"))
        registry.add("FedStrands", [] { return std::make_unique<FedStrands>(); });
    source_ = graph_.addNode(registry.create("FedStrands"));
    node_ = graph_.addNode(registry.create(type));
    graph_.node(source_).op->name = "fed";
    graph_.node(node_).op->name = "node";
    graph_.connect(source_, 0, node_, 0);
    graph_.setOutput(node_);
    data.growSegments = 8;
}

void NodeBench::feed(StrandSet strands) {
    FedStrands& source = fed(graph_, source_);
    source.strands = std::make_shared<const StrandSet>(std::move(strands));
    source.changes = nullptr;
    ++source.stamp;
}

void NodeBench::feedChanged(StrandSet strands, std::vector<std::uint32_t> changed) {
    feed(std::move(strands));
    auto changes = std::make_shared<StrandChanges>();
    changes->strands = std::move(changed);
    fed(graph_, source_).changes = std::move(changes);
}

StrandsPtr NodeBench::evaluate() { return std::get<StrandsPtr>(graph_.evaluate(node_, data)); }

std::string NodeBench::warning() const {
    const auto found = graph_.warnings().find(node_);
    return found == graph_.warnings().end() ? std::string() : found->second;
}

}  // namespace corvelle
