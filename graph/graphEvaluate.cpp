#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "graph/affect.h"
#include "graph/checkIncremental.h"
#include "graph/graphWalk.h"
#include "graph/strandDiff.h"

namespace corvelle {

namespace {

constexpr const char* kAffectNotApplied =
    "affect is not applied: this node changes how many strands or points there are";

constexpr const char* kBypassed = "bypass";

using Clock = std::chrono::steady_clock;
double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : "; ") + text;
    return all;
}

/// "incremental 12", "full all", or "full" when nothing is stated.
std::string statusOf(bool incremental, const std::vector<StrandChangesPtr>& changes) {
    const std::string word = incremental ? "incremental" : "full";
    const StrandChangesPtr stated = changes.empty() ? nullptr : changes[0];
    if (!stated) return incremental ? word + " all" : word;
    return word + " " + (stated->all ? "all" : std::to_string(stated->strands.size()));
}

bool anyUnknown(const std::vector<SlotChanges>& slots) {
    return std::any_of(slots.begin(), slots.end(),
                       [](const SlotChanges& s) { return s.kind == SlotChanges::Kind::Unknown; });
}
bool allNone(const std::vector<SlotChanges>& slots) {
    return std::all_of(slots.begin(), slots.end(),
                       [](const SlotChanges& s) { return s.kind == SlotChanges::Kind::None; });
}

void keepEarlier(Node& node, NodeResult result) {
    node.earlier.insert(node.earlier.begin(), std::move(result));
    if (node.earlier.size() > Node::kEarlierResults) node.earlier.resize(Node::kEarlierResults);
}

/// An operator that stopped half way leaves no good result; the one before stays findable by its
/// hash.
void fail(Node& node, const std::string& message) {
    node.lastError = message;
    if (!std::exchange(node.cached, false)) return;
    NodeResult& current = node;
    keepEarlier(node, std::move(current));
    current = NodeResult{};
}

}  // namespace

void Graph::applyControls(const EvaluationData& data) {
    for (auto& [id, node] : nodes_) {
        node.op->clearDriven();
        for (const auto& driven : node.paramControls) {
            const std::string& param = driven.first;
            const std::vector<std::string>& names = driven.second;
            const auto control = [&](std::size_t i) -> const double* {
                if (i >= names.size()) return nullptr;
                const auto found = data.controls.find(names[i]);
                return found == data.controls.end() ? nullptr : &found->second;
            };
            const ParamSpec* spec = node.op->paramSpec(param);
            if (!spec) continue;
            if (std::holds_alternative<Vec3f>(spec->defaultValue)) {
                const auto* stored = std::get_if<Vec3f>(&node.op->value(param));
                Vec3f v = stored ? *stored : std::get<Vec3f>(spec->defaultValue);
                bool any = false;
                for (int axis = 0; axis < 3; ++axis)
                    if (const double* c = control(std::size_t(axis))) {
                        v[axis] = static_cast<float>(*c);
                        any = true;
                    }
                if (any) node.op->drive(param, ParamValue(v));
            } else if (const double* c = control(0)) {
                if (std::holds_alternative<bool>(spec->defaultValue))
                    node.op->drive(param, ParamValue(*c >= 0.5));
                else if (std::holds_alternative<double>(spec->defaultValue))
                    node.op->drive(param, ParamValue(*c));
            }
        }
    }
}

NodeValue Graph::evaluate(NodeId outputNode, const EvaluationData& given) {
    node(outputNode);
    applyControls(given);
    EvaluationData grown;
    const EvaluationData* data = &given;
    if (given.growSegments == 0) {
        grown = given;
        // From the graph's own output also when another node is looked at: looking grows no hair
        // anew.
        const NodeId from = nodes_.contains(output_) ? output_ : outputNode;
        grown.growSegments = growSegmentsFor(from, given.viewport);
        data = &grown;
    }
    contextHasher_.begin(*data);
    std::set<NodeId> runAnyway;
    for (;;) {
        Walk walk(*this, *data, runAnyway);
        if (walk.run(outputNode)) break;
        runAnyway.insert(walk.emptyHanded);
    }
    const Node& made = node(outputNode);
    return made.outputs.empty() ? NodeValue{} : made.outputs[0];
}

