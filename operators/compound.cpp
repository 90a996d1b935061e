// A graph in a node, and the nodes that stand in it for what comes from outside.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "graph/strandDiff.h"
#include "model/hash.h"
#include "operators/compoundDefinition.h"
#include "operators/fieldValues.h"
#include "operators/registerOperators.h"

namespace corvelle {

namespace {

// ---- Input --------------------------------------------------------------------------------------

const std::vector<ParamSpec> kInputParams = {
    {.name = "name",
     .defaultValue = std::string("strands"),
     .description = "The compound's input that this node gives"},
    {.name = "type",
     .defaultValue = std::string(portTypeName(PortType::Strands)),
     .description = "What comes in: strands, guides, a mesh, a field, a curve or curves",
     .choices = {"Strands", "Guides", "Mesh", "Field", "Curve", "Curves"}},
};

class Input final : public Operator {
public:
    std::string type() const override { return "Input"; }
    std::string category() const override { return "source"; }
    std::string description() const override {
        return "An input of the compound this node lives in.";
    }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"out", portTypeFromName(text("type"))}; }
    std::vector<ParamSpec> spec() const override { return kInputParams; }
    bool updatesOwnChanges() const override { return true; }
    /// The hash that names the value, as it is: `update` compares with it.
    std::uint64_t contextHash(const EvalContext& context) const override {
        const CompoundInput* given = find(context);
        return given ? given->hash : 0;
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const CompoundInput* given = find(context);
        return given ? given->value : NodeValue{};
    }
    bool update(const EvalContext& context, const NodeInputs&, const UpdateRequest& request,
                UpdateResult& result) override {
        const CompoundInput* given = find(context);
        if (!given || given->previousHash == 0 || !isList(given->changes) ||
            given->previousHash != request.previousContextHash)
            return false;
        result.outputs = {given->value};
        result.changes = {given->changes};
        return true;
    }

private:
    const CompoundInput* find(const EvalContext& context) const {
        const auto& all = context.data().inputs;
        const auto at = all.find(text("name"));
        return at == all.end() ? nullptr : &at->second;
    }
};

// ---- Compound -----------------------------------------------------------------------------------

constexpr int kMostPasses = 64;

ParamSpec repeatSpec() {
    return {.name = "repeat",
            .defaultValue = 1.0,
            .description =
                "Passes of the subgraph, each fed the previous pass's output as the first strands "
                "input (1-64); an inner Input named iteration of type Field gives the pass index",
            .whole = true,
            .min = 1.0,
            .max = double(kMostPasses)};
}

/// A compound's own copy of the graph inside, with caches, and what hangs on its params.
struct Inner {
    Graph graph;
    std::vector<NodeId> exposedNodes, fieldNodes;  ///< by exposed param; 0 for none
    std::uint32_t reads = 0;                       ///< what the nodes in use read of the session
    bool fresh = true;                             ///< `reads` is still to be worked out

    Inner(const CompoundDefinition& definition, Graph copy) : graph(std::move(copy)) {
        for (const ExposedParam& e : definition.exposed) {
            exposedNodes.push_back(graph.byName(e.node));
            fieldNodes.push_back(e.takesField ? graph.byName(fieldInputName(e.spec.name)) : 0);
        }
    }
};

/// Puts the inner param's own input back when the run is over.
class DrivenInside {
public:
    DrivenInside(Graph& graph, NodeId node, NodeId field, const std::string& param, float scale)
        : graph_(graph), node_(node), param_(param) {
        const auto& inputs = graph.node(node).paramInputs;
        if (const auto own = inputs.find(param); own != inputs.end()) own_ = own->second;
        graph.connectParam(field, 0, node, param, scale);
    }
    ~DrivenInside() {
        auto& inputs = graph_.node(node_).paramInputs;
        if (own_)
            inputs[param_] = *own_;
        else
            inputs.erase(param_);
    }
    DrivenInside(const DrivenInside&) = delete;
    DrivenInside& operator=(const DrivenInside&) = delete;

private:
    Graph& graph_;
    NodeId node_;
    std::string param_;
    std::optional<ParamInput> own_;
};

/// A number for a field that no other field has had in this process, the same while it lives.
class FieldStamp {
public:
    std::uint64_t of(const FieldPtr& field) {
        if (stamp_ == 0 || field_.owner_before(field) || field.owner_before(field_)) {
            static std::atomic<std::uint64_t> next{1};
            field_ = field;
            stamp_ = hashCombine(hashOf("drivenField"), next++);
        }
        return stamp_;
    }

private:
    std::weak_ptr<const FieldValue> field_;
    std::uint64_t stamp_ = 0;
};

