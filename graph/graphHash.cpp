#include <algorithm>

#include "graph/graphWalk.h"
#include "model/hash.h"

namespace corvelle {

std::uint64_t outputHash(std::uint64_t hash, std::size_t output) {
    const std::uint64_t h = hashCombine(hash, std::uint64_t(output));
    return h == 0 ? 1 : h;
}

std::vector<std::size_t> usedSlots(const Node& node, bool passes) {
    if (passes) return {0};
    const std::size_t count = std::min(node.inputNodes.size(), node.op->inputPorts().size());
    bool selects = false;
    for (std::size_t slot = 0; slot < count && !selects; ++slot)
        selects = node.op->inputSelected(slot);
    std::vector<std::size_t> slots;
    for (std::size_t slot = 0; slot < count; ++slot)
        if (node.inputNodes[slot] != 0 && (!selects || node.op->inputSelected(slot)))
            slots.push_back(slot);
    return slots;
}

bool Graph::isActive(const Node& node, bool viewport) const {
    if (node.bypass) return false;
    if (node.evaluation == NodeEvaluation::ViewportOnly) return viewport;
    if (node.evaluation == NodeEvaluation::RenderOnly) return !viewport;
    return true;
}

namespace {

/// `affect` is the constant 0 everywhere.
bool affectsNothing(const Node& node) {
    if (!node.op->hasCommonAffect() || node.paramInputs.contains("affect")) return false;
    const auto* constant = std::get_if<double>(&node.op->value("affect"));
    return constant && *constant <= 0.0;
}

}  // namespace

bool Graph::passes(const Node& node, bool viewport) const {
    if (isActive(node, viewport) && !affectsNothing(node)) return false;
    const auto& in = node.op->inputPorts();
    const auto& out = node.op->outputPorts();
    return !in.empty() && !out.empty() && in[0].type == out[0].type && !node.inputNodes.empty() &&
           node.inputNodes[0] != 0;
}

bool Graph::forEachActiveUpstream(NodeId id, bool render,
                                  const std::function<bool(const Node&)>& visit) const {
    std::unordered_set<NodeId> seen{id};
    std::vector<NodeId> stack{id};
    const auto push = [&](NodeId up) {
        if (up != 0 && seen.insert(up).second) stack.push_back(up);
    };
    while (!stack.empty()) {
        const Node& n = node(stack.back());
        stack.pop_back();
        const bool passing = passes(n, !render);
        if (!passing && (!visit(n) || !n.op->visitInner(render, visit))) return false;
        for (const std::size_t slot : usedSlots(n, passing)) push(n.inputNodes[slot]);
        if (!passing)
            for (const auto& [param, input] : n.paramInputs) push(input.from);
    }
    return true;
}

bool Graph::readsTime(NodeId id, bool render) const {
    return !forEachActiveUpstream(id, render, [&](const Node& n) {
        if (n.op->readsTime()) return false;
        for (const auto& [param, value] : n.op->storedParams())
            if (const auto* map = std::get_if<MapSource>(&value); map && mapReadsTime(*map))
                return false;
        return true;
    });
}

int Graph::growSegmentsFor(NodeId id, bool viewport) const {
    double most = 0.0;
    forEachActiveUpstream(id, !viewport, [&](const Node& n) {
        if (n.op->type() == "Resample" && n.op->paramSpec("segments"))
            most = std::max(most, n.op->number("segments"));
        return true;
    });
    constexpr double kDefault = 8.0, kMost = 256.0;
    return static_cast<int>(std::clamp(most > 0.0 ? most : kDefault, 1.0, kMost));
}

void Graph::Walk::order(NodeId target) {
    // Depth first with an explicit stack; a node is listed when all it needs is.
    struct Frame {
        NodeId id;
        std::vector<NodeId> needs;
        std::size_t next = 0;
        State state;
    };
    std::unordered_set<NodeId> seen;
    std::vector<Frame> stack;
    const auto enter = [&](NodeId id) {
        if (id == 0 || !seen.insert(id).second) return;
        Frame frame;
        frame.id = id;
        Node& n = graph.node(id);
        frame.state.node = &n;
        frame.state.passes = graph.passes(n, data.viewport) && !runAnyway.contains(id);
        frame.state.slots = usedSlots(n, frame.state.passes);
        for (const std::size_t slot : frame.state.slots) frame.needs.push_back(n.inputNodes[slot]);
        if (!frame.state.passes)
            for (const auto& [param, input] : n.paramInputs) frame.needs.push_back(input.from);
        stack.push_back(std::move(frame));
    };
    enter(target);
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (top.next < top.needs.size()) {
            enter(top.needs[top.next++]);
            continue;
        }
        index.emplace(top.id, states.size());
        states.push_back(std::move(top.state));
        stack.pop_back();
    }
}

