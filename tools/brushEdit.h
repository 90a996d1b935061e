#pragma once

#include <limits>
#include <span>
#include <vector>

#include "model/guideHierarchy.h"
#include "model/scalpMesh.h"
#include "tools/brushToolSettings.h"
#include "tools/brushWeight.h"

namespace corvelle {

/// What one stamp does to one guide.
struct BrushEdit {
    std::vector<Vec3f> points;  ///< as many as the guide's; empty: unmoved
    std::vector<float> tube;    ///< the guide's new radii; empty: unchanged
    float attributeValue = std::numeric_limits<float>::quiet_NaN();  ///< NaN: unchanged
    /// By point: how far its value of the attribute goes to the settings' `value`; empty: not.
    std::vector<float> pointWeights;
    bool erase = false;

    bool empty() const;
    bool movesOnly() const;  ///< points and nothing else
    void clear();            ///< keeps the memory
};

/// Working memory of `brushEdit`, kept from guide to guide.
struct BrushScratch {
    std::vector<float> weights, shares, profile;
    std::vector<Vec3f> points;
};

/// One stamp on one guide, by `settings.mode`: pure, the guide stays as it is. `scalp` may be null.
/// A guide of fewer than two points gives an empty edit. `scale` multiplies the stamp's weights.
/// Cost: O(points).
void brushEdit(const Guide& guide, const ScalpMesh* scalp, const BrushToolSettings& settings,
               const BrushStamp& stamp, Vec3f brushCenter, Vec3f drag, BrushScratch& scratch,
               BrushEdit& out, float scale = 1.0f);
BrushEdit brushEdit(const Guide& guide, const ScalpMesh* scalp, const BrushToolSettings& settings,
                    const BrushStamp& stamp, Vec3f brushCenter, Vec3f drag);

/// The scalp's normal at the guide's root; along the first segment without one.
Vec3f rootNormal(const Guide& guide, const ScalpMesh* scalp);

/// From the root on, segments take the directions of `points` and the lengths of `old`. A direction
/// of length zero falls back to the old one.
void restoreSegmentLengths(std::span<Vec3f> points, std::span<const Vec3f> old);

}  // namespace corvelle
