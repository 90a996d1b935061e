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

Neighbor neighborOf(std::uint64_t order) {
    return {std::uint32_t(order), std::bit_cast<float>(std::uint32_t(order >> 32))};
}

struct Entry {
    float at[3];
    std::uint32_t index;
};

}  // namespace

struct PointIndex::Builder {
    static constexpr std::size_t kBins = 256;
    PointIndex& out;
    std::vector<Entry> entries, spare;  ///< `spare` has room for all and two more

    void build(std::uint32_t node, std::size_t begin, std::size_t end) {
        const std::size_t count = end - begin;
        Float4 lows(kInfinity), highs(-kInfinity);
        for (std::size_t i = begin; i < end; ++i) {  // the last lane says nothing
            const Float4 p = Float4::loadUnaligned(entries[i].at);
            lows = lower(p, lows);
            highs = upper(p, highs);
        }
        alignas(16) float low[4], high[4];
        lows.store(low);
        highs.store(high);
        out.boxes_[node] = {{low[0], low[1], low[2]}, {high[0], high[1], high[2]}};
        if (count <= kBucket) {
            out.nodes_[node].left = std::uint32_t(out.xs_.size());
            out.nodes_[node].axis = kLeaf + std::uint32_t(count);
            for (std::size_t i = begin; i < end; ++i)
                push(entries[i].at[0], entries[i].at[1], entries[i].at[2], entries[i].index);
            while (out.xs_.size() % 4 != 0) push(kNan, kNan, kNan, 0);
            return;
        }
        int axis = 0;
        for (int other = 1; other < 3; ++other)
            if (high[other] - low[other] > high[axis] - low[axis]) axis = other;
        // The median, at a border of full buckets: all but the last are full.
        const std::size_t buckets = (count + kBucket - 1) / kBucket;
        const std::size_t middle = begin + (buckets + 1) / 2 * kBucket;
        part(begin, middle, end, axis, low[axis], high[axis]);
        float leftHigh = -kInfinity;
        for (std::size_t i = begin; i < middle; ++i)
            leftHigh = std::max(leftHigh, entries[i].at[axis]);
        const std::uint32_t left = std::uint32_t(out.nodes_.size());
        out.nodes_[node] = {leftHigh, entries[middle].at[axis], left, std::uint32_t(axis)};
        out.nodes_.resize(out.nodes_.size() + 2);
        out.boxes_.resize(out.nodes_.size());
        build(left, begin, middle);
        build(left + 1, middle, end);
    }

    /// As nth_element by (coordinate, index), in two passes that foretell no comparison: counted
    /// by where they lie from `low` to `high`, most entries are on a side for sure.
    void part(std::size_t begin, std::size_t middle, std::size_t end, int axis, float low,
              float high) {
        const auto at = [&](std::size_t i) { return entries.begin() + std::ptrdiff_t(i); };
        const std::size_t count = end - begin, bins = count < 1024 ? 64 : kBins;
        const float scale = float(bins - 1) / (high - low);
        std::size_t first = begin, last = end;
        if (high > low && scale > 0.0f && scale <= FLT_MAX) {
            const auto binOf = [&](const Entry& e) {
                return std::size_t(int((e.at[axis] - low) * scale));
            };
            std::array<std::uint32_t, kBins + 1> counts;
            std::fill_n(counts.begin(), bins + 1, 0u);
            for (std::size_t i = begin; i < end; ++i) ++counts[binOf(entries[i])];
            std::size_t bin = 0, before = begin;
            while (before + counts[bin] <= middle) before += counts[bin++];
            const std::size_t inside = counts[bin];
            std::size_t left = begin, within = 0, right = 0;
            Entry* const behind = spare.data() + inside + 1;
            for (std::size_t i = begin; i < end; ++i) {
                const Entry e = entries[i];
                const std::size_t own = binOf(e);
                entries[left] = e;
                spare[within] = e;
                behind[right] = e;
                left += own < bin;
                within += own == bin;
                right += own > bin;
            }
            std::copy_n(spare.begin(), within, at(left));
            std::copy_n(behind, right, at(left + within));
            first = left;
            last = left + within;
        }
        std::nth_element(at(first), at(middle), at(last), [axis](const Entry& a, const Entry& b) {
            return a.at[axis] != b.at[axis] ? a.at[axis] < b.at[axis] : a.index < b.index;
        });
    }

    void push(float x, float y, float z, std::uint32_t index) {
        out.xs_.push_back(x);
        out.ys_.push_back(y);
        out.zs_.push_back(z);
        out.indices_.push_back(index);
    }
};

