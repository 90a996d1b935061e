#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Turns a strand as a whole about its root, so that its chord lies along `way`, `lift` radians (0
/// to pi / 2) above the surface: first about the normal, then up or down, so that what faced away
/// from the skin still does. `normal` unit; `way` unit and square to it. A strand without a chord
/// goes by its first segment that has a length; one without any is copied. out [n], apart from
/// `points`.
void layStrand(std::span<const Vec3f> points, Vec3f normal, Vec3f way, float lift,
               std::span<Vec3f> out);

}  // namespace corvelle
