#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "model/guideHierarchy.h"
#include "model/scalpMirror.h"
#include "tools/brushTool.h"
#include "tools/brushToolSettings.h"
#include "tools/brushWeight.h"
#include "tools/screenOcclusion.h"
#include "tools/strokeDocument.h"
#include "tools/strokeHost.h"
#include "tools/toolView.h"

namespace corvelle {

class ToolStroke;

/// The stroke under way: what it works on, all of it its own.
struct StrokeState {
    StrokeState();
    ~StrokeState();

    BrushToolSettings settings;  ///< Shift and Ctrl taken in
    ToolView view;
    ScalpPtr scalp;                             ///< as shown, with triangles
    std::shared_ptr<const ScalpMirror> mirror;  ///< under topology symmetry; null: none that serves
    std::shared_ptr<const ScreenOcclusionCache> occlusion;  ///< null: nothing is hidden

    std::shared_ptr<const GuideHierarchy> hierarchyBefore;
    GuideHierarchy hierarchy;
    std::shared_ptr<const PartData> partsBefore;  ///< never null
    PartData parts;
    std::shared_ptr<const FlowData> flowBefore;  ///< never null
    FlowData flow;
    std::set<std::uint64_t> touched;    ///< guides the tool itself changed
    std::set<std::uint64_t> newGuides;  ///< guides it made
    bool edited = false;                ///< by any of its steps
    bool isCorrective = false;          ///< strokes go into a layer of correctives
    bool isScriptedEnd = false;
    bool smooths = false;  ///< Shift: paint smooths

    // What the host has not been shown yet.
    bool hierarchyStale = false, partsStale = false, flowStale = false;
    bool showsHierarchy = false, showsParts = false, showsFlow = false;

    std::vector<Vec3f> path;
    Vec3f last;                ///< where the pen is, in the scene
    float worldRadius = 0.0f;  ///< cm, of the brush there
    Vec3f lastNormal;
    bool lastOnScalp = false;

    // A press with Shift waits until it is a drag or a click.
    bool shift = false, waiting = false, ctrl = false;
    StrokePoint press;
    BrushToolSettings given;  ///< as the artist left them, of which a pick is made
    std::string label;

    std::unique_ptr<ToolStroke> tool;

    void takeView(const ToolView& newView);
    /// The scalp under a pixel.
    std::optional<SurfaceHit> hitAt(float x, float y) const;
    void goTo(Vec3f place, float pixelsAcross);
    void goTo(const SurfaceHit& hit, float pixelsAcross);
    float strengthAt(float pressure) const {
        return settings.pressure ? settings.strength * pressure : settings.strength;
    }
    /// A painting brush of any strength smooths by this setting of its own.
    float smoothStrengthAt(float pressure) const {
        return settings.pressure ? settings.smoothStrength * pressure : settings.smoothStrength;
    }
    bool pressed(float pressure) const { return !settings.pressure || pressure > 0.0f; }
    /// Shows the host what changed since the last time; whether anything did.
    bool publish(StrokeHost& host);
    /// Takes all that back.
    void withdraw(StrokeHost& host);
};

/// One kind of tool at work. Errors are thrown as std::invalid_argument.
class ToolStroke {
public:
    virtual ~ToolStroke() = default;
    /// The press; false: nothing can start here.
    virtual bool press(StrokeState& state, StrokeHost& host, const StrokePoint& point) = 0;
    virtual void move(StrokeState& state, StrokeHost& host, const StrokePoint& point) = 0;
    /// Before the host is shown the step: takes gathered edits in. True when it has shown the host
    /// something itself.
    virtual bool settle(StrokeState&) { return false; }
    /// The release.
    virtual void release(StrokeState&, StrokeHost&) {}
    /// What it puts into the document beside guides, parts and flow.
    virtual void document(StrokeState&, StrokeDocument&) {}
    /// Takes back what it has shown the host itself: the document shows it now, or nothing does.
    virtual void withdraw() {}
    virtual bool graphChanged() const { return false; }
    /// The view has changed.
    virtual void viewChanged(StrokeState&) {}
};

std::unique_ptr<ToolStroke> makePlaceStroke(StrokeState& state, StrokeHost& host);
std::unique_ptr<ToolStroke> makeDrawStroke(StrokeState& state, StrokeHost& host);
std::unique_ptr<ToolStroke> makePartStroke();
std::unique_ptr<ToolStroke> makeFlowStroke(const StrokeState& state);
/// Of shaping, trimming and erasing.
std::unique_ptr<ToolStroke> makeShapeStroke(StrokeState& state, StrokeHost& host);
/// Of paint on an attribute of the guides.
std::unique_ptr<ToolStroke> makeGuidePaintStroke(StrokeState& state, StrokeHost& host);
/// Of paint, on guides or on a map of the scalp.
std::unique_ptr<ToolStroke> makePaintStroke(StrokeState& state, StrokeHost& host);

/// The stamps along the pen's way: four a radius, each with its share of the motion.
class StrokeSampler {
public:
    void breakLine() { previous_.reset(); }
    /// Calls stamp(center, drag) for a new position: for the first one with no drag, then from the
    /// position before up to, not including, the new one. At most 4096 stamps a call.
    template <class Stamp>
    void moveTo(Vec3f place, float radius, Stamp&& stamp) {
        if (!previous_) {
            previous_ = place;
            return stamp(place, Vec3f{});
        }
        const Vec3f start = *previous_, segment = place - start;
        const float spacing = std::max(radius * 0.25f, 0.0001f);
        const int steps = int(std::clamp(std::floor(length(segment) / spacing), 1.0f, 4096.0f));
        const Vec3f delta = segment / float(steps);
        previous_ = place;
        for (int k = 0; k < steps; ++k) stamp(start + delta * float(k), delta);
    }

private:
    std::optional<Vec3f> previous_;
};

/// A stamp of the screen's circle about where `center` is seen; its sphere is the world radius.
BrushStamp screenStamp(const StrokeState& state, Vec3f center);
/// What the stroke's symmetry makes of a place on the other side; the map takes that side back to
/// the stroke's own. Empty without symmetry.
struct OtherSide {
    SideMap toOriginal, toOther;
    int axis = -1;  ///< of a plane
    float plane = 0.0f;
};
std::optional<OtherSide> otherSide(const StrokeState& state, Vec3f about);
BrushStamp onOtherSide(const BrushStamp& stamp, const OtherSide& side);

/// Calls run(stamp, drag) for the stamp and then for its mirror image.
template <class Run>
void forBothSides(const StrokeState& state, Vec3f center, Vec3f drag, Run&& run) {
    const BrushStamp stamp = screenStamp(state, center);
    run(stamp, drag);
    const std::optional<OtherSide> side = otherSide(state, center);
    if (side) run(onOtherSide(stamp, *side), side->toOther.direction(drag));
}

}  // namespace corvelle
