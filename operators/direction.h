#pragma once

#include <span>

#include "model/vec3f.h"
#include "operators/rootFrame.h"

namespace corvelle {

/// The unit direction `inclination` radians from the unit `normal`, on the side that the unit
/// `rollZero`, square to the normal, points to after a right-handed turn of `roll` radians about
/// it.
Vec3f leanDirection(Vec3f normal, Vec3f rollZero, float inclination, float roll);

/// Turns a strand about its root as a rigid whole: its first segment goes `share` (0 to 1) of the
/// shortest arc to the unit `target`. A strand without a length is copied. points [n], out [n].
void turnStrand(std::span<const Vec3f> points, Vec3f target, float share, std::span<Vec3f> out);

}  // namespace corvelle
