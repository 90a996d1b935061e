#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Turns each segment of a strand about the unit `normal` until its share along the surface points
/// along `away` (unit, square to the normal), by shares[i] of the angle: segments keep their
/// elevation and their lengths, the root its place. All turn the way round that is shorter for the
/// strand from root to tip, so that a wavy one does not fall apart in two. shares [n], 0..1:
/// shares[i] is for the segment that ends at point i. out [n], apart from `points`. No allocation.
void turnAway(std::span<const Vec3f> points, Vec3f normal, Vec3f away,
              std::span<const float> shares, std::span<Vec3f> out);

}  // namespace corvelle
