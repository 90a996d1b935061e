#include "session/groomSession.h"

#include <algorithm>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "io/curveCaches.h"
#include "model/carry.h"
#include "operators/registerOperators.h"
#include "session/frameRate.h"
#include "session/scalpAssembly.h"

namespace corvelle {

namespace {

constexpr int kDeepestGraph = 512;

/// Reads a graph's text. Blank text is no graph at all.
std::optional<Graph> readGraph(const std::string& text) {
    if (blankGraphText(text)) return std::nullopt;
    // Copies and prints of JSON recurse: text that nests without end must not get that far.
    bool deep = false;
    const auto shallow = [&](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
        deep = deep || depth > kDeepestGraph;
        return !deep;
    };
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text, shallow);
        if (deep)
            throw SchemaError("graph: nested deeper than " + std::to_string(kDeepestGraph) +
                              " levels");
    } catch (const nlohmann::json::exception& error) {
        throw SchemaError(std::string("graph: invalid JSON: ") + error.what());
    }
    return graphFromJson(json);
}

bool samePose(const ScalpPtr& a, const ScalpPtr& b) {
    return a == b || (a && b && a->contentHash() == b->contentHash());
}

}  // namespace

GroomSession::GroomSession(GroomFile file) : document_(std::move(file)) {
    registerOperators();
    data_.curves = std::make_shared<AlembicCurveReader>();
    document_.framesPerSecond = effectiveRate(document_.framesPerSecond);
    graph_ = readGraph(document_.graph);
    if (graph_) graph_->setFramesPerSecond(document_.framesPerSecond);
    if (!blankGraphText(document_.hierarchy)) {
        try {
            hierarchy_ =
                std::make_shared<const GuideHierarchy>(guidesFromJson(document_.hierarchy));
        } catch (const std::exception& error) {
            hierarchyError_ = std::string("guideData: ") + error.what();
            ++hierarchyRevision_;
        }
    }
    readParts();
    readFlow();
    readCorrectiveLayers();
    document_.maps = withVertexValues(document_.maps, document_.scalp);
    if (document_.maps && document_.scalp)
        for (const auto& [name, map] : document_.maps->maps)
            if (map.kind == PaintedMap::Kind::Vertices &&
                map.vertices != document_.scalp->points().size())
                pendingMessages_.push_back(
                    {"map " + vertexCountText(name, map.vertices, document_.scalp->points().size()),
                     false});
    bindScalp_ = document_.scalp;
    if (document_.guides && document_.guides->empty()) document_.guides = nullptr;
}

GroomSession::~GroomSession() = default;

void GroomSession::retireGraph() {
    dropSculptGraph();
    if (!graph_) return;
    retiredEvaluated_ += graph_->nodesEvaluated();
    retiredIncremental_ += graph_->nodesIncremental();
}

void GroomSession::dropSculptGraph() {
    if (!sculptGraph_) return;
    retiredEvaluated_ += sculptGraph_->nodesEvaluated() - sculptEvaluatedBase_;
    retiredIncremental_ += sculptGraph_->nodesIncremental() - sculptIncrementalBase_;
    sculptGraph_.reset();
}

void GroomSession::setGraphJson(const std::string& text,
                                const std::map<std::string, std::string>& renamed) {
    if (graph_ && text == document_.graph) return;
    std::optional<Graph> next = readGraph(text);
    if (next) next->setFramesPerSecond(document_.framesPerSecond);
    if (next && graph_) next->adopt(*graph_, renamed);
    retireGraph();
    graph_ = std::move(next);
    document_.graph = text;
    graphError_.clear();
    ++graphRevision_;
}

std::uint64_t GroomSession::nodesEvaluated() const {
    return retiredEvaluated_ + (graph_ ? graph_->nodesEvaluated() : 0) +
           (sculptGraph_ ? sculptGraph_->nodesEvaluated() - sculptEvaluatedBase_ : 0);
}

std::uint64_t GroomSession::nodesIncremental() const {
    return retiredIncremental_ + (graph_ ? graph_->nodesIncremental() : 0) +
           (sculptGraph_ ? sculptGraph_->nodesIncremental() - sculptIncrementalBase_ : 0);
}

void GroomSession::setGuides(GuidesPtr flat) {
    if (flat && flat->empty()) flat = nullptr;
    if (flat == document_.guides) return;
    if (flat && document_.guides && *flat == *document_.guides) return;
    document_.guides = std::move(flat);
}

void GroomSession::setGuidesError(const std::string& text) {
    if (text == guidesError_) return;
    guidesError_ = text;
    if (!text.empty()) addMessage(text, true);
}

void GroomSession::setRestGuides(GuidesPtr rest) {
    restGuides_ = rest && !rest->empty() ? std::move(rest) : nullptr;
}

void GroomSession::replaceHierarchy(std::shared_ptr<const GuideHierarchy> hierarchy) {
    hierarchy_ = std::move(hierarchy);
    ++hierarchyRevision_;
}

