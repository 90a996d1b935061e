#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "model/correctives.h"
#include "model/guideHierarchy.h"

namespace corvelle {

/// The axes that a corrective's offsets are told in: of a root's triangle the unit first edge e, n
/// x e, and the unit normal n. Of a root on no triangle, or on one without an area: the groom's x,
/// y, z. An offset is then x e + y (n x e) + z n, and goes with the scalp's pose.
struct CorrectiveFrame {
    Vec3f edge{1, 0, 0}, side{0, 1, 0}, normal{0, 0, 1};
    Vec3f direction(Vec3f offset) const {
        return edge * offset.x + side * offset.y + normal * offset.z;
    }
    Vec3f offset(Vec3f direction) const {
        return {dot(direction, edge), dot(direction, side), dot(direction, normal)};
    }
};
/// `scalp` may be null.
CorrectiveFrame correctiveFrame(const ScalpMesh* scalp, const StrandRoot& root);

/// The layers' weights at a frame, 0 for layers that are off or without offsets: what the result of
/// `applyCorrectives` depends on beside guides, offsets and pose.
std::vector<float> correctiveWeights(const Correctives& correctives, double frame);

/// The guides with every layer's offsets times its weight. `weights`: one a layer. `scalp`, in the
/// guides' pose, may be null. Parents come first, what follows them follows, then come its own
/// offsets. Offsets of another point count are read at even shares i / (n - 1). Offsets of guides
/// that are gone, and a sum that leaves the floats, are left out.
/// Guides that no offset reaches stay the very objects; with nothing to do `guides` itself comes
/// back. Cost: in proportion to the guides that move.
std::shared_ptr<const GuideHierarchy> applyCorrectives(
    const std::shared_ptr<const GuideHierarchy>& guides, const Correctives& correctives,
    std::span<const float> weights, const ScalpMesh* scalp);

/// A layer's weight on a frame from which on a stroke can be kept in it.
constexpr double kLeastCorrectiveWeight = 0.001;
/// Throws std::invalid_argument "corrective layer '<name>' has no weight on this frame: raise its
/// weight (and key it) to sculpt here" where that weight is not reached.
void checkCorrectiveWeight(const CorrectiveLayer& layer, double frame);

/// The layer after a stroke in it: for each guide of `touched` the offsets that make it lie as in
/// `edited`, given the guides without any layer, the other layers, and parents as edited. Offsets
/// that are all shorter than 0.0001 of their guide drop out. Ids that either hierarchy lacks are
/// left out.
///
/// Shapes: `bare` and `edited` in the pose of `scalp` (may be null); `touched` without what merely
///         followed. A guide edited to another point count is read at even shares.
/// Throws: std::out_of_range without such a layer, and as checkCorrectiveWeight.
CorrectiveLayer correctedLayer(const Correctives& correctives, std::size_t layer, double frame,
                               const std::shared_ptr<const GuideHierarchy>& bare,
                               const GuideHierarchy& edited, std::span<const std::uint64_t> touched,
                               const ScalpMesh* scalp);

}  // namespace corvelle