class Compound final : public Operator {
public:
    std::string type() const override { return "Compound"; }
    std::string category() const override { return "utility"; }
    std::string description() const override {
        return "Nodes grouped into one, with the params that matter exposed.";
    }
    std::vector<PortSpec> inputs() const override {
        return definition_ ? definition_->inputs : std::vector<PortSpec>();
    }
    std::vector<PortSpec> outputs() const override {
        return definition_ ? definition_->outputs : std::vector<PortSpec>{output()};
    }
    std::vector<ParamSpec> spec() const override {
        std::vector<ParamSpec> specs;
        if (definition_)
            for (const ExposedParam& e : definition_->exposed) specs.push_back(e.spec);
        specs.push_back(repeatSpec());
        return specs;
    }
    bool ownSpec() const override { return true; }
    bool hasDefinition() const override { return true; }
    std::string definition() const override {
        return definition_ ? definition_->text : std::string();
    }
    void setDefinition(const std::string& json) override { install(readCompoundDefinition(json)); }
    bool verifyOnClone() const override { return true; }
    bool readsPrevious() const override { return false; }

    std::uint32_t contextReads() const override;
    std::uint64_t sourceHash() const override;
    std::uint64_t contextHash(const EvalContext& context) const override;
    bool visitInner(bool render, const std::function<bool(const Node&)>& visit) const override;
    void setFramesPerSecond(double rate) override;

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        return evaluateAll(context, inputs).at(0);
    }
    std::vector<NodeValue> evaluateAll(const EvalContext& context,
                                       const NodeInputs& inputs) override;
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override;
    void adoptState(const Operator& other) override;

private:
    void install(CompoundDefinitionPtr definition) {
        definition_ = std::move(definition);
        inner_.reset();
        last_ = {};
        specChanged();
    }
    /// Calls use(inner) with the exposed values in place. The graph is out of reach of adoptState
    /// meanwhile, so that no lock is held while nodes run.
    template <class Use>
    auto withInner(Use&& use) const {
        struct Lease {
            const Compound& compound;
            std::unique_ptr<Inner> inner;
            explicit Lease(const Compound& c) : compound(c) {
                const std::lock_guard lock(c.mutex_);
                inner = std::move(c.inner_);
            }
            ~Lease() {
                const std::lock_guard lock(compound.mutex_);
                compound.inner_ = std::move(inner);
            }
        } lease(*this);
        if (!lease.inner) lease.inner = std::make_unique<Inner>(*definition_, definition_->graph);
        pushValues(*lease.inner);
        return use(*lease.inner);
    }
    void pushValues(Inner& inner) const;
    std::optional<ParamValue> valueFor(const ExposedParam& exposed) const;
    EvaluationData innerData(const EvalContext& context, const NodeInputs& inputs,
                             const UpdateRequest* request) const;
    void setPass(EvaluationData& data, int pass) const;
    std::vector<NodeValue> runPass(Inner& inner, EvaluationData& data,
                                   std::set<std::string>& warnings);
    void remember(const NodeInputs& inputs, const Inner& inner) {
        last_ = {inputs.result, inner.graph.node(inner.graph.output()).cachedHash};
    }

    /// The inner output's hash in a run, by what names the run's result outside.
    struct LastRun {
        std::uint64_t result = 0, stamp = 0;
    };

    CompoundDefinitionPtr definition_;
    mutable std::mutex mutex_;
    mutable std::unique_ptr<Inner> inner_;  ///< null: not made yet, or in use
    mutable std::vector<FieldStamp> fieldStamps_;
    LastRun last_;
};

/// What the inner node is to hold: what is set or driven here, else what the definition says.
std::optional<ParamValue> Compound::valueFor(const ExposedParam& exposed) const {
    const ParamValue& held = value(exposed.spec.name);
    if (const auto* own = std::get_if<Ramp>(&held))
        if (const Ramp& driven = ramp(exposed.spec.name); &driven != own) return driven;
    if (&held == &paramSpec(exposed.spec.name)->defaultValue) return exposed.own;
    return held;
}