PointIndex::PointIndex(std::span<const Vec3f> points) : count_(points.size()) {
    Builder builder{*this, {}, {}};
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
    builder.spare.resize(builder.entries.size() + 2);
    const std::size_t padded = builder.entries.size() + 4;
    for (std::vector<float>* array : {&xs_, &ys_, &zs_}) array->reserve(padded);
    indices_.reserve(padded);
    nodes_.reserve(2 * (builder.entries.size() / kBucket + 1));
    boxes_.reserve(nodes_.capacity());
    nodes_.resize(1);
    boxes_.resize(1);
    builder.build(0, 0, builder.entries.size());
}

std::size_t PointIndex::nearest(Vec3f position, std::span<Neighbor> out, float maxDistance) const {
    if (nodes_.empty() || out.empty() || !isFinite(position) || !(maxDistance >= 0.0f)) return 0;
    const std::size_t capacity = out.size();
    std::size_t found = 0;
    float limit = lower(maxDistance * maxDistance, FLT_MAX);  // at it counts

    // A side's squared distance is kept as one offset per axis (Arya, Mount, "Algorithms for fast
    // vector quantization", DCC 1993): entering the far side replaces the offset of its axis.
    // Offsets go as one: numbers written one by one and read back together would be waited for.
    struct Side {
        Float4 offset, squared;  ///< the latter in every lane
        std::uint32_t node;
    };
    const auto sumOf = [](Float4 o) { return spread<0>(o) + spread<1>(o) + spread<2>(o); };
    // Sums of the same terms in another order may differ by ulps: never skip on those.
    const auto within = [&](Float4 squared) {
        return laneBits(squared <= Float4(limit * 1.00001f + FLT_MIN)) != 0;
    };
    alignas(16) static constexpr float kAxes[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    const float places[3] = {position.x, position.y, position.z};
    Side stack[64];
    int size = 0;
    alignas(16) float offsets[4] = {};
    for (int axis = 0; axis < 3; ++axis) {
        const float o = std::max({low_[axis] - position[axis], position[axis] - high_[axis], 0.0f});
        offsets[axis] = o * o;
    }
    Side at{Float4::load(offsets), Float4(0.0f), 0};
    at.squared = sumOf(at.offset);
    const Float4 px(position.x), py(position.y), pz(position.z);
    const Node* const nodes = nodes_.data();
    const float* const xs = xs_.data();
    const float* const ys = ys_.data();
    const float* const zs = zs_.data();
    const std::uint32_t* const indices = indices_.data();
    while (true) {
        if (within(at.squared)) {
            const Node& node = nodes[at.node];
            if (node.axis < kLeaf) {
                const float p = places[node.axis];
                const float toLeft = p - node.low, toRight = node.high - p;
                const bool leftFirst = toLeft < toRight;
                const float across = std::max(leftFirst ? toRight : toLeft, 0.0f);
                Side& farSide = stack[size];
                farSide.node = node.left + (leftFirst ? 1u : 0u);
                farSide.offset = select(Float4::load(kAxes[node.axis]) > Float4(0.0f),
                                        upper(Float4(across * across), at.offset), at.offset);
                farSide.squared = sumOf(farSide.offset);
                size += within(farSide.squared);
                at.node = node.left + (leftFirst ? 0u : 1u);
                continue;
            }
            const std::uint32_t end = node.left + (node.axis - kLeaf);
            for (std::uint32_t i = node.left; i < end; i += 4) {
                const Float4 dx = Float4::loadUnaligned(xs + i) - px;
                const Float4 dy = Float4::loadUnaligned(ys + i) - py;
                const Float4 dz = Float4::loadUnaligned(zs + i) - pz;
                const Float4 d = dx * dx + dy * dy + dz * dz;
                int lanes = laneBits(d <= Float4(limit));
                if (lanes == 0) continue;
                alignas(16) float squared[4];
                d.store(squared);
                for (; lanes != 0; lanes &= lanes - 1) {
                    const int lane = std::countr_zero(unsigned(lanes));
                    const Neighbor candidate{indices[i + std::uint32_t(lane)], squared[lane]};
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

void PointIndex::nearestToBucket(const PointIndex& asking, std::size_t bucket, std::size_t count,
                                 float maxDistance, BucketNeighbors& out) const {
    const std::size_t first = bucket * kBucket;
    // Places behind the last point are NaN: nothing is near them.
    const std::size_t lanes = std::min(kBucket, asking.xs_.size() - first);
    alignas(16) float x[kBucket], y[kBucket], z[kBucket], limits[kBucket];
    std::array<std::array<std::uint64_t, kMostTogether>, kBucket> keys;
    const float reach = maxDistance >= 0.0f ? lower(maxDistance * maxDistance, FLT_MAX) : -1.0f;
    // What is at the reach counts, so it comes before this.
    constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t none = orderOf({kNone, reach});
    Box box{{kInfinity, kInfinity, kInfinity}, {-kInfinity, -kInfinity, -kInfinity}};
    out.points = 0;
    for (std::size_t q = 0; q < lanes; ++q) {
        x[q] = asking.xs_[first + q];
        y[q] = asking.ys_[first + q];
        z[q] = asking.zs_[first + q];
        limits[q] = -1.0f;
        if (std::isnan(x[q])) continue;
        const Vec3f p{x[q], y[q], z[q]};
        box = {componentMin(box.low, p), componentMax(box.high, p)};
        out.index[out.points++] = asking.indices_[first + q];
        limits[q] = reach;
        std::fill_n(keys[q].begin(), count, none);
    }
    std::fill_n(out.found.begin(), out.points, 0u);
    if (nodes_.empty() || !(reach >= 0.0f)) return;

    // Distances of boxes are sums of the same terms in the same order as those of points, so they
    // are never above those of the points within.
    const auto apart = [&](const Box& other) {
        float sum[3];
        for (int axis = 0; axis < 3; ++axis) {
            const float gap = upper(
                upper(other.low[axis] - box.high[axis], box.low[axis] - other.high[axis]), 0.0f);
            sum[axis] = gap * gap;
        }
        return sum[0] + sum[1] + sum[2];
    };
    const auto scan = [&](std::size_t q, std::uint32_t begin, std::uint32_t end) {
        std::uint64_t* const key = keys[q].data();
        const Float4 px(x[q]), py(y[q]), pz(z[q]);
        Float4 limit(limits[q]);
        for (std::uint32_t i = begin; i < end; i += 4) {
            const Float4 dx = Float4::loadUnaligned(&xs_[i]) - px;
            const Float4 dy = Float4::loadUnaligned(&ys_[i]) - py;
            const Float4 dz = Float4::loadUnaligned(&zs_[i]) - pz;
            const Float4 d = dx * dx + dy * dy + dz * dz;
            int near = laneBits(d <= limit);
            if (near == 0) continue;
            alignas(16) float squared[4];
            d.store(squared);
            for (; near != 0; near &= near - 1) {
                const int lane = std::countr_zero(unsigned(near));
                const std::uint64_t own =
                    orderOf({indices_[i + std::uint32_t(lane)], squared[lane]});
                // Into its place without a branch, since none could be foretold.
                for (std::size_t j = count - 1; j > 0; --j)
                    key[j] = std::min(key[j], std::max(key[j - 1], own));
                key[0] = std::min(key[0], own);
            }
            limit = Float4(neighborOf(key[count - 1]).distanceSquared);
        }
        limits[q] = neighborOf(key[count - 1]).distanceSquared;
    };

    struct Side {
        std::uint32_t node;
        float squared;
    };
    Side stack[64];
    int size = 0;
    Side at{0, apart(boxes_[0])};
    float widest = reach;  // the greatest of the limits
    while (true) {
        if (at.squared <= widest) {
            const Node& node = nodes_[at.node];
            if (node.axis < kLeaf) {
                Side near{node.left, apart(boxes_[node.left])};
                Side far{node.left + 1, apart(boxes_[node.left + 1])};
                if (far.squared < near.squared) std::swap(near, far);
                stack[size] = far;
                size += far.squared <= widest;
                at = near;
                continue;
            }
            const Box& other = boxes_[at.node];
            const std::uint32_t end = node.left + (node.axis - kLeaf);
            Float4 most(-1.0f);
            for (std::size_t q = 0; q < lanes; q += 4) {
                const auto gap = [](Float4 p, float low, float high) {
                    return upper(upper(Float4(low) - p, p - Float4(high)), Float4(0.0f));
                };
                const Float4 dx = gap(Float4::load(x + q), other.low.x, other.high.x);
                const Float4 dy = gap(Float4::load(y + q), other.low.y, other.high.y);
                const Float4 dz = gap(Float4::load(z + q), other.low.z, other.high.z);
                int in = laneBits(dx * dx + dy * dy + dz * dz <= Float4::load(limits + q));
                for (; in != 0; in &= in - 1)
                    scan(q + std::size_t(std::countr_zero(unsigned(in))), node.left, end);
                most = upper(most, Float4::load(limits + q));
            }
            widest = highest(most);
        }
        if (size == 0) break;
        at = stack[--size];
    }
    for (std::size_t q = 0; q < out.points; ++q)
        for (std::size_t j = 0; j < count; ++j) {
            out.near[q][j] = neighborOf(keys[q][j]);
            out.found[q] += out.near[q][j].index != kNone;
        }
}

bool PointIndex::nearestOne(Vec3f position, Neighbor& out, float maxDistance) const {
    return nearest(position, std::span<Neighbor>(&out, 1), maxDistance) == 1;
}

}  // namespace corvelle
