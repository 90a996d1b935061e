#include "tools/targetStamp.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "model/polyline.h"

namespace corvelle {
namespace {

constexpr float kTouched = 0.5f;  // weight times strength from which things go

/// One line under one stamp.
struct Line {
    const PartLine& line;
    const ScalpMesh& scalp;
    const BrushToolSettings& settings;
    const BrushStamp& stamp;
    Vec3f drag;
    std::vector<Vec3f> places;
    std::vector<float> weights;

    float strength(float low) const { return std::clamp(settings.strength, low, 1.0f); }
    std::size_t size() const { return places.size(); }
};

Vec3f chordPlace(const Line& line, std::size_t i) {
    const auto share = float(i) / float(line.size() - 1);
    return mix(line.places.front(), line.places.back(), share);
}

/// Where the stamp takes point i.
Vec3f movedPlace(const Line& line, std::size_t i, const Rotation& twist) {
    const Vec3f p = line.places[i];
    const float w = line.weights[i];
    const bool inner = i > 0 && i + 1 < line.size();
    switch (line.settings.mode) {
        case BrushMode::Comb:
            return p + line.drag * (w * line.settings.strength);
        case BrushMode::Smooth:
            if (!inner) return p;
            return mix(p, (line.places[i - 1] + line.places[i + 1]) * 0.5f,
                       w * line.strength(0.0f) * 0.5f);
        case BrushMode::Straighten:
            return inner ? mix(p, chordPlace(line, i), w * line.strength(0.0f) * 0.5f) : p;
        case BrushMode::Twist:
            return mix(p, line.stamp.center + twist(p - line.stamp.center), w);
        case BrushMode::Attract:
            return mix(p, line.stamp.center, w * line.strength(-1.0f) * 0.1f);
        default:
            return p;
    }
}

bool onScalp(const ScalpMesh& scalp, Vec3f place, std::int32_t near, StrandRoot& root) {
    SurfaceHit hit;
    if (!scalp.closestPointFrom(place, ScalpMesh::kAnyDistance, near, hit)) return false;
    root = hit.root();
    return true;
}

bool movePoints(const Line& line, PartLine& out) {
    Rotation twist;
    if (line.settings.mode == BrushMode::Twist) {
        SurfaceHit hit;
        if (!line.scalp.closestPoint(line.stamp.center, ScalpMesh::kAnyDistance, hit)) return false;
        twist = Rotation::about(line.scalp.surfaceNormal(hit.root()), line.strength(-1.0f) * 0.1f);
    }
    bool changed = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (!(line.weights[i] > 0.0f)) continue;
        const Vec3f to = movedPlace(line, i, twist);
        if (to == line.places[i]) continue;
        changed |= onScalp(line.scalp, to, out.points[i].triangle, out.points[i]);
    }
    return changed;
}

/// Grows (or trims) the ends that the stamp touches, along the line.
bool growEnds(const Line& line, PartLine& out) {
    const float whole = polylineLength(line.places);
    if (!(whole > 0.0f)) return false;
    bool changed = false;
    const auto end = [&](std::size_t at, std::size_t beside) {
        const float amount = 0.05f * line.settings.strength * line.weights[at] * whole;
        if (amount == 0.0f) return;
        const Vec3f way = line.places[at] - line.places[beside];
        // Trimmed no further than just before the next point: a line keeps its points.
        const float step = std::max(amount, -0.9f * length(way));
        changed |= onScalp(line.scalp, line.places[at] + normalized(way) * step,
                           out.points[at].triangle, out.points[at]);
    };
    end(0, 1);
    end(line.size() - 1, line.size() - 2);
    return changed;
}

/// The pieces of a line beside the points the brush cuts out.
std::vector<PartLine> pieces(const Line& line) {
    std::vector<PartLine> out;
    PartLine piece{.name = line.line.name, .points = {}};
    const auto close = [&] {
        if (piece.points.size() >= 2) out.push_back(piece);
        piece.points.clear();
    };
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line.weights[i] * line.strength(0.0f) >= kTouched)
            close();
        else
            piece.points.push_back(line.line.points[i]);
    }
    close();
    return out;
}

}  // namespace

std::vector<Vec3f> partPlaces(const PartLine& line, const ScalpMesh& scalp) {
    std::vector<Vec3f> out;
    out.reserve(line.points.size());
    for (const StrandRoot& root : line.points) out.push_back(scalp.surfacePoint(root));
    return out;
}

bool stampParts(PartData& parts, const ScalpMesh& scalp, const BrushToolSettings& settings,
                const BrushStamp& stamp, Vec3f drag) {
    bool changed = false;
    std::vector<PartLine> kept;
    kept.reserve(parts.lines.size());
    for (PartLine& part : parts.lines) {
        Line line{part, scalp, settings, stamp, drag, partPlaces(part, scalp), {}};
        line.weights.resize(line.size());
        stamp.weights(line.places, line.weights);
        const float most = *std::max_element(line.weights.begin(), line.weights.end());
        if (!(most > 0.0f)) {
            kept.push_back(std::move(part));
            continue;
        }
        if (settings.mode == BrushMode::Erase && most * line.strength(0.0f) >= kTouched) {
            changed = true;
            continue;
        }
        if (settings.mode == BrushMode::Cut) {
            std::vector<PartLine> left = pieces(line);
            changed |= left.size() != 1 || left.front().points.size() != part.points.size();
            std::move(left.begin(), left.end(), std::back_inserter(kept));
            continue;
        }
        PartLine next = part;
        changed |=
            settings.mode == BrushMode::Length ? growEnds(line, next) : movePoints(line, next);
        kept.push_back(std::move(next));
    }
    parts.lines = std::move(kept);
    return changed;
}

bool stampFlow(FlowData& flow, const ScalpMesh& scalp, const BrushToolSettings& settings,
               const BrushStamp& stamp, Vec3f drag) {
    const float s = std::clamp(settings.strength, 0.0f, 1.0f);
    const auto weightOf = [&](const StrandRoot& root) {
        return scalp.validRoot(root) ? stamp.weight(scalp.surfacePoint(root)) : 0.0f;
    };
    const auto touches = [&](const auto& entry) { return weightOf(entry.at) * s >= kTouched; };
    std::size_t changed = 0;
    if (settings.mode == BrushMode::Cut || settings.mode == BrushMode::Erase)
        changed += std::erase_if(flow.pins, touches);
    if (settings.mode == BrushMode::Erase) changed += std::erase_if(flow.sinks, touches);
    const Vec3f way = normalized(drag);
    if (settings.mode != BrushMode::Comb || way == Vec3f{}) return changed > 0;
    for (FlowPin& pin : flow.pins) {
        const float a = std::min(weightOf(pin.at) * std::abs(settings.strength), 1.0f);
        if (!(a > 0.0f)) continue;
        const Vec3f normal = scalp.faceNormal(pin.at.triangle);
        const Vec3f onto =
            normalized(way - normal * dot(way, normal)) * (settings.strength < 0.0f ? -1.0f : 1.0f);
        Vec3f turned = mix(flowPinDirection(scalp, pin), onto, a);
        // Straight against the drag, half way round is nowhere: it turns about the normal.
        if (length(turned) < 1e-4f) turned = cross(normal, onto);
        if (!(length(onto) > 0.5f)) continue;
        const std::int32_t line = pin.line;
        pin = flowPin(scalp, pin.at, turned);
        pin.line = line;
        ++changed;
    }
    return changed > 0;
}

}  // namespace corvelle
