// Strokes on the flow: arrows laid, combed or taken away, and sinks set.
#include <algorithm>
#include <stdexcept>

#include "tools/strokeState.h"
#include "tools/targetStamp.h"

namespace corvelle {
namespace {

constexpr float kPinsPerRadius = 2.0f;
constexpr int kMostSteps = 4096;

/// Combs or erases the arrows under the brush.
class FlowBrush final : public ToolStroke {
public:
    explicit FlowBrush(bool erases) : erases_(erases) {}
    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
    }
    void viewChanged(StrokeState&) override { sampler_.breakLine(); }

private:
    void strokeTo(StrokeState& state, const StrokePoint& point) {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return sampler_.breakLine();
        state.goTo(*hit, state.settings.radius);
        BrushToolSettings settings = state.settings;
        settings.mode = erases_ ? BrushMode::Erase : BrushMode::Comb;
        settings.strength = state.strengthAt(point.pressure);
        const bool pressed = state.pressed(point.pressure);
        sampler_.moveTo(state.last, state.worldRadius, [&](Vec3f center, Vec3f drag) {
            if (pressed &&
                stampFlow(state.flow, *state.scalp, settings, screenStamp(state, center), drag))
                state.edited = state.flowStale = true;
        });
    }

    bool erases_;
    StrokeSampler sampler_;
};

/// One sink where the pen went down.
class SinkStroke final : public ToolStroke {
public:
    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return false;
        state.goTo(*hit, state.settings.radius);
        state.flow.sinks.push_back({.at = hit->root(),
                                    .angle = flowSinkAngle(state.settings.flowSink),
                                    .radius = state.worldRadius});
        state.edited = state.flowStale = true;
        return true;
    }
    void move(StrokeState&, StrokeHost&, const StrokePoint&) override {}
};

/// Arrows along the pen's way, two a radius.
class PinStroke final : public ToolStroke {
public:
    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        for (const FlowPin& pin : state.flow.pins) line_ = std::max(line_, pin.line);
        line_ = line_ < 0x7fffffff ? line_ + 1 : line_;
        strokeTo(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
    }
    void viewChanged(StrokeState&) override { before_.reset(); }

private:
    void strokeTo(StrokeState& state, const StrokePoint& point) {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return before_.reset();
        state.goTo(*hit, state.settings.radius);
        if (!before_) {
            before_ = hit->position;
            toNext_ = 0.0f;
            return;
        }
        const float way = distance(*before_, hit->position);
        if (!(way > 0.0f)) return;
        const Vec3f direction = (hit->position - *before_) / way;
        const float spacing = std::max(state.worldRadius / kPinsPerRadius, 1e-4f);
        float at = toNext_;
        for (int step = 0; at < way && step < kMostSteps; ++step, at += spacing)
            lay(state, mix(*before_, hit->position, at / way), direction, hit->triangle);
        toNext_ = std::max(at - way, 0.0f);
        before_ = hit->position;
    }

    void lay(StrokeState& state, Vec3f place, Vec3f direction, std::int32_t near) {
        SurfaceHit hit;
        if (!state.scalp->closestPointFrom(place, ScalpMesh::kAnyDistance, near, hit)) return;
        const Vec3f normal = state.scalp->faceNormal(hit.triangle);
        if (length(direction - normal * dot(direction, normal)) < 1e-4f) return;  // into the scalp
        FlowPin pin = flowPin(*state.scalp, hit.root(), direction);
        pin.line = line_;
        state.flow.pins.push_back(pin);
        state.edited = state.flowStale = true;
    }

    std::int32_t line_ = -1;
    std::optional<Vec3f> before_;
    float toNext_ = 0.0f;  ///< cm of way to the next arrow
};

/// Lays arrows, or combs when the press has one under the brush.
class FlowStroke final : public ToolStroke {
public:
    bool press(StrokeState& state, StrokeHost& host, const StrokePoint& point) override {
        inner_ = std::make_unique<PinStroke>();
        if (const auto hit = state.hitAt(point.x, point.y)) {
            state.goTo(*hit, state.settings.radius);
            state.path.clear();
            const BrushStamp stamp = screenStamp(state, hit->position);
            const auto isSeen = [&](const FlowPin& pin) {
                return state.scalp->validRoot(pin.at) &&
                       stamp.weight(state.scalp->surfacePoint(pin.at)) > 0.0f;
            };
            if (std::any_of(state.flow.pins.begin(), state.flow.pins.end(), isSeen))
                inner_ = std::make_unique<FlowBrush>(false);
        }
        return inner_->press(state, host, point);
    }
    void move(StrokeState& state, StrokeHost& host, const StrokePoint& point) override {
        inner_->move(state, host, point);
    }
    void viewChanged(StrokeState& state) override { inner_->viewChanged(state); }

private:
    std::unique_ptr<ToolStroke> inner_;
};

}  // namespace

std::unique_ptr<ToolStroke> makeFlowStroke(const StrokeState& state) {
    if (state.ctrl) return std::make_unique<FlowBrush>(true);
    if (!state.settings.flowSink.empty()) return std::make_unique<SinkStroke>();
    return std::make_unique<FlowStroke>();
}

}  // namespace corvelle
