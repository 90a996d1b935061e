#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/vec3f.h"

namespace corvelle {

/// Which part of a triangle is closest to a position.
enum class TriangleFeature : std::uint8_t { Vertex0, Vertex1, Vertex2, Edge01, Edge12, Edge20, Face };

struct TrianglePoint {
    Vec3f point;
    TriangleFeature feature = TriangleFeature::Face;
};

/// The point of a triangle closest to `p`, and the part of the triangle it lies on. A degenerate
/// triangle counts as its edges.
/// Source: Ericson, "Real-Time Collision Detection", 2005, 5.1.5.
TrianglePoint closestOnTriangle(Vec3f p, Vec3f a, Vec3f b, Vec3f c);

/// An edge of one triangle only. `inward` is unit, in the triangle's plane, square to the edge;
/// zero for a degenerate triangle.
struct BorderEdge {
    Vec3f a, b, inward;
};

/// The open edges of the triangles that queries see, in triangle order. Vertices at bit-equal places
/// count as one, so that a mesh split along UV seams has no false border; triangles that use a place
/// twice have no edges.
std::vector<BorderEdge> openBoundary(const ScalpMesh& mesh);

/// Tells inside from outside of a mesh by the pseudonormals of its faces, edges and vertices: the
/// sign holds wherever the closest point lies. Closest to an open border counts as outside, and so
/// does a place without a normal. Immutable once made; any thread may read.
/// Source: Baerentzen, Aanaes, "Signed distance computation using the angle weighted pseudonormal",
///         IEEE TVCG 11(3), 2005.
class MeshSides {
public:
    struct Side {
        float sign = 1.0f;  ///< -1 inside, 1 outside
        Vec3f normal;       ///< the pseudonormal there, unit or zero
    };

    explicit MeshSides(const ScalpMesh& mesh);
    /// No open edge anywhere.
    bool closed() const { return closed_; }
    /// The side of `position`, whose closest point of the mesh is `at`, on `triangle`.
    Side side(std::int32_t triangle, const TrianglePoint& at, Vec3f position) const;

private:
    struct Corner {
        std::int32_t vertex = -1;  ///< of vertexNormals_
        std::int32_t edge = -1;    ///< of edgeNormals_: from this corner to the next
    };
    struct Part {
        Vec3f normal;
        bool border = false;
    };
    std::int32_t first_ = 0;
    std::vector<std::array<Corner, 3>> corners_;  ///< from triangle first_ on
    std::vector<Vec3f> faceNormals_;
    std::vector<Part> vertices_;
    std::vector<Part> edges_;
    bool closed_ = true;
};
using MeshSidesPtr = std::shared_ptr<const MeshSides>;

}  // namespace corvelle
