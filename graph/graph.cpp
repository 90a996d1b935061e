#include "graph/graph.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "graph/strandDiff.h"

namespace corvelle {

namespace {

constexpr const char* kEvaluations[] = {"always", "viewportOnly", "renderOnly"};
std::atomic<bool> g_incremental{true};
std::atomic<bool> g_verify{false};

std::string slotText(std::size_t n) { return std::to_string(n); }

}  // namespace

const char* nodeEvaluationName(NodeEvaluation evaluation) {
    const auto n = static_cast<std::size_t>(evaluation);
    return n < std::size(kEvaluations) ? kEvaluations[n] : kEvaluations[0];
}

NodeEvaluation nodeEvaluationFromName(std::string_view name) {
    for (std::size_t i = 0; i < std::size(kEvaluations); ++i)
        if (name == kEvaluations[i]) return static_cast<NodeEvaluation>(i);
    throw GraphError("unknown evaluation '" + std::string(name) +
                     "' (always, viewportOnly or renderOnly)");
}

void setIncrementalEvaluation(bool on) { g_incremental = on; }
bool incrementalEvaluation() { return g_incremental; }
void setVerifyIncremental(bool on) { g_verify = on; }
bool verifyIncremental() { return g_verify; }

OperatorPtr cloneOperator(const Operator& op, bool bare) {
    OperatorPtr clone = OperatorRegistry::instance().create(op.type());
    if (op.hasDefinition() && bare) clone->setDefinition(op.definition());
    if (!bare) clone->adoptState(op);
    clone->copyParams(op);
    return clone;
}

namespace {

Node copyNode(const Node& from) {
    Node node;
    static_cast<NodeResult&>(node) = from;
    node.id = from.id;
    node.op = cloneOperator(*from.op);
    node.op->clearDrivenFields();
    node.inputNodes = from.inputNodes;
    node.inputOutputs = from.inputOutputs;
    node.paramInputs = from.paramInputs;
    node.paramControls = from.paramControls;
    node.bypass = from.bypass;
    node.evaluation = from.evaluation;
    node.lastError = from.lastError;
    node.extra = from.extra;
    node.cached = from.cached;
    node.earlier = from.earlier;
    node.runs = from.runs;
    return node;
}

}  // namespace

Graph::Graph(const Graph& other)
    : extra(other.extra),
      nextId_(other.nextId_),
      output_(other.output_),
      evaluated_(other.evaluated_),
      incremental_(other.incremental_),
      timings_(other.timings_),
      runTimings_(other.runTimings_),
      status_(other.status_),
      warnings_(other.warnings_) {
    for (const auto& [id, node] : other.nodes_) nodes_.emplace(id, copyNode(node));
}

Graph& Graph::operator=(const Graph& other) {
    if (this != &other) *this = Graph(other);
    return *this;
}

NodeId Graph::addNode(OperatorPtr op) {
    if (!op) throw GraphError("addNode: null operator");
    Node node;
    node.id = nextId_;
    const std::size_t slots = op->inputPorts().size();
    node.op = std::move(op);
    node.inputNodes.assign(slots, 0);
    node.inputOutputs.assign(slots, 0);
    nodes_.emplace(nextId_, std::move(node));
    return nextId_++;
}

void Graph::removeNode(NodeId id) {
    node(id);
    for (auto& [otherId, other] : nodes_) {
        for (std::size_t slot = 0; slot < other.inputNodes.size(); ++slot)
            if (other.inputNodes[slot] == id) other.inputNodes[slot] = other.inputOutputs[slot] = 0;
        std::erase_if(other.paramInputs, [&](const auto& e) { return e.second.from == id; });
    }
    nodes_.erase(id);
    for (auto* times : {&timings_, &runTimings_}) times->erase(id);
    for (auto* texts : {&status_, &warnings_}) texts->erase(id);
    if (output_ == id) output_ = 0;
}

bool Graph::reaches(NodeId from, NodeId target, bool leaveFirst) const {
    std::unordered_set<NodeId> seen;
    if (!leaveFirst) seen.insert(from);
    std::vector<NodeId> stack{from};
    const auto push = [&](NodeId id) {
        if (id != 0 && seen.insert(id).second) stack.push_back(id);
    };
    while (!stack.empty()) {
        const NodeId at = stack.back();
        if (at == target && !leaveFirst) return true;
        leaveFirst = false;
        stack.pop_back();
        const Node& n = node(at);
        for (const NodeId up : n.inputNodes) push(up);
        for (const auto& [param, input] : n.paramInputs) push(input.from);
    }
    return false;
}

NodeId Graph::nodeOnCycle() const {
    // Takes nodes away whose every input is gone (Kahn, "Topological sorting of large networks",
    // CACM 5(11), 1962): what stays lies on a cycle or after one.
    std::unordered_map<NodeId, std::size_t> waiting;
    std::unordered_map<NodeId, std::vector<NodeId>> readers;
    for (const auto& [id, n] : nodes_) {
        std::size_t& count = waiting[id];
        const auto reads = [&, reader = id](NodeId up) {
            if (up == 0) return;
            ++count;
            readers[up].push_back(reader);
        };
        for (const NodeId up : n.inputNodes) reads(up);
        for (const auto& [param, input] : n.paramInputs) reads(input.from);
    }
    std::vector<NodeId> free;
    for (const auto& [id, n] : nodes_)
        if (waiting[id] == 0) free.push_back(id);
    std::size_t gone = 0;
    while (gone < free.size())
        for (const NodeId reader : readers[free[gone++]])
            if (--waiting[reader] == 0) free.push_back(reader);
    for (const auto& [id, n] : nodes_)
        if (waiting[id] != 0 && reaches(id, id, true)) return id;
    return 0;
}

void Graph::connect(NodeId from, std::size_t output, NodeId to, std::size_t input,
                    bool cyclesLater) {
    const Node& source = node(from);
    Node& target = node(to);
    const auto& ins = target.op->inputPorts();
    const auto& outs = source.op->outputPorts();
    if (input >= ins.size())
        throw GraphError(target.op->type() + " has no input slot " + slotText(input));
    if (output >= outs.size())
        throw GraphError(source.op->type() + " has no output " + slotText(output));
    if (!portsFit(outs[output].type, ins[input].type))
        throw GraphError(std::string("type mismatch: ") + portTypeName(outs[output].type) + " -> " +
                         portTypeName(ins[input].type));
    if (!cyclesLater && reaches(from, to)) throw GraphError("connection would create a cycle");
    if (target.inputNodes.size() < ins.size()) target.inputNodes.resize(ins.size(), 0);
    if (target.inputOutputs.size() < ins.size()) target.inputOutputs.resize(ins.size(), 0);
    target.inputNodes[input] = from;
    target.inputOutputs[input] = output;
}

void Graph::connectParam(NodeId from, std::size_t output, NodeId to, const std::string& param,
                         std::optional<float> scale, bool cyclesLater) {
    const Node& source = node(from);
    Node& target = node(to);
    const ParamSpec* spec = target.op->paramSpec(param);
    if (!spec) throw GraphError("unknown parameter '" + param + "'");
    const auto& outs = source.op->outputPorts();
    if (output >= outs.size())
        throw GraphError(source.op->type() + " has no output " + slotText(output));
    const bool number = std::holds_alternative<double>(spec->defaultValue) && spec->isMappable();
    const bool ramp = std::holds_alternative<Ramp>(spec->defaultValue);
    if (!number && !ramp)
        throw GraphError("param '" + param +
                         "' takes no input: a Field feeds a mappable number, a Curve a ramp");
    const PortType wanted = number ? PortType::Field : PortType::Curve;
    if (outs[output].type != wanted)
        throw GraphError(std::string("type mismatch: ") + portTypeName(outs[output].type) + " -> " +
                         portTypeName(wanted));
    if (!cyclesLater && reaches(from, to)) throw GraphError("connection would create a cycle");
    target.paramInputs[param] = {from, output, number ? scale : std::nullopt};
}

void Graph::disconnect(NodeId to, std::size_t input) {
    Node& target = node(to);
    if (input >= target.inputNodes.size())
        throw GraphError(target.op->type() + " has no input slot " + slotText(input));
    target.inputNodes[input] = target.inputOutputs[input] = 0;
}

void Graph::setParam(NodeId id, const std::string& name, ParamValue value) {
    node(id).op->set(name, std::move(value));
}

Node& Graph::node(NodeId id) { return const_cast<Node&>(std::as_const(*this).node(id)); }
const Node& Graph::node(NodeId id) const {
    const auto found = nodes_.find(id);
    if (found == nodes_.end()) throw GraphError("unknown node " + std::to_string(id));
    return found->second;
}

NodeId Graph::find(std::string_view name) const {
    for (const auto& [id, node] : nodes_)
        if (node.op->name == name) return id;
    return 0;
}
NodeId Graph::byName(std::string_view name) const {
    const NodeId id = find(name);
    if (id == 0) throw GraphError("unknown node '" + std::string(name) + "'");
    return id;
}

void Graph::adopt(const Graph& old, const std::map<std::string, std::string>& renamed) {
    // Old nodes by the name they go by now.
    std::map<std::string, const Node*> held;
    for (const auto& [id, node] : old.nodes_) {
        const auto moved = renamed.find(node.op->name);
        held.emplace(moved == renamed.end() ? node.op->name : moved->second, &node);
    }
    std::map<NodeId, NodeId> idOf{{0, 0}};
    std::map<NodeId, const Node*> source;
    NodeId next = std::max(old.nextId_, NodeId(1));
    for (const auto& [id, node] : nodes_) {
        const auto found = held.find(node.op->name);
        const bool same = found != held.end() && found->second->op->type() == node.op->type();
        if (same) source[id] = found->second;
        idOf[id] = same ? found->second->id : next++;
    }
    std::map<NodeId, Node> adopted;
    for (auto& [id, node] : nodes_) {
        node.id = idOf[id];
        for (NodeId& up : node.inputNodes) up = idOf.at(up);
        for (auto& [param, input] : node.paramInputs) input.from = idOf.at(input.from);
        if (const auto from = source.find(id); from != source.end()) {
            const Node& other = *from->second;
            node.op->adoptState(*other.op);
            static_cast<NodeResult&>(node) = other;
            node.cached = other.cached;
            node.earlier = other.earlier;
            node.runs = other.runs;
            node.lastError = other.lastError;
        }
        const NodeId newId = node.id;
        adopted.emplace(newId, std::move(node));
    }
    nodes_ = std::move(adopted);
    output_ = idOf.contains(output_) ? idOf.at(output_) : 0;
    nextId_ = next;
    const auto take = [&](auto& mine, const auto& theirs) {
        mine.clear();
        for (const auto& [id, node] : source)
            if (const auto at = theirs.find(node->id); at != theirs.end()) mine.insert(*at);
    };
    take(timings_, old.timings_);
    take(runTimings_, old.runTimings_);
    take(status_, old.status_);
    take(warnings_, old.warnings_);
}

StrandChangesPtr Graph::changesSince(NodeId id, std::uint64_t stamp) const {
    const Node& n = node(id);
    if (!n.cached || stamp == 0) return nullptr;
    if (stamp == n.cachedHash) return noChanges();
    if (stamp != n.previousHash || n.changes.empty() || !isList(n.changes[0])) return nullptr;
    return n.changes[0];
}

std::vector<std::string> Graph::nodeChannels(NodeId id) const {
    const Node& n = node(id);
    if (!n.cached || n.outputs.empty()) return {};
    const auto* strands = std::get_if<StrandsPtr>(&n.outputs[0]);
    if (!strands || !*strands) return {};
    std::vector<std::string> names = (*strands)->strandChannelNames();
    std::erase(names, "_preview");
    return names;
}

std::size_t Graph::cachedBytes() const {
    std::unordered_set<const void*> seen;
    std::size_t bytes = 0;
    const auto count = [&](const void* identity, std::size_t size) {
        if (seen.insert(identity).second) bytes += size;
    };
    const auto visit = [&](const NodeValue& value) {
        if (const auto* s = std::get_if<StrandsPtr>(&value); s && *s) (*s)->forEachArray(count);
        if (const auto* g = std::get_if<GuidesPtr>(&value); g && *g)
            count(g->get(), (*g)->points().size_bytes() + (*g)->ids().size_bytes() +
                                (*g)->roots().size_bytes() + (*g)->offsets().size_bytes() +
                                (*g)->hashes().size_bytes());
    };
    const auto visitResult = [&](const NodeResult& result) {
        for (const NodeValue& value : result.outputs) visit(value);
        for (const NodeValue& value : result.rawOutputs) visit(value);
    };
    for (const auto& [id, node] : nodes_) {
        visitResult(node);
        for (const NodeResult& result : node.earlier) visitResult(result);
    }
    return bytes;
}

void Graph::setFramesPerSecond(double rate) {
    for (auto& [id, node] : nodes_) node.op->setFramesPerSecond(rate);
}

}  // namespace corvelle
