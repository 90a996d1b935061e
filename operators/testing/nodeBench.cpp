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
    bool update(const EvalContext&, const NodeInputs&, const UpdateRequest&,
                UpdateResult& result) override {
        if (!changes) return false;
        result.outputs = {strands};
        result.changes = {changes};
        return true;
    }

    void adoptState(const Operator& other) override {
        const auto& from = dynamic_cast<const FedStrands&>(other);
        strands = from.strands;
        changes = from.changes;
        stamp = from.stamp;
    }

    StrandsPtr strands;
    StrandChangesPtr changes;
    std::uint64_t stamp = 0;
};

FedStrands& sourceOf(Graph& graph, NodeId id) {
    return dynamic_cast<FedStrands&>(*graph.node(id).op);
}

}  // namespace

NodeBench::NodeBench(const std::string& type, const std::string& definition) {
    registerOperators();
    OperatorRegistry& registry = OperatorRegistry::instance();
    if (!registry.has("FedStrands"))
        registry.add("FedStrands", [] { return std::make_unique<FedStrands>(); });
    OperatorPtr made = registry.create(type);
    if (!definition.empty()) made->setDefinition(definition);
    node_ = graph_.addNode(std::move(made));
    graph_.node(node_).op->name = "node";
    graph_.setOutput(node_);
    sources_.resize(op().inputPorts().size());
    data.growSegments = 8;
}

NodeId NodeBench::source(std::size_t slot) {
    if (sources_.at(slot) == 0) {
        sources_[slot] = graph_.addNode(OperatorRegistry::instance().create("FedStrands"));
        graph_.node(sources_[slot]).op->name = "fed" + std::to_string(slot);
        sourceOf(graph_, sources_[slot]).stamp = slot << 32;  // equal ones would count as one
        graph_.connect(sources_[slot], 0, node_, slot);
    }
    return sources_[slot];
}

void NodeBench::feed(StrandSet strands, std::size_t slot) {
    FedStrands& fresh = sourceOf(graph_, source(slot));
    fresh.strands = std::make_shared<const StrandSet>(std::move(strands));
    fresh.changes = nullptr;
    ++fresh.stamp;
}

void NodeBench::feedChanged(StrandSet strands, std::vector<std::uint32_t> changed,
                            std::size_t slot) {
    feed(std::move(strands), slot);
    auto changes = std::make_shared<StrandChanges>();
    changes->strands = std::move(changed);
    sourceOf(graph_, source(slot)).changes = std::move(changes);
}

Operator& NodeBench::connect(std::size_t slot, const std::string& type) {
    const NodeId id = graph_.addNode(OperatorRegistry::instance().create(type));
    graph_.node(id).op->name = type;
    graph_.connect(id, 0, node_, slot);
    return *graph_.node(id).op;
}

StrandsPtr NodeBench::fed(std::size_t slot) { return sourceOf(graph_, source(slot)).strands; }

NodeValue NodeBench::value() { return graph_.evaluate(node_, data); }

std::string NodeBench::error() {
    try {
        value();
    } catch (const GraphError& failed) {
        return failed.what();
    }
    return {};
}

std::string NodeBench::warning() const {
    const auto found = graph_.warnings().find(node_);
    return found == graph_.warnings().end() ? std::string() : found->second;
}

}  // namespace corvelle
