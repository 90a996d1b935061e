#include "tools/brushEdit.h"

#include <array>
#include <cmath>

#include "model/polyline.h"
#include "tools/brushModes.h"

namespace corvelle {
namespace {

// By the numbers of the modes.
constexpr std::array<BrushModeFunction, 15> kModes = {
    combGuide,  smoothGuide, liftGuide,  lengthGuide,     tubeGuide,
    paintGuide, twistGuide,  curlGuide,  straightenGuide, attractGuide,
    eraseGuide, cutGuide,    slideGuide, directionGuide,  noiseGuide};

std::span<const float> strengthProfile(const BrushToolSettings& settings,
                                       std::span<const Vec3f> points, BrushScratch& scratch) {
    if (!settings.strengthProfile) return {};
    scratch.profile.resize(points.size());
    polylineShares(points, scratch.profile);
    settings.strengthProfile->sample(scratch.profile, scratch.profile);
    return scratch.profile;
}

}  // namespace

bool BrushEdit::empty() const {
    return !erase && tube.empty() && points.empty() && pointWeights.empty() &&
           std::isnan(attributeValue);
}

bool BrushEdit::movesOnly() const {
    return !points.empty() && !erase && tube.empty() && pointWeights.empty() &&
           std::isnan(attributeValue);
}

void BrushEdit::clear() {
    points.clear();
    tube.clear();
    pointWeights.clear();
    attributeValue = std::numeric_limits<float>::quiet_NaN();
    erase = false;
}

void brushEdit(const Guide& guide, const ScalpMesh* scalp, const BrushToolSettings& settings,
               const BrushStamp& stamp, Vec3f brushCenter, Vec3f drag, BrushScratch& scratch,
               BrushEdit& out, float scale) {
    out.clear();
    const std::span<const Vec3f> points = guide.points;
    if (points.size() < 2) return;
    scratch.weights.resize(points.size());
    stamp.weights(points, scratch.weights);
    if (scale != 1.0f)
        for (float& weight : scratch.weights) weight *= scale;
    const float most = *std::max_element(scratch.weights.begin(), scratch.weights.end());
    if (!(most > 0.0f)) return;
    const BrushWork work{.guide = guide,
                         .scalp = scalp,
                         .settings = settings,
                         .stamp = stamp,
                         .scale = scale,
                         .center = brushCenter,
                         .drag = drag,
                         .points = points,
                         .weights = scratch.weights,
                         .guideWeight = most,
                         .profile = strengthProfile(settings, points, scratch),
                         .scratch = scratch};
    kModes.at(std::size_t(settings.mode))(work, out);
}

BrushEdit brushEdit(const Guide& guide, const ScalpMesh* scalp, const BrushToolSettings& settings,
                    const BrushStamp& stamp, Vec3f brushCenter, Vec3f drag) {
    BrushScratch scratch;
    BrushEdit out;
    brushEdit(guide, scalp, settings, stamp, brushCenter, drag, scratch, out);
    return out;
}

Vec3f rootNormal(const Guide& guide, const ScalpMesh* scalp) {
    if (scalp && scalp->validRoot(guide.root)) return scalp->surfaceNormal(guide.root);
    return guide.points.size() < 2 ? Vec3f{} : normalized(guide.points[1] - guide.points[0]);
}

void restoreSegmentLengths(std::span<Vec3f> points, std::span<const Vec3f> old) {
    for (std::size_t i = 1; i < points.size(); ++i) {
        const Vec3f segment = old[i] - old[i - 1];
        const float l = length(segment);
        Vec3f direction = normalized(points[i] - points[i - 1]);
        if (direction == Vec3f{}) direction = normalized(segment);
        points[i] = points[i - 1] + direction * l;
    }
}

}  // namespace corvelle
