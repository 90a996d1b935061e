// Strokes that draw parts.
#include "tools/partStroke.h"

#include <optional>
#include <stdexcept>

#include "tools/strokeState.h"

namespace corvelle {
namespace {

constexpr float kLeastStep = 0.002f;  // of the scalp's diagonal, from point to point
constexpr char kTooFew[] = "a part needs at least two points on the scalp";

class PartStroke final : public ToolStroke {
public:
    bool press(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        move(state, point);
        return true;
    }
    void move(StrokeState& state, StrokeHost&, const StrokePoint& point) override {
        move(state, point);
    }
    void viewChanged(StrokeState&) override { isBroken_ = true; }

    /// The parts with what is drawn so far.
    bool settle(StrokeState& state) override {
        if (state.partsStale) {
            state.parts = *state.partsBefore;
            append(state, nullptr);
        }
        return false;
    }

    void release(StrokeState& state, StrokeHost& host) override {
        state.parts = *state.partsBefore;
        if (lines_.empty()) host.addWarning(kTooFew);
        if (!state.isScriptedEnd) append(state, &host);
        state.edited = !(state.parts == *state.partsBefore);
    }

private:
    void move(StrokeState& state, const StrokePoint& point) {
        const auto hit = state.hitAt(point.x, point.y);
        if (!hit) {
            isBroken_ = true;
            return;
        }
        if (isBroken_) lines_.emplace_back();
        isBroken_ = false;
        lines_.back().push_back(hit->position);
        state.goTo(*hit, state.settings.radius);
        state.partsStale = state.edited = true;
    }

    /// Each unbroken run of the stroke is a line, and so is its mirror image; what makes none is
    /// told to `host`, if any.
    void append(StrokeState& state, StrokeHost* host) {
        for (const std::vector<Vec3f>& places : lines_) {
            const std::optional<PartLine> line = lineOf(state, places, host);
            if (!line) continue;
            state.parts.lines.push_back(*line);
            std::vector<Vec3f> other;
            for (const Vec3f& place : places)
                if (const auto side = otherSide(state, place))
                    other.push_back(side->toOther(place));
            if (other.size() != places.size()) continue;
            const std::optional<PartLine> mirrored = lineOf(state, other, nullptr);
            // A part along the middle is its own mirror image.
            if (mirrored && !(*mirrored == *line)) state.parts.lines.push_back(*mirrored);
        }
    }

    static std::optional<PartLine> lineOf(const StrokeState& state, std::span<const Vec3f> places,
                                          StrokeHost* host) {
        try {
            return partFromStroke(*state.scalp, state.settings.partName, places);
        } catch (const std::invalid_argument& error) {
            if (host) host->addWarning(error.what());
            return {};
        }
    }

    std::vector<std::vector<Vec3f>> lines_;
    bool isBroken_ = true;
};

}  // namespace

PartLine partFromStroke(const ScalpMesh& scalp, const std::string& name,
                        std::span<const Vec3f> places) {
    const float least = kLeastStep * distance(scalp.boundsMin(), scalp.boundsMax());
    std::vector<Vec3f> kept;
    for (const Vec3f& place : places)
        if (kept.empty() || distance(place, kept.back()) >= least) kept.push_back(place);
    if (kept.size() < 2) throw std::invalid_argument("a part needs a longer stroke");
    PartLine line{.name = name, .points = {}};
    for (const Vec3f& place : kept) {
        SurfaceHit hit;
        if (scalp.closestPoint(place, ScalpMesh::kAnyDistance, hit))
            line.points.push_back(hit.root());
    }
    if (line.points.size() < 2) throw std::invalid_argument(kTooFew);
    return line;
}

std::unique_ptr<ToolStroke> makePartStroke() { return std::make_unique<PartStroke>(); }

}  // namespace corvelle
