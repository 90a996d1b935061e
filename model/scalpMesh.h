#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "model/bvh.h"
#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

/// A place on a mesh. `position` = u p0 + v p1 + (1 - u - v) p2 of the triangle.
struct SurfaceHit {
    std::int32_t triangle = -1;
    float u = 0.0f;
    float v = 0.0f;
    float distance = 0.0f;  ///< to the query position, or the ray parameter
    Vec3f position;
    StrandRoot root() const { return {triangle, u, v}; }
};

/// An orthonormal frame on the surface at a root.
struct SurfaceFrame {
    Vec3f origin;
    Vec3f tangent;   ///< unit, square to normal: p1 - p0 of the triangle less its normal share
    Vec3f normal;    ///< unit, interpolated
    Vec3f binormal;  ///< cross(normal, tangent)
};

/// A named run of triangles and points of a mesh that holds several scalps.
struct ScalpPiece {
    std::string name;
    std::uint64_t firstTriangle = 0, triangleCount = 0, firstPoint = 0, pointCount = 0;
    std::uint64_t hash = 0;
};

class ScalpMesh;
using ScalpPtr = std::shared_ptr<const ScalpMesh>;

/// The mesh hair grows on. Build it, set its extras, then publish it as a ScalpPtr: from there on
/// it is immutable, and any number of threads may query it (the BVH is built on the first query,
/// serially, behind a lock; call `prepareQueries` before a parallel loop).
///
/// Shapes: points, normals, restPoints [n]; triangles [m]; uvs and colour sets 3 m, one per corner;
///         polygons: triangle counts of the source polygons, fans in order, adding up to m.
/// Units:  groom space, centimetres.
class ScalpMesh {
public:
    ScalpMesh() : ScalpMesh({}, {}, false) {}
    /// Throws std::out_of_range "ScalpMesh: triangle index out of range" with `checkIndices`.
    ScalpMesh(std::vector<Vec3f> points, std::vector<Triangle> triangles, bool checkIndices = true);

    // Extras, before publishing. All throw std::invalid_argument and change nothing on a bad size.
    void setUvs(std::vector<Vec2f> uvs);
    void addColorSet(const std::string& name, std::vector<Color4f> colors);
    void setPolygons(std::vector<std::int32_t> triangleCounts);
    void setScalps(std::vector<ScalpPiece> pieces);
    void setRestPoints(std::vector<Vec3f> points);
    void clearRestPoints();
    /// Catmull-Clark levels (0-3) that renders refine by, and what gave them; kept for files and
    /// notes.
    void setSubdivision(int levels, std::string from);

    std::span<const Vec3f> points() const;
    std::span<const Triangle> triangles() const;
    /// Per vertex, unit, weighted by the area and the angle of the faces' corners; zero where no
    /// face with an area meets.
    std::span<const Vec3f> normals() const;
    std::span<const float> triangleAreas() const;
    double area() const;  ///< summed in triangle order
    std::span<const Vec2f> uvs() const;
    const std::map<std::string, std::vector<Color4f>>& colorSets() const;
    std::span<const std::int32_t> polygons() const;
    const std::vector<ScalpPiece>& scalps() const;
    const ScalpPiece* scalp(const std::string& name) const;
    std::span<const Vec3f> restPoints() const;
    int subdivision() const;
    const std::string& subdivisionFrom() const;
    /// Of a refined mesh, the polygons of its cage; 0 for a mesh as it came.
    std::size_t cageFaceCount() const;
    void setCageFaceCount(std::size_t count);
    /// The box of the points; min above max for none.
    Vec3f boundsMin() const;
    Vec3f boundsMax() const;
    /// Longest side, in cm, of the box of the rest points, else of the points; 0 for none.
    float size() const;

    // Made when first asked for, then kept. The active triangles of a limited mesh count in all but
    // the topology.
    std::uint64_t contentHash() const;   ///< points and triangles
    std::uint64_t topologyHash() const;  ///< triangle count and vertex indices
    std::uint64_t restHash() const;      ///< contentHash over the rest points, else contentHash
    std::uint64_t extrasHash() const;    ///< UVs, colour sets, polygons, pieces and subdivision
    std::uint64_t fullHash() const;      ///< everything