bool Graph::Walk::run(NodeId target) {
    order(target);
    const auto stop = [&](Node& node, const std::string& message) {
        fail(node, message);
        node.op->clearDrivenFields();
        dropStaleReports();
    };
    const auto guarded = [&](State& s, auto&& step) {
        Node& node = *s.node;
        try {
            return step();
        } catch (const std::bad_alloc&) {
            stop(node, "out of memory");
            throw;
        } catch (const std::exception& error) {
            stop(node, error.what());
            throw GraphError("node '" + node.op->name + "': " + error.what());
        } catch (...) {
            stop(node, "evaluation failed");
            throw;
        }
    };
    for (State& s : states) guarded(s, [&] { return hashNode(s), true; });

    // A node whose result is kept needs nothing of what lies before it.
    states.back().needed = true;
    for (auto s = states.rbegin(); s != states.rend(); ++s) {
        const Node& n = *s->node;
        s->kept = (n.cached && n.cachedHash == s->hash) ||
                  std::any_of(n.earlier.begin(), n.earlier.end(),
                              [&](const NodeResult& r) { return r.cachedHash == s->hash; });
        if (!s->needed || s->kept) continue;
        for (const std::size_t slot : s->slots) states[index.at(n.inputNodes[slot])].needed = true;
        if (!s->passes)
            for (const auto& [param, input] : n.paramInputs)
                states[index.at(input.from)].needed = true;
    }
    takeSpares();
    for (State& s : states)
        if (!guarded(s, [&] { return evaluateNode(s); })) return false;
    dropStaleReports();
    return true;
}

/// What nodes say stands beside results that this evaluation has at hand. That of a failed node,
/// of those behind it, and of any whose run was not asked for, is of another run.
void Graph::Walk::dropStaleReports() {
    for (const State& s : states) {
        const Node& n = *s.node;
        if (n.cached && n.cachedHash == s.hash) continue;
        graph.timings_.erase(n.id);
        graph.status_.erase(n.id);
        graph.warnings_.erase(n.id);
    }
}

/// The results that this evaluation will push out are let go of now: their arrays serve the updates
/// that need one, or the pool. All are taken before any node runs, since nodes share arrays.
void Graph::Walk::takeSpares() {
    constexpr std::size_t kFewerThanOneIn = 4;
    std::unordered_set<const void*> taken;
    for (State& s : states) {
        Node& n = *s.node;
        if (!s.needed || s.kept || n.earlier.size() < Node::kEarlierResults || !n.cached) continue;
        const NodeResult old = std::move(n.earlier.back());
        n.earlier.pop_back();
        if (s.passes || !n.ran || !old.ran || n.previousHash != old.cachedHash ||
            !n.rawOutputs.empty() || !old.rawOutputs.empty())
            continue;
        s.spares.resize(n.outputs.size());
        for (std::size_t i = 0; i < n.outputs.size() && i < old.outputs.size(); ++i) {
            const auto* held = std::get_if<StrandsPtr>(&old.outputs[i]);
            const auto* current = std::get_if<StrandsPtr>(&n.outputs[i]);
            if (!held || !current || !*held || !*current || i >= n.changes.size() ||
                !isList(n.changes[i]) || !(*held)->sameLayout(**current) ||
                n.changes[i]->strands.size() > (*current)->strandCount() / kFewerThanOneIn)
                continue;
            s.spares[i].emplace(**held, **current, taken);
            if (!n.op->readsPrevious()) s.spares[i].reset();  // taken, for its own caches
        }
    }
}

/// The last outputs as an update may use them up: in spare arrays where there are some.
std::vector<NodeValue> Graph::Walk::handedOutputs(State& s) const {
    const Node& n = *s.node;
    if (!n.op->readsPrevious()) return std::vector<NodeValue>(n.outputs.size());
    std::vector<NodeValue> handed = n.rawOutputs.empty() ? n.outputs : n.rawOutputs;
    for (std::size_t i = 0; i < s.spares.size(); ++i)
        if (s.spares[i])
            handed[i] = std::make_shared<const StrandSet>(
                s.spares[i]->equalTo(*std::get<StrandsPtr>(n.outputs[i]), n.changes[i]->strands));
    s.spares.clear();
    return handed;
}

/// Makes a kept result of this hash the node's current one.
bool Graph::Walk::restore(State& s) {
    Node& n = *s.node;
    if (n.cached && n.cachedHash == s.hash) return true;
    const auto found = std::find_if(n.earlier.begin(), n.earlier.end(),
                                    [&](const NodeResult& r) { return r.cachedHash == s.hash; });
    if (found == n.earlier.end()) return false;
    NodeResult back = std::move(*found);
    n.earlier.erase(found);
    NodeResult& current = n;
    if (n.cached) {
        // What changed on the way there changed on the way back.
        if (current.previousHash == back.cachedHash) {
            back.previousHash = current.cachedHash;
            back.changes = current.changes;
        }
        keepEarlier(n, std::move(current));
    }
    current = std::move(back);
    n.cached = true;
    return true;
}

