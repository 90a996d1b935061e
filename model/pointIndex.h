#pragma once

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
        return a.distanceSquared != b.distanceSquared ? a.distanceSquared < b.distanceSquared : a.index < b.index;
    }
};

/// A k-d tree over fixed positions (Bentley, "Multidimensional binary search trees used for
/// associative searching", CACM 18(9), 1975), buckets packed for scanning. Queries are exact, their
/// order fixed by (squared distance, index), const and safe from any thread. The build does not
/// depend on thread count.
class PointIndex {
public:
    PointIndex() = default;
    explicit PointIndex(std::span<const Vec3f> points);
    std::size_t size() const { return count_; }
    /// Up to out.size() nearest within `maxDistance`, ascending; returns how many.
    std::size_t nearest(Vec3f position, std::span<Neighbor> out,
                        float maxDistance = std::numeric_limits<float>::infinity()) const;
    /// The nearest point alone; false for an empty index or none within `maxDistance`.
    bool nearestOne(Vec3f position, Neighbor& out,
                    float maxDistance = std::numeric_limits<float>::infinity()) const;
    /// Calls visit(index, distanceSquared) for each point within `radius`, in tree order.
    template <class Visit>
    void forEachWithin(Vec3f position, float radius, Visit&& visit) const;

private:
    struct Node;
    std::size_t count_ = 0;
    std::vector<Node> nodes_;
    std::vector<float> xs_, ys_, zs_;     ///< bucket order
    std::vector<std::uint32_t> indices_;  ///< bucket order
};

}  // namespace corvelle
