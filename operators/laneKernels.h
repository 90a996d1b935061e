#pragma once

#include <cstddef>
#include <cstdint>

#include "model/partTable.h"
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

/// Points to write anew, of listed strands. What a job holds for each strand goes by the strand's
/// place in the list.
struct LanePoints {
    const float* from = nullptr;  ///< x, y, z of each point
    float* to = nullptr;          ///< apart from `from`
    const std::uint64_t* offsets = nullptr;
    const std::uint32_t* strands = nullptr;
};

/// Turns segments toward a direction: see turnSegments.
struct TurnJob {
    LanePoints points;
    /// 4 a place: the direction, of any length, and the strength: 0 to 1, or any with a profile.
    const float* toward = nullptr;
    /// 4 a place: the normal to lay it square to, and one unused; null: as it is. See
    /// laidOnSurface.
    const float* normals = nullptr;
    bool straighten = false;  ///< toward the strand's own chord instead: see straightenStrand
    RampKeys profile;         ///< of the strength: see segmentShares; no keys: the same everywhere
    /// [places] 1 for a strand that takes the scalar form: what was written of it is not its
    /// result.
    std::uint8_t* again = nullptr;
};

/// Adds a step to each point but the root, times the profile at its share of the length.
struct StepJob {
    LanePoints points;
    const float* steps = nullptr;  ///< 4 a place: x, y, z, unused
    RampKeys profile;
};

/// Smooths: see smoothStrand.
struct SmoothJob {
    LanePoints points;
    const float* strengths = nullptr;  ///< 0 to 1
    RampKeys profile;                  ///< of the strength; no keys: the same everywhere
    int passes = 0;
};

/// Bends: see bendToward, bendStrand.
struct BendJob {
    LanePoints points;
    const float* bends = nullptr;  ///< 4 a place: toward where, unit or zeros; the angle
    float start = 0.0f, perShare = 1.0f;
    /// From the scalp: toward where is its normal (zeros: the strand's own direction), and no bend
    /// passes it or the tangent plane.
    bool limited = false;
};

// Setting strands about their roots as a whole. `numbers` are kNumbers a place; normals and
// tangents in them are the scalp's at the root, unit, or zeros where it has none: see rootFrame.
// Angles are radians from -pi to pi.

/// See the Direction node.
struct LeanJob {
    static constexpr std::size_t kNumbers = 12;
    LanePoints points;
    /// Normal, inclination; tangent, roll; share of the turn, three unused.
    const float* numbers = nullptr;
    float direction[3] = {0.0f, 0.0f, 0.0f};
    bool alongTangent = false;  ///< roll 0 points along the tangent rather than the direction
};

/// See layStrand.
struct LayJob {
    static constexpr std::size_t kNumbers = 8;
    LanePoints points;
    /// Normal, lift; way along the surface, unit, or zeros for the strand's own, and a roll off it.
    const float* numbers = nullptr;
};

/// Scales and turns about the root, and moves it: see turnInFrame.
struct TransformJob {
    static constexpr std::size_t kNumbers = 16;
    LanePoints points;
    /// Normal, scale; tangent, unused; angles about x, y and z, unused; the move, unused.
    const float* numbers = nullptr;
    bool world = false;  ///< about the world's axes, and the move is where the root goes
};

/// Pulls points toward places on the axes of the strands' clumps: see StrandPuller.
struct PullJob {
    LanePoints points;
    /// 8 floats a point of an axis: see ClumpAxes::Point. Behind the last of each stands one more,
    /// of an arc that nothing is at or past.
    const float* axes = nullptr;
    const std::size_t* axisOffsets = nullptr;  ///< [axes + 1], in points
    std::size_t mostAxisPoints = 0;
    const std::uint32_t* axisOf = nullptr;  ///< [places]
    const float* strengths = nullptr;       ///< [places], 0 and up
    RampKeys profile;                       ///< of the strength, 0 and up
    bool straight = false;                  ///< the profile is a straight line, its keys at 0 and 1
};
/// A signed distance on the nodes of a grid: see DistanceField.
struct FieldGrid {
    const float* values = nullptr;      ///< x fastest; two floats more may be read behind them
    float low[3] = {}, last[3] = {};    ///< the first node, cm; the last one, in nodes
    float cell = 0.0f, inverse = 0.0f;  ///< cm, and 1 over it
    std::size_t row = 0, plane = 0;     ///< nodes in each
};

