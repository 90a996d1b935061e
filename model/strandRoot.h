#pragma once

#include <bit>
#include <cstdint>

namespace corvelle {

/// Where a strand or guide is rooted: a triangle of the scalp and barycentric coordinates. The
/// point is u p0 + v p1 + (1 - u - v) p2, everywhere, files included. Triangle -1 is unrooted.
struct StrandRoot {
    std::int32_t triangle = -1;
    float u = 0.0f;
    float v = 0.0f;
    bool rooted() const { return triangle >= 0; }
    /// Bit by bit.
    friend bool operator==(const StrandRoot& a, const StrandRoot& b) {
        return a.triangle == b.triangle &&
               std::bit_cast<std::uint32_t>(a.u) == std::bit_cast<std::uint32_t>(b.u) &&
               std::bit_cast<std::uint32_t>(a.v) == std::bit_cast<std::uint32_t>(b.v);
    }
};
static_assert(sizeof(StrandRoot) == 12);

}  // namespace corvelle
