#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tools/brushToolSettings.h"
#include "tools/hover.h"
#include "tools/strokeDocument.h"
#include "tools/strokeHost.h"
#include "tools/toolView.h"

namespace corvelle {

struct StrokeState;

/// A pen event.
struct StrokePoint {
    float x = 0.0f, y = 0.0f;  ///< pixels of the region, from the bottom left
    float pressure = 1.0f;     ///< 0..1
};

/// What a stroke left behind.
struct StrokeResult {
    bool committed = false;           ///< it became an undo step
    std::vector<DocumentSlot> slots;  ///< those written
    std::string label;                ///< of the step
    bool graphChanged = false;
    /// Shift held and the pointer hardly moved: no stroke, but a pick of the guide under it.
    bool picked = false;
    std::uint64_t guide = 0;  ///< the guide picked; 0: none there
    std::int32_t level = 0;   ///< of the guide, else the settings'
    std::string group;
    bool soloed = false;  ///< the pick froze every other guide
};

/// Flags of `scriptedStroke`.
constexpr unsigned kScriptedEnd = 1u;     ///< a drawn part does not commit by itself
constexpr unsigned kScriptedSmooth = 2u;  ///< mode smooth, as Shift + drag

/// Turns a drag of the pen into edits of guides, parts, flow and maps. A stroke is a transaction:
/// from `begin` to `end` it works on copies of its own, which the host shows as live values, and
/// hands the whole result over at `end`. Holds no document. Used on one thread; stamps work in
/// parallel inside and give the same bits at any thread count.
///
/// Errors: std::invalid_argument with the text to show. A `begin` that throws leaves no stroke, a
///         `drag` or `end` that throws leaves the stroke going and the document as it was.
class BrushTool {
public:
    using HoverCache = corvelle::HoverCache;

    BrushTool();
    ~BrushTool();
    BrushTool(BrushTool&&) noexcept;
    BrushTool& operator=(BrushTool&&) noexcept;

    /// Read at `begin`.
    BrushToolSettings settings;

    /// The pen goes down. False when nothing can start; the host is then as it was. Ctrl turns the
    /// tool round, Shift makes it smooth once the pointer has left 3 pixels, and picks inside them.
    bool begin(StrokeHost& host, const ToolView& view, float x, float y, float pressure,
               bool shift = false, bool ctrl = false);
    /// The pen moves. Returns whether the stroke changed something that shows. A view that differs
    /// from the one before is taken over.
    bool drag(StrokeHost& host, const ToolView& view, float x, float y, float pressure);
    bool drag(StrokeHost& host, const ToolView& view, std::span<const StrokePoint> points);
    /// The pen goes up: the result goes to the host in one `commit`, if there is any.
    StrokeResult end(StrokeHost& host, const ToolView& view);
    /// Throws the stroke away.
    void cancel(StrokeHost& host);

    bool dragging() const { return stroke_ != nullptr; }
    /// Since `begin`.
    bool edited() const;
    bool graphChanged() const;  ///< the stroke under way made a map and wired it
    /// Of the stroke under way, Shift and Ctrl taken in: "place", "draw", "part", "flow" or a brush
    /// mode's word; of the settings when there is none.
    const char* modeWord() const;
    /// Where the pen has been, for drawing: groom space, on the scalp or at the depth of the drag.
    std::span<const Vec3f> path() const;
    /// The ring at the last pen position; invalid without a stroke.
    BrushRing ring() const;
    const ToolView* view() const;  ///< of the stroke under way

    /// Lays what a flow drag has gathered. Called by `end`.
    void commitFlow(StrokeHost& host, const ToolView& view);
    /// Turns what the stroke changed into offsets of the active corrective layer, and puts all
    /// layers and that one alone into the document: false when nothing changed. Throws when the
    /// layer has no weight on this frame, as `begin` does. Called by `end`.
    bool commitShot(StrokeHost& host);

    /// A whole stroke: `begin` at the first point, `drag` to each other one, `end`. The settings
    /// are put back at the end, also when it throws. True when anything was edited.
    bool scriptedStroke(StrokeHost& host, const BrushToolSettings& settings, const ToolView& view,
                        std::span<const Vec2f> points, float pressure, unsigned flags,
                        const std::function<void()>& afterEachDrag = {});

    /// What the last stroke handed over.
    const StrokeDocument& strokeDocument() const { return document_; }

private:
    StrokeResult finish(StrokeHost& host, StrokeDocument document, const std::string& label);
    StrokeResult endClick(StrokeHost& host, const ToolView& view);

    std::unique_ptr<StrokeState> stroke_;
    StrokeDocument document_;
    bool edited_ = false;    ///< by the last stroke
    unsigned scripted_ = 0;  ///< flags of the scripted stroke under way
};

/// The document of the tool's last stroke.
inline const StrokeDocument& strokeDocument(const BrushTool& tool) { return tool.strokeDocument(); }

}  // namespace corvelle
