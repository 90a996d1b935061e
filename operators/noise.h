#pragma once

#include <cstdint>
#include <span>

#include "model/ramp.h"
#include "model/vec3f.h"

namespace corvelle {

/// How `noiseOffsets` displaces a strand.
struct NoiseSettings {
    float frequency = 3.0f;  ///< features per strand length, or per cm in world space
    int octaves = 2;         ///< smooth noise: 1 to 8
    bool world = false;      ///< coherent across strands, instead of independent per strand
    bool kinky = false;      ///< straight between random offsets, instead of waves
    std::uint64_t seed = 0;
};
inline constexpr int kMaxNoiseOctaves = 8;

/// How much of octave `k` a strand can draw: 0 below two segments a feature, 1 from four on.
float octaveWeight(float segmentsPerFeature);

/// The displacement of each point of one strand before amplitude and profile, about -1 to 1 a
/// component, fading in over the first fifth. `shares` [n] are the points' shares of the arc length,
/// `length` the arc length. out [n].
void noiseOffsets(std::span<const Vec3f> points, std::span<const float> shares, float length, std::uint64_t id,
                  const NoiseSettings& settings, std::span<Vec3f> out);

}  // namespace corvelle
