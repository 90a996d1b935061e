#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

// A strand's length put back after deformers, two ways. The root stays. Strands whose lengths are
// the reference's already (to a millionth) keep their bits.
// Shapes: in, out [n]; reference [m], any m. Pure, no allocation up to 64 points.

/// Each segment gets the length of the reference's, along its own direction. With m other than n a
/// segment gets what the reference goes over the same share of its points. A segment of no length
/// takes the direction of the one before it, at the root that of the next that has one.
void restoreSegments(std::span<const Vec3f> in, std::span<const Vec3f> reference,
                     std::span<Vec3f> out);

/// The whole strand is scaled about its root to the reference's arc length. One of no length, or
/// whose reference has none, stays.
void restoreScale(std::span<const Vec3f> in, std::span<const Vec3f> reference,
                  std::span<Vec3f> out);

}  // namespace corvelle
