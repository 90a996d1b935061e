#pragma once

#include "model/hash.h"
#include "operators/splineLanes.h"

namespace corvelle {

namespace {

/// See LaneKernels::draw. In plain code, which compilers turn into lanes where these have 64-bit
/// products; over F to have one for each target.
template <class F>
CORVELLE_LANES_TARGET inline void drawLanes(std::uint64_t base, const std::uint64_t* ids,
                                            const std::uint32_t* strands, std::size_t count,
                                            float* out) {
    for (std::size_t k = 0; k < count; ++k) out[k] = draw(base, ids[strands[k]]);
}

}  // namespace

}  // namespace corvelle
