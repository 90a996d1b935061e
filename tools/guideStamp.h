#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include "model/guideEdit.h"
#include "model/guideHierarchy.h"
#include "tools/brushEdit.h"
#include "tools/guideBoxes.h"
#include "tools/guideCandidates.h"

namespace corvelle {

/// Stamps on the guides of a hierarchy, one after another. What they do is gathered and taken into
/// the hierarchy by `commit`, once for many stamps; a stamp sees what those before it did. Guides
/// that nothing touched stay the very same objects.
///
/// Box tests come first: a stamp costs in proportion to the guides it reaches. Those are worked on
/// in parallel and written in order, with the same bits at any thread count.
/// Between two commits nobody else may change the hierarchy; `restart` after such a change.
class GuideStamper {
public:
    /// `hierarchy` must outlive it; `scalp` may be null. `chained`: some candidates follow others,
    /// so each stamp is committed at once.
    GuideStamper(GuideHierarchy& hierarchy, std::vector<GuideCandidate> candidates,
                 const ScalpMesh* scalp, bool chained);

    /// Returns the number of guides changed or erased.
    std::size_t stamp(const BrushToolSettings& settings, const BrushStamp& stamp, Vec3f drag);
    /// A stamp that draws a painted layer of the reached guides together: each value goes towards
    /// the mean of those rooted nearest; a layer of point values moves as one.
    std::size_t smoothLayer(const BrushToolSettings& settings, const BrushStamp& stamp,
                            float strength);
    void commit();

    std::size_t candidates() const { return candidates_.size(); }
    std::span<const GuideCandidate> candidateList() const { return candidates_; }
    /// Round the candidates, in their order.
    const GuideBoxes& boxes() const { return boxes_; }
    /// Ids of all guides changed and not erased since.
    const std::set<std::uint64_t>& touched() const { return touched_; }
    /// Guides a stamp reached by their boxes, in the last stamp.
    std::size_t lastReached() const { return reached_.size(); }
    /// The guide as the stamps have left it.
    const Guide& guide(const GuideCandidate& candidate) const;

private:
    void layOut();
    void work(const BrushToolSettings& settings, const BrushStamp& stamp, Vec3f drag);
    bool apply(const BrushToolSettings& settings, std::uint32_t item, BrushEdit& edit);
    void erase(const std::vector<std::uint64_t>& ids);
    GuideEdit& edit();

    GuideHierarchy& hierarchy_;
    std::vector<GuideCandidate> candidates_;
    const ScalpMesh* scalp_;
    bool chained_;
    GuideBoxes boxes_;
    std::unique_ptr<GuideEdit> edit_;
    std::vector<GuidePtr> seen_;  ///< when chained: the guides that the boxes are of
    std::vector<std::uint32_t> reached_;
    std::vector<const Guide*> guides_;  ///< of `reached_`
    std::vector<BrushEdit> edits_;      ///< of `reached_`; longer, so that memory is kept
    std::set<std::uint64_t> touched_;
};

}  // namespace corvelle
