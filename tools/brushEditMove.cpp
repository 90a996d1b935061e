// Brushes that move points one by one: comb, attract, noise, slide.
#include <cmath>

#include "model/hash.h"
#include "model/noise.h"
#include "model/polyline.h"
#include "tools/brushModes.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kNoiseSalt = mix64(0x9015EB2);
constexpr float kNoiseWaves = 3.0f;    // along a guide
constexpr float kNoiseHeight = 0.02f;  // of the guide's length, a stamp
constexpr float kAttractShare = 0.1f;  // of the way, a stamp, at the tip
constexpr float kNoiseRise = 4.0f;     // full from a quarter of the length on

}  // namespace

void combGuide(const BrushWork& work, BrushEdit& edit) {
    if (length(work.drag) == 0.0f || work.settings.strength == 0.0f) return;
    const Vec3f step = work.settings.strength * work.drag;
    for (std::size_t i = 1; i < work.count(); ++i) {
        const float a = work.weights[i] * work.profileAt(i);
        if (a > 0.0f) work.moved(edit)[i] = work.points[i] + a * step;
    }
    if (edit.points.empty()) return;
    if (!work.settings.stretch) return work.keepLengths(edit);
    work.scratch.points.assign(edit.points.begin(), edit.points.end());
    resamplePolyline(work.scratch.points, edit.points);
}

void attractGuide(const BrushWork& work, BrushEdit& edit) {
    const float b = work.strength(-1.0f, 1.0f) * kAttractShare;
    const auto last = float(work.count() - 1);
    for (std::size_t i = 1; i < work.count(); ++i) {
        const float a = work.weights[i] * b * (float(i) / last) * work.profileAt(i);
        if (a != 0.0f) work.moved(edit)[i] = work.points[i] + (work.center - work.points[i]) * a;
    }
    work.keepLengths(edit);
}

void noiseGuide(const BrushWork& work, BrushEdit& edit) {
    const float s = work.settings.strength;
    if (s < 0.0f) return relaxGuide(work, std::min(-s, 1.0f), edit);
    const float whole = polylineLength(work.points);
    if (!(whole > 0.0f) || s == 0.0f) return;
    // By the guide's id: the same pattern at every stamp, so that strokes build it up.
    const std::uint64_t seed = hashCombine(kNoiseSalt, work.guide.id);
    const float height = std::min(s, 1.0f) * kNoiseHeight * whole;
    float l = 0.0f;
    for (std::size_t i = 1; i < work.count(); ++i) {
        const Vec3f before = work.points[i - 1], here = work.points[i];
        l += distance(before, here);
        const float a = work.weights[i] * work.profileAt(i);
        if (!(a > 0.0f)) continue;
        const Vec3f along = normalized(work.points[std::min(i + 1, work.count() - 1)] - before);
        Vec3f v = fbmVector({kNoiseWaves * l / whole, 0.5f, 0.25f}, seed, 2);
        v -= along * dot(v, along);
        work.moved(edit)[i] = here + v * (a * height * std::min(kNoiseRise * l / whole, 1.0f));
    }
    work.keepLengths(edit);
}

void slideGuide(const BrushWork& work, BrushEdit& edit) {
    const float a = work.weights[0] * work.strength(0.0f, 1.0f);
    if (!(a > 0.0f) || length(work.drag) == 0.0f || !work.scalp) return;
    const Vec3f root = work.points[0];
    SurfaceHit hit;
    if (!work.scalp->closestPointFrom(root + a * work.drag, ScalpMesh::kAnyDistance,
                                      work.guide.root.triangle, hit))
        return;
    const Rotation turn = Rotation::shortest(normalized(work.normal()),
                                             normalized(work.scalp->surfaceNormal(hit.root())));
    for (Vec3f& p : work.moved(edit)) p = hit.position + turn(p - root);
}

}  // namespace corvelle
