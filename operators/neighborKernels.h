#pragma once

#include <cstddef>
#include <cstdint>

#include "operators/laneKernels.h"

namespace corvelle {

// As laneKernels.h, for strands that read other curves beside their own points.

/// Curves ready to be read by several strands: each point a row of 4, its place and where along
/// the curve it lies. Strand s begins at row starts[s], those near to one another close together.
struct CurveRows {
    const float* rows = nullptr;
    const float* lengths = nullptr;  ///< [strands] arc lengths
    const std::uint64_t* starts = nullptr;
    const std::uint64_t* offsets = nullptr;  ///< of the set: how many points a strand has
};

/// Writes the rows of strands, by shares of the length.
struct MeasureJob {
    LanePoints points;  ///< `to` is left alone
    float* rows = nullptr;
    float* lengths = nullptr;  ///< [strands]
    const std::uint64_t* starts = nullptr;
};

/// Blends strands toward the mean shape of others: see addShape and blendToward.
struct BlendJob {
    LanePoints points;
    CurveRows curves;  ///< of all strands, by shares
    /// [places] the strands to blend toward, 1 or more of 2 or more points each.
    const std::uint32_t* const* neighbors = nullptr;
    const std::uint32_t* counts = nullptr;
    const float* strengths = nullptr;  ///< [places] 0 to 1
    RampKeys profile;
    bool keepLength = false;
};

/// Pulls strands toward a partner: see stickStrand.
struct StickJob {
    LanePoints points;
    const std::uint32_t* partners = nullptr;  ///< [places] of as many points as the strand
    const float* spans = nullptr;             ///< 4 a place: begin, end, the strength, unused
    float reach = 0.0f;
};

/// Turns strands about curves: see twistStrand.
struct TwistJob {
    LanePoints points;
    const float* rows = nullptr;             ///< see TwistAxes
    const std::uint64_t* offsets = nullptr;  ///< axis a begins at row offsets[a]
    const std::uint32_t* axes = nullptr;     ///< [places]
    const float* turns = nullptr;            ///< [places] a cm
};

/// Gives segments the lengths of a reference: see restoreSegments.
struct RestoreJob {
    LanePoints points;
    const float* const* references = nullptr;  ///< [places] x, y, z of as many points as the strand
    /// [places] 1 for a strand that takes the scalar form: what was written of it is not its
    /// result.
    std::uint8_t* again = nullptr;
};

/// Adds up strands at evenly spaced points: see EvenSum.
struct EvenJob {
    const float* from = nullptr;  ///< x, y, z of each point
    const std::uint64_t* offsets = nullptr;
    std::size_t to = 0;     ///< even points, 2 or more
    float* sums = nullptr;  ///< [3 to][kEvenSums]
};
/// Sums kept side by side, whatever the number of lanes.
inline constexpr std::size_t kEvenSums = kMostLanes;

/// Scratch as in laneKernels.h. `even` takes kEvenSums strands of n points, and scratch for n + to
/// points.
struct NeighborKernels {
    LaneDeform<MeasureJob> measure = nullptr;
    LaneDeform<BlendJob> blend = nullptr;
    LaneDeform<StickJob> stick = nullptr;
    LaneDeform<TwistJob> twist = nullptr;
    LaneDeform<RestoreJob> restore = nullptr;
    void (*even)(const EvenJob& job, const std::uint32_t* strands, std::size_t n,
                 float* scratch) = nullptr;
};

/// The widest ones that the processor takes; `lanes` asks for others.
const NeighborKernels& neighborKernels(SplineLanes lanes = SplineLanes::Widest);
/// Eight and sixteen strands side by side; null where processor or compiler cannot.
const NeighborKernels* neighborKernelsAvx2();
const NeighborKernels* neighborKernelsAvx512();

}  // namespace corvelle
