#pragma once

#include "model/vec3f.h"

namespace corvelle {

/// `direction` laid onto the plane square to the unit `normal`: zero where it stands along the
/// normal, itself (unit) where the normal is zero.
Vec3f laidOnSurface(Vec3f direction, Vec3f normal);

}  // namespace corvelle
