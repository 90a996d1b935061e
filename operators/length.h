#pragma once

#include <cstdint>
#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// How a strand loses length at random, on top of the share it keeps.
struct TrimSettings {
    float trimMin = 0.0f, trimMax = 0.0f;  ///< loss of the kept length, uniform between; 0 to 1
    std::uint64_t seed = 0;
};

/// The share of its length that strand `id` keeps: `keep` (0..1), less the trim for `fraction` of all ids.
float keptShare(std::uint64_t id, float keep, float fraction, const TrimSettings& settings);

/// Cuts a polyline to the first `share` of its length; the point count and the points' spacing, as
/// shares of the length, stay. A share of 1 copies. in, out [n]; out must not alias in.
void trimStrand(std::span<const Vec3f> in, float share, std::span<Vec3f> out);

}  // namespace corvelle
