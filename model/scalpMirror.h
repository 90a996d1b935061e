#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

/// The left and right of a mesh by its own edges: which vertex stands for which on the other side.
/// Found on the rest points, so it holds in every pose, also where the shape is not quite
/// symmetric.
///
/// A walk starts at an edge in the middle whose two polygons reflect each other (within 1e-3 of the
/// box's diagonal, across X, then Z, then Y) and goes from polygon to polygon on both sides at
/// once. Middles are tried outwards from the middle of the box.
/// Immutable; any thread may read.
class ScalpMirror {
public:
    /// Kept for the newest meshes, by rest points and polygons.
    static std::shared_ptr<const ScalpMirror> of(const ScalpPtr& mesh);
    explicit ScalpMirror(const ScalpMesh& mesh);

    /// At least 90 % of the vertices have a partner, and there are more than two.
    bool valid() const { return valid_; }
    int axis() const { return axis_; }  ///< 0 to 2, -1 when none was found
    /// By vertex: its partner, itself in the middle, -1 for none.
    std::span<const std::int32_t> partners() const { return partners_; }

    /// Where the partners of a triangle's corners lie on `mesh` (any pose). Empty when one has
    /// none.
    std::optional<std::array<Vec3f, 3>> mirroredCorners(const ScalpMesh& mesh,
                                                        std::int32_t triangle) const;
    /// The mirror image of a root, on `mesh` (any pose): the place that mixes the partners of the
    /// triangle's corners. Empty when a corner has none.
    std::optional<Vec3f> mirroredPlace(const ScalpMesh& mesh, const StrandRoot& root) const;

private:
    bool valid_ = false;
    int axis_ = -1;
    std::vector<std::int32_t> partners_;
};

}  // namespace corvelle
