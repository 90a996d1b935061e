#pragma once

#include <cstddef>
#include <cstdint>

#include "operators/laneKernels.h"

namespace corvelle {

// As laneKernels.h, for strands and distance fields.

/// Pushes strands out of surfaces: see collideStrand.
struct PushJob {
    static constexpr std::size_t kMostFields = 2;
    LanePoints points;
    FieldGrid fields[kMostFields];
    std::size_t fieldCount = 0;
    float offset = 0.0f, maxDepth = 0.0f;  ///< cm
    int iterations = 0;
};

struct CollideKernels {
    /// out[k]: the distance at point places[k] of `points`: see DistanceField::distance. `out`
    /// takes a whole number of kMostLanes.
    void (*distances)(const FieldGrid& field, const float* points, const std::uint32_t* places,
                      std::size_t count, float* out) = nullptr;
    /// Scratch as in laneKernels.h.
    LaneDeform<PushJob> push = nullptr;
};

/// As laneKernels.
const CollideKernels& collideKernels(SplineLanes lanes = SplineLanes::Widest);
const CollideKernels* collideKernelsAvx2();
const CollideKernels* collideKernelsAvx512();

}  // namespace corvelle
