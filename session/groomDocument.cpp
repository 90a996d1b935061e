// How edits reach a groom's document: as steps that can be undone, and, while a stroke is under
// way, as live values in the document's place.

#include <algorithm>

#include "expr/mapCatalogJson.h"
#include "graph/graphError.h"
#include "graph/graphJson.h"
#include "model/guidePose.h"
#include "session/graphMerge.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

using Text = DocumentState::Text;

bool sameMaps(const MapCatalogPtr& a, const MapCatalogPtr& b) {
    static const MapCatalogValue kNone;
    return a == b || (a ? *a : kNone).hash() == (b ? *b : kNone).hash();
}

/// The maps of a stroke's text. Pixels in memory stay with the maps that keep their file.
MapCatalogPtr readMaps(const std::string& text, const MapCatalogPtr& held) {
    MapCatalogValue maps = readScalpMaps(text);
    if (held)
        for (auto& [name, map] : maps.maps)
            if (const PaintedMap* before = held->find(name))
                if (before->kind == map.kind && before->file == map.file) map.image = before->image;
    return std::make_shared<const MapCatalogValue>(std::move(maps));
}

}  // namespace

const std::string& GroomSession::textOf(DocumentSlot slot) const {
    static const std::string kNone;
    switch (slot) {
        case DocumentSlot::Guides:
            return document_.hierarchy;
        case DocumentSlot::Parts:
            return document_.parts;
        case DocumentSlot::Flow:
            return document_.flow;
        case DocumentSlot::Correctives:
            return document_.correctives;
        case DocumentSlot::Graph:
            return document_.graph;
        case DocumentSlot::ScalpMaps:
        case DocumentSlot::ShotLayer:
            break;
    }
    return kNone;
}

Text GroomSession::sharedText(DocumentSlot slot) {
    Text& held = sharedTexts_[std::size_t(slot)];
    const std::string& now = textOf(slot);
    if (!held || *held != now) held = std::make_shared<const std::string>(now);
    return held;
}

std::shared_ptr<const PaintImage> GroomSession::paintImage(const std::string& map) const {
    const auto found = images_.find(map);
    return found == images_.end() ? nullptr : found->second;
}

void GroomSession::holdPaintImage(const std::string& map, std::shared_ptr<const PaintImage> image) {
    images_[map] = std::move(image);
}

DocumentState GroomSession::stateOf(const DocumentState& like) {
    DocumentState state;
    for (std::size_t slot = 0; slot < kDocumentSlots; ++slot)
        if (like.texts[slot]) state.texts[slot] = sharedText(DocumentSlot(slot));
    if (like.hierarchy) {
        state.hierarchy = hierarchy_;
        state.pose = hierarchyPose();
    }
    if (like.maps) state.maps = document_.maps;
    for (const auto& [name, image] : like.images) state.images[name] = paintImage(name);
    return state;
}

void GroomSession::dropUnchanged(DocumentState& next) {
    if (next.hierarchy && hierarchyError_.empty() &&
        next.hierarchy->contentHash() == hierarchy_->contentHash()) {
        next.hierarchy = nullptr;
        next.text(DocumentSlot::Guides) = nullptr;
    }
    for (std::size_t slot = 0; slot < kDocumentSlots; ++slot)
        if (DocumentSlot(slot) != DocumentSlot::Guides && next.texts[slot] &&
            *next.texts[slot] == textOf(DocumentSlot(slot)))
            next.texts[slot] = nullptr;
    std::erase_if(next.images,
                  [&](const auto& image) { return image.second == paintImage(image.first); });
    if (next.maps && next.images.empty() && sameMaps(*next.maps, document_.maps)) next.maps.reset();
}

