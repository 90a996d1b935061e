#include "tools/strokeState.h"

#include <utility>

#include "tools/scalpSides.h"

namespace corvelle {

StrokeState::StrokeState() = default;
StrokeState::~StrokeState() = default;

void StrokeState::takeView(const ToolView& newView) {
    view = newView;
    occlusion = settings.frontFacingOnly ? std::make_shared<const ScreenOcclusionCache>(view, scalp)
                                         : nullptr;
}

std::optional<SurfaceHit> StrokeState::hitAt(float x, float y) const {
    const PickRay ray = view.pickRay(double(x), double(y));
    SurfaceHit hit;
    if (!scalp->rayIntersect(ray.origin, ray.direction, hit)) return {};
    return hit;
}

void StrokeState::goTo(Vec3f place, float pixelsAcross) {
    last = place;
    worldRadius = pixelsAcross * view.pixelSize(place);
    lastNormal = view.towardsEye(place);
    lastOnScalp = false;
    path.push_back(place);
}

void StrokeState::goTo(const SurfaceHit& hit, float pixelsAcross) {
    goTo(hit.position, pixelsAcross);
    lastNormal = scalp->surfaceNormal(hit.root());
    lastOnScalp = true;
}

bool StrokeState::publish(StrokeHost& host) {
    bool shown = tool && tool->settle(*this);
    if (std::exchange(hierarchyStale, false)) {
        host.setLiveHierarchy(std::make_shared<const GuideHierarchy>(hierarchy));
        shown = showsHierarchy = true;
    }
    if (std::exchange(partsStale, false)) {
        host.setLiveParts(std::make_shared<const PartData>(parts));
        shown = showsParts = true;
    }
    if (std::exchange(flowStale, false)) {
        host.setLiveFlow(std::make_shared<const FlowData>(flow));
        shown = showsFlow = true;
    }
    return shown;
}

void StrokeState::withdraw(StrokeHost& host) {
    if (std::exchange(showsHierarchy, false)) host.setLiveHierarchy(nullptr);
    if (std::exchange(showsParts, false)) host.setLiveParts(nullptr);
    if (std::exchange(showsFlow, false)) host.setLiveFlow(nullptr);
}

BrushStamp screenStamp(const StrokeState& state, Vec3f center) {
    BrushStamp stamp;
    stamp.center = center;
    stamp.radius = state.worldRadius;
    stamp.hardness = state.settings.hardness;
    stamp.falloffProfile = state.settings.falloffProfile;
    double x = 0.0, y = 0.0;
    // Behind the camera the circle is nowhere.
    const float radius = state.view.project(center, x, y) ? state.settings.radius : 0.0f;
    stamp.weightFunction = screenBrushWeight(state.view, x, y, radius, stamp.hardness,
                                             stamp.falloffProfile, state.occlusion);
    stamp.reach = screenBrushReach(state.view, x, y, radius);
    stamp.mayReach = screenBrushMayReach(state.view, x, y, radius);
    return stamp;
}

std::optional<OtherSide> otherSide(const StrokeState& state, Vec3f about) {
    const BrushToolSettings& settings = state.settings;
    if (settings.topology) {
        if (!state.mirror) return {};
        const std::optional<SideMap> toOther = sideMap(*state.mirror, *state.scalp, about);
        if (!toOther) return {};
        return OtherSide{toOther->inverse(), *toOther};
    }
    if (settings.symmetry < 0 || settings.symmetry > 2) return {};
    const SideMap flip = planeMap(settings.symmetry, settings.symmetryCenter);
    return OtherSide{flip, flip, settings.symmetry, settings.symmetryCenter};
}

BrushStamp onOtherSide(const BrushStamp& stamp, const OtherSide& side) {
    BrushStamp out = stamp;
    out.center = side.toOther(stamp.center);
    if (side.axis >= 0) {
        out.weightFunction = mirroredWeight(stamp.weightFunction, side.axis, side.plane);
        out.reach = mirroredReach(stamp.reach, side.axis, side.plane);
        out.mayReach = mirroredReach(stamp.mayReach, side.axis, side.plane);
    } else {
        out.weightFunction = mappedWeight(stamp.weightFunction, side.toOriginal);
        out.reach = mappedReach(stamp.reach, side.toOriginal);
        out.mayReach = mappedReach(stamp.mayReach, side.toOriginal);
    }
    return out;
}

}  // namespace corvelle
