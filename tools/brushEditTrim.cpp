// Brushes that change how long or how wide a guide is: length, cut, erase, tube.
#include <algorithm>
#include <cmath>

#include "model/polyline.h"
#include "tools/brushModes.h"

namespace corvelle {
namespace {

constexpr float kGrowth = 0.05f;        // a stamp, at full weight and strength
constexpr float kLeastLength = 0.05f;   // share left by one stamp
constexpr float kLeastCut = 0.02f;      // share a cut leaves
constexpr std::size_t kTubeValues = 8;  // fewest to shape a tube by

float growth(float weight, float strength) {
    return std::max(1.0f + weight * strength * kGrowth, kLeastLength);
}

/// The place at a share 0..1 of a guide by point index.
Vec3f placeByIndex(std::span<const Vec3f> points, float share) {
    const float at = share * float(points.size() - 1);
    const std::size_t i = std::min(std::size_t(at), points.size() - 2);
    return mix(points[i], points[i + 1], at - float(i));
}

}  // namespace

void lengthGuide(const BrushWork& work, BrushEdit& edit) {
    const float s = work.settings.strength;
    if (s == 0.0f) return;
    const float k = growth(work.guideWeight, s);
    const std::span<Vec3f> q = work.moved(edit);
    if (k < 1.0f) return resamplePolyline(work.points, q, k);
    std::vector<Vec3f>& longer = work.scratch.points;
    longer.assign(work.points.begin(), work.points.end());
    const Vec3f along = normalized(longer.back() - longer[longer.size() - 2]);
    longer.push_back(longer.back() + along * ((k - 1.0f) * polylineLength(work.points)));
    resamplePolyline(longer, q);
}

void cutGuide(const BrushWork& work, BrushEdit& edit) {
    const float limit = 0.5f / std::max(work.strength(0.0f, 1.0f), 0.001f);
    const float whole = polylineLength(work.points);
    float l = 0.0f;
    for (std::size_t i = 1; i < work.count(); ++i) {
        const float segment = distance(work.points[i], work.points[i - 1]);
        if (work.weights[i] >= limit) {
            const float half = work.weights[i - 1] < limit ? 0.5f * segment : 0.0f;
            const float k = std::max((l + half) / whole, kLeastCut);
            if (k < 0.999f) resamplePolyline(work.points, work.moved(edit), k);
            return;
        }
        l += segment;
    }
}

void eraseGuide(const BrushWork& work, BrushEdit& edit) {
    edit.erase = work.guideWeight * work.strength(0.0f, 1.0f) >= 0.5f;
}

void tubeGuide(const BrushWork& work, BrushEdit& edit) {
    const float s = work.settings.strength;
    if (s == 0.0f) return;
    const std::vector<float>& radius = work.guide.tubeRadius;
    const std::size_t count = std::max(radius.size(), kTubeValues);
    const auto share = [&](std::size_t j) { return float(j) / float(count - 1); };
    edit.tube.assign(radius.begin(), radius.end());
    if (radius.size() < kTubeValues) {
        edit.tube.resize(count);
        for (std::size_t j = 0; j < count; ++j) edit.tube[j] = tubeProfile(radius, share(j));
    }
    work.scratch.points.resize(count);
    work.scratch.shares.resize(count);
    for (std::size_t j = 0; j < count; ++j)
        work.scratch.points[j] = placeByIndex(work.points, share(j));
    work.stamp.weights(work.scratch.points, work.scratch.shares);
    bool touched = false;
    for (std::size_t j = 0; j < count; ++j) {
        const float a = work.scratch.shares[j] * work.scale;
        if (!(a > 0.0f)) continue;
        touched = true;
        edit.tube[j] *= growth(a, s);
    }
    if (!touched) edit.tube.clear();
}

}  // namespace corvelle
