#pragma once

#include <cstdint>

#include "model/vec3f.h"

namespace corvelle {

// The colour of one strand, without a graph. Colours are linear RGB.

/// What all strands of a HairColor node share.
struct HairColorSettings {
    float melaninRandom = 0.1f, rednessRandom = 0.05f;                         ///< offsets, +-
    float hueRandom = 0.0f, saturationRandom = 0.0f, valueRandom = 0.0f;       ///< 0 to 1
    float hueShift = 0.0f;                                                     ///< turns
    float saturationScale = 1.0f, valueScale = 1.0f;
    float clumpShare = 0.5f;  ///< share of the randomness common to a clump
    Vec3f dye{1.0f, 1.0f, 1.0f};
    bool multiplyMap = false;  ///< the map multiplies the pigment's colour instead of replacing it
    std::uint64_t seed = 0;
};

/// What a strand brings along.
struct HairColorInput {
    std::uint64_t id = 0;
    float clump = -1.0f;  ///< -1: in no clump
    float melanin = 0.35f, redness = 0.2f;
    float grey = 0.0f;  ///< share of the strands that are grey
    const Vec3f* map = nullptr;
};

struct HairColorResult {
    Vec3f rgb;
    float melanin = 0.0f, redness = 0.0f;
};
HairColorResult hairColor(const HairColorInput& strand, const HairColorSettings& settings);

/// Turns the hue, scales saturation and value (HSV). Value may pass 1.
Vec3f adjustHsv(Vec3f rgb, float hueTurns, float saturationScale, float valueScale);

}  // namespace corvelle
