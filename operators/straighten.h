#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Turns every segment toward the line from root to tip (a closed strand: its first segment) by
/// `strength`, 0..1, of the angle; 1 gives a straight strand. Segments keep their lengths.
/// out [n], apart from `points`.
void straightenStrand(std::span<const Vec3f> points, float strength, std::span<Vec3f> out);

}  // namespace corvelle