bool Graph::Walk::evaluateNode(State& s) {
    const Clock::time_point start = Clock::now();
    Node& n = *s.node;
    const auto report = [&] {
        n.lastError.clear();
        memo.emplace(s.hash, &n);
        graph.timings_[n.id] = millisecondsSince(start);
        // A node that is off and has nothing to pass on runs, but is off all the same.
        graph.status_[n.id] = graph.isActive(n, data.viewport) ? n.statusText : kBypassed;
        const std::string text = joined(n.runWarnings);
        if (text.empty())
            graph.warnings_.erase(n.id);
        else
            graph.warnings_[n.id] = text;
    };
    if (restore(s)) {
        report();
        return true;
    }
    if (!s.needed) return true;

    NodeResult fresh;
    if (const auto same = memo.find(s.hash); same != memo.end()) {
        fresh = *same->second;
        fresh.previousHash = 0;
        fresh.changes.clear();
    } else {
        if (!compute(s, fresh)) return false;
        ++graph.evaluated_;
        graph.runTimings_[n.id] = millisecondsSince(start);
    }
    NodeResult& current = n;
    if (n.cached) keepEarlier(n, std::move(current));
    current = std::move(fresh);
    n.cached = true;
    report();
    return true;
}

NodeInputs Graph::Walk::gather(const State& s) const {
    const Node& n = *s.node;
    const auto& ports = n.op->inputPorts();
    NodeInputs in;
    in.values.resize(ports.size());
    in.connected.assign(ports.size(), false);
    in.hashes.assign(ports.size(), 0);
    in.result = s.hash;
    for (const std::size_t slot : s.slots) {
        const Node& up = graph.node(n.inputNodes[slot]);
        const std::size_t output = n.inputOutputs[slot];
        NodeValue value = output < up.outputs.size() ? up.outputs[output] : NodeValue{};
        const bool nothing = isNothing(value);
        if (nothing && ports[slot].optional) continue;  // as if it were not connected
        if (!valueFits(value, ports[slot].type))
            throw GraphError("input '" + ports[slot].name + "' takes " +
                             portWord(ports[slot].type) + " but gets " + nodeValueWord(value) +
                             " from the node before it");
        in.values[slot] = std::move(value);
        in.connected[slot] = true;
        in.hashes[slot] = s.inputHashes[slot];
    }
    return in;
}

std::vector<SlotChanges> Graph::Walk::slotChanges(const State& s) const {
    const Node& n = *s.node;
    std::vector<SlotChanges> slots(s.inputHashes.size());
    const bool comparable = n.cached && n.inputHashes.size() == s.inputHashes.size();
    for (std::size_t slot = 0; slot < slots.size() && comparable; ++slot) {
        SlotChanges& c = slots[slot];
        const std::uint64_t used = n.inputHashes[slot];
        c.previousHash = used;
        if (used == s.inputHashes[slot]) {
            c.kind = SlotChanges::Kind::None;
            continue;
        }
        if (used == 0 || s.inputHashes[slot] == 0) continue;
        const Node& up = graph.node(n.inputNodes[slot]);
        const std::size_t output = n.inputOutputs[slot];
        if (up.previousHash == 0 || used != outputHash(up.previousHash, output)) continue;
        if (output >= up.changes.size() || !isList(up.changes[output])) continue;
        const bool empty = up.changes[output]->strands.empty();
        c.kind = empty ? SlotChanges::Kind::None : SlotChanges::Kind::Some;
        c.changes = up.changes[output];
    }
    return slots;
}

void Graph::Walk::driveParams(const State& s) {
    const Node& n = *s.node;
    Operator& op = *n.op;
    for (const auto& [param, input] : n.paramInputs) {
        const Node& up = graph.node(input.from);
        const NodeValue value =
            input.output < up.outputs.size() ? up.outputs[input.output] : NodeValue{};
        const ParamSpec* spec = op.paramSpec(param);
        if (!spec) throw GraphError("unknown parameter '" + param + "'");
        const bool ramp = std::holds_alternative<Ramp>(spec->defaultValue);
        if (!valueFits(value, ramp ? PortType::Curve : PortType::Field))
            throw GraphError("input '" + param + "' takes " + (ramp ? "curve" : "field") +
                             " but gets " + nodeValueWord(value) + " from the node before it");
        if (ramp) {
            op.drive(param, std::get<CurvePtr>(value));
            continue;
        }
        const auto* own = std::get_if<double>(&op.value(param));
        const float scale = input.scale ? *input.scale : own ? static_cast<float>(*own) : 1.0f;
        op.drive(param, Operator::DrivenField{std::get<FieldPtr>(value), scale});
    }
}

