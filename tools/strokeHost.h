#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "expr/mapCatalog.h"
#include "model/correctives.h"
#include "model/flowData.h"
#include "model/guideHierarchy.h"
#include "model/partData.h"
#include "model/scalpMesh.h"
#include "tools/strokeDocument.h"

namespace corvelle {

/// What holds the groom that a stroke edits. The tools reach a document through this alone; they
/// know neither sessions nor requests. Used on the thread that serves the stroke. Groom space.
class StrokeHost {
public:
    virtual ~StrokeHost() = default;

    // What is there. Immutable, shared values: a stroke copies what it will change.
    virtual bool hasGroom() const = 0;
    virtual ScalpPtr scalp() = 0;  ///< the pose shown; null: none
    virtual ScalpPtr restScalp() { return scalp(); }
    virtual std::shared_ptr<const GuideHierarchy> hierarchy() = 0;  ///< the document's, rest pose
    virtual std::shared_ptr<const GuideHierarchy> editHierarchy() = 0;  ///< on the scalp as shown
    virtual std::shared_ptr<const PartData> parts() = 0;
    virtual std::shared_ptr<const FlowData> flow() = 0;
    virtual MapCatalogPtr maps() = 0;  ///< may be null
    virtual std::string graphText() = 0;
    virtual std::shared_ptr<const PaintImage> image(
        const std::string& map) = 0;  ///< throws when it does not read

    /// Where the image of a new texture map will lie.
    virtual std::string newMapFile(const std::string& map) { return map + ".png"; }

    // Who takes part.
    virtual std::shared_ptr<const std::map<std::uint64_t, float>> selectionWeights() {
        return nullptr;
    }
    virtual std::shared_ptr<const std::set<std::uint64_t>> frozenGuides() { return nullptr; }
    virtual std::set<std::string> hiddenGroups() { return {}; }
    virtual float levelStrength(int /*level*/) { return 1.0f; }

    // Correctives.
    virtual std::shared_ptr<const Correctives> correctives() { return nullptr; }
    virtual bool isCorrectiveActive() { return false; }
    virtual std::size_t activeCorrective() { return 0; }  ///< the layer strokes go into
    /// While strokes go into a layer `editHierarchy` has every layer at the frame: this is it
    /// without any. Must be overridden by hosts with layers.
    virtual std::shared_ptr<const GuideHierarchy> bareHierarchy() { return editHierarchy(); }
    virtual double frame() { return 0.0; }

    // The stroke under way. Live values are published as shared snapshots, never serialised.
    virtual void setStrokeActive(bool active) = 0;
    virtual void setLiveHierarchy(
        std::shared_ptr<const GuideHierarchy> live) = 0;  ///< as shown; null: none
    virtual void setLiveParts(std::shared_ptr<const PartData> live) = 0;
    virtual void setLiveFlow(std::shared_ptr<const FlowData> live) = 0;
    virtual void setLiveMaps(MapCatalogPtr live) = 0;
    /// A graph that reads a map the stroke has made; empty: the document's again.
    virtual void setLiveGraph(const std::string& text) = 0;

    /// The end of a stroke: the texts replace the document's, as one undo step. False when they say
    /// what the document says already: no step.
    virtual bool commit(StrokeDocument document, const std::string& label) = 0;
    /// From the pose shown to the document's: only guides that are not the very ones of
    /// `editHierarchy` are carried, the others keep their bits.
    virtual GuideHierarchy toDocumentPose(const GuideHierarchy& edited) = 0;

    virtual void notify(const std::string& text) = 0;      ///< for the user
    virtual void addWarning(const std::string& text) = 0;  ///< with the current answer
};

}  // namespace corvelle