void GroomSession::put(const DocumentState& state, const Text& graph) {
    if (graph) setGraphJson(*graph);  // the one that may throw, so it goes first
    if (state.hierarchy) {
        const ScalpPtr pose = hierarchyPose();
        GuideHierarchy next = *state.hierarchy;
        Text text = state.text(DocumentSlot::Guides);
        const bool moved = state.pose && pose && state.pose != pose && document_.scalp &&
                           !document_.scalp->restPoints().empty() &&
                           state.pose->contentHash() != pose->contentHash();
        if (moved) {  // the groom has got another rest pose since
            next = next.deformed(*state.pose, *pose);
            text = std::make_shared<const std::string>(guidesToJson(next));
        }
        next.reserveIdsOf(*hierarchy_);
        replaceHierarchy(std::make_shared<const GuideHierarchy>(std::move(next)));
        document_.hierarchy = *text;
        sharedTexts_[std::size_t(DocumentSlot::Guides)] = text;
        hierarchyError_.clear();
        if (!moved && state.pose) bindScalp_ = state.pose;
    }
    if (const Text& text = state.text(DocumentSlot::Parts)) setPartsJson(*text);
    if (const Text& text = state.text(DocumentSlot::Flow)) setFlowJson(*text);
    if (const Text& text = state.text(DocumentSlot::Correctives)) setCorrectivesJson(*text);
    for (std::size_t slot = 0; slot < kDocumentSlots; ++slot)
        if (DocumentSlot(slot) != DocumentSlot::Guides && state.texts[slot])
            sharedTexts_[slot] = state.texts[slot];
    if (state.maps) setMaps(*state.maps);
    for (const auto& [name, image] : state.images) {
        if (image)
            images_[name] = image;
        else
            images_.erase(name);
    }
}

bool GroomSession::edit(DocumentState next, const std::string& label, const std::string& mapsDir) {
    setLiveGraph({});
    if (next.hierarchy && document_.scalp && next.hierarchy->scalpTopology() == 0) {
        GuideHierarchy bound = *next.hierarchy;
        bound.setScalpTopology(document_.scalp->topologyHash());
        next.hierarchy = std::make_shared<const GuideHierarchy>(std::move(bound));
        next.text(DocumentSlot::Guides) = nullptr;
    }
    dropUnchanged(next);
    if (next.empty()) return false;
    if (next.hierarchy) {
        Text& text = next.text(DocumentSlot::Guides);
        if (!text) text = std::make_shared<const std::string>(guidesToJson(*next.hierarchy));
        next.pose = hierarchyPose();
    }
    UndoStep step{label, mapsDir, stateOf(next), std::move(next)};
    put(step.after, step.after.text(DocumentSlot::Graph));
    step.after.hierarchy = step.after.hierarchy ? hierarchy_ : nullptr;
    undo_.push(std::move(step));
    return true;
}

bool GroomSession::applyStroke(const StrokeDocument& document, const std::string& label,
                               const std::string& mapsDir) {
    DocumentState next;
    for (const DocumentSlot slot :
         {DocumentSlot::Parts, DocumentSlot::Flow, DocumentSlot::Correctives})
        next.text(slot) = document.at(slot);
    if (const Text& text = document.at(DocumentSlot::Guides)) {
        next.text(DocumentSlot::Guides) = text;
        next.hierarchy = document.guides
                             ? document.guides
                             : std::make_shared<const GuideHierarchy>(guidesFromJson(*text));
    }
    if (const Text& text = document.at(DocumentSlot::Graph)) {
        // What was done to the live graph during the stroke came after the stroke read it.
        const bool editedSince = live_.graph && document_.graph != *live_.graph;
        next.text(DocumentSlot::Graph) =
            editedSince ? std::make_shared<const std::string>(document_.graph) : text;
    }
    if (const Text& text = document.at(DocumentSlot::ScalpMaps))
        next.maps = readMaps(*text, document_.maps);
    if (!document.images.empty()) {
        const MapCatalogPtr held = next.maps ? *next.maps : document_.maps;
        auto maps =
            held ? std::make_shared<MapCatalogValue>(*held) : std::make_shared<MapCatalogValue>();
        for (const auto& [name, image] : document.images) {
            PaintedMap& map = maps->maps[name];
            map.kind = PaintedMap::Kind::Texture;
            map.channels = image->channels();
            map.image = image->texture();
            next.images[name] = image;
        }
        next.maps = std::move(maps);
    }
    return edit(std::move(next), label, mapsDir);
}