bool Graph::Walk::tryUpdate(State& s, const NodeInputs& inputs,
                            const std::vector<SlotChanges>& slots, NodeResult& fresh) {
    Node& n = *s.node;
    Operator& op = *n.op;
    if (!incrementalEvaluation() || !n.cached || !n.ran || anyUnknown(slots)) return false;
    const bool own = n.selfHash != s.selfHash;
    if (own && !op.updatesOwnChanges()) return false;
    const std::vector<NodeValue>& previous = n.rawOutputs.empty() ? n.outputs : n.rawOutputs;
    const auto& ports = op.outputPorts();
    if (previous.size() != ports.size()) return false;

    const bool untouched = !own && allNone(slots);
    UpdateResult result;
    if (untouched) {  // another `affect`, or inputs made anew with the same bits
        result.outputs = previous;
        result.changes.assign(ports.size(), noChanges());
        fresh.runWarnings = n.runWarnings;
        fresh.runDetails = n.runDetails;
        std::erase(fresh.runWarnings, kAffectNotApplied);
    } else {
        std::vector<NodeValue> handed = handedOutputs(s);
        const UpdateRequest request{handed, slots, own, n.contextHash, n.cachedHash};
        const EvalContext context(data, op.contextReads());
        ++n.runs;
        if (!op.update(context, inputs, request, result)) {
            --n.runs;
            op.takeWarnings();
            op.takeDetails();
            return false;
        }
        fresh.runWarnings = op.takeWarnings();
        fresh.runDetails = op.takeDetails();
    }
    if (result.outputs.size() != ports.size())
        throw GraphError(op.type() + " made " + std::to_string(result.outputs.size()) +
                         " values incrementally for " + std::to_string(ports.size()) + " outputs");
    result.changes.resize(ports.size());
    ++graph.incremental_;
    if (verifyIncremental()) {
        const OperatorPtr clone = op.verifyOnClone() ? cloneOperator(op, true) : nullptr;
        Operator& full = clone ? *clone : op;
        const std::vector<NodeValue> values =
            full.evaluateAll(EvalContext(data, op.contextReads()), inputs);
        full.takeWarnings();
        full.takeDetails();
        for (std::size_t i = 0; i < ports.size(); ++i) {
            const std::string reason =
                checkIncremental(result.outputs[i], i < values.size() ? values[i] : NodeValue{},
                                 previous[i], result.changes[i]);
            if (!reason.empty())
                throw GraphError("output '" + ports[i].name +
                                 "' evaluated incrementally: " + reason);
        }
    }
    fresh.outputs = std::move(result.outputs);
    fresh.changes = std::move(result.changes);
    return true;
}

void Graph::Walk::applyAffect(State& s, const NodeInputs& inputs,
                              const std::vector<SlotChanges>& slots, bool incremental,
                              NodeResult& fresh) {
    const Node& n = *s.node;
    const Operator& op = *n.op;
    if (!op.hasCommonAffect()) return;
    // The operator states its changes against its own last outputs. Where a blend of those went on,
    // they say nothing of what went on.
    const std::vector<StrandChangesPtr> rawChanges = fresh.changes;
    for (std::size_t i = 0; i < n.rawOutputs.size() && i < fresh.changes.size(); ++i)
        if (n.rawOutputs[i] != n.outputs[i]) fresh.changes[i] = nullptr;
    const bool driven = op.isMapped("affect");
    if (!driven && op.number("affect") >= 1.0) return;
    const StrandsPtr before = inputs.strands(0);
    if (!before) return;
    bool wholeSet = false;
    FieldPtr weight;
    std::vector<NodeValue> raw = fresh.outputs;
    bool blended = false;
    for (std::size_t i = 0; i < fresh.outputs.size(); ++i) {
        const auto* after = std::get_if<StrandsPtr>(&fresh.outputs[i]);
        if (!after || !*after) continue;
        if (!before->sameLayout(**after)) {
            if (std::find(fresh.runWarnings.begin(), fresh.runWarnings.end(), kAffectNotApplied) ==
                fresh.runWarnings.end())
                fresh.runWarnings.emplace_back(kAffectNotApplied);
            continue;
        }
        if (!weight) {
            weight = fieldFromParam(op, "affect", EvalContext(data), *before);
            wholeSet = weight->readsWholeSet();
        }
        if (*after == before) continue;
        const StrandChangesPtr dirty =
            incremental && !wholeSet && n.affectHash == s.affectHash && !n.rawOutputs.empty()
                ? unite(rawChanges[i],
                        slots[0].kind == SlotChanges::Kind::None ? noChanges() : slots[0].changes)
                : nullptr;
        const auto* previous = isList(dirty) && i < n.outputs.size()
                                   ? std::get_if<StrandsPtr>(&n.outputs[i])
                                   : nullptr;
        // The one before must itself be a blend: an output of another layout went on as it was.
        const bool usable = previous && *previous && n.rawOutputs[i] != n.outputs[i];
        fresh.outputs[i] = std::make_shared<const StrandSet>(
            usable ? blendStrands(*before, **after, *weight, **previous, dirty->strands)
                   : blendStrands(*before, **after, *weight));
        fresh.changes[i] = usable ? dirty : nullptr;
        blended = true;
    }
    if (blended) fresh.rawOutputs = std::move(raw);
}

