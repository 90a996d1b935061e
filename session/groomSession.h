#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "graph/graph.h"
#include "io/groomFile.h"
#include "model/correctives.h"
#include "model/flowData.h"
#include "model/guideHierarchy.h"
#include "model/partData.h"
#include "operators/interpolate.h"
#include "session/evaluationResult.h"
#include "session/scalpFollow.h"
#include "session/scalpRefinement.h"
#include "session/undoStack.h"

namespace corvelle {

struct DetachedEvaluation;

/// One groom being worked on: its document, the graphs made from it, and their caches. Knows nothing
/// of requests, shared memory or the host's space: everything here is groom space. Used on one thread;
/// results and meshes are shared, immutable values.
///
/// Setters compare first and return at once when nothing changes, so that caches stay warm.
class GroomSession {
public:
    /// Throws what graphFromJson throws when the graph text does not read; the other texts of the file
    /// become error texts, shown on each evaluation.
    explicit GroomSession(GroomFile file = {});
    ~GroomSession();
    GroomSession(const GroomSession&) = delete;
    GroomSession& operator=(const GroomSession&) = delete;

    const GroomFile& document() const { return document_; }

    // The graph.
    /// Throws on a text that does not read, and leaves the graph as it was. Node state moves over by
    /// name and type; `renamed` maps old names to new ones.
    void setGraphJson(const std::string& text, const std::map<std::string, std::string>& renamed = {});
    const Graph* graph() const { return graph_ ? &*graph_ : nullptr; }
    /// The graph that the last evaluation ran: the thinned copy of a stroke, or the main one.
    const Graph* lastGraph() const { return usingSculptGraph_ && sculptGraph_ ? &*sculptGraph_ : graph(); }
    const std::string& graphError() const { return graphError_; }
    std::uint64_t graphRevision() const { return graphRevision_; }

    // Guides.
    void setGuides(GuidesPtr flat);  ///< null or empty: none
    /// Why the flat guides could not be brought to the time; blank: they were. Stands among the
    /// errors of each evaluation until it is blank, and once among its messages.
    void setGuidesError(const std::string& text);
    const std::string& guidesError() const { return guidesError_; }
    /// The host's guides in the rest pose; null: none. Used for the rest state while following.
    void setRestGuides(GuidesPtr rest);
    const GuidesPtr& restGuides() const { return restGuides_; }
    /// `pose`: the scalp as it was when the guides lay as given; null: as it is now.
    void setHierarchy(GuideHierarchy hierarchy, ScalpPtr pose = nullptr);
    void setHierarchyJson(const std::string& text);
    /// As the document holds it: rest pose with rest points on the scalp, else its bind scalp's pose.
    const std::shared_ptr<const GuideHierarchy>& hierarchy() const { return hierarchy_; }
    /// On the scalp as it is now; never null, empty without a hierarchy.
    std::shared_ptr<const GuideHierarchy> activeHierarchy();
    const std::string& hierarchyError() const { return hierarchyError_; }
    /// The texts of the document that did not read, each with what it is of.
    std::vector<std::string> dataErrors() const;
    /// The scalp in the pose that `hierarchy` is in; null without a scalp.
    ScalpPtr hierarchyPose();
    /// The hierarchy was bound to other triangles than the scalp's.
    bool hierarchyStale() const;

    // The scalp.
    /// The held mesh stays when all data are equal. Other triangles root guides and hierarchy again
    /// by position, with a message at the next evaluation.
    void setScalp(ScalpPtr scalp);
    const ScalpPtr& scalp() const { return document_.scalp; }
    /// The scalp in its rest pose: itself without rest points. Null without a scalp.
    ScalpPtr restScalp();
    /// Throws std::runtime_error without a scalp, std::invalid_argument for another point count.
    void updateScalpPoints(std::vector<Vec3f> points, std::optional<std::vector<Vec3f>> restPoints);
    void setFollowScalp(bool on);

