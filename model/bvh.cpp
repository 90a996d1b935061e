#include "model/bvh.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <limits>

#include "model/simd4.h"
#include "model/triangleQueries.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr std::size_t kBlock = 4;
/// Blocks whose boxes have grown this much since the order was made are sorted anew.
constexpr double kWornOut = 4.0;
/// Deep enough for any tree: three entries stay behind per level, and the levels of a median split
/// over 2^31 triangles are 16.
constexpr int kStackSize = 128;

struct Centroid {
    float at[3];
    std::int32_t triangle;
};

float finiteOrZero(float x) { return std::isfinite(x) ? x : 0.0f; }

class OrderBuilder {
public:
    OrderBuilder(std::span<const Vec3f> points, std::span<const Triangle> triangles,
                 std::size_t first, std::size_t end)
        : order_(std::make_shared<BvhOrder>()) {
        centroids_.reserve(end - first);
        for (std::size_t t = first; t < end; ++t) {
            const Vec3f sum = points[std::size_t(triangles[t][0])] +
                              points[std::size_t(triangles[t][1])] +
                              points[std::size_t(triangles[t][2])];
            centroids_.push_back(
                {{finiteOrZero(sum.x), finiteOrZero(sum.y), finiteOrZero(sum.z)}, std::int32_t(t)});
        }
    }

    std::shared_ptr<BvhOrder> build() {
        const std::size_t blocks = (centroids_.size() + kBlock - 1) / kBlock;
        order_->blocks.reserve(blocks);
        order_->children.reserve(blocks / 3 + 1);
        if (blocks > 0) addNode(0, centroids_.size());
        return std::move(order_);
    }

private:
    static std::size_t blocksOf(std::size_t count) { return (count + kBlock - 1) / kBlock; }

    /// Splits [begin, begin + count) at the median block border; returns the left part's count.
    std::size_t split(std::size_t begin, std::size_t count) {
        const auto first = centroids_.begin() + std::ptrdiff_t(begin);
        const auto last = first + std::ptrdiff_t(count);
        float low[3] = {kInfinity, kInfinity, kInfinity};
        float high[3] = {-kInfinity, -kInfinity, -kInfinity};
        for (auto c = first; c != last; ++c)
            for (int axis = 0; axis < 3; ++axis) {
                low[axis] = std::min(low[axis], c->at[axis]);
                high[axis] = std::max(high[axis], c->at[axis]);
            }
        int axis = 0;
        for (int other = 1; other < 3; ++other)
            if (high[other] - low[other] > high[axis] - low[axis]) axis = other;
        const std::size_t left = (blocksOf(count) + 1) / 2 * kBlock;
        std::nth_element(first, first + std::ptrdiff_t(left), last,
                         [axis](const Centroid& a, const Centroid& b) {
                             return a.at[axis] != b.at[axis] ? a.at[axis] < b.at[axis]
                                                             : a.triangle < b.triangle;
                         });
        return left;
    }

    std::int32_t addBlock(std::size_t begin, std::size_t count) {
        std::array<std::int32_t, 4> block{-1, -1, -1, -1};
        for (std::size_t i = 0; i < count; ++i) block[i] = centroids_[begin + i].triangle;
        std::sort(block.begin(), block.begin() + std::ptrdiff_t(count));
        order_->blocks.push_back(block);
        return ~std::int32_t(order_->blocks.size() - 1);
    }

    std::int32_t addNode(std::size_t begin, std::size_t count) {
        const std::size_t node = order_->children.size();
        order_->children.push_back(
            {BvhOrder::kNoChild, BvhOrder::kNoChild, BvhOrder::kNoChild, BvhOrder::kNoChild});
        std::size_t parts[4][2] = {{begin, count}};
        int partCount = 1;
        for (int round = 0; round < 2; ++round) {  // one part into two, two into four
            for (int p = partCount - 1; p >= 0; --p) {
                if (parts[p][1] <= kBlock) continue;
                const std::size_t left = split(parts[p][0], parts[p][1]);
                parts[partCount][0] = parts[p][0] + left;
                parts[partCount][1] = parts[p][1] - left;
                parts[p][1] = left;
                ++partCount;
            }
        }
        for (int p = 0; p < partCount; ++p) {
            const std::int32_t child = parts[p][1] <= kBlock ? addBlock(parts[p][0], parts[p][1])
                                                             : addNode(parts[p][0], parts[p][1]);
            order_->children[node][std::size_t(p)] = child;
        }
        return std::int32_t(node);
    }

    std::vector<Centroid> centroids_;
    std::shared_ptr<BvhOrder> order_;
};