/// What the node's params say: `affect` alone, or all but it.
std::uint64_t Graph::Walk::paramsHash(const State& state, bool affect) {
    const Node& node = *state.node;
    const Operator& op = *node.op;
    const bool common = op.hasCommonAffect();
    std::uint64_t h = mix64(affect);
    std::size_t position = 0;
    for (const ParamSpec& spec : op.params()) {
        ++position;
        if (affect != (common && spec.name == "affect")) continue;
        h = hashCombine(h, std::uint64_t(position));
        if (!node.paramInputs.empty()) {
            if (const auto at = node.paramInputs.find(spec.name); at != node.paramInputs.end()) {
                const ParamInput& input = at->second;
                h = hashCombine(h, outputHash(stateOf(input.from).hash, input.output));
                const bool isNumber = std::holds_alternative<double>(spec.defaultValue);
                if (isNumber && !input.scale) h = hashCombine(h, paramHash(op.value(spec.name)));
                h = hashCombine(h, input.scale.value_or(0.0f));
                continue;
            }
        }
        const ParamValue& value = op.value(spec.name);
        const auto* constant = std::get_if<double>(&value);
        if (affect && constant && *constant >= 1.0) continue;  // as if it were not there
        h = hashCombine(h, paramHash(value));
        if (const auto* map = std::get_if<MapSource>(&value))
            h = hashCombine(h, mapReadsHash(*map, data, nullptr));
    }
    return h;
}

void Graph::Walk::hashNode(State& s) {
    const Node& node = *s.node;
    const Operator& op = *node.op;
    s.inputHashes.assign(node.inputNodes.size(), 0);
    for (const std::size_t slot : s.slots)
        s.inputHashes[slot] =
            outputHash(stateOf(node.inputNodes[slot]).hash, node.inputOutputs[slot]);
    if (s.passes) {
        s.selfHash = hashCombine(hashOf("passed through"), std::uint64_t(op.outputPorts().size()));
    } else {
        const std::uint32_t mask = op.contextReads();
        s.contextHash = op.contextHash(EvalContext(data, mask));
        std::uint64_t h = hashOf(op.type());
        h = hashCombine(h, std::int32_t(op.version < 1 ? op.nodeVersion() : op.version));
        h = hashCombine(h, op.sourceHash());
        h = hashCombine(h, s.contextHash);
        h = hashCombine(h, graph.contextHasher_.hash(mask));
        s.selfHash = hashCombine(h, paramsHash(s, false));
        s.affectHash = op.hasCommonAffect() ? paramsHash(s, true) : 0;
    }
    s.hash = hashCombine(s.selfHash, s.affectHash);
    for (const std::size_t slot : s.slots) {
        s.hash = hashCombine(s.hash, std::uint64_t(slot));
        s.hash = hashCombine(s.hash, s.inputHashes[slot]);
    }
    if (s.hash == 0) s.hash = 1;  // 0 is "none" to all who keep one
}

}  // namespace corvelle
