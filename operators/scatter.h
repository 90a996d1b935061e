#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "model/scalpMesh.h"
#include "model/strandSet.h"
#include "operators/scatterCandidates.h"

namespace corvelle {

/// Roots moved from their even spots towards (below 1) and past (above 1) their random ones: the mix
/// of the two places, put back on the surface.
/// Shapes: even, random [n]; returns [n]. Parallel; the same bits for any thread count.
std::vector<StrandRoot> mixRoots(const ScalpMesh& mesh, std::span<const StrandRoot> even,
                                 std::span<const StrandRoot> random, float randomness);

/// The roots no farther than `radius` (cm, straight) from one of `places`.
ScatterPoints rootsNear(const ScalpMesh& mesh, const ScatterPoints& roots,
                        std::span<const Vec3f> places, float radius);

/// What Scatter grows on its roots.
struct GrowSettings {
    std::size_t segments = 8;  ///< 1 or more: strands have one point more, evenly spaced
    float length = 1.0f;       ///< cm along the surface normal
    float share = 1.0f;        ///< roots with unitHash(id) below this grow
    float always = 1.0f;       ///< below 1: the channel "_preview" marks ids below this
};

/// Straight strands along the surface normals. Ids and roots are the roots' own; widths are not set.
StrandSet growStrands(const ScalpMesh& mesh, const ScatterPoints& roots,
                      const GrowSettings& settings);

/// Gives every strand of growStrands the length of its own, lengths [strands].
void setStrandLengths(StrandSet& strands, const ScalpMesh& mesh, std::span<const float> lengths);

}  // namespace corvelle
