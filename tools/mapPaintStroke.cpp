// Strokes of paint: over the scalp's maps, or handed on to the guides.
#include <stdexcept>
#include <utility>

#include "tools/mapStroke.h"
#include "tools/strokeState.h"

namespace corvelle {
namespace {

class MapPaintStroke final : public ToolStroke {
public:
    explicit MapPaintStroke(std::unique_ptr<MapStroke> map) : map_(std::move(map)) {}

    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        strokeTo(state, point);
    }
    void viewChanged(StrokeState&) override { sampler_.breakLine(); }
    bool settle(StrokeState&) override {
        if (stale_) map_->publish();
        return std::exchange(stale_, false);
    }
    void document(StrokeState&, StrokeDocument& document) override { map_->finish(document); }
    void withdraw() override { map_->cancel(); }
    bool graphChanged() const override { return map_->graphChanged(); }

private:
    void strokeTo(StrokeState& state, const StrokePoint& point) {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return sampler_.breakLine();
        state.goTo(*hit, state.settings.radius);
        const float strength = state.smooths ? state.smoothStrengthAt(point.pressure)
                                             : state.strengthAt(point.pressure);
        const bool pressed = state.pressed(point.pressure);
        sampler_.moveTo(state.last, state.worldRadius, [&](Vec3f center, Vec3f drag) {
            if (!pressed) return;
            forBothSides(state, center, drag, [&](const BrushStamp& stamp, Vec3f) {
                if (map_->stamp({&stamp, strength, state.smooths})) state.edited = stale_ = true;
            });
        });
    }

    std::unique_ptr<MapStroke> map_;
    StrokeSampler sampler_;
    bool stale_ = false;
};

}  // namespace

std::unique_ptr<ToolStroke> makePaintStroke(StrokeState& state, StrokeHost& host) {
    BrushToolSettings& settings = state.settings;
    if (settings.paramBrush.empty() && settings.paintKind == "guides") {
        if (settings.attribute.empty())
            throw std::invalid_argument("pick a map to paint: the attribute has no name");
        return makeGuidePaintStroke(state, host);
    }
    std::unique_ptr<MapStroke> map = beginMapStroke(host, settings, state.scalp);
    if (map->guideLayer().empty()) return std::make_unique<MapPaintStroke>(std::move(map));
    // The param reads a layer of the guides.
    settings.attribute = map->guideLayer();
    return makeGuidePaintStroke(state, host);
}

}  // namespace corvelle
