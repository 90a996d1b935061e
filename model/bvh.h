#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
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
    float distanceSquared = 0.0f;          ///< closest point
    float t = 0.0f;                        ///< ray parameter
    float weight0 = 0.0f, weight1 = 0.0f;  ///< of the triangle's first two corners
};

/// The part of a Bvh that only says which triangles lie together: meshes of the same triangles and
/// other points share it, and only measure their boxes again.
struct BvhOrder {
    static constexpr std::int32_t kNoChild = INT32_MIN;
    /// Per node its children: a node's index, ~block of four triangles, or kNoChild. Children come
    /// after their parents; node 0 is the root.
    std::vector<std::array<std::int32_t, 4>> children;
    /// Four triangle indices per block, -1 where a block is not full.
    std::vector<std::array<std::int32_t, 4>> blocks;
    /// The summed surface of the blocks' boxes per area of their triangles, when the order was
    /// made.
    double looseness = 0.0;
};

/// A bounding volume hierarchy of four-wide nodes over blocks of four triangles, both laid out for
/// Float4. Split at the median along the longest axis of the centroids' box, ties by lower index,
/// so the tree does not depend on a library's selection.
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
    /// -1) only makes it faster.
    bool closestPoint(Vec3f position, float maxDistanceSquared, std::int32_t nearTriangle,
                      std::span<const Vec3f> points, std::span<const Triangle> triangles,
                      BvhHit& hit) const;
    bool rayIntersect(Vec3f origin, Vec3f direction, std::span<const Vec3f> points,
                      std::span<const Triangle> triangles, BvhHit& hit) const;

private:
    /// The boxes of a node's four children; empty ones have their min above their max.
    struct alignas(64) Boxes4 {
        float minX[4], minY[4], minZ[4], maxX[4], maxY[4], maxZ[4];
    };
    /// Four triangles as a corner and two edges; NaN where a block is not full.
    struct alignas(16) Triangles4 {
        float ax[4], ay[4], az[4], abx[4], aby[4], abz[4], acx[4], acy[4], acz[4];
    };
    void fit(std::span<const Vec3f> points, std::span<const Triangle> triangles);

    std::shared_ptr<const BvhOrder> order_;
    std::vector<Boxes4> boxes_;       // per node
    std::vector<Triangles4> blocks_;  // per block
    Vec3f low_, high_;                // of all
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
