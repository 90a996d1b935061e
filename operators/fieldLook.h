#pragma once

#include <cstdint>

namespace corvelle {

/// The coarse table of a distance field, bare: this crosses into code compiled for other
/// instruction sets. See DistanceField::surelyOutside.
struct FieldLook {
    float low[3], last[3];  ///< cm; nodes
    float inverse = 0.0f;
    int blockShift = 0;             ///< cells of a block, as a power of two
    int blocks[2] = {};             ///< along x and y
    const float* ranges = nullptr;  ///< 2 a block: the least and the most
    float borderLeast = 0.0f;
    float below = 0.0f, above = 0.0f;
};

/// Bit i for each of eight points, x, y, z each, that is not surely outside.
using LookAtEight = std::uint32_t (*)(const FieldLook& look, const float* points);
/// Null where processor or compiler cannot.
LookAtEight lookAtEightAvx2();

}  // namespace corvelle
