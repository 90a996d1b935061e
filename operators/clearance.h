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

/// How high guides are above the scalp, at kShares shares of their length: height[i] at
/// i / (kShares - 1).
inline constexpr std::size_t kClearanceShares = 32;
struct ClearanceGoals {
    ClearanceSpace space;
    std::vector<std::array<float, kClearanceShares>> heights;  ///< [guides], cm, below 0 inside
    std::vector<std::uint64_t> hashes;                         ///< of the guides as measured
    bool smooth = true;
};
using ClearanceGoalsPtr = std::shared_ptr<const ClearanceGoals>;

/// Lifts the points of a strand that are lower than the weighted mean of its guides' heights at the
/// same share of length, up the field's gradient; segments get their lengths back, root to tip.
/// Three passes, the last step of each the lengths. The root stays. Points of wanted heights past
/// the band, where no skin bulges, are let be. Returns false, with the points untouched, when no
/// point is too low. Shapes: points [n]; scratch is the caller's, to be reused.
bool keepClearance(const ClearanceGoals& goals, std::span<const GuideWeight> guides,
                   const StrandRoot& root, std::span<Vec3f> points, std::vector<Vec3f>& scratch);

/// The heights measured last. A guide of unchanged hash is not measured again. Any thread may ask.
class ClearanceCache {
public:
    /// Null when the scalp has no field; `note` says how it goes.
    ClearanceGoalsPtr goals(const GuideSet& guides, bool smooth, const ScalpPtr& scalp,
                            std::string& note);
    void copyFrom(const ClearanceCache& other);

private:
    mutable std::mutex mutex_;
    std::shared_ptr<ClearanceGoals> held_;
};

}  // namespace corvelle
