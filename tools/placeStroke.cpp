// Strokes that make guides: placed along the pen's way, or drawn in the air.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <utility>

#include "model/elementary.h"
#include "model/polyline.h"
#include "tools/newGuides.h"

namespace corvelle {
namespace {

constexpr float kClickPixels = 3.0f;
constexpr int kMostSteps = 4096;

/// Places in cells of the least distance between them, so that a look at 27 cells finds what is
/// too near.
class SparsePlaces {
public:
    explicit SparsePlaces(float least) : least_(least) {}
    bool isFree(Vec3f place) const {
        const std::array<std::int64_t, 3> at = cellOf(place);
        for (std::int64_t i = 0; i < 27; ++i) {
            const auto cell =
                cells_.find({at[0] + i % 3 - 1, at[1] + i / 3 % 3 - 1, at[2] + i / 9 - 1});
            if (cell == cells_.end()) continue;
            for (const Vec3f& other : cell->second)
                if (distance(other, place) < least_) return false;
        }
        return true;
    }
    void add(Vec3f place) { cells_[cellOf(place)].push_back(place); }

private:
    std::array<std::int64_t, 3> cellOf(Vec3f p) const {
        const auto along = [&](float x) {
            return std::int64_t(std::clamp(std::floor(double(x) / double(least_)), -1e15, 1e15));
        };
        return {along(p.x), along(p.y), along(p.z)};
    }
    float least_;
    std::map<std::array<std::int64_t, 3>, std::vector<Vec3f>> cells_;
};

class PlaceStroke final : public ToolStroke {
public:
    explicit PlaceStroke(const StrokeState& state)
        : makes_(state), roots_(0.999f * std::max(state.settings.spacing, 0.001f)) {}

    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        placeTo(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        placeTo(state, point);
    }
    void viewChanged(StrokeState&) override { before_.reset(); }

private:
    void placeTo(StrokeState& state, const StrokePoint& point) {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return before_.reset();
        state.goTo(*hit, state.settings.radius);
        const float spacing = std::max(state.settings.spacing, 0.001f);
        if (!before_) {
            placeAt(state, *hit);
            toNext_ = spacing;
        } else {
            // A root each `spacing` of the way, whatever the pen's events.
            const float way = distance(*before_, hit->position);
            float at = toNext_;
            for (int step = 0; at <= way && step < kMostSteps; ++step, at += spacing) {
                SurfaceHit onScalp;
                const Vec3f place = mix(*before_, hit->position, at / way);
                if (state.scalp->closestPointFrom(place, ScalpMesh::kAnyDistance, hit->triangle,
                                                  onScalp))
                    placeAt(state, onScalp);
            }
            toNext_ = std::max(at - way, 0.0f);
        }
        before_ = hit->position;
    }

    void placeAt(StrokeState& state, const SurfaceHit& hit) {
        if (!roots_.isFree(hit.position)) return;
        for (const std::uint64_t id : makes_.add(state, hit, makes_.matched(state, hit)))
            if (const GuidePtr guide = state.hierarchy.guide(id)) roots_.add(guide->points.front());
    }

    NewGuides makes_;
    std::optional<Vec3f> before_;
    float toNext_ = 0.0f;  ///< cm of way to the next root
    SparsePlaces roots_;
};

class DrawStroke final : public ToolStroke {
public:
    explicit DrawStroke(const StrokeState& state) : makes_(state) {}

    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) return false;
        root_ = *hit;
        start_ = point;
        state.goTo(root_, state.settings.radius);
        way_.assign(1, root_.position);
        blank_ = state.hierarchy;
        makes_.add(state, root_, makes_.standing(state, root_));
        return true;
    }

    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        isDrag_ = isDrag_ || math::hypot(point.x - start_.x, point.y - start_.y) > kClickPixels;
        if (!isDrag_) return;
        const Vec3f place =
            state.view.placeAtDepth(double(point.x), double(point.y), root_.position);
        if (!isFinite(place) || place == way_.back()) return;
        way_.push_back(place);
        state.goTo(place, state.settings.radius);
        isStale_ = state.hierarchyStale = true;
    }

    /// The guide as drawn so far takes the place of the one before it.
    bool settle(StrokeState& state) override {
        if (!std::exchange(isStale_, false) || !(polylineLength(way_) > 0.0f)) return false;
        std::vector<Vec3f> points(std::size_t(std::max(state.settings.segments, 1)) + 1);
        resamplePolyline(way_, points);
        state.hierarchy = blank_;
        state.newGuides.clear();
        makes_.add(state, root_, makes_.drawn(state, root_, std::move(points)));
        return false;
    }

private:
    NewGuides makes_;
    GuideHierarchy blank_;  ///< without the guide
    SurfaceHit root_;
    StrokePoint start_;
    std::vector<Vec3f> way_;
    bool isDrag_ = false, isStale_ = false;
};

}  // namespace

std::unique_ptr<ToolStroke> makePlaceStroke(StrokeState& state, StrokeHost&) {
    return std::make_unique<PlaceStroke>(state);
}

std::unique_ptr<ToolStroke> makeDrawStroke(StrokeState& state, StrokeHost&) {
    return std::make_unique<DrawStroke>(state);
}

}  // namespace corvelle
