#pragma once

#include <cstddef>
#include <cstdint>

#include "operators/splineResample.h"

namespace corvelle {

/// Resamples `count` strands of n points each to m each; scratch [lanes * laneScratch], 32-byte
/// aligned.
using SplineLanesFunction = void (*)(const SplineJob& job, const std::uint32_t* strands,
                                     std::size_t count, std::size_t n, std::size_t m,
                                     float* scratch);
/// Eight strands side by side; null where processor or compiler cannot.
SplineLanesFunction splineLanesAvx2();

}  // namespace corvelle