void Compound::pushValues(Inner& inner) const {
    bool changed = std::exchange(inner.fresh, false);
    for (std::size_t i = 0; i < definition_->exposed.size(); ++i) {
        const ExposedParam& e = definition_->exposed[i];
        Operator& op = *inner.graph.node(inner.exposedNodes[i]).op;
        std::optional<ParamValue> wanted = valueFor(e);
        const auto held = op.storedParams().find(e.param);
        const bool isSet = held != op.storedParams().end();
        if (wanted ? isSet && held->second == *wanted : !isSet) continue;
        changed = true;
        if (wanted)
            op.set(e.param, std::move(*wanted));
        else
            op.unset(e.param);
    }
    if (!changed) return;
    inner.reads = 0;
    for (const bool render : {false, true})
        inner.graph.forEachActiveUpstream(inner.graph.output(), render, [&](const Node& node) {
            inner.reads |= node.op->contextReads();
            return true;
        });
}

std::uint32_t Compound::contextReads() const {
    if (!definition_) return 0;
    return withInner([](Inner& inner) { return inner.reads; });
}

bool Compound::visitInner(bool render, const std::function<bool(const Node&)>& visit) const {
    if (!definition_) return true;
    return withInner([&](Inner& inner) {
        return inner.graph.forEachActiveUpstream(inner.graph.output(), render, visit);
    });
}

void Compound::setFramesPerSecond(double rate) {
    if (definition_) withInner([&](Inner& inner) { inner.graph.setFramesPerSecond(rate); });
}

std::uint64_t Compound::sourceHash() const {
    if (!definition_) return 0;
    return withInner([&](Inner& inner) {
        std::uint64_t h = definition_->hash;
        for (const auto& [id, node] : inner.graph.nodes())
            if (const std::uint64_t source = node.op->sourceHash(); source != 0)
                h += hashCombine(hashOf(node.op->name), source);  // ids differ from copy to copy
        return h;
    });
}

std::uint64_t Compound::contextHash(const EvalContext& context) const {
    if (!definition_) return 0;
    const EvaluationData& data = context.data();
    return withInner([&](Inner& inner) {
        std::uint64_t h = hashOf("inside");
        inner.graph.forEachActiveUpstream(
            inner.graph.output(), !data.viewport, [&](const Node& node) {
                const Operator& op = *node.op;
                h = hashCombine(h, op.contextHash(EvalContext(data, op.contextReads())));
                for (const auto& [param, value] : op.storedParams())
                    if (const auto* map = std::get_if<MapSource>(&value))
                        h = hashCombine(h, mapReadsHash(*map, data, nullptr));
                for (const auto& [param, names] : node.paramControls)
                    for (const std::string& control : names) {
                        const auto at = data.controls.find(control);
                        const bool there = at != data.controls.end();
                        h = hashCombine(hashCombine(h, there), there ? at->second : 0.0);
                    }
                return true;
            });
        return h;
    });
}

EvaluationData Compound::innerData(const EvalContext& context, const NodeInputs& inputs,
                                   const UpdateRequest* request) const {
    EvaluationData data = context.data();
    data.inputs.clear();
    for (std::size_t slot = 0; slot < definition_->inputs.size(); ++slot) {
        const PortSpec& port = definition_->inputs[slot];
        if (!inputs.isConnected(slot)) {
            if (!port.optional) throwNotConnected(*this, slot);
            continue;
        }
        CompoundInput& given = data.inputs[port.name];
        given.value = inputs.values[slot];
        given.hash = inputs.hashes[slot];
        if (!request) continue;
        const SlotChanges& slotChanges = request->inputs[slot];
        given.previousHash = slotChanges.previousHash;
        given.changes = slotChanges.changes ? slotChanges.changes : noChanges();
    }
    return data;
}

/// Tells an inner Input that asks for it the number of the pass.
void Compound::setPass(EvaluationData& data, int pass) const {
    if (!definition_->countsPasses) return;
    CompoundInput& count = data.inputs[kIterationInput];
    count.value = FieldPtr(std::make_shared<const ConstantFieldValue>(float(pass)));
    count.hash = hashCombine(hashOf(kIterationInput), std::int32_t(pass));
}