    void setFramesPerSecond(double rate);
    double framesPerSecond() const { return document_.framesPerSecond; }
    void setMaps(MapCatalogPtr maps);
    /// The drawn parts as JSON; blank: none. A text that does not read stays in the document, and its
    /// fault is shown on each evaluation.
    void setPartsJson(const std::string& text);
    /// The flow arrows as JSON, likewise.
    void setFlowJson(const std::string& text);
    /// The corrective layers as JSON; blank: none. A text that does not read is kept likewise.
    void setCorrectivesJson(const std::string& text);
    /// Never null.
    const std::shared_ptr<const Correctives>& correctives() const { return correctives_; }
    /// The layer that strokes go into, by its number; none: strokes shape the guides themselves. While
    /// a stroke in a layer is under way its live guides are shown as they are, layers and all. Throws
    /// std::out_of_range for a layer that is not there.
    void setActiveCorrective(std::optional<std::size_t> layer);
    const std::optional<std::size_t>& activeCorrective() const { return activeCorrective_; }
    /// `activeHierarchy` with every layer at the frame of the session: what a stroke in a layer edits.
    std::shared_ptr<const GuideHierarchy> correctedHierarchy();
    void setControl(const std::string& name, float value);
    void setCollider(const std::string& name, ScalpPtr mesh);  ///< null removes it

    /// The parts and flow of the document, read; never null.
    const std::shared_ptr<const PartData>& parts() const { return parts_; }
    const std::shared_ptr<const FlowData>& flow() const { return flow_; }
    /// Pixels of texture maps, held while they are painted; null: not held.
    std::shared_ptr<const PaintImage> paintImage(const std::string& map) const;
    /// Holds the pixels of a map as read from its file: no edit.
    void holdPaintImage(const std::string& map, std::shared_ptr<const PaintImage> image);
    /// Shown by the next evaluation.
    void addMessage(const std::string& text, bool error = false) { pendingMessages_.push_back({text, error}); }

    // Edits that can be undone.
    /// Puts what `next` holds in the place of the document's, as one undo step. Guides come as a
    /// value in the pose of `hierarchyPose` (their text is made here, unless it is given). False:
    /// nothing differs, and there is no step. Throws on a graph that does not read and changes
    /// nothing.
    bool edit(DocumentState next, const std::string& label, const std::string& mapsDir = {});
    /// What a stroke has left, likewise.
    bool applyStroke(const StrokeDocument& document, const std::string& label,
                     const std::string& mapsDir = {});
    struct UndoOutcome {
        bool done = false;
        bool graphChanged = false;
        std::vector<std::string> images;  ///< texture maps whose pixels changed
        std::string mapsDir;              ///< of the step
    };
    UndoOutcome undo();
    UndoOutcome redo();
    const UndoStack& undoStack() const { return undo_; }
    /// The text of a part of the document as a shared value: the same object while it does not change.
    StrokeDocument::Text sharedText(DocumentSlot slot);

    // Strokes: the thinned graph and the live values of the stroke under way, shown in the place of
    // the document's. Null: the document's again.
    void setStroking(bool on) { stroking_ = on; }
    bool stroking() const { return stroking_; }
    void setLiveHierarchy(std::shared_ptr<const GuideHierarchy> live);  ///< on the scalp as it is now
    void setLiveParts(std::shared_ptr<const PartData> live) { live_.parts = std::move(live); }
    void setLiveFlow(std::shared_ptr<const FlowData> live) { live_.flow = std::move(live); }
    void setLiveMaps(MapCatalogPtr live) { live_.maps = std::move(live); }
    /// A graph in the place of the document's until it is set to blank: then the document's comes back,
    /// with what was done to the live one since. Throws as setGraphJson.
    void setLiveGraph(const std::string& text);
    /// The graph without what a live one adds: the text that comes back when it is set to blank.
    std::string ownGraphText() const;
    std::shared_ptr<const GuideHierarchy> shownHierarchy();  ///< the live one, else the active one
    std::shared_ptr<const PartData> shownParts() const { return live_.parts ? live_.parts : parts_; }
    std::shared_ptr<const FlowData> shownFlow() const { return live_.flow ? live_.flow : flow_; }
    MapCatalogPtr shownMaps() const { return live_.maps ? live_.maps : document_.maps; }
    /// Guides edited on the scalp as it is now, in the document's pose. Guides that are the very ones
    /// of `activeHierarchy` stay the very ones of `hierarchy`: nothing else moves by a bit.
    std::shared_ptr<const GuideHierarchy> toDocumentPose(const std::shared_ptr<const GuideHierarchy>& edited);