/// Lifts points up a distance field: see liftStrands.
struct LiftJob {
    LanePoints points;              ///< `to` may be `from`
    const float* wanted = nullptr;  ///< heights of the points, cm
    std::size_t wantedStride = 0;   ///< of them a place
    FieldGrid field, floor;         ///< floor: never above the field, quicker to look at
    float band = 0.0f;              ///< cm: nothing is lifted higher
    float slack = 0.0f;             ///< cm...
    float slackShare = 0.0f;        ///< ...and a share of the height that a point may be too low by
    std::uint8_t* lifted = nullptr;  ///< [places] 1 for a strand that moved, else 0
};

/// Turns segments about the root's normal, away from a part: see turnAway. `numbers` as above.
struct AwayJob {
    static constexpr std::size_t kNumbers = 12;
    LanePoints points;
    /// Normal, strength (0 to 1); the root from the place of the part nearest to it, and the side
    /// to take, -1 or 1, where the two are one; the way of the part there, one unused.
    const float* numbers = nullptr;
    RampKeys profile;  ///< of the strength: see segmentShares; no keys: the same everywhere
};

/// The place on drawn parts nearest to each root: see PartLines::nearest.
struct NearPartJob {
    const float* points = nullptr;  ///< of strands of 2 points or more
    const std::uint64_t* offsets = nullptr;
    const std::uint32_t* strands = nullptr;
    PartTable table;
    std::int32_t part = -1;     ///< -1: any
    float maxDistance = 0.0f;   ///< cm
    float* from = nullptr;      ///< 4 a place: the root from the nearest place, and the distance
    float* segments = nullptr;  ///< [places] the segment it lies on, below 0: none is within reach
};

template <class Job>
using LaneDeform = void (*)(const Job& job, std::size_t first, std::size_t count, std::size_t n,
                            float* scratch);

/// `strands` [count] of n >= 2 points; `numbers` [count]: the shares, or widths. Deforms take the
/// places `first` on instead. Scratch [lanes * kLaneScratchPerPoint * n], for `resample`
/// [lanes * laneScratch], aligned for all lanes at once.
struct LaneKernels {
    std::size_t lanes = 0;  ///< strands side by side
    /// Strands of n points each to m each.
    void (*resample)(const SplineJob& job, const std::uint32_t* strands, std::size_t count,
                     std::size_t n, std::size_t m, float* scratch) = nullptr;
    /// out[k]: the draw of the id of strands[k], see draw.
    void (*draw)(std::uint64_t base, const std::uint64_t* ids, const std::uint32_t* strands,
                 std::size_t count, float* out) = nullptr;
    void (*trim)(const TrimJob& job, const std::uint32_t* strands, const float* numbers,
                 std::size_t count, std::size_t n, float* scratch) = nullptr;
    void (*widths)(const WidthJob& job, const std::uint32_t* strands, const float* numbers,
                   std::size_t count, std::size_t n, float* scratch) = nullptr;
    LaneDeform<TurnJob> turn = nullptr;
    LaneDeform<StepJob> step = nullptr;
    LaneDeform<SmoothJob> smooth = nullptr;
    LaneDeform<BendJob> bend = nullptr;
    LaneDeform<AwayJob> away = nullptr;
    LaneDeform<LeanJob> lean = nullptr;
    LaneDeform<LayJob> lay = nullptr;
    LaneDeform<TransformJob> transform = nullptr;
    LaneDeform<PullJob> pull = nullptr;  ///< scratch as for pullScratchPoints
    LaneDeform<LiftJob> lift = nullptr;
    /// Places [0, count), of any point counts.
    void (*nearPart)(const NearPartJob& job, std::size_t count) = nullptr;
};
inline constexpr std::size_t kLaneScratchPerPoint = 9;
inline constexpr std::size_t kMostLanes = 16;
inline constexpr std::size_t kLaneAlignment = kMostLanes * sizeof(float);  ///< bytes
/// As many points as a pull takes scratch for: it lays the axes of its strands side by side too.
inline std::size_t pullScratchPoints(const PullJob& job, std::size_t n) {
    return n + job.mostAxisPoints + 1;
}
/// More keys are cheaper one strand after the other.
inline constexpr std::size_t kMostLaneKeys = 8;

/// The widest ones that the processor takes; `lanes` asks for others, and gets fewer lanes where it
/// does not take them.
const LaneKernels& laneKernels(SplineLanes lanes = SplineLanes::Widest);
/// Eight strands side by side, and sixteen; null where processor or compiler cannot.
const LaneKernels* laneKernelsAvx2();
const LaneKernels* laneKernelsAvx512();

}  // namespace corvelle
