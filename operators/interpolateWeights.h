#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/partLines.h"
#include "model/pointIndex.h"
#include "model/strandRoot.h"
#include "model/surfaceGraph.h"
#include "model/vec3f.h"

namespace corvelle {

/// How guides share the strands between them.
struct WeightSettings {
    int neighbors = 3;   ///< 1 to kMaxNeighbors: a guide reaches to its neighbors-th nearest one
    float reach = 1.5f;  ///< times that distance
    float power = 2.0f;  ///< falloff over distance, 0 to 16
    friend bool operator==(const WeightSettings&, const WeightSettings&) = default;
};
inline constexpr int kMaxNeighbors = 16;

/// A guide's share in a strand.
struct GuideWeight {
    std::uint32_t guide = 0;
    float weight = 0.0f;
    friend bool operator==(const GuideWeight&, const GuideWeight&) = default;
};

/// The shares of one strand's candidates by the modified Shepard form: within their reaches, and
/// near the edge of all of them faded over to the nearest ones alone, so that no gap is left.
///
/// Shapes:  distances [c], ascending, not negative, infinite where a guide cannot be reached;
///          reaches [c], infinite for a guide without an edge; weights [c].
/// Gives:   weights that add up to 1, or all 0 where no candidate has a finite distance.
/// Source:  Franke, Nielson, "Smooth interpolation of large sets of scattered data", IJNME 15(11),
///          1980. We differ: a reach per guide, a free power, and the second set in the gaps.
void shepardWeights(std::span<const float> distances, std::span<const float> reaches,
                    const WeightSettings& settings, std::span<float> weights);

/// Where guides are rooted. Shapes: all [guides]; regions empty, or 0 and up.
struct GuideRoots {
    std::span<const StrandRoot> roots;
    std::span<const Vec3f> positions;
    std::span<const std::int32_t> regions;
};

/// How far each guide reaches, and how far it is from a place: straight, or along a surface.
///
/// Along a surface a guide is measured a little past its own reach. Farther guides keep their
/// straight distance; one that lies within its reach as the crow flies and is not come to along the
/// surface (across a fold, on another piece) is infinitely far.
/// Immutable once made; any thread may read. The build is parallel and its result does not depend
/// on the thread count.
class GuideReach {
public:
    /// `surface` null: straight distances. It is asked for one front a guide, which it keeps alive
    /// while this lives: made again with a few guides moved, the others cost a look-up.
    GuideReach(const GuideRoots& guides, const WeightSettings& settings,
               std::shared_ptr<const SurfaceGraph> surface);

    struct Candidate {
        float distance = 0.0f;
        float reach = 0.0f;
        std::uint32_t guide = 0;
        /// By (distance, guide).
        friend bool operator<(const Candidate& a, const Candidate& b) {
            return a.distance != b.distance ? a.distance < b.distance : a.guide < b.guide;
        }
    };
    static constexpr std::size_t kMaxCandidates = 4 * kMaxNeighbors + 2;
    /// The nearest guides by straight distance, max(4 k + 2, 8) of them, less those behind a part,
    /// ascending by measured distance. `region` -1, or one without guides: of any region.
    std::size_t candidates(const StrandRoot& root, Vec3f position, std::int32_t region,
                           const PartLines* parts, std::span<Candidate> out) const;

    /// Of a guide among those of its own region, and among all.
    float reachInRegion(std::size_t guide) const {
        return groups_[groupOf(guide)].reaches[slot_[guide]];
    }

private:
    struct Group {
        std::vector<std::uint32_t> guides;
        PointIndex index;  ///< over `guides`
        std::vector<float> reaches;
        std::vector<float> measured;  ///< how far each front goes; 0 without one
        std::vector<std::shared_ptr<const SurfaceGraph::Front>> fronts;
    };
    void build(Group& group, const GuideRoots& guides);
    std::size_t groupOf(std::size_t guide) const {
        return regions_.empty() ? 0 : std::size_t(regions_[guide]) + 1;
    }
    float measure(const Group& group, std::size_t member, const StrandRoot& root, Vec3f position,
                  float straight) const;

    WeightSettings settings_;
    std::shared_ptr<const SurfaceGraph> surface_;
    std::vector<Vec3f> positions_;
    std::vector<std::int32_t> regions_;
    std::vector<std::uint32_t> slot_;  ///< a guide's place in its region's group
    std::vector<Group> groups_;        ///< all guides, then one a region
};

/// Where strands are rooted. Shapes: all [strands]; regions empty, or -1 and up.
struct StrandPlaces {
    std::span<const StrandRoot> roots;
    std::span<const Vec3f> positions;
    std::span<const std::int32_t> regions;
};

/// The shares of all strands as a flat table, and turned about: guide to strands.
/// Shapes: offsets [strands + 1], pairs [offsets.back()], nearest [strands];
///         guideOffsets [guides + 1], guideStrands [guideOffsets.back()], ascending a guide.
struct WeightTable {
    std::vector<std::size_t> offsets{0};
    std::vector<GuideWeight> pairs;  ///< no weight is 0; those of a strand add up to 1
    std::vector<float> nearest;      ///< distance to the nearest guide root, infinite for none
    std::vector<std::size_t> guideOffsets{0};
    std::vector<std::uint32_t> guideStrands;

    std::span<const GuideWeight> of(std::size_t strand) const {
        return std::span(pairs).subspan(offsets[strand], offsets[strand + 1] - offsets[strand]);
    }
    std::span<const std::uint32_t> strandsOf(std::size_t guide) const {
        return std::span(guideStrands)
            .subspan(guideOffsets[guide], guideOffsets[guide + 1] - guideOffsets[guide]);
    }
};

/// Cost: O(strands log guides), parallel; a strand's row depends on its own root alone.
WeightTable interpolationWeights(const StrandPlaces& strands, std::size_t guideCount,
                                 const GuideReach& reach, const WeightSettings& settings,
                                 const PartLines* parts);

}  // namespace corvelle
