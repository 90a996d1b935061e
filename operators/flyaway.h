#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// How one strand strays.
struct StraySettings {
    float start = 0.25f;    ///< share of the length where it leaves, 0 to 0.99
    float lengthen = 0.0f;  ///< what it grows by past the start, a share of its whole length
    float standOut = 0.5f;  ///< how far the tip goes to the line along the root's direction, 0 to 1
    float stray = 0.75f;    ///< cm sideways at the tip
    float arcs = 1.5f;      ///< half turns of the sideways direction in a strand's length
    float angle = 0.0f;     ///< radians, of the sideways direction at the start
};

/// Lets a strand stray from `start` on: with x from 0 there to 1 at the tip, it grows past the
/// start, goes standOut x^2 of the way to the line along its root's direction, and stray x^2
/// sideways, in a direction that turns about where the rest of the strand heads. Points up to the
/// start keep their bits. shares [n], of the arc length `length`; out [n], apart from `points`. No
/// allocation.
void strayStrand(std::span<const Vec3f> points, std::span<const float> shares, float length,
                 const StraySettings& settings, std::span<Vec3f> out);

}  // namespace corvelle