Text GroomSession::graphToPut(const DocumentState& from, const DocumentState& to) {
    const Text& before = from.text(DocumentSlot::Graph);
    const Text& after = to.text(DocumentSlot::Graph);
    if (!after || !before) return nullptr;
    if (document_.graph == *before) return after;
    return std::make_shared<const std::string>(mergeGraphs(*before, document_.graph, *after));
}

GroomSession::UndoOutcome GroomSession::walk(const UndoStep& step, bool back) {
    const DocumentState& from = back ? step.after : step.before;
    const DocumentState& to = back ? step.before : step.after;
    UndoOutcome outcome{.done = true, .mapsDir = step.mapsDir};
    const std::string graphBefore = document_.graph;
    Text graph = graphToPut(from, to);
    try {
        put(to, graph);
    } catch (const GraphError&) {
        // Edits since the step do not go together with what it brings back: the graph stays.
        if (!graph) throw;
        addMessage("the graph has changed too much since \"" + step.label +
                   "\": it stays as it is");
        put(to, nullptr);
    }
    for (const auto& [name, image] : to.images) outcome.images.push_back(name);
    outcome.graphChanged = document_.graph != graphBefore;
    return outcome;
}

GroomSession::UndoOutcome GroomSession::undo() {
    const UndoStep* step = undo_.toUndo();
    if (!step) return {};
    UndoOutcome outcome = walk(*step, true);
    undo_.stepBack();
    return outcome;
}

GroomSession::UndoOutcome GroomSession::redo() {
    const UndoStep* step = undo_.toRedo();
    if (!step) return {};
    UndoOutcome outcome = walk(*step, false);
    undo_.stepForward();
    return outcome;
}

// Live values.

void GroomSession::setLiveHierarchy(std::shared_ptr<const GuideHierarchy> live) {
    live_.hierarchy = std::move(live);
    if (!live_.hierarchy) carriedBack_ = {};
}

std::shared_ptr<const GuideHierarchy> GroomSession::shownHierarchy() {
    if (!live_.hierarchy) return correctedHierarchy();
    return liveIsCorrected() ? live_.hierarchy : corrected(live_.hierarchy, document_.scalp);
}

void GroomSession::setLiveGraph(const std::string& text) {
    if (!blankGraphText(text)) {
        const std::string before = document_.graph;
        setGraphJson(text);
        if (!live_.documentGraph) live_.documentGraph = before;
        live_.graph = text;
        return;
    }
    if (!live_.documentGraph) return;
    const std::string own = ownGraphText();
    live_.documentGraph.reset();
    live_.graph.reset();
    try {
        setGraphJson(own);
    } catch (const GraphError&) {
        addMessage("the graph has changed too much since the stroke began: it stays as it is");
    }
}

std::string GroomSession::ownGraphText() const {
    if (!live_.documentGraph) return document_.graph;
    if (document_.graph == *live_.graph) return *live_.documentGraph;
    return mergeGraphs(*live_.graph, document_.graph, *live_.documentGraph);
}

std::shared_ptr<const GuideHierarchy> GroomSession::toDocumentPose(
    const std::shared_ptr<const GuideHierarchy>& edited) {
    const std::shared_ptr<const GuideHierarchy> shown = activeHierarchy();
    const ScalpPtr pose = hierarchyPose();
    const ScalpPtr& current = document_.scalp;
    if (!current || !pose || pose == current || pose->contentHash() == current->contentHash() ||
        pose->topologyHash() != current->topologyHash())
        return edited;
    auto& held = carriedBack_;
    if (held.edited != edited || held.shown != shown || held.stored != hierarchy_)
        held = {edited, shown, hierarchy_,
                std::make_shared<const GuideHierarchy>(
                    deformedBack(*edited, *shown, *hierarchy_, *current, *pose))};
    return held.result;
}

}  // namespace corvelle
