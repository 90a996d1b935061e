#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

/// Catmull-Clark refinement (Catmull, Clark, "Recursively generated B-spline surfaces on arbitrary
/// topological meshes", CAD 10(6), 1978) of one cage topology over its polygons, boundaries sharp,
/// corner UVs and colours linear. The topology work is done once; each pose is one pass.
class SubdivisionPlan {
public:
    /// Throws std::invalid_argument "SubdivisionPlan: levels must be 1 to 3".
    SubdivisionPlan(const ScalpMesh& cage, int levels);
    /// The refined mesh, with UVs, colours, rest points and pieces. Throws std::invalid_argument
    /// "SubdivisionPlan: not this plan's cage".
    ScalpPtr apply(const ScalpMesh& cage) const;
    /// "SubdivisionPlan: the points are not the cage's".
    std::vector<Vec3f> refinePoints(std::span<const Vec3f> points) const;
    /// Values per cage vertex, `channels` each: "SubdivisionPlan: the values are not the cage's
    /// vertices'".
    std::vector<float> refineValues(std::span<const float> values, int channels) const;
    /// Cage polygon of each refined triangle.
    std::span<const std::int32_t> cageFace() const;
    int levels() const;
    std::size_t faceCount() const;  ///< cage polygons

private:
    struct Data;
    std::shared_ptr<const Data> data_;
};

}  // namespace corvelle
