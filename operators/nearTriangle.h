#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/surfaceTopology.h"
#include "operators/meshSides.h"

namespace corvelle {

/// Walks over a mesh towards the triangle closest to a place, from triangles thought to be near:
/// across the edge, or round the vertex, that is closest, for as long as that comes nearer. On a
/// smooth surface it ends at the closest triangle, many times as fast as a search finds it; it
/// never ends farther off than the best of where it began. Four triangles are measured at a time.
///
/// Immutable; any thread may read it. The mesh must outlive it.
class NearTriangle {
public:
    explicit NearTriangle(const ScalpMesh& mesh);
    struct Found {
        std::int32_t triangle = -1;  ///< -1: none with finite corners
        float distanceSquared = 0.0f;
        float v = 0.0f, w = 0.0f;  ///< shares of the second and third corner in the closest point
    };
    /// `begin`: triangles that queries see; of equal distances the lower triangle. No walk from
    /// where the best of these is `walkWithin` away or farther.
    Found from(std::span<const std::int32_t> begin, Vec3f position, float walkWithin) const;
    /// The closest point that was found.
    TrianglePoint pointOf(const Found& found) const;

private:
    struct Corner {
        float x, y, z, unused;
    };
    Vec3f place(std::int32_t vertex) const {
        const Corner& corner = points_[std::size_t(vertex)];
        return {corner.x, corner.y, corner.z};
    }
    void measure(const std::int32_t* four, Vec3f position, Found& best) const;
    void measureAll(std::span<const std::int32_t> triangles, Vec3f position, Found& best) const;
    bool step(Vec3f position, Found& best) const;

    std::span<const Triangle> triangles_;
    std::vector<Corner> points_;
    SurfaceTopology topology_;
    std::int32_t first_, end_;
};

}  // namespace corvelle