struct Box {
    Vec3f low{kInfinity, kInfinity, kInfinity};
    Vec3f high{-kInfinity, -kInfinity, -kInfinity};
    void add(Vec3f a, Vec3f b) {  // NaN adds nothing
        low = componentMin(low, a);
        high = componentMax(high, b);
    }
    double surface() const {
        const Vec3f s = high - low;
        return s.x >= 0.0f ? double(s.x) * s.y + double(s.y) * s.z + double(s.z) * s.x : 0.0;
    }
};

/// The farthest that rounding can carry a computed point of a triangle out of its box: some ulps of
/// its edges, and one of its coordinates so that the pad is not itself rounded away.
Vec3f margin(Vec3f ab, Vec3f ac, Vec3f low, Vec3f high) {
    const auto pad = [](float e, float f, float l, float h) {
        return 1e-6f * (std::fabs(e) + std::fabs(f)) +
               1.2e-7f * std::max(std::fabs(l), std::fabs(h)) + FLT_MIN;
    };
    return {pad(ab.x, ac.x, low.x, high.x), pad(ab.y, ac.y, low.y, high.y),
            pad(ab.z, ac.z, low.z, high.z)};
}

/// The reciprocal for slab tests without branches: finite for a zero component.
float inverseComponent(float d) {
    return std::fabs(d) < 1e-30f ? std::copysign(1e30f, d) : 1.0f / d;
}

/// Squared distances at or below this may still hide a nearer triangle: box distances are rounded.
float reachOf(float best) { return lower(best * 1.00001f + FLT_MIN, FLT_MAX); }

/// The children that a query still has to see, farthest first, as (distance bits, child): distances
/// are not negative, so their bits order as they do.
struct Stack {
    std::uint64_t entries[kStackSize];
    int size = 0;
    void pushSorted(const float* distances, const std::array<std::int32_t, 4>& children,
                    int lanes) {
        const int base = size;
        for (; lanes != 0; lanes &= lanes - 1) {
            const int lane = std::countr_zero(unsigned(lanes));
            const std::uint64_t entry = std::uint64_t(std::bit_cast<std::uint32_t>(distances[lane]))
                                            << 32 |
                                        std::uint32_t(children[std::size_t(lane)]);
            int at = size++;
            for (; at > base && entries[at - 1] < entry; --at) entries[at] = entries[at - 1];
            entries[at] = entry;
        }
    }
    bool pop(float& distance, std::int32_t& child) {
        if (size == 0) return false;
        const std::uint64_t entry = entries[--size];
        distance = std::bit_cast<float>(std::uint32_t(entry >> 32));
        child = std::int32_t(std::uint32_t(entry));
        return true;
    }
};

}  // namespace

Bvh::Bvh(std::span<const Vec3f> points, std::span<const Triangle> triangles, std::size_t first,
         std::size_t end) {
    const std::shared_ptr<BvhOrder> order = OrderBuilder(points, triangles, first, end).build();
    order_ = order;
    fit(points, triangles);
    order->looseness = looseness_;
}

Bvh::Bvh(std::shared_ptr<const BvhOrder> order, std::span<const Vec3f> points,
         std::span<const Triangle> triangles)
    : order_(std::move(order)) {
    fit(points, triangles);
}

void Bvh::fit(std::span<const Vec3f> points, std::span<const Triangle> triangles) {
    const std::vector<std::array<std::int32_t, 4>>& blocks = order_->blocks;
    const std::vector<std::array<std::int32_t, 4>>& nodes = order_->children;
    blocks_.resize(blocks.size());
    boxes_.resize(nodes.size());
    std::vector<Box> blockBoxes(blocks.size());
    double surface = 0.0, area = 0.0;
    for (std::size_t b = 0; b < blocks.size(); ++b) {
        Triangles4& out = blocks_[b];
        Box box;
        for (std::size_t lane = 0; lane < kBlock; ++lane) {
            Vec3f a{kNan, kNan, kNan}, ab{kNan, kNan, kNan}, ac{kNan, kNan, kNan};
            if (blocks[b][lane] >= 0) {
                const Triangle& t = triangles[std::size_t(blocks[b][lane])];
                a = points[std::size_t(t[0])];
                const Vec3f p1 = points[std::size_t(t[1])], p2 = points[std::size_t(t[2])];
                ab = p1 - a;
                ac = p2 - a;
                const Vec3f low = componentMin(componentMin(a, p1), p2);
                const Vec3f high = componentMax(componentMax(a, p1), p2);
                const Vec3f pad = margin(ab, ac, low, high);
                box.add(low - pad, high + pad);
                const double twice = length(cross(ab, ac));
                if (std::isfinite(twice)) area += twice;
            }
            out.ax[lane] = a.x, out.ay[lane] = a.y, out.az[lane] = a.z;
            out.abx[lane] = ab.x, out.aby[lane] = ab.y, out.abz[lane] = ab.z;
            out.acx[lane] = ac.x, out.acy[lane] = ac.y, out.acz[lane] = ac.z;
        }
        surface += box.surface();
        blockBoxes[b] = box;
    }
    looseness_ = area > 0.0 ? surface / area : 0.0;

    // Children come after their parents, so going backwards meets them first.
    std::vector<Box> nodeBoxes(nodes.size());
    for (std::size_t n = nodes.size(); n-- > 0;) {
        Box all;
        for (std::size_t lane = 0; lane < 4; ++lane) {
            const std::int32_t child = nodes[n][lane];
            const Box box = child == BvhOrder::kNoChild ? Box{}
                            : child < 0                 ? blockBoxes[std::size_t(~child)]
                                                        : nodeBoxes[std::size_t(child)];
            boxes_[n].minX[lane] = box.low.x, boxes_[n].maxX[lane] = box.high.x;
            boxes_[n].minY[lane] = box.low.y, boxes_[n].maxY[lane] = box.high.y;
            boxes_[n].minZ[lane] = box.low.z, boxes_[n].maxZ[lane] = box.high.z;
            all.add(box.low, box.high);
        }
        nodeBoxes[n] = all;
    }
    if (!nodes.empty()) low_ = nodeBoxes[0].low, high_ = nodeBoxes[0].high;
}