    // Evaluation.
    /// Never throws: failures end up in the result's lists.
    const EvaluationResult& evaluate(const EvaluateOptions& options);
    const EvaluationResult& result() const { return *result_; }
    std::shared_ptr<const EvaluationResult> sharedResult() const { return result_; }
    /// The failure of the last evaluation, for callers that cannot go on without strands.
    std::exception_ptr pendingException() const { return pendingException_; }
    bool following() const { return follow_.following; }
    std::uint64_t nodesEvaluated() const;
    std::uint64_t nodesIncremental() const;
    double seconds() const { return seconds_; }
    /// The mesh that nodes see: the own scalp first, named ones as pieces behind it.
    ScalpPtr evaluationScalp() { return assembled(document_.scalp); }
    /// What nodes are given, as the last evaluation gave it.
    const EvaluationData& evaluationData() const { return data_; }
    /// Which guides shaped which strands in the last evaluation: of each Interpolate node of the graph's
    /// own that was in use, the one nearest the output first. Throws GraphError as an evaluation does.
    std::vector<GuideSharing> guideSharings();

    // Evaluation on another thread while the session goes on. Null when one cannot start: no graph, a
    // stroke under way, a view node, or `after` belongs to another graph revision.
    std::shared_ptr<DetachedEvaluation> startDetachedEvaluation(const EvaluateOptions& options,
                                                                std::shared_ptr<DetachedEvaluation> after = nullptr);
    /// Takes over the result and the warm graph of a finished evaluation; rethrows its failure. False
    /// when it is not done, or the graph has changed since.
    bool adoptDetached(const std::shared_ptr<DetachedEvaluation>& detached);

    // Reports.
    nlohmann::json stats();
    nlohmann::json hairLook() const;

private:
    struct SerialSlot {
        NodeId node = 0;
        std::uint64_t stamp = 0;
        std::uint64_t serial = 0;
        StrandsPtr strands;
        ScalpPtr restMesh, mesh;  ///< while following, else null
    };
    void advanceTo(double seconds, std::vector<EvaluationMessage>& messages);
    void prepareFollow(std::vector<EvaluationMessage>& messages);
    void fillData(const EvaluateOptions& options, float density);
    void runGraph(const EvaluateOptions& options, EvaluationResult& next);
    void numberResult(const Graph& graph, NodeId node, const StrandsPtr& nodeStrands, EvaluationResult& next);
    void countRevisions(const EvaluationResult& before, bool guidesMoved, EvaluationResult& next);
    void measureBounds(const EvaluateOptions& options, const EvaluationResult& before, EvaluationResult& next);
    std::string nonFiniteText() const;
    void recordScalp();
    void dropSculptGraph();
    void retireGraph();
    void replaceHierarchy(std::shared_ptr<const GuideHierarchy> hierarchy);

    ScalpPtr assembled(const ScalpPtr& own);
    void readParts();
    const std::string& textOf(DocumentSlot slot) const;
    DocumentState stateOf(const DocumentState& like);
    void put(const DocumentState& state, const DocumentState::Text& graph);
    void dropUnchanged(DocumentState& next);
    DocumentState::Text graphToPut(const DocumentState& from, const DocumentState& to);
    UndoOutcome walk(const UndoStep& step, bool back);
    std::shared_ptr<const PartLines> partLines(const ScalpPtr& scalp);
    void readFlow();
    void moveDrawn(const ScalpMesh& old);
    std::shared_ptr<const FlowField> flowField(const ScalpPtr& scalp, const ScalpPtr& cage);

