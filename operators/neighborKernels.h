#pragma once

#include <cstddef>
#include <cstdint>

#include "operators/laneKernels.h"

namespace corvelle {

// As laneKernels.h, for strands that read other curves beside their own points.

/// Curves ready to be read by several strands: 4 numbers a point, its place and where along the
/// curve it lies. Curves have seats of their own, those near to one another close together: the one
/// at a seat has the points starts[seat] to starts[seat + 1].
struct CurveRows {
    const float* rows = nullptr;
    const float* lengths = nullptr;         ///< [seats] arc lengths
    const std::uint64_t* starts = nullptr;  ///< [seats + 1]
    /// True: all x of a strand come first, then all y, z and places along it. False: a row a point.
    bool byComponent = false;
};

/// Writes the rows of strands, by shares of the length.
struct MeasureJob {
    LanePoints points;                     ///< `to` is left alone
    const std::uint32_t* seats = nullptr;  ///< [places]
    float* rows = nullptr;
    float* lengths = nullptr;  ///< [seats]
    const std::uint64_t* starts = nullptr;
    bool byComponent = false;  ///< see CurveRows
};

/// Blends strands toward the mean shape of others: see addShape and blendToward.
struct BlendJob {
    LanePoints points;
    CurveRows curves;                      ///< of all strands, by shares
    const std::uint32_t* seats = nullptr;  ///< [places] the strands' own
    /// [places] the seats of those to blend toward, 1 or more of 2 or more points each.
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
    /// The most points of any strand in tables by component that `measure` and `blend` take; 0:
    /// they take none.
    std::size_t mostByComponent = 0;
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
