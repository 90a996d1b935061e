#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "model/guideSet.h"
#include "model/scalpMesh.h"
#include "operators/distanceField.h"
#include "operators/interpolateWeights.h"

namespace corvelle {

/// What tells heights above a scalp. On a scalp that is moved from its rest pose, the field of the
/// rest pose is read: places are carried there with the triangle of their root, and back.
struct ClearanceSpace {
    DistanceFieldPtr field;  ///< null: none, `note` says why
    ScalpPtr scalp, rest;    ///< rest: null where `scalp` is its own rest pose
    float band = 0.0f;       ///< cm: nothing is kept higher than this
    /// "its scalp has no size", "its scalp is too big for the clearance field's grid", "it keeps
    /// clearance over a deformed scalp", or empty.
    std::string note;
    std::uint64_t key = 0;
};
/// Makes the field at first use, or takes the shared one.
ClearanceSpace clearanceSpace(const ScalpPtr& scalp);

/// The heights of all guides at the points of strands that have so many.
struct ClearanceTable {
    std::size_t points = 0, stride = 0;  ///< stride: points rounded up to eights, the rest zeros
    std::vector<float> heights;          ///< [guides][stride], cm, below 0 inside
    const float* of(std::size_t guide) const { return heights.data() + guide * stride; }
};

/// How high guides are above the scalp, measured at kClearanceShares shares of their length.
inline constexpr std::size_t kClearanceShares = 32;
struct ClearanceGoals {
    ClearanceSpace space;
    std::vector<std::array<float, kClearanceShares>> heights;  ///< [guides], cm
    std::vector<std::uint64_t> hashes;                         ///< of the guides as measured
    std::vector<ClearanceTable> tables;                        ///< ascending by point count
    bool smooth = true;
};
using ClearanceGoalsPtr = std::shared_ptr<const ClearanceGoals>;

/// Strands of n points that may have to be lifted, and how high their points should be.
struct LiftList {
    std::span<const std::uint32_t> strands;
    std::span<const float> wanted;  ///< [strands][stride], cm
    std::size_t points = 0, stride = 0;
};
/// Lifts the points of strands that are lower than wanted, up the field's gradient; segments get
/// their lengths back, root to tip. Three passes, the last step of each the lengths. Roots stay,
/// and so do strands of which no point is too low. A height wanted past the band, where no skin
/// bulges, counts as the band's. Many strands side by side, each to bits that do not depend on its
/// company. Shapes: roots [set], offsets [set + 1], points [offsets.back()].
void liftStrands(const ClearanceSpace& space, const LiftList& list,
                 std::span<const StrandRoot> roots, std::span<const std::uint64_t> offsets,
                 std::span<Vec3f> points, SplineLanes lanes = SplineLanes::Widest);

/// The heights measured last. A guide of unchanged hash is not measured again. Any thread may ask.
class ClearanceCache {
public:
    /// Null when the scalp has no field; `note` says how it goes. `counts`: of the tables,
    /// ascending, 2 or more each.
    ClearanceGoalsPtr goals(const GuideSet& guides, bool smooth, const ScalpPtr& scalp,
                            std::span<const std::size_t> counts, std::string& note);
    void copyFrom(const ClearanceCache& other);

private:
    mutable std::mutex mutex_;
    std::shared_ptr<ClearanceGoals> held_;
};

}  // namespace corvelle