void GroomSession::setHierarchy(GuideHierarchy hierarchy, ScalpPtr pose) {
    if (hierarchyError_.empty() && hierarchy.contentHash() == hierarchy_->contentHash()) return;
    if (document_.scalp && hierarchy.scalpTopology() == 0)
        hierarchy.setScalpTopology(document_.scalp->topologyHash());
    replaceHierarchy(std::make_shared<const GuideHierarchy>(std::move(hierarchy)));
    document_.hierarchy = guidesToJson(*hierarchy_);
    hierarchyError_.clear();
    bindScalp_ = pose ? std::move(pose) : document_.scalp;
}

void GroomSession::setHierarchyJson(const std::string& text) {
    if (text == document_.hierarchy) return;
    GuideHierarchy next;
    if (!blankGraphText(text)) next = guidesFromJson(text);
    replaceHierarchy(std::make_shared<const GuideHierarchy>(std::move(next)));
    document_.hierarchy = text;
    hierarchyError_.clear();
    bindScalp_ = document_.scalp;
}

bool GroomSession::hierarchyStale() const {
    return document_.scalp && !hierarchy_->empty() && hierarchy_->scalpTopology() != 0 &&
           hierarchy_->scalpTopology() != document_.scalp->topologyHash();
}

ScalpPtr GroomSession::hierarchyPose() {
    if (!document_.scalp) return nullptr;
    return document_.scalp->restPoints().empty() ? bindScalp_ : restScalp();
}

std::shared_ptr<const GuideHierarchy> GroomSession::activeHierarchy() {
    const ScalpPtr bind = hierarchyPose();
    const ScalpPtr& current = document_.scalp;
    if (hierarchy_->empty() || !bind || !current || samePose(bind, current) ||
        bind->topologyHash() != current->topologyHash())
        return hierarchy_;
    auto& cache = activeCache_;
    if (cache.from != hierarchy_ || cache.bind != bind || cache.current != current) {
        cache.result =
            std::make_shared<const GuideHierarchy>(hierarchy_->deformed(*bind, *current));
        cache.from = hierarchy_;
        cache.bind = bind;
        cache.current = current;
    }
    return cache.result;
}

ScalpPtr GroomSession::restScalp() {
    const ScalpPtr& scalp = document_.scalp;
    if (!scalp || scalp->restPoints().empty()) return scalp;
    if (!follow_.restScalp || follow_.restScalpKey != scalp->restHash()) {
        follow_.restScalp = scalp->restPose();
        follow_.restScalpKey = scalp->restHash();
    }
    return follow_.restScalp;
}

void GroomSession::setScalp(ScalpPtr scalp) {
    const ScalpPtr old = document_.scalp;
    if (scalp == old) return;
    if (scalp && old && scalp->fullHash() == old->fullHash()) return;

    // A document that came without its scalp knows the triangles from what is bound to them.
    const bool boundToOthers = scalp && !old && !hierarchy_->empty() &&
                               hierarchy_->scalpTopology() != 0 &&
                               hierarchy_->scalpTopology() != scalp->topologyHash();
    const bool otherTriangles =
        boundToOthers || (scalp && old && scalp->topologyHash() != old->topologyHash());
    const ScalpPtr oldBind = hierarchyPose();
    document_.scalp = std::move(scalp);
    if (!document_.scalp) return;
    const ScalpPtr& held = document_.scalp;
    document_.maps = withVertexValues(document_.maps, held);

    if (otherTriangles) {
        undo_.clear();  // roots on triangles that are there no more
        if (document_.topology != held->topologyHash())
            pendingMessages_.push_back(
                {"the scalp's vertex order or triangles differ from the groom's: "
                 "strands are rooted again by position",
                 false});
        if (!hierarchy_->empty() && !held->triangles().empty()) {
            GuideHierarchy moved = *hierarchy_;
            moved.transfer(oldBind.get(), *restScalp(), {});
            moved.setScalpTopology(held->topologyHash());
            replaceHierarchy(std::make_shared<const GuideHierarchy>(std::move(moved)));
            document_.hierarchy = guidesToJson(*hierarchy_);
        }
        if (old) moveDrawn(*old);  // else nobody knows where the drawn things lay
        bindScalp_ = held;
        return;
    }
    if (!old || !oldBind) {
        bindScalp_ = held;
        return;
    }
    // The same triangles: the hierarchy stays in its pose, or goes to the new rest pose.
    bindScalp_ = oldBind;
    if (held->restPoints().empty() || hierarchy_->empty()) return;
    const ScalpPtr rest = restScalp();
    if (samePose(oldBind, rest)) return;
    replaceHierarchy(std::make_shared<const GuideHierarchy>(hierarchy_->deformed(*oldBind, *rest)));
    document_.hierarchy = guidesToJson(*hierarchy_);
}

void GroomSession::updateScalpPoints(std::vector<Vec3f> points,
                                     std::optional<std::vector<Vec3f>> restPoints) {
    const ScalpPtr& scalp = document_.scalp;
    if (!scalp) throw std::runtime_error("updateScalpPoints: the session has no scalp");
    const std::size_t count = scalp->points().size();
    for (const auto* given : {&points, restPoints ? &*restPoints : &points})
        if (given->size() != count)
            throw std::invalid_argument("updateScalpPoints: " + std::to_string(given->size()) +
                                        " points for a scalp of " + std::to_string(count));
    const bool samePoints = std::ranges::equal(points, scalp->points());
    const bool sameRest = !restPoints || std::ranges::equal(*restPoints, scalp->restPoints());
    if (samePoints && sameRest) return;
    ScalpPtr next = samePoints ? scalp : scalp->withPoints(std::move(points));
    if (!sameRest) next = next->withRestPoints(std::move(*restPoints));
    setScalp(std::move(next));
}