/// One evaluation of the inner graph: the values of its output node.
std::vector<NodeValue> Compound::runPass(Inner& inner, EvaluationData& data,
                                         std::set<std::string>& warnings) {
    std::vector<std::unique_ptr<DrivenInside>> driven;
    fieldStamps_.resize(definition_->exposed.size());
    for (std::size_t i = 0; i < definition_->exposed.size(); ++i) {
        const ExposedParam& e = definition_->exposed[i];
        const DrivenField* field = drivenField(e.spec.name);
        if (!field || !e.takesField) continue;
        CompoundInput& given = data.inputs[fieldInputName(e.spec.name)];
        given.value = field->field;
        given.hash = fieldStamps_[i].of(field->field);
        driven.push_back(std::make_unique<DrivenInside>(
            inner.graph, inner.exposedNodes[i], inner.fieldNodes[i], e.param, field->scale));
    }
    const NodeId output = inner.graph.output();
    try {
        inner.graph.evaluate(output, data);
    } catch (const GraphError& error) {
        throw GraphError(std::string("Compound: ") + error.what());
    }
    inner.graph.forEachActiveUpstream(output, !data.viewport, [&](const Node& node) {
        if (const auto at = inner.graph.warnings().find(node.id);
            at != inner.graph.warnings().end())
            warnings.insert(node.op->name + ": " + at->second);
        return true;
    });
    return inner.graph.node(output).outputs;
}

std::vector<NodeValue> Compound::evaluateAll(const EvalContext& context, const NodeInputs& inputs) {
    if (!definition_) throw GraphError("Compound: the definition has no graph");
    const int passes = whole("repeat");
    EvaluationData data = innerData(context, inputs, nullptr);
    const auto& ports = definition_->inputs;
    const auto fed = std::ranges::find(ports, PortType::Strands, &PortSpec::type);
    if (passes > 1 && fed == ports.end())
        throw GraphError("Compound: repeat needs a Strands input to feed back");
    std::set<std::string> warnings;
    std::vector<NodeValue> values = withInner([&](Inner& inner) {
        std::vector<NodeValue> made;
        for (int pass = 0; pass < passes; ++pass) {
            if (pass > 0) {
                CompoundInput& back = data.inputs[fed->name];
                back.value = made[0];
                back.hash = hashCombine(inner.graph.node(inner.graph.output()).cachedHash,
                                        std::int32_t(pass));
            }
            setPass(data, pass);
            made = runPass(inner, data, warnings);
        }
        remember(inputs, inner);
        return made;
    });
    for (const std::string& text : warnings) warn(text);
    return values;
}

/// Runs the inner graph with the changes of its inputs: its nodes are incremental by themselves.
bool Compound::update(const EvalContext& context, const NodeInputs& inputs,
                      const UpdateRequest& request, UpdateResult& result) {
    if (request.ownChanged || !definition_ || whole("repeat") > 1) return false;
    const bool known = last_.result != 0 && last_.result == request.previousResult;
    const std::uint64_t before = known ? last_.stamp : 0;
    EvaluationData data = innerData(context, inputs, &request);
    setPass(data, 0);
    std::set<std::string> warnings;
    withInner([&](Inner& inner) {
        result.outputs = runPass(inner, data, warnings);
        result.changes.resize(result.outputs.size());
        const Node& output = inner.graph.node(inner.graph.output());
        for (std::size_t i = 0; i < result.changes.size(); ++i) {
            if (before != 0 && output.cachedHash == before)
                result.changes[i] = noChanges();
            else if (before != 0 && output.previousHash == before && i < output.changes.size())
                result.changes[i] = output.changes[i];
        }
        remember(inputs, inner);
    });
    for (const std::string& text : warnings) warn(text);
    return true;
}

void Compound::adoptState(const Operator& other) {
    const auto* from = dynamic_cast<const Compound*>(&other);
    if (!from || from == this || !from->definition_) return;
    if (!definition_) install(from->definition_);
    const std::scoped_lock lock(mutex_, from->mutex_);
    if (!from->inner_) return;
    fieldStamps_ = from->fieldStamps_;
    if (definition_->hash == from->definition_->hash) {
        definition_ = from->definition_;
        inner_ = std::make_unique<Inner>(*definition_, from->inner_->graph);
        last_ = from->last_;
        return;
    }
    Graph changed = definition_->graph;
    changed.adopt(from->inner_->graph);
    inner_ = std::make_unique<Inner>(*definition_, std::move(changed));
    fieldStamps_.clear();
}

}  // namespace

void registerCompoundOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Compound", [] { return std::make_unique<Compound>(); });
    registry.add("Input", [] { return std::make_unique<Input>(); });
}

}  // namespace corvelle
