#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Relaxes the kinks of a strand: `passes` of averaging each point with its neighbours with the
/// weights 1 2 1 (the tip goes toward the straight extension of what is before it), by amounts[i],
/// 0..1, of the way. Half a Jacobi step at most, so that a zigzag shrinks in every pass instead of
/// flipping over. The root stays; segments get their lengths back at the end, so that strands do
/// not shrink. points, amounts, before, out [n], out and `before` (scratch) apart from `points`.
void smoothStrand(std::span<const Vec3f> points, std::span<const float> amounts, int passes,
                  std::span<Vec3f> before, std::span<Vec3f> out);

}  // namespace corvelle
