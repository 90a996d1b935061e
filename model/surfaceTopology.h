#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/bvh.h"

namespace corvelle {

/// An edge of a triangle list: its vertices in the direction the triangle winds.
struct BoundaryEdge {
    std::int32_t from = -1, to = -1;
    std::int32_t triangle = -1;  ///< the one triangle that has it
    std::int32_t side = 0;       ///< 0 to 2: corner `side` to corner side + 1
};

/// Which triangles meet at which edges and vertices of a triangle list. Sides with two equal
/// vertices are no edges; vertices count by index (two points at one place are two).
/// Cost: O(m log m). Immutable; any thread may read it.
class SurfaceTopology {
public:
    SurfaceTopology() = default;
    /// Triangles index 0 to pointCount - 1.
    SurfaceTopology(std::span<const Triangle> triangles, std::size_t pointCount);

    /// The triangle across side `side` (corner side to corner side + 1); -1 at the open boundary
    /// and at an edge of more than two triangles, which none of them sees across.
    std::int32_t across(std::int32_t triangle, int side) const {
        return across_[3 * std::size_t(triangle) + std::size_t(side)];
    }
    /// The edges of one triangle, in the order of (triangle, side).
    std::span<const BoundaryEdge> openBoundary() const { return boundary_; }
    /// How many edges belong to more than two triangles.
    std::size_t nonManifoldEdges() const { return nonManifold_; }
    /// The triangles round a vertex, ascending.
    std::span<const std::int32_t> trianglesOf(std::int32_t vertex) const {
        const std::size_t v = std::size_t(vertex);
        return std::span(vertexTriangles_)
            .subspan(triangleOffsets_[v], triangleOffsets_[v + 1] - triangleOffsets_[v]);
    }
    /// The vertices that share an edge with a vertex, ascending, once each.
    std::span<const std::int32_t> neighborsOf(std::int32_t vertex) const {
        const std::size_t v = std::size_t(vertex);
        return std::span(neighbors_)
            .subspan(neighborOffsets_[v], neighborOffsets_[v + 1] - neighborOffsets_[v]);
    }
    /// Offsets into `neighbors`, one more than there are vertices.
    std::span<const std::uint32_t> neighborOffsets() const { return neighborOffsets_; }
    std::span<const std::int32_t> neighbors() const { return neighbors_; }

private:
    std::vector<std::int32_t> across_;
    std::vector<BoundaryEdge> boundary_;
    std::size_t nonManifold_ = 0;
    std::vector<std::uint32_t> triangleOffsets_, neighborOffsets_;
    std::vector<std::int32_t> vertexTriangles_, neighbors_;
};

}  // namespace corvelle
