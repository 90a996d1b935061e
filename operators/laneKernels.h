#pragma once

#include <cstddef>
#include <cstdint>

#include "operators/splineResample.h"

namespace corvelle {

// Work on several strands of one point count side by side, as functions that cross into code
// compiled for other instruction sets: bare arrays and no library types. Whatever the width, each
// strand gets the bits of the scalar form.

/// Cuts strands to a share of their length: see trimStrand.
struct TrimJob {
    const float* from = nullptr;  ///< x, y, z of each point
    float* to = nullptr;
    const std::uint64_t* offsets = nullptr;
};

/// The keys of a ramp, 2 or more, and its slopes at them.
struct RampKeys {
    const float* positions = nullptr;
    const float* values = nullptr;
    const float* tangents = nullptr;
    std::size_t count = 0;
    bool linear = false;
};

/// A width at each point: the profile at its share of the length, times the strand's own number.
struct WidthJob {
    const float* points = nullptr;
    float* to = nullptr;
    const std::uint64_t* offsets = nullptr;
    RampKeys profile;
};

/// `strands` [count] of n >= 2 points; `numbers` [count]: the shares, or widths. Scratch
/// [8 * kLaneScratchPerPoint * n], 32-byte aligned.
struct LaneKernels {
    void (*trim)(const TrimJob& job, const std::uint32_t* strands, const float* numbers,
                 std::size_t count, std::size_t n, float* scratch) = nullptr;
    void (*widths)(const WidthJob& job, const std::uint32_t* strands, const float* numbers,
                   std::size_t count, std::size_t n, float* scratch) = nullptr;
};
inline constexpr std::size_t kLaneScratchPerPoint = 9;
/// More keys are cheaper one strand after the other.
inline constexpr std::size_t kMostLaneKeys = 8;

/// The widest ones that the processor takes; `lanes` asks for others.
const LaneKernels& laneKernels(SplineLanes lanes = SplineLanes::Widest);
/// Eight strands side by side; null where processor or compiler cannot.
const LaneKernels* laneKernelsAvx2();

}  // namespace corvelle
