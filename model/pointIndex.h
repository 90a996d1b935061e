#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// One neighbour of a query. Ordered by (squared distance, index).
struct Neighbor {
    std::uint32_t index = 0;
    float distanceSquared = 0.0f;
    friend bool operator<(const Neighbor& a, const Neighbor& b) {
        return a.distanceSquared != b.distanceSquared ? a.distanceSquared < b.distanceSquared
                                                      : a.index < b.index;
    }
};

/// A k-d tree over fixed positions (Bentley, "Multidimensional binary search trees used for
/// associative searching", CACM 18(9), 1975), buckets packed for scanning. Queries are exact, their
/// order fixed by (squared distance, index), const and safe from any thread. The build does not
/// depend on thread count.
/// Edges: points that are not finite are never found; a query that is not finite finds nothing;
///        distances whose square is past the floats are not found.
class PointIndex {
public:
    PointIndex() = default;
    explicit PointIndex(std::span<const Vec3f> points);
    std::size_t size() const { return count_; }
    /// Up to out.size() nearest within `maxDistance` (at it counts), ascending; returns how many.
    std::size_t nearest(Vec3f position, std::span<Neighbor> out,
                        float maxDistance = std::numeric_limits<float>::infinity()) const;
    /// The nearest point alone; false for an empty index or none within `maxDistance`.
    bool nearestOne(Vec3f position, Neighbor& out,
                    float maxDistance = std::numeric_limits<float>::infinity()) const;
    /// Points of a bucket at most. The buckets of an index hold its finite points, each one once,
    /// those of a bucket near to one another.
    static constexpr std::size_t kBucket = 16;
    static constexpr std::size_t kMostTogether = 32;
    std::size_t bucketCount() const { return (indices_.size() + kBucket - 1) / kBucket; }
    /// What `nearest` gives for all points of a bucket, found together in a fraction of the time.
    struct BucketNeighbors {
        std::size_t points = 0;
        std::array<std::uint32_t, kBucket> index;  ///< [points] of the points, in `asking`
        std::array<std::uint32_t, kBucket> found;  ///< [points] how many
        std::array<std::array<Neighbor, kMostTogether>, kBucket> near;  ///< [points][found]
    };
    /// For the points of a bucket of `asking`, which may be this: the `count` nearest of this
    /// index, 1 to kMostTogether. The pruning of whole subtrees for many queries at once follows
    /// Gray, Moore, "N-body problems in statistical learning", NIPS 2000.
    void nearestToBucket(const PointIndex& asking, std::size_t bucket, std::size_t count,
                         float maxDistance, BucketNeighbors& out) const;
    /// Calls visit(index, distanceSquared) for each point within `radius`, in tree order.
    template <class Visit>
    void forEachWithin(Vec3f position, float radius, Visit&& visit) const;

private:
    static_assert(kBucket % 4 == 0);
    /// An inner node splits at a plane into `left` and left + 1; a leaf is a bucket.
    struct Node {
        float low = 0.0f, high = 0.0f;  ///< the left side ends at low, the right begins at high
        std::uint32_t left = 0;         ///< inner: index of the left child; leaf: first point
        std::uint32_t axis = kLeaf;     ///< 0 to 2; kLeaf + count for a leaf
    };
    static constexpr std::uint32_t kLeaf = 4;
    struct Box {
        Vec3f low, high;
    };
    struct Builder;

    std::size_t count_ = 0;
    Vec3f low_, high_;
    std::vector<Node> nodes_;
    std::vector<Box> boxes_;              ///< [nodes] round the points of each
    std::vector<float> xs_, ys_, zs_;     ///< bucket order, each leaf padded to fours by NaN
    std::vector<std::uint32_t> indices_;  ///< bucket order
};

template <class Visit>
void PointIndex::forEachWithin(Vec3f position, float radius, Visit&& visit) const {
    if (nodes_.empty() || !isFinite(position) || !(radius >= 0.0f)) return;
    const float limit = radius * radius;
    std::uint32_t stack[64];
    int size = 0;
    stack[size++] = 0;
    while (size > 0) {
        const Node& node = nodes_[stack[--size]];
        if (node.axis < kLeaf) {
            // Against the planes only: a square of one difference is never above the distance.
            const float p = position[int(node.axis)];
            const float toLeft = p - node.low, toRight = node.high - p;
            if (!(toRight > 0.0f && toRight * toRight > limit)) stack[size++] = node.left + 1;
            if (!(toLeft > 0.0f && toLeft * toLeft > limit)) stack[size++] = node.left;
            continue;
        }
        const std::uint32_t end = node.left + (node.axis - kLeaf);
        for (std::uint32_t i = node.left; i < end; ++i) {
            const float dx = xs_[i] - position.x, dy = ys_[i] - position.y,
                        dz = zs_[i] - position.z;
            const float d = dx * dx + dy * dy + dz * dz;
            if (d <= limit) visit(indices_[i], d);
        }
    }
}

}  // namespace corvelle
