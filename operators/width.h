#pragma once

#include <cstdint>
#include <span>

#include "model/ramp.h"
#include "model/vec3f.h"

namespace corvelle {

/// Widths of one strand: `base[i]` (cm; one value, or one per point) times the profile at the point's
/// share of the arc length, times `scale`. out [n].
void strandWidths(std::span<const Vec3f> points, std::span<const float> base, const Ramp& profile, float scale,
                  std::span<float> out);

}  // namespace corvelle