bool Bvh::closestPoint(Vec3f position, float maxDistanceSquared, std::int32_t nearTriangle,
                       std::span<const Vec3f> points, std::span<const Triangle> triangles,
                       BvhHit& hit) const {
    if (boxes_.empty() || !isFinite(position)) return false;
    float best = lower(maxDistanceSquared, FLT_MAX);
    std::int32_t bestTriangle = -1;
    const auto cornersOf = [&](std::int32_t t) {
        const Triangle& corners = triangles[std::size_t(t)];
        return std::array<Vec3f, 3>{points[std::size_t(corners[0])],
                                    points[std::size_t(corners[1])],
                                    points[std::size_t(corners[2])]};
    };
    if (nearTriangle >= 0) {
        const auto [a, b, c] = cornersOf(nearTriangle);
        const float d = closestOnTriangle(a, b, c, position).distanceSquared;
        if (d < best) best = d, bestTriangle = nearTriangle;
    }
    float reach = reachOf(best);
    const Float4 px(position.x), py(position.y), pz(position.z), zero(0.0f);

    Stack stack;
    std::int32_t child = 0;
    float distance = 0.0f;
    do {
        if (distance > reach) continue;
        if (child >= 0) {
            const Boxes4& n = boxes_[std::size_t(child)];
            const Float4 dx =
                upper(upper(Float4::load(n.minX) - px, px - Float4::load(n.maxX)), zero);
            const Float4 dy =
                upper(upper(Float4::load(n.minY) - py, py - Float4::load(n.maxY)), zero);
            const Float4 dz =
                upper(upper(Float4::load(n.minZ) - pz, pz - Float4::load(n.maxZ)), zero);
            const Float4 d = dx * dx + dy * dy + dz * dz;
            const int lanes = laneBits(d <= Float4(reach));
            if (lanes == 0) continue;
            alignas(16) float distances[4];
            d.store(distances);
            stack.pushSorted(distances, order_->children[std::size_t(child)], lanes);
        } else {
            const Triangles4& t = blocks_[std::size_t(~child)];
            const TriangleClosest<Float4> closest = closestOnTriangle<Float4>(
                Float4::load(t.abx), Float4::load(t.aby), Float4::load(t.abz), Float4::load(t.acx),
                Float4::load(t.acy), Float4::load(t.acz), px - Float4::load(t.ax),
                py - Float4::load(t.ay), pz - Float4::load(t.az));
            int lanes = laneBits(closest.distanceSquared <= Float4(best));
            if (lanes == 0) continue;
            alignas(16) float squared[4];
            closest.distanceSquared.store(squared);
            for (; lanes != 0; lanes &= lanes - 1) {
                const int lane = std::countr_zero(unsigned(lanes));
                const std::int32_t triangle =
                    order_->blocks[std::size_t(~child)][std::size_t(lane)];
                if (squared[lane] < best || (squared[lane] == best && triangle < bestTriangle))
                    best = squared[lane], bestTriangle = triangle;
            }
            reach = reachOf(best);
        }
    } while (stack.pop(distance, child));

    if (bestTriangle < 0) return false;
    const auto [a, b, c] = cornersOf(bestTriangle);
    const TriangleClosest<float> closest = closestOnTriangle(a, b, c, position);
    hit.triangle = bestTriangle;
    hit.distanceSquared = closest.distanceSquared;
    hit.weight0 = 1.0f - closest.v - closest.w;
    hit.weight1 = closest.v;
    return true;
}