    GroomFile document_;
    std::optional<Graph> graph_;
    std::optional<Graph> sculptGraph_;
    bool usingSculptGraph_ = false;
    std::uint64_t sculptEvaluatedBase_ = 0, sculptIncrementalBase_ = 0;
    std::uint64_t retiredEvaluated_ = 0, retiredIncremental_ = 0;
    std::string graphError_;
    std::uint64_t graphRevision_ = 0;

    std::shared_ptr<const GuideHierarchy> hierarchy_ = std::make_shared<const GuideHierarchy>();
    ScalpPtr bindScalp_;  ///< the pose of a hierarchy without a rest pose
    std::string hierarchyError_;
    std::uint64_t hierarchyRevision_ = 0, hierarchyRevisionReported_ = 0;
    struct {
        std::shared_ptr<const GuideHierarchy> from, result;
        ScalpPtr bind, current;
    } activeCache_;
    GuidesPtr restGuides_;
    std::string guidesError_;
    bool stroking_ = false;
    struct {
        std::shared_ptr<const GuideHierarchy> hierarchy;
        std::shared_ptr<const PartData> parts;
        std::shared_ptr<const FlowData> flow;
        MapCatalogPtr maps;
        std::optional<std::string> documentGraph, graph;  ///< texts, while a live graph stands
    } live_;
    struct {
        std::shared_ptr<const GuideHierarchy> edited, shown, stored, result;
    } carriedBack_;

    UndoStack undo_;
    std::array<StrokeDocument::Text, kDocumentSlots> sharedTexts_;
    DocumentState::Images images_;

    void readCorrectiveLayers();
    /// Guides in a pose with the corrective layers at this frame.
    std::shared_ptr<const GuideHierarchy> corrected(const std::shared_ptr<const GuideHierarchy>& guides,
                                                    const ScalpPtr& pose);
    /// The live guides of a stroke in a layer hold all layers already.
    bool liveIsCorrected() const { return live_.hierarchy && activeCorrective_; }
    std::shared_ptr<const Correctives> correctives_ = std::make_shared<const Correctives>();
    std::string correctiveError_;
    std::optional<std::size_t> activeCorrective_;
    struct Corrected {
        std::shared_ptr<const GuideHierarchy> from, result;
        std::shared_ptr<const Correctives> layers;
        ScalpPtr pose;
        std::vector<float> weights;
    };
    std::array<Corrected, 2> corrected_;  ///< newest first: the evaluated and the shown pose

    std::shared_ptr<const PartData> parts_ = std::make_shared<const PartData>();
    std::string partError_;
    struct {
        std::shared_ptr<const PartData> data;
        ScalpPtr scalp;
        std::shared_ptr<const PartLines> lines;
    } partLines_;
    std::shared_ptr<const FlowData> flow_ = std::make_shared<const FlowData>();
    std::string flowError_;
    struct {
        std::shared_ptr<const FlowData> data;
        ScalpPtr scalp;
        std::shared_ptr<const FlowField> field;
    } flowField_;

    ScalpRefinement refinement_;
    ScalpFollow follow_;
    std::shared_ptr<ScalpHistory> scalpHistory_ = std::make_shared<ScalpHistory>();
    struct Assembled {
        ScalpPtr own, result;
        std::vector<std::pair<std::string, ScalpPtr>> named;
    };
    std::array<Assembled, 2> assembled_;  ///< newest first: the current and the rest pose

    double seconds_ = 0.0;
    std::vector<EvaluationMessage> pendingMessages_;
    std::exception_ptr pendingException_;
    EvaluationData data_;
    std::shared_ptr<const EvaluationResult> result_ = std::make_shared<const EvaluationResult>();
    std::array<SerialSlot, 2> slots_;  ///< main graph, sculpt graph
    std::uint64_t serialCounter_ = 0;
    bool boundsPending_ = false;
    struct {
        ScalpPtr scalp;
        std::shared_ptr<const GuideHierarchy> hierarchy;  ///< the active one
        GuidesPtr flat;
    } lastSeen_;
    std::uint64_t evaluations_ = 0, restEvaluations_ = 0;
};

}  // namespace corvelle
