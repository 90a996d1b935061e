#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Where along a strand it sticks to another, as shares of its own arc length.
struct StuckSpan {
    float begin = 0.0f, end = 1.0f;
};

/// Pulls the points of a strand that lie within `span` toward the places as far from the root on
/// the partner's curve, by up to `strength` (0..1): fully in the middle half of the span, eased to
/// nothing at both ends. Where the partner ends first, the span ends there. With `reach` above 0, a
/// strand with a point in the span farther than that (cm) from its place does not stick.
///
/// Shapes: points, lengths [n]; partner, partnerLengths [m]; out [n]. Lengths are arc lengths from
///         the root in cm.
/// Gives:  whether it sticks; `out` is a copy of the points when it does not.
bool stickStrand(std::span<const Vec3f> points, std::span<const float> lengths,
                 std::span<const Vec3f> partner, std::span<const float> partnerLengths,
                 StuckSpan span, float strength, float reach, std::span<Vec3f> out);

}  // namespace corvelle
