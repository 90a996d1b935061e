#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/strandRoot.h"
#include "operators/scatterCandidates.h"

namespace corvelle {

/// Times the spacing of one sample a square centimetre: the distance between neighbours when
/// samples of that density lie in a hexagonal packing, sqrt(2 / sqrt 3).
inline constexpr float kHexagonalSpacing = 1.0746f;
/// The distance a sample of this density keeps from its neighbours, in centimetres; 0 for none.
float sampleRadius(float density);

/// Spreads samples evenly over a surface (blue noise), each to the density where it lies: every
/// sample is pushed off its 13 nearest neighbours and off open borders, along the surface, in up to
/// 30 steps; every fourth step puts it back on the surface. Samples where the density is 0 stay
/// put. The few pairs then left nearer than 0.75 of the even spacing, all beside open borders, are
/// parted.
///
/// Shapes:  ids, roots [n], in one order; returns [n] in that order.
/// Threads: parallel in blocks of 256; positions are rounded to a 1,024th of the sample's radius,
///          each phase writes its own sample only: the same bits for any thread count.
/// Edges:   under 2 samples, or a density of 0, come back as they are. Samples at one place part
///          along a direction drawn from their ids.
/// Source:  the repulsion and reprojection of Turk, "Re-tiling polygonal surfaces", SIGGRAPH 1992;
///          we differ: a quadratic force, a fixed neighbour count, samples that freeze, and the
///          parting at the end.
std::vector<StrandRoot> relaxBlueNoise(const ScalpMesh& mesh, std::span<const std::uint64_t> ids,
                                       std::span<const StrandRoot> roots,
                                       const ScatterDensity& density, std::uint64_t seed);

/// Samples relaxed by this process so far: for reports, no result depends on it.
std::uint64_t relaxedSampleCount();

}  // namespace corvelle
