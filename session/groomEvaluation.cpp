// How a session evaluates: bringing the scalp and guides to the time, choosing the graph, running it,
// following the scalp, numbering the result and measuring it.

#include <algorithm>
#include <cmath>

#include "session/frameRate.h"
#include "session/groomSession.h"

namespace corvelle {

namespace {

constexpr std::size_t kHistoryFrames = 49;  ///< scalps that motion nodes look back over
constexpr int kLongestWalk = 4096;

StrandsPtr strandsOf(const NodeValue& value) {
    const StrandsPtr* held = std::get_if<StrandsPtr>(&value);
    return held ? *held : nullptr;
}

StrandChangesPtr noChanges() {
    static const StrandChangesPtr none = std::make_shared<const StrandChanges>();
    return none;
}

/// The node to show: `viewNode` when it names one that gives strands, else the graph's output.
NodeId chooseNode(const Graph& graph, EvaluationResult& next, const std::string& viewNode) {
    NodeId chosen = graph.output();
    if (!viewNode.empty()) {
        const NodeId named = graph.find(viewNode);
        if (named != 0) {
            const auto outputs = graph.node(named).op->outputs();
            if (!outputs.empty() && outputs.front().type == PortType::Strands) {
                chosen = named;
                next.viewNode = viewNode;
            }
        }
    }
    next.viewIsScatter = graph.node(chosen).op->type() == "Scatter";
    return chosen;
}

}  // namespace

const EvaluationResult& GroomSession::evaluate(const EvaluateOptions& options) {
    pendingException_ = nullptr;
    ++evaluations_;
    const std::shared_ptr<const EvaluationResult> before = result_;
    auto next = std::make_shared<EvaluationResult>();
    std::vector<std::string>& errors = next->errors;
    std::vector<EvaluationMessage>& messages = next->messages;

    if (hierarchyRevision_ != hierarchyRevisionReported_) {
        hierarchyRevisionReported_ = hierarchyRevision_;
        if (!hierarchyError_.empty()) messages.push_back({hierarchyError_, true});
    }
    const auto fail = [&](std::exception_ptr exception, const std::string& text) {
        next->serial = next->changesBase = 0;
        next->changes = nullptr;
        next->strands = next->rawStrands = nullptr;
        pendingException_ = std::move(exception);
        errors.push_back(text);
        messages.push_back({text, true});
    };
    try {
        advanceTo(options.seconds, messages);
        // A stroke thins the view further, on a graph of its own, so that the main one stays warm.
        const bool underWay = stroking_ || live_.hierarchy != nullptr;
        const float density = underWay ? options.density * options.sculptDensity : options.density;
        usingSculptGraph_ = underWay && density != options.density && graph_.has_value();
        if (usingSculptGraph_ && !sculptGraph_) {
            sculptGraph_ = *graph_;
            sculptEvaluatedBase_ = sculptGraph_->nodesEvaluated();
            sculptIncrementalBase_ = sculptGraph_->nodesIncremental();
        }
        fillData(options, density);
        next->density = std::clamp(density, 0.0f, 1.0f);
        next->following = follow_.following;
        for (const std::string* text : {&correctiveError_, &flowError_, &partError_, &guidesError_})
            if (!text->empty()) errors.push_back(*text);
        if (graph_) runGraph(options, *next);
    } catch (const std::exception& error) {
        fail(std::current_exception(), error.what());
    } catch (...) {
        fail(std::current_exception(), "evaluation failed");
    }
    try {
        countRevisions(*before, shownHierarchy() != lastSeen_.hierarchy, *next);
        measureBounds(options, *before, *next);
        lastSeen_ = {document_.scalp, shownHierarchy(), data_.flatGuides};
    } catch (const std::exception& error) {
        fail(std::current_exception(), error.what());
    }
    if (!graphError_.empty()) errors.insert(errors.begin(), graphError_);
    if (!hierarchyError_.empty()) errors.insert(errors.begin(), hierarchyError_);
    result_ = std::move(next);
    return *result_;
}

void GroomSession::advanceTo(double seconds, std::vector<EvaluationMessage>& messages) {
    seconds_ = seconds;
    recordScalp();
    prepareFollow(messages);
    messages.insert(messages.end(), pendingMessages_.begin(), pendingMessages_.end());
    pendingMessages_.clear();
}

void GroomSession::recordScalp() {
    if (!document_.scalp) return;
    const auto frame = std::llround(framesFromSeconds(seconds_, document_.framesPerSecond));
    const auto& entries = scalpHistory_->entries;
    const auto found = std::ranges::find(entries, frame, &ScalpHistory::Entry::frame);
    const ScalpPtr mesh = refinement_.mesh(document_.scalp);
    if (found != entries.end() && found->mesh == mesh) return;
    // Published histories are shared with evaluations: a new one takes the old one's place.
    auto next = std::make_shared<ScalpHistory>(*scalpHistory_);
    std::erase_if(next->entries, [&](const ScalpHistory::Entry& entry) { return entry.frame == frame; });
    next->entries.push_back({frame, mesh});
    if (next->entries.size() > kHistoryFrames) next->entries.erase(next->entries.begin());
    scalpHistory_ = std::move(next);
}

void GroomSession::prepareFollow(std::vector<EvaluationMessage>& messages) {
    follow_.following = false;
    const ScalpPtr& scalp = document_.scalp;
    if (!document_.followScalp || !scalp) return;
    if (scalp->restPoints().empty()) {
        if (!follow_.noRestWarned)
            messages.push_back({"followScalp: the scalp has no rest pose (give the groom a rest mesh); the "
                                "groom evaluates on the scalp as it is",
                                false});
        follow_.noRestWarned = true;
        return;
    }
    if (std::ranges::equal(scalp->restPoints(), scalp->points())) return;
    follow_.noRestWarned = false;
    follow_.following = true;
    const ScalpPtr before = follow_.restScalp;
    if (restScalp() != before) ++restEvaluations_;
}

void GroomSession::fillData(const EvaluateOptions& options, float density) {
    const ScalpPtr& current = document_.scalp;
    data_.seconds = options.seconds;
    data_.framesPerSecond = document_.framesPerSecond;
    data_.frame = framesFromSeconds(options.seconds, document_.framesPerSecond);
    data_.viewport = options.preview;
    data_.deferTools = options.deferTools;
    data_.density = density;
    data_.pointBudget = options.preview ? options.pointBudget : 0.0;
    data_.growSegments = 0;
    data_.currentScalp = assembled(current);
    data_.scalpHistory = scalpHistory_;
    if (follow_.following) {
        // The document's hierarchy is in the rest pose; a stroke's live one and flat guides are not.
        data_.scalp = assembled(follow_.restScalp);
        data_.hierarchy = live_.hierarchy ? toDocumentPose(live_.hierarchy) : hierarchy_;
        if (restGuides_ || !document_.guides) {
            data_.flatGuides = restGuides_;
        } else {
            auto& cache = follow_.guides;
            if (cache.from != document_.guides || cache.rest != follow_.restScalp || cache.current != current)
                cache = {document_.guides, deformGuides(document_.guides, *current, *follow_.restScalp),
                         follow_.restScalp, current};
            data_.flatGuides = cache.result;
        }
    } else {
        data_.scalp = data_.currentScalp;
        data_.hierarchy = live_.hierarchy ? live_.hierarchy : activeHierarchy();
        data_.flatGuides = document_.guides;
    }
    if (!liveIsCorrected())
        data_.hierarchy = corrected(data_.hierarchy, follow_.following ? follow_.restScalp : current);
    // Where renders draw another surface than the mesh, nodes work on that one.
    refinement_.setCages(current, document_.scalps);
    data_.hierarchy = refinement_.hierarchy(data_.hierarchy);
    data_.flatGuides = refinement_.guides(data_.flatGuides);
    data_.parts = partLines(data_.scalp);
    data_.flow = flowField(data_.scalp, follow_.following ? follow_.restScalp : current);
    data_.maps = refinement_.maps(shownMaps());
    data_.colliders.clear();
    for (const auto& [name, mesh] : document_.colliders) data_.colliders[name] = MeshValue{mesh, -1.0f};
    data_.controls.clear();
    for (const auto& [name, value] : document_.controls) data_.controls[name] = double(value);
    data_.directory = document_.directory;
    data_.searchPaths = document_.searchPaths;
}

void GroomSession::runGraph(const EvaluateOptions& options, EvaluationResult& next) {
    Graph& graph = usingSculptGraph_ ? *sculptGraph_ : *graph_;
    const NodeId node = chooseNode(graph, next, options.viewNode);
    const StrandsPtr strands = strandsOf(graph.evaluate(node, data_));
    next.strands = strands;
    if (follow_.following && strands) {
        next.strands = follow_.deformed(strands, refinement_.mesh(follow_.restScalp),
                                         refinement_.mesh(document_.scalp));
        next.rawStrands = strands;
    }
    numberResult(graph, node, strands, next);
}

void GroomSession::numberResult(const Graph& graph, NodeId node, const StrandsPtr& nodeStrands,
                                EvaluationResult& next) {
    SerialSlot& slot = slots_[usingSculptGraph_ ? 1 : 0];
    const std::uint64_t stamp = graph.node(node).cachedHash;
    const ScalpPtr rest = follow_.following ? follow_.restScalp : nullptr;
    const ScalpPtr mesh = follow_.following ? document_.scalp : nullptr;
    const bool known = nodeStrands && stamp != 0 && slot.serial != 0 && slot.node == node;

    if (known && slot.stamp == stamp && slot.strands == next.strands) {
        next.serial = next.changesBase = slot.serial;
        next.changes = noChanges();
        return;
    }
    next.serial = ++serialCounter_;
    next.changesBase = slot.serial;
    if (known && slot.restMesh == rest && slot.mesh == mesh) next.changes = graph.changesSince(node, slot.stamp);
    slot = {node, stamp, nodeStrands && stamp != 0 ? next.serial : 0, next.strands, rest, mesh};
}

void GroomSession::countRevisions(const EvaluationResult& before, bool guidesMoved, EvaluationResult& next) {
    const bool strandsChanged = next.strands != before.strands || next.serial != before.serial ||
                                next.viewNode != before.viewNode || next.viewIsScatter != before.viewIsScatter;
    const bool sourcesChanged =
        document_.scalp != lastSeen_.scalp || data_.flatGuides != lastSeen_.flat;
    next.strandRevision = before.strandRevision + strandsChanged;
    next.guideRevision = before.guideRevision + guidesMoved;
    next.displayRevision = before.displayRevision + (strandsChanged || guidesMoved || sourcesChanged);
}

void GroomSession::measureBounds(const EvaluateOptions& options, const EvaluationResult& before,
                                 EvaluationResult& next) {
    const bool changed = next.strandRevision != before.strandRevision || next.guideRevision != before.guideRevision;
    // The extent is cached with the set; only chunks that changed are measured anew. It is taken even
    // when no box is asked for: points that are not numbers must never go unnoticed.
    StrandSet::Extent extent;
    if (next.strands) {
        const bool chain = next.changes && !next.changes->all && next.changesBase == before.serial && before.strands;
        extent = chain ? next.strands->extentAfter(*before.strands, next.changes->strands) : next.strands->extent();
    }
    if (!extent.finite) {
        const std::string text = nonFiniteText();
        next.errors.push_back(text);
        next.messages.push_back({text, true});
    }
    if (!options.computeBounds) {
        boundsPending_ = boundsPending_ || changed;
        return;
    }
    if (!changed && !boundsPending_ && before.hasBounds) {
        next.boundsMin = before.boundsMin;
        next.boundsMax = before.boundsMax;
        next.hasBounds = true;
        return;
    }
    boundsPending_ = false;
    StrandSet::Extent box;
    if (next.strands && extent.finite) box = extent;
    const auto hierarchy = shownHierarchy();
    for (const GuidePtr& guide : hierarchy->guides())
        for (const Vec3f& p : guide->points) {
            box.min = componentMin(box.min, p);
            box.max = componentMax(box.max, p);
        }
    next.hasBounds = box.min.x <= box.max.x;
    if (next.hasBounds) {
        next.boundsMin = box.min;
        next.boundsMax = box.max;
    }
}

std::vector<GuideSharing> GroomSession::guideSharings() {
    std::vector<GuideSharing> sharings;
    if (!graph_ || graph_->output() == 0) return sharings;
    std::vector<NodeId> nodes;
    graph_->forEachActiveUpstream(graph_->output(), !data_.viewport, [&](const Node& node) {
        const auto own = graph_->nodes().find(node.id);  // the walk goes on into compounds
        if (own != graph_->nodes().end() && &own->second == &node && node.op->type() == "Interpolate")
            nodes.push_back(node.id);
        return true;
    });
    for (const NodeId id : nodes) {
        const std::vector<NodeId> from = graph_->node(id).inputNodes;
        const std::vector<std::size_t> outputs = graph_->node(id).inputOutputs;
        NodeInputs inputs;
        inputs.values.resize(from.size());
        inputs.connected.resize(from.size());
        for (std::size_t slot = 0; slot < from.size(); ++slot) {
            if (from[slot] == 0) continue;
            graph_->evaluate(from[slot], data_);  // as a rule kept from the evaluation itself
            const std::vector<NodeValue>& values = graph_->node(from[slot]).outputs;
            if (outputs[slot] < values.size()) inputs.values[slot] = values[outputs[slot]];
            inputs.connected[slot] = true;
        }
        GuideSharing sharing = guideSharing(*graph_->node(id).op, EvalContext(data_), inputs);
        if (sharing.strands) sharings.push_back(std::move(sharing));
    }
    return sharings;
}

std::string GroomSession::nonFiniteText() const {
    const std::string unknown =
        "the strands have points that are not numbers (NaN or infinite): a node before the output made them";
    const Graph* graph = lastGraph();
    if (!graph) return unknown;
    const auto finite = [](const Node& node) {
        const StrandsPtr strands = node.outputs.empty() ? nullptr : strandsOf(node.outputs.front());
        return !strands || strands->extent().finite;
    };
    // Upstream along first inputs to the first finite node: the one below it is the culprit.
    NodeId culprit = 0;
    NodeId at = graph->output();
    for (int step = 0; step < kLongestWalk && at != 0; ++step) {
        const Node& node = graph->node(at);
        if (finite(node)) break;
        culprit = at;
        at = node.inputNodes.empty() ? 0 : node.inputNodes.front();
    }
    if (culprit == 0) return unknown;
    return "node '" + graph->node(culprit).op->name +
           "' makes the strands have points that are not numbers (NaN or infinite)";
}

}  // namespace corvelle
