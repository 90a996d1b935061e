#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "model/guideHierarchy.h"
#include "model/pointIndex.h"
#include "tools/strokeState.h"

namespace corvelle {

/// Makes the guides of a stroke that places or draws them: in the settings' `group`, else the
/// first group of `level`, else a new root group. Guides of a child group hang off the parent
/// rooted nearest. Neighbours are those that were there before the stroke.
class NewGuides {
public:
    /// Throws StrokeNotFound "no group named '<name>'", or StrokeStateError, for a child group
    /// whose parent group is empty, "the group '<name>' has no parents to hang a guide on".
    explicit NewGuides(const StrokeState& state);

    /// A guide's shape and what it carries; points start at the root.
    struct Shape {
        std::vector<Vec3f> points;
        std::vector<float> tubeRadius;
        float tubeTwist = 0.0f;
        std::map<std::string, float> attributes;
        std::map<std::string, std::vector<float>> pointAttributes;
    };
    /// Along the normal, by the settings' length and segments.
    Shape standing(const StrokeState& state, const SurfaceHit& root) const;
    /// After the 4 neighbours rooted nearest, by the inverse square of their distance: their shapes
    /// turned from root normal to root normal, at their mean length, with the point count of the
    /// nearest, and their tubes and layers (not the freeze mask). Standing where there are none, or
    /// without `matchNeighbors`.
    Shape matched(const StrokeState& state, const SurfaceHit& root) const;
    /// `points` with the tube and layers of `matched`.
    Shape drawn(const StrokeState& state, const SurfaceHit& root, std::vector<Vec3f> points) const;

    /// Adds the guide and, under symmetry, its mirror image (unless that is rooted within a quarter
    /// of `spacing`), both kept off the scalp with `collide`. Returns their ids.
    std::vector<std::uint64_t> add(StrokeState& state, const SurfaceHit& root,
                                   const Shape& shape) const;

private:
    struct Share {
        const Guide* guide;
        float weight;  ///< adding up to 1
    };
    std::vector<Share> neighbours(Vec3f place) const;
    std::uint64_t addOne(StrokeState& state, const SurfaceHit& root, Shape shape,
                         const SideMap* flipped) const;

    std::string groupName_;  ///< made at the first guide
    std::uint32_t group_ = 0;
    bool isChild_ = false;
    std::vector<GuidePtr> guides_, parents_;
    PointIndex roots_, parentRoots_;
};

}  // namespace corvelle