    /// The same topology and extras with other points. Its BVH, when a query needs one, is refitted
    /// from the one of any mesh that shares this topology.
    /// Throws std::invalid_argument "ScalpMesh: new points must match the mesh's point count".
    ScalpPtr withPoints(std::vector<Vec3f> points) const;
    ScalpPtr withRestPoints(std::vector<Vec3f> points) const;  ///< empty drops the rest pose
    /// The mesh with its rest points as points (itself copied, when it has none).
    ScalpPtr restPose() const;
    /// This mesh limited to one piece's triangles for queries, numbering kept: see
    /// `activeTriangles`.
    ScalpPtr limitedTo(const ScalpPiece& piece) const;
    /// [first, end) of the triangles that hair may grow on and queries see.
    std::pair<std::size_t, std::size_t> activeTriangles() const;

    bool validRoot(const StrandRoot& root) const {
        return root.triangle >= 0 && std::size_t(root.triangle) < triangles().size();
    }
    // Of a root on no triangle of this mesh: zero, and the axes for a frame.
    Vec3f surfacePoint(const StrandRoot& root) const;
    Vec3f surfaceNormal(const StrandRoot& root) const;  ///< unit; the face's when the mix is zero
    Vec2f surfaceUv(const StrandRoot& root) const;      ///< (0, 0) without UVs
    Vec3f faceNormal(std::int32_t triangle) const;      ///< unit, zero when degenerate
    SurfaceFrame surfaceFrame(const StrandRoot& root) const;
    /// dP/du of the triangle's UVs less its normal share, unit; zero without UVs or where they are
    /// degenerate.
    Vec3f surfaceTangentU(const StrandRoot& root) const;
    /// A colour set mixed at a root; `colors` as `colorSets` gives it.
    Color4f mixCorners(const std::vector<Color4f>& colors, const StrandRoot& root) const;

    /// Builds the BVH now, so that no loop body has to wait for it.
    void prepareQueries() const;
    // A false leaves `out` as it was; a position that is not finite finds nothing. Squared
    // distances are floats: a mesh 1.8e19 cm away is not found.
    /// The nearest point nearer than `maxDistance` (ties: the lower triangle index); false for
    /// none.
    bool closestPoint(Vec3f position, float maxDistance, SurfaceHit& out) const;
    /// The same answer, found faster when `nearTriangle` (-1: none) is close to it.
    bool closestPointFrom(Vec3f position, float maxDistance, std::int32_t nearTriangle,
                          SurfaceHit& out) const;
    /// The nearest hit at a ray parameter above 0, both sides (ties: the lower triangle index).
    /// Watertight: no ray slips through between triangles that share an edge.
    /// Past `maxT` nothing is found, and sooner.
    bool rayIntersect(Vec3f origin, Vec3f direction, SurfaceHit& out,
                      float maxT = kAnyDistance) const;
    /// The same for many rays at once, faster by the ray: where each hits first, infinite for none.
    /// Throws std::invalid_argument when sizes differ.
    void rayDistances(std::span<const Vec3f> origins, std::span<const Vec3f> directions,
                      std::span<float> out, float maxT = kAnyDistance) const;

    static constexpr float kAnyDistance = std::numeric_limits<float>::infinity();

private:
    struct Topology;  // the triangles
    struct Extras;    // UVs, colour sets, polygons, pieces, subdivision
    struct Shape;     // points and what is derived from them
    struct Rest;      // the rest points
    Extras& extrasForWrite();
    std::shared_ptr<ScalpMesh> moved(std::vector<Vec3f> points) const;
    std::uint64_t hashOfPoints(std::span<const Vec3f> points) const;
    const Bvh& bvh() const;
    std::array<Vec3f, 3> corners(std::int32_t triangle) const;

    std::shared_ptr<const Topology> topology_;
    std::shared_ptr<Extras> extras_;  // written only while no other mesh shares it
    std::shared_ptr<const Shape> shape_;
    std::shared_ptr<const Rest> rest_;  // null for none
    std::shared_ptr<LazyBvh> bvh_;
    std::size_t activeFirst_ = 0, activeEnd_ = 0;
};

}  // namespace corvelle
