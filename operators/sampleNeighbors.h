#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/pointIndex.h"
#include "model/vec3f.h"

namespace corvelle {

/// A sample of a surface as the relaxation keeps it: 16 bytes, so that a neighbour is one load.
struct SurfaceSample {
    Vec3f position;
    float radius = 0.0f;
};
static_assert(sizeof(SurfaceSample) == 16);

/// Neighbours that each sample keeps.
inline constexpr std::size_t kSampleNeighbors = 13;
using SampleNeighbors = std::array<std::uint32_t, kSampleNeighbors>;

/// Finds the nearest neighbours of samples spread over a surface, again and again while they move:
/// a uniform grid, samples sorted by cell, its rows of cells scanned as runs, each search bounded by
/// the neighbours found the last time. Where the spread is too uneven for one size of cell, a
/// PointIndex answers instead.
///
/// Exact either way: neighbours ascend by (squared distance, rank). Queries are const and may run
/// from any thread.
class SampleIndex {
public:
    /// `ranks`: a permutation of 0..n-1 that orders samples at equal distances. Both spans must
    /// outlive the index's use. `reach`: about how far the farthest neighbour of a sample is; `even`
    /// says that this holds all over. Speed alone depends on the two.
    void rebuild(std::span<const SurfaceSample> samples, std::span<const std::uint32_t> ranks,
                 float reach, bool even);

    /// The samples nearest to sample `i` other than itself, nearest first; `i` fills the slots that
    /// there are no samples for. `known`, when not null, are neighbours found earlier: good ones
    /// make it fast, any give the same answer.
    void nearest(std::uint32_t i, const SampleNeighbors* known, SampleNeighbors& out) const;

private:
    bool sortIntoCells(float reach);
    int cellOf(float inCells, int axis) const;

    std::span<const SurfaceSample> samples_;
    std::span<const std::uint32_t> ranks_;
    Vec3f low_;
    float inverse_ = 0.0f, reach_ = 0.0f;
    std::array<int, 3> cells_{};
    std::vector<std::uint32_t> starts_;     ///< [cells + 1], x fastest
    std::vector<std::uint32_t> cell_;       ///< of each sample
    std::vector<SurfaceSample> byCell_;     ///< radius: the bits of the sample's rank
    std::vector<std::uint32_t> sampleOf_;   ///< by rank
    bool useTree_ = false;
    PointIndex tree_;                       ///< over ranks
};

}  // namespace corvelle
