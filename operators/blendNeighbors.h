#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// A strand's curve as another one reads it.
struct NeighborCurve {
    std::span<const Vec3f> points;  ///< [m], m >= 2
    std::span<const float> shares;  ///< [m], of the arc length, 0 root to 1 tip
};

/// Adds to sum[i] the place of the curve at shares[i] (0..1, ascending), counted from its root:
/// straight between points. Shapes: shares, sum [n]. No allocation.
void addShape(const NeighborCurve& curve, std::span<const float> shares, std::span<Vec3f> sum);

/// Moves each point amounts[i] (0..1) of the way to root + shape[i]; with `length` above 0 the
/// strand is then scaled about its root to that arc length. The root stays. Shapes: all [n]; `out`
/// may be `shape`.
void blendToward(std::span<const Vec3f> points, std::span<const Vec3f> shape,
                 std::span<const float> amounts, float length, std::span<Vec3f> out);

}  // namespace corvelle
