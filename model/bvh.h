#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

using Triangle = std::array<std::int32_t, 3>;

/// What a query of a Bvh found.
struct BvhHit {
    std::int32_t triangle = -1;
    float distanceSquared = 0.0f;          ///< of a closest point
    float t = 0.0f;                        ///< of a ray
    float weight0 = 0.0f, weight1 = 0.0f;  ///< of the triangle's first two corners
    Vec3f position;                        ///< of a closest point: the corners by their weights
};

/// The part of a Bvh that only says which triangles lie together: meshes of the same triangles and
/// other points share it, and only measure their boxes again.
struct BvhOrder {
    /// What a child reference names; the reference is index * 4 + kind.
    enum Kind : std::int32_t { kInner, kOriented, kBlock };  // kNone is of none of them
    static constexpr std::int32_t kNone = -1;
    using Children = std::array<std::int32_t, 4>;
    struct Parent {
        std::int32_t node = kNone;  ///< kNone for the root
        std::int32_t lane = 0;      ///< which child of it
    };

    std::int32_t root = kNone;
    /// Children come after their parents in both lists. Those of oriented nodes are oriented nodes
    /// and blocks.
    std::vector<Children> inner, oriented;
    /// Blocks [runs[n][c], runs[n][c + 1]) lie below child c of oriented node n.
    std::vector<std::array<std::uint32_t, 5>> runs;
    /// Four triangle indices per block, ascending, -1 where a block is not full.
    std::vector<std::array<std::int32_t, 4>> blocks;
    std::vector<Parent> innerParents, orientedParents, blockParents;
    /// The block of triangle firstTriangle + i.
    std::vector<std::uint32_t> blockOf;
    std::size_t firstTriangle = 0;
    /// The summed surface of the blocks' boxes per area of their triangles, when the order was
    /// made.
    double looseness = 0.0;
};

/// A bounding volume hierarchy of four-wide nodes over blocks of four triangles, both laid out for
/// Float4. Split at the median along the longest axis of the centroids' box, ties by lower index,
/// so the tree does not depend on a library's selection. Nodes near the leaves have boxes along
/// their own mean normal (Gottschalk, Lin, Manocha, "OBBTree", SIGGRAPH 1996): a smooth surface is
/// thin that way, so from off the surface few blocks look near that are not.
///
/// Answers do not depend on the tree: the nearest by (distance, triangle index), where boxes are
/// padded so that rounding never hides a triangle. Points that are not finite make triangles that
/// nothing finds. Queries are const and run from any number of threads.
class Bvh {
public:
    /// Over triangles [first, end). Builds the order anew.
    Bvh(std::span<const Vec3f> points, std::span<const Triangle> triangles, std::size_t first,
        std::size_t end);
    /// Refits: keeps the order and measures the boxes for these points.
    Bvh(std::shared_ptr<const BvhOrder> order, std::span<const Vec3f> points,
        std::span<const Triangle> triangles);

    const std::shared_ptr<const BvhOrder>& order() const { return order_; }
    /// The boxes' surface per triangle area now; far above the order's own, a new build pays.
    double looseness() const { return looseness_; }

    /// The closest point nearer than the square root of `maxDistanceSquared`. `nearTriangle` (or
    /// -1, or one that is not in the tree) only makes it faster: the search climbs from there.
    bool closestPoint(Vec3f position, float maxDistanceSquared, std::int32_t nearTriangle,
                      BvhHit& hit) const;
    /// The nearest hit at a ray parameter above 0, up to and including `maxT`.
    bool rayIntersect(Vec3f origin, Vec3f direction, BvhHit& hit,
                      float maxT = std::numeric_limits<float>::infinity()) const;
    /// The same for many rays, which share the way down: hits [n] as origins and directions, their
    /// triangle -1 for none. Some times faster by the ray when there are hundreds, whether they lie
    /// together or not. Throws std::invalid_argument when sizes differ.
    void rayIntersect(std::span<const Vec3f> origins, std::span<const Vec3f> directions,
                      std::span<BvhHit> hits,
                      float maxT = std::numeric_limits<float>::infinity()) const;

private:
    /// The boxes of a node's four children; empty ones have their min above their max.
    struct Boxes4 {
        float minX[4], minY[4], minZ[4], maxX[4], maxY[4], maxZ[4];
    };
    /// Where a node is alone: no triangle outside the node reaches into this box (fourth: unused).
    struct alignas(16) AloneBox {
        float low[4], high[4];
    };
    struct alignas(64) InnerNode {
        Boxes4 boxes;
        BvhOrder::Children children;
        AloneBox alone;
    };
    /// Boxes along three axes of its own: a place p is at sum over k of column k times
    /// (p[k] - the column's fourth number).
    struct alignas(64) OrientedNode {
        Boxes4 boxes;
        BvhOrder::Children children;
        float columns[3][4];
        AloneBox alone;
    };
    /// Four triangles by corners; NaN where a block is not full.
    struct alignas(32) Block {
        float x[3][4], y[3][4], z[3][4];
        std::array<std::int32_t, 4> triangles;
    };
    struct Search;
    struct Ray;
    struct RayStream;
    struct Fitting;
    void fit(std::span<const Vec3f> points, std::span<const Triangle> triangles);

    std::shared_ptr<const BvhOrder> order_;
    std::vector<InnerNode> inner_;
    std::vector<OrientedNode> oriented_;
    std::vector<Block> blocks_;
    Vec3f low_, high_;  // of all
    double looseness_ = 0.0;
};

/// A Bvh built by the first query that needs it, serially, behind a flag and a mutex, so that a
/// query may come from inside a parallel loop. Siblings, made for other points of the same
/// triangles, refit the order that one of them built.
class LazyBvh {
public:
    LazyBvh() : shared_(std::make_shared<Shared>()) {}
    std::shared_ptr<LazyBvh> sibling() const;
    /// Built on the first call; give the same arrays on every call.
    const Bvh& get(std::span<const Vec3f> points, std::span<const Triangle> triangles,
                   std::size_t first, std::size_t end) const;
    bool built() const { return ready_.load(std::memory_order_acquire) != nullptr; }

private:
    struct Shared {
        std::mutex mutex;
        std::shared_ptr<const BvhOrder> order;
    };
    explicit LazyBvh(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    std::shared_ptr<Shared> shared_;
    mutable std::atomic<const Bvh*> ready_{nullptr};
    mutable std::mutex mutex_;
    mutable std::unique_ptr<const Bvh> tree_;
};

}  // namespace corvelle
