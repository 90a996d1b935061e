// Strokes that shape, trim or erase guides, part lines and flow arrows.
#include <optional>
#include <utility>

#include "tools/guideStamp.h"
#include "tools/smoothPasses.h"
#include "tools/strokeState.h"
#include "tools/targetStamp.h"

namespace corvelle {
namespace {

/// The depth of a drag: the guide point seen nearest the pointer inside the brush's circle, else
/// the scalp under it, else what the view turns about, else the scalp's middle.
Vec3f anchorOf(const StrokeState& state, const GuideStamper& guides,
               std::span<const GuideCandidate> candidates, const StrokePoint& point) {
    const double x = double(point.x), y = double(point.y);
    const BoxReach reach = screenBrushReach(state.view, x, y, state.settings.radius);
    const BoxReach mayReach = screenBrushMayReach(state.view, x, y, state.settings.radius);
    BrushStamp stamp;
    stamp.weightFunction = PointWeight([](std::span<const Vec3f>, std::span<float>) {});
    stamp.reach = reach;
    stamp.mayReach = mayReach;
    std::vector<std::uint32_t> reached;
    guides.boxes().reached(stamp, reached);
    double nearest = double(state.settings.radius) * double(state.settings.radius);
    std::optional<Vec3f> anchor;
    for (const std::uint32_t item : reached) {
        for (const Vec3f& p : guides.guide(candidates[item]).points) {
            double px = 0.0, py = 0.0;
            if (!state.view.project(p, px, py)) continue;
            const double d = (px - x) * (px - x) + (py - y) * (py - y);
            if (!(d < nearest) || (state.occlusion && state.occlusion->hidden(p))) continue;
            nearest = d;
            anchor = p;
        }
    }
    if (anchor) return *anchor;
    if (const auto hit = state.hitAt(point.x, point.y)) return hit->position;
    if (state.view.target) return *state.view.target;
    return (state.scalp->boundsMin() + state.scalp->boundsMax()) * 0.5f;
}

class ShapeStroke : public ToolStroke {
public:
    ShapeStroke(StrokeState& state, StrokeHost& host)
        : guides_(state.hierarchy,
                  worksOnGuides(state.settings)
                      ? guideCandidates(state.hierarchy, state.settings, host.hiddenGroups(),
                                        [&](int level) { return host.levelStrength(level); })
                      : std::vector<GuideCandidate>(),
                  state.scalp.get(), state.settings.propagate) {}

    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        onScalp_ = state.settings.mode == BrushMode::Slide;
        anchor_ = anchorOf(state, guides_, guides_.candidateList(), point);
        strokeTo(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
    }
    void viewChanged(StrokeState& state) override {
        if (!state.path.empty()) anchor_ = state.path.back();
        sampler_.breakLine();
    }
    bool settle(StrokeState& state) override {
        guides_.commit();
        state.touched.insert(guides_.touched().begin(), guides_.touched().end());
        std::erase_if(state.touched, [&](std::uint64_t id) { return !state.hierarchy.guide(id); });
        return false;
    }

protected:
    static bool worksOnGuides(const BrushToolSettings& settings) {
        if (settings.mode == BrushMode::Erase) return settings.eraseGuides;
        return settings.mode == BrushMode::Paint || settings.targets.guides;
    }

    virtual void stampGuides(StrokeState& state, const BrushToolSettings& settings,
                             const BrushStamp& stamp, Vec3f drag) {
        if (guides_.stamp(settings, stamp, drag) > 0) state.edited = state.hierarchyStale = true;
    }

    GuideStamper guides_;

private:
    void strokeTo(StrokeState& state, const StrokePoint& point) {
        if (onScalp_) {
            const auto hit = state.hitAt(point.x, point.y);
            if (!hit) return sampler_.breakLine();
            state.goTo(*hit, state.settings.radius);
        } else {
            state.goTo(state.view.placeAtDepth(double(point.x), double(point.y), anchor_),
                       state.settings.radius);
        }
        BrushToolSettings settings = state.settings;
        settings.strength = state.strengthAt(point.pressure);
        settings.smoothStrength = state.smoothStrengthAt(point.pressure);
        const bool pressed = state.pressed(point.pressure);
        sampler_.moveTo(state.last, state.worldRadius, [&](Vec3f center, Vec3f drag) {
            if (!pressed) return;
            forBothSides(state, center, drag, [&](const BrushStamp& stamp, Vec3f sideDrag) {
                stampAll(state, settings, stamp, sideDrag);
            });
        });
    }

    void stampAll(StrokeState& state, const BrushToolSettings& settings, const BrushStamp& stamp,
                  Vec3f drag) {
        if (guides_.candidates() > 0) stampGuides(state, settings, stamp, drag);
        const bool erases = settings.mode == BrushMode::Erase;
        const bool paints = settings.mode == BrushMode::Paint;
        if ((erases ? settings.eraseParts : settings.targets.parts && !paints) &&
            stampParts(state.parts, *state.scalp, settings, stamp, drag))
            state.edited = state.partsStale = true;
        if ((erases ? settings.eraseFlow : settings.targets.flow && !paints) &&
            stampFlow(state.flow, *state.scalp, settings, stamp, drag))
            state.edited = state.flowStale = true;
    }

    StrokeSampler sampler_;
    Vec3f anchor_;
    bool onScalp_ = false;
};

/// Paint on an attribute of the guides.
class GuidePaintStroke final : public ShapeStroke {
public:
    using ShapeStroke::ShapeStroke;

protected:
    void stampGuides(StrokeState& state, const BrushToolSettings& settings, const BrushStamp& stamp,
                     Vec3f drag) override {
        if (!state.smooths) return ShapeStroke::stampGuides(state, settings, stamp, drag);
        if (smoothPasses(settings.smoothStrength, [&](float strength) {
                return guides_.smoothLayer(settings, stamp, strength) > 0;
            }))
            state.edited = state.hierarchyStale = true;
    }
};

}  // namespace

std::unique_ptr<ToolStroke> makeShapeStroke(StrokeState& state, StrokeHost& host) {
    return std::make_unique<ShapeStroke>(state, host);
}

std::unique_ptr<ToolStroke> makeGuidePaintStroke(StrokeState& state, StrokeHost& host) {
    return std::make_unique<GuidePaintStroke>(state, host);
}

}  // namespace corvelle
