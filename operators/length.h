#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Cuts a polyline to the first `share` of its length; the point count and the points' spacing, as
/// shares of the length, stay. A share of 1 copies. in, out [n]; out must not alias in.
void trimStrand(std::span<const Vec3f> in, float share, std::span<Vec3f> out);

}  // namespace corvelle
