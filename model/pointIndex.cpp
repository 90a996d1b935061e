#include "model/pointIndex.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cstddef>

#include "model/simd4.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// A neighbour as one number that orders as it does: squared distances are not negative, so their
/// bits order as they do.
std::uint64_t orderOf(const Neighbor& n) {
    if constexpr (std::endian::native == std::endian::little && offsetof(Neighbor, index) == 0)
        return std::bit_cast<std::uint64_t>(n);
    return std::uint64_t(std::bit_cast<std::uint32_t>(n.distanceSquared)) << 32 | n.index;
}

struct Entry {
    float at[3];
    std::uint32_t index;
};

}  // namespace

struct PointIndex::Builder {
    PointIndex& out;
    std::vector<Entry> entries;

    void build(std::uint32_t node, std::size_t begin, std::size_t end) {
        const std::size_t count = end - begin;
        if (count <= kBucket) {
            out.nodes_[node].left = std::uint32_t(out.xs_.size());
            out.nodes_[node].axis = kLeaf + std::uint32_t(count);
            for (std::size_t i = begin; i < end; ++i)
                push(entries[i].at[0], entries[i].at[1], entries[i].at[2], entries[i].index);
            while (out.xs_.size() % 4 != 0) push(kNan, kNan, kNan, 0);
            return;
        }
        float low[3] = {kInfinity, kInfinity, kInfinity},
              high[3] = {-kInfinity, -kInfinity, -kInfinity};
        for (std::size_t i = begin; i < end; ++i)
            for (int axis = 0; axis < 3; ++axis) {
                low[axis] = std::min(low[axis], entries[i].at[axis]);
                high[axis] = std::max(high[axis], entries[i].at[axis]);
            }
        int axis = 0;
        for (int other = 1; other < 3; ++other)
            if (high[other] - low[other] > high[axis] - low[axis]) axis = other;
        // The median, at a border of full buckets.
        const std::size_t buckets = (count + kBucket - 1) / kBucket;
        const std::size_t middle = begin + (buckets + 1) / 2 * kBucket;
        const auto at = [&](std::size_t i) { return entries.begin() + std::ptrdiff_t(i); };
        std::nth_element(at(begin), at(middle), at(end), [axis](const Entry& a, const Entry& b) {
            return a.at[axis] != b.at[axis] ? a.at[axis] < b.at[axis] : a.index < b.index;
        });
        float leftHigh = -kInfinity;
        for (std::size_t i = begin; i < middle; ++i)
            leftHigh = std::max(leftHigh, entries[i].at[axis]);
        const std::uint32_t left = std::uint32_t(out.nodes_.size());
        out.nodes_[node] = {leftHigh, entries[middle].at[axis], left, std::uint32_t(axis)};
        out.nodes_.resize(out.nodes_.size() + 2);
        build(left, begin, middle);
        build(left + 1, middle, end);
    }

    void push(float x, float y, float z, std::uint32_t index) {
        out.xs_.push_back(x);
        out.ys_.push_back(y);
        out.zs_.push_back(z);
        out.indices_.push_back(index);
    }
};

PointIndex::PointIndex(std::span<const Vec3f> points) : count_(points.size()) {
    Builder builder{*this, {}};
    builder.entries.reserve(points.size());
    low_ = {kInfinity, kInfinity, kInfinity};
    high_ = -low_;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Vec3f p = points[i];
        if (!isFinite(p)) continue;
        builder.entries.push_back({{p.x, p.y, p.z}, std::uint32_t(i)});
        low_ = componentMin(low_, p);
        high_ = componentMax(high_, p);
    }
    if (builder.entries.empty()) return;
    const std::size_t padded = builder.entries.size() + 4;
    for (std::vector<float>* array : {&xs_, &ys_, &zs_}) array->reserve(padded);
    indices_.reserve(padded);
    nodes_.reserve(2 * (builder.entries.size() / kBucket + 1));
    nodes_.resize(1);
    builder.build(0, 0, builder.entries.size());
}

std::size_t PointIndex::nearest(Vec3f position, std::span<Neighbor> out, float maxDistance) const {
    if (nodes_.empty() || out.empty() || !isFinite(position) || !(maxDistance >= 0.0f)) return 0;
    const std::size_t capacity = out.size();
    std::size_t found = 0;
    float limit = lower(maxDistance * maxDistance, FLT_MAX);  // at it counts

    // A side's squared distance is kept as one offset per axis (Arya, Mount, "Algorithms for fast
    // vector quantization", DCC 1993): entering the far side replaces the offset of its axis.
    struct Side {
        std::uint32_t node;
        float squared;
        float offset[3];
    };
    Side stack[64];
    int size = 0;
    Side at{0, 0.0f, {}};
    for (int axis = 0; axis < 3; ++axis) {
        const float o = std::max({low_[axis] - position[axis], position[axis] - high_[axis], 0.0f});
        at.offset[axis] = o * o;
    }
    at.squared = at.offset[0] + at.offset[1] + at.offset[2];
    const Float4 px(position.x), py(position.y), pz(position.z);
    while (true) {
        // Sums of the same terms in another order may differ by ulps: never skip on those.
        if (at.squared <= limit * 1.00001f + FLT_MIN) {
            const Node& node = nodes_[at.node];
            if (node.axis < kLeaf) {
                const int axis = int(node.axis);
                const float p = position[axis];
                const float toLeft = p - node.low, toRight = node.high - p;
                const bool leftFirst = toLeft < toRight;
                const float across = std::max(leftFirst ? toRight : toLeft, 0.0f);
                Side& farSide = stack[size];
                farSide = at;
                farSide.node = node.left + (leftFirst ? 1u : 0u);
                farSide.offset[axis] = std::max(across * across, at.offset[axis]);
                farSide.squared = farSide.offset[0] + farSide.offset[1] + farSide.offset[2];
                size += farSide.squared <= limit * 1.00001f + FLT_MIN;
                at.node = node.left + (leftFirst ? 0u : 1u);
                continue;
            }
            const std::uint32_t end = node.left + (node.axis - kLeaf);
            for (std::uint32_t i = node.left; i < end; i += 4) {
                const Float4 dx = Float4::loadUnaligned(&xs_[i]) - px;
                const Float4 dy = Float4::loadUnaligned(&ys_[i]) - py;
                const Float4 dz = Float4::loadUnaligned(&zs_[i]) - pz;
                const Float4 d = dx * dx + dy * dy + dz * dz;
                int lanes = laneBits(d <= Float4(limit));
                if (lanes == 0) continue;
                alignas(16) float squared[4];
                d.store(squared);
                for (; lanes != 0; lanes &= lanes - 1) {
                    const int lane = std::countr_zero(unsigned(lanes));
                    const Neighbor candidate{indices_[i + std::uint32_t(lane)], squared[lane]};
                    const std::uint64_t key = orderOf(candidate);
                    if (found == capacity && key >= orderOf(out[capacity - 1])) continue;
                    std::size_t slot = found < capacity ? found++ : capacity - 1;
                    for (; slot > 0 && key < orderOf(out[slot - 1]); --slot)
                        out[slot] = out[slot - 1];
                    out[slot] = candidate;
                    if (found == capacity) limit = out[capacity - 1].distanceSquared;
                }
            }
        }
        if (size == 0) return found;
        at = stack[--size];
    }
}

bool PointIndex::nearestOne(Vec3f position, Neighbor& out, float maxDistance) const {
    return nearest(position, std::span<Neighbor>(&out, 1), maxDistance) == 1;
}

}  // namespace corvelle