bool Bvh::rayIntersect(Vec3f origin, Vec3f direction, std::span<const Vec3f> points,
                       std::span<const Triangle> triangles, BvhHit& hit) const {
    if (boxes_.empty() || !isFinite(origin) || !isFinite(direction) || direction == Vec3f{})
        return false;
    const ShearedRay ray(origin, direction);
    // The triangle test rounds by ulps of the distance from the origin; the boxes give that way.
    const Vec3f far = componentMax(componentMax(high_ - origin, origin - low_), Vec3f{});
    const float pad = 1e-6f * std::max({far.x, far.y, far.z});
    const Vec3f inverse{inverseComponent(direction.x), inverseComponent(direction.y),
                        inverseComponent(direction.z)};
    const Float4 ix(inverse.x), iy(inverse.y), iz(inverse.z), zero(0.0f);
    const Float4 lowX(origin.x + pad), lowY(origin.y + pad), lowZ(origin.z + pad);
    const Float4 highX(origin.x - pad), highY(origin.y - pad), highZ(origin.z - pad);
    const Float4 wider(1.00001f);
    float best = kInfinity;
    std::int32_t bestTriangle = -1;

    Stack stack;
    std::int32_t child = 0;
    float entry = 0.0f;
    do {
        if (entry > best * 1.00001f) continue;
        if (child >= 0) {
            const Boxes4& n = boxes_[std::size_t(child)];
            const auto slab = [&](const float* low, const float* high, Float4 lowFrom,
                                  Float4 highFrom, Float4 inv, Float4& tNear, Float4& tFar) {
                const Float4 a = (Float4::load(low) - lowFrom) * inv;
                const Float4 b = (Float4::load(high) - highFrom) * inv;
                tNear = upper(lower(a, b), tNear);
                tFar = lower(upper(a, b), tFar);
            };
            Float4 tNear = zero, tFar(FLT_MAX);
            slab(n.minX, n.maxX, lowX, highX, ix, tNear, tFar);
            slab(n.minY, n.maxY, lowY, highY, iy, tNear, tFar);
            slab(n.minZ, n.maxZ, lowZ, highZ, iz, tNear, tFar);
            // An empty child has its sides swapped and infinite: told by its box, not by the slabs.
            const Mask4 filled = Float4::load(n.minX) <= Float4::load(n.maxX);
            const int lanes =
                laneBits((tNear <= tFar * wider) & (tNear <= Float4(best) * wider) & filled);
            if (lanes == 0) continue;
            alignas(16) float entries[4];
            tNear.store(entries);
            stack.pushSorted(entries, order_->children[std::size_t(child)], lanes);
        } else {
            for (const std::int32_t triangle : order_->blocks[std::size_t(~child)]) {
                if (triangle < 0) break;
                const Triangle& corners = triangles[std::size_t(triangle)];
                float t, w0, w1;
                if (!intersectTriangle(ray, points[std::size_t(corners[0])],
                                       points[std::size_t(corners[1])],
                                       points[std::size_t(corners[2])], t, w0, w1))
                    continue;
                if (t < best || (t == best && triangle < bestTriangle)) {
                    best = t, bestTriangle = triangle;
                    hit.triangle = triangle;
                    hit.t = t;
                    hit.weight0 = w0;
                    hit.weight1 = w1;
                }
            }
        }
    } while (stack.pop(entry, child));
    return bestTriangle >= 0;
}

std::shared_ptr<LazyBvh> LazyBvh::sibling() const {
    return std::shared_ptr<LazyBvh>(new LazyBvh(shared_));
}

const Bvh& LazyBvh::get(std::span<const Vec3f> points, std::span<const Triangle> triangles,
                        std::size_t first, std::size_t end) const {
    if (const Bvh* tree = ready_.load(std::memory_order_acquire)) return *tree;
    const std::lock_guard lock(mutex_);
    if (const Bvh* tree = ready_.load(std::memory_order_relaxed)) return *tree;
    std::shared_ptr<const BvhOrder> order;
    {
        const std::lock_guard sharedLock(shared_->mutex);
        order = shared_->order;
    }
    if (order) {
        tree_ = std::make_unique<const Bvh>(order, points, triangles);
        if (tree_->looseness() > kWornOut * order->looseness) order = nullptr;
    }
    if (!order) {
        tree_ = std::make_unique<const Bvh>(points, triangles, first, end);
        const std::lock_guard sharedLock(shared_->mutex);
        shared_->order = tree_->order();
    }
    ready_.store(tree_.get(), std::memory_order_release);
    return *tree_;
}

}  // namespace corvelle
