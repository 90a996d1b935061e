#pragma once

#include "model/vec3f.h"
#include "operators/rootFrame.h"

namespace corvelle {

/// The unit direction `inclination` radians from the unit `normal`, on the side that the unit
/// `rollZero`, square to the normal, points to after a right-handed turn of `roll` radians about
/// it.
Vec3f leanDirection(Vec3f normal, Vec3f rollZero, float inclination, float roll);

/// The turn by `share` (0 to 1) of the shortest arc from the unit `first` to the unit `target`.
Rotation shareOfTurn(Vec3f first, Vec3f target, float share);

}  // namespace corvelle
