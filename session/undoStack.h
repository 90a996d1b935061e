#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "expr/mapCatalog.h"
#include "model/guideHierarchy.h"
#include "tools/paintImage.h"
#include "tools/strokeDocument.h"

namespace corvelle {

/// Some parts of a document as they stood at one moment. What is null or absent is not spoken of.
/// All values are shared and immutable, so that neighbouring steps share what did not change
/// between them.
struct DocumentState {
    using Text = StrokeDocument::Text;
    using Images = std::map<std::string, std::shared_ptr<const PaintImage>>;

    std::array<Text, kDocumentSlots> texts;  ///< by DocumentSlot; maps are below, as values
    /// What `texts` of the guides says, read: an undo parses nothing.
    std::shared_ptr<const GuideHierarchy> hierarchy;
    ScalpPtr pose;  ///< the scalp that `hierarchy` lies on
    std::optional<MapCatalogPtr> maps;
    Images images;  ///< the pixels of texture maps, by map; null: none were held

    Text& text(DocumentSlot slot) { return texts[std::size_t(slot)]; }
    const Text& text(DocumentSlot slot) const { return texts[std::size_t(slot)]; }
    bool empty() const;
};

/// One edit: the parts of the document it changed, before and after it.
struct UndoStep {
    std::string label;
    std::string mapsDir;  ///< where the images of texture maps were written
    DocumentState before, after;
};

/// About how many bytes a state holds that `other` does not share.
std::size_t bytesBeside(const DocumentState& state, const DocumentState& other);

/// The edits of a document that can be taken back and made again, newest last. Bounded in number
/// and in memory: the oldest go first; the newest step always stays, however large.
class UndoStack {
public:
    static constexpr std::size_t kMostSteps = 256;
    static constexpr std::size_t kMostBytes = std::size_t(512) << 20;

    explicit UndoStack(std::size_t mostSteps = kMostSteps, std::size_t mostBytes = kMostBytes)
        : mostSteps_(mostSteps), mostBytes_(mostBytes) {}

    /// Adds a step behind the present and drops the steps that could have been made again.
    void push(UndoStep step);
    /// The step that an undo takes back, the one that a redo makes again; null: none.
    const UndoStep* toUndo() const { return done_ > 0 ? &steps_[done_ - 1].step : nullptr; }
    const UndoStep* toRedo() const { return done_ < steps_.size() ? &steps_[done_].step : nullptr; }
    void stepBack();
    void stepForward();
    void clear();

    std::size_t undoDepth() const { return done_; }
    std::size_t redoDepth() const { return steps_.size() - done_; }
    std::size_t bytes() const { return bytes_; }

private:
    struct Held {
        UndoStep step;
        std::size_t bytes = 0;
    };
    std::deque<Held> steps_;
    std::size_t done_ = 0;  ///< steps before the present
    std::size_t bytes_ = 0;
    std::size_t mostSteps_, mostBytes_;
};

}  // namespace corvelle