void GroomSession::setFollowScalp(bool on) { document_.followScalp = on; }

void GroomSession::setFramesPerSecond(double rate) {
    rate = effectiveRate(rate);
    if (rate == document_.framesPerSecond) return;
    document_.framesPerSecond = rate;
    if (graph_) graph_->setFramesPerSecond(rate);
    if (sculptGraph_) sculptGraph_->setFramesPerSecond(rate);
}

void GroomSession::setMaps(MapCatalogPtr maps) {
    document_.maps = withVertexValues(std::move(maps), document_.scalp);
}

void GroomSession::setPartsJson(const std::string& text) {
    if (text == document_.parts) return;
    document_.parts = text;
    readParts();
}

void GroomSession::readParts() {
    PartData parts;
    partError_.clear();
    try {
        parts = readPartData(document_.parts);
    } catch (const std::exception& error) {
        partError_ = std::string("partData: ") + error.what();
    }
    parts_ = std::make_shared<const PartData>(std::move(parts));
}

std::shared_ptr<const PartLines> GroomSession::partLines(const ScalpPtr& scalp) {
    const std::shared_ptr<const PartData> parts = shownParts();
    if (parts->lines.empty() || !scalp) return nullptr;
    auto& held = partLines_;
    if (held.scalp != scalp || !held.data || (held.data != parts && !(*held.data == *parts)))
        held = {parts, scalp, partLinesOn(refinement_.parts(*parts), scalp)};
    return partLines_.lines;
}

void GroomSession::setFlowJson(const std::string& text) {
    if (text == document_.flow) return;
    document_.flow = text;
    readFlow();
}

void GroomSession::readFlow() {
    FlowData flow;
    flowError_.clear();
    try {
        flow = readFlowData(document_.flow);
    } catch (const std::exception& error) {
        flowError_ = std::string("flowData: ") + error.what();
    }
    flow_ = std::make_shared<const FlowData>(std::move(flow));
}

std::shared_ptr<const FlowField> GroomSession::flowField(const ScalpPtr& scalp,
                                                         const ScalpPtr& cage) {
    const std::shared_ptr<const FlowData> flow = shownFlow();
    if (flow->empty() || !scalp || !cage) return nullptr;
    auto& held = flowField_;
    if (held.scalp != scalp || !held.data || (held.data != flow && !(*held.data == *flow)))
        held = {flow, scalp, flowFieldOn(refinement_.flow(*flow, *cage, *scalp), scalp)};
    return held.field;
}

/// Takes parts and flow over to the scalp that has replaced `old`, between rest poses where both
/// have one. A scalp without faces leaves them for the next one to find.
void GroomSession::moveDrawn(const ScalpMesh& old) {
    if (document_.scalp->triangles().empty()) return;
    const bool rest = !old.restPoints().empty() && !document_.scalp->restPoints().empty();
    const ScalpPtr oldRest = rest ? old.restPose() : nullptr;
    const ScalpPtr to = rest ? restScalp() : document_.scalp;
    const ScalpMesh& from = rest ? *oldRest : old;
    if (!parts_->lines.empty()) {
        parts_ = std::make_shared<const PartData>(transferParts(*parts_, from, *to));
        document_.parts = partDataJson(*parts_);
    }
    if (!flow_->empty()) {
        flow_ = std::make_shared<const FlowData>(transferFlow(*flow_, from, *to));
        document_.flow = flowDataJson(*flow_);
    }
}

void GroomSession::setControl(const std::string& name, float value) {
    document_.controls[name] = value;
}

void GroomSession::setCollider(const std::string& name, ScalpPtr mesh) {
    if (mesh)
        document_.colliders[name] = std::move(mesh);
    else
        document_.colliders.erase(name);
}

std::vector<std::string> GroomSession::dataErrors() const {
    std::vector<std::string> errors;
    for (const std::string* text :
         {&hierarchyError_, &graphError_, &flowError_, &partError_, &correctiveError_})
        if (!text->empty()) errors.push_back(*text);
    return errors;
}

ScalpPtr GroomSession::assembled(const ScalpPtr& own) {
    if (document_.scalps.empty()) return refinement_.mesh(own);
    auto found = std::ranges::find_if(assembled_, [&](const Assembled& made) {
        return made.result && made.own == own && made.named == document_.scalps;
    });
    if (found == assembled_.end()) {
        found = assembled_.end() - 1;
        *found = {own, assembleScalps(refinement_.mesh(own), refinement_.meshes(document_.scalps)),
                  document_.scalps};
    }
    std::rotate(assembled_.begin(), found, found + 1);
    return assembled_.front().result;
}

}  // namespace corvelle
