#pragma once

#include <algorithm>
#include <span>

#include "tools/brushEdit.h"

namespace corvelle {

/// One guide under one stamp that reaches it, as the modes see it.
struct BrushWork {
    const Guide& guide;
    const ScalpMesh* scalp;  ///< may be null
    const BrushToolSettings& settings;
    const BrushStamp& stamp;
    float scale;  ///< of the stamp's weights, counted in below
    Vec3f center, drag;
    std::span<const Vec3f> points;   ///< 2 or more
    std::span<const float> weights;  ///< of the points, root included
    float guideWeight;               ///< the largest of them, above 0
    std::span<const float> profile;  ///< strength from root to tip; empty: 1
    BrushScratch& scratch;

    std::size_t count() const { return points.size(); }
    float strength(float low, float high) const { return std::clamp(settings.strength, low, high); }
    float profileAt(std::size_t i) const { return profile.empty() ? 1.0f : profile[i]; }
    float profileWithin(std::size_t i) const { return std::clamp(profileAt(i), 0.0f, 1.0f); }
    Vec3f normal() const { return rootNormal(guide, scalp); }
    /// The edit's points, the guide's copied in at the first call.
    std::span<Vec3f> moved(BrushEdit& edit) const {
        if (edit.points.empty()) edit.points.assign(points.begin(), points.end());
        return edit.points;
    }
    /// Lengths as they were, if anything moved.
    void keepLengths(BrushEdit& edit) const {
        if (!edit.points.empty()) restoreSegmentLengths(edit.points, points);
    }
};

using BrushModeFunction = void (*)(const BrushWork& work, BrushEdit& edit);

void combGuide(const BrushWork& work, BrushEdit& edit);
void attractGuide(const BrushWork& work, BrushEdit& edit);
void noiseGuide(const BrushWork& work, BrushEdit& edit);
void slideGuide(const BrushWork& work, BrushEdit& edit);
void smoothGuide(const BrushWork& work, BrushEdit& edit);
void straightenGuide(const BrushWork& work, BrushEdit& edit);
void liftGuide(const BrushWork& work, BrushEdit& edit);
void twistGuide(const BrushWork& work, BrushEdit& edit);
void curlGuide(const BrushWork& work, BrushEdit& edit);
void directionGuide(const BrushWork& work, BrushEdit& edit);
void lengthGuide(const BrushWork& work, BrushEdit& edit);
void cutGuide(const BrushWork& work, BrushEdit& edit);
void eraseGuide(const BrushWork& work, BrushEdit& edit);
void tubeGuide(const BrushWork& work, BrushEdit& edit);
void paintGuide(const BrushWork& work, BrushEdit& edit);

/// Points move `strength` (0..1) half way to between their neighbours.
void relaxGuide(const BrushWork& work, float strength, BrushEdit& edit);

}  // namespace corvelle