bool Graph::Walk::compute(State& s, NodeResult& fresh) {
    Node& n = *s.node;
    Operator& op = *n.op;
    const auto& ports = op.outputPorts();
    const NodeInputs inputs = gather(s);
    const std::vector<SlotChanges> slots = slotChanges(s);
    const bool known = n.cached && !anyUnknown(slots);
    bool incremental = false;

    fresh.cachedHash = s.hash;
    fresh.selfHash = s.selfHash;
    fresh.affectHash = s.affectHash;
    fresh.contextHash = s.contextHash;
    fresh.inputHashes = s.inputHashes;

    if (s.passes) {
        if (isNothing(inputs.values[0])) {
            emptyHanded = n.id;
            return false;
        }
        fresh.outputs.resize(ports.size());
        fresh.outputs[0] = inputs.values[0];
        // All strands go out at the first port: at the others they would come twice.
        if (const StrandsPtr all = inputs.strands(0); all && ports.size() > 1) {
            StrandSet none = *all;
            none.clear();
            const auto shared = std::make_shared<const StrandSet>(std::move(none));
            for (std::size_t i = 1; i < ports.size(); ++i)
                if (ports[i].type == PortType::Strands) fresh.outputs[i] = shared;
        }
        fresh.changes.resize(ports.size());
        fresh.statusText = kBypassed;
    } else {
        driveParams(s);
        op.takeWarnings();
        op.takeDetails();
        incremental = tryUpdate(s, inputs, slots, fresh);
        s.spares.clear();
        if (!incremental) {
            ++n.runs;
            fresh.outputs = op.evaluateAll(EvalContext(data, op.contextReads()), inputs);
            fresh.runWarnings = op.takeWarnings();
            fresh.runDetails = op.takeDetails();
            if (fresh.outputs.size() != ports.size())
                throw GraphError(op.type() + " made " + std::to_string(fresh.outputs.size()) +
                                 " values for " + std::to_string(ports.size()) + " outputs");
            fresh.changes.assign(ports.size(), nullptr);
        }
        fresh.ran = true;
        applyAffect(s, inputs, slots, incremental, fresh);
    }

    // What went on may be known to differ in a few strands only, however it was made.
    for (std::size_t i = 0; i < ports.size() && known && n.outputs.size() == ports.size(); ++i)
        if (!isList(fresh.changes[i]) && !(fresh.changes[i] && incremental))
            fresh.changes[i] = valueDiff(n.outputs[i], fresh.outputs[i]);
    const bool stated = std::any_of(fresh.changes.begin(), fresh.changes.end(),
                                    [](const StrandChangesPtr& c) { return c != nullptr; });
    fresh.previousHash = n.cached && stated ? n.cachedHash : 0;
    if (!s.passes) {
        fresh.statusText = statusOf(incremental, fresh.changes);
        if (std::string text = op.warning(EvalContext(data, op.contextReads()));
            !text.empty() && std::find(fresh.runWarnings.begin(), fresh.runWarnings.end(), text) ==
                                 fresh.runWarnings.end())
            fresh.runWarnings.push_back(std::move(text));
        op.clearDrivenFields();
    }
    return true;
}

}  // namespace corvelle
