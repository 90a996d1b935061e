#pragma once

#include <cstdint>

namespace corvelle {

/// The low ten bits of `x`, each two places from the next: three numbers spread so and laid beside
/// each other number the cells of a grid along a Z-shaped curve, on which neighbours stay near
/// (Morton, IBM technical report, 1966).
constexpr std::uint32_t mortonSpread(std::uint32_t x) {
    x &= 0x3ffu;
    x = (x | (x << 16)) & 0x030000ffu;
    x = (x | (x << 8)) & 0x0300f00fu;
    x = (x | (x << 4)) & 0x030c30c3u;
    return (x | (x << 2)) & 0x09249249u;
}

}  // namespace corvelle
