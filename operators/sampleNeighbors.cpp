#include "operators/sampleNeighbors.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr std::size_t kCellsPerSample = 16;  ///< memory: 4 bytes each
constexpr int kMaxCellsPerAxis = 4096;
/// Slack, in cells, for the rounding of a coordinate up to kMaxCellsPerAxis cells.
constexpr float kCellSlack = 0.004f;
/// Samples that share the average sample's cell, above which a tree is faster.
constexpr double kCrowded = 48.0;
constexpr float kFirstReach = 1.05f;
constexpr float kReachGrowth = 1.5f;

/// Squared distance above, rank below: ascending keys are ascending (distance, rank). Squared
/// distances are not negative, so their bits ascend as they do.
std::uint64_t keyOf(float distanceSquared, std::uint32_t rank) {
    return std::uint64_t(std::bit_cast<std::uint32_t>(distanceSquared)) << 32 | rank;
}

/// Collects keys and keeps at least the kSampleNeighbors least.
class NearestKeys {
public:
    void add(std::uint64_t key, float& bound) {
        if (count_ == keys_.size()) {
            std::nth_element(keys_.begin(), keys_.begin() + (kSampleNeighbors - 1), keys_.end());
            count_ = kSampleNeighbors;
            bound = std::bit_cast<float>(std::uint32_t(keys_[kSampleNeighbors - 1] >> 32));
        }
        keys_[count_++] = key;
    }
    /// Whether `more` keys fit without looking; then `put` them: kept when `keep`, no branch.
    bool hasRoom(std::size_t more) const { return count_ + more <= keys_.size(); }
    void put(std::uint64_t key, bool keep) {
        keys_[count_] = key;
        count_ += keep;
    }
    std::size_t count() const { return count_; }
    void clear() { count_ = 0; }
    /// The least, ascending; returns how many.
    std::size_t sortLeast() {
        for (std::size_t i = 1; i < count_; ++i) {
            const std::uint64_t key = keys_[i];
            std::size_t at = i;
            for (; at > 0 && keys_[at - 1] > key; --at) keys_[at] = keys_[at - 1];
            keys_[at] = key;
        }
        return std::min(count_, kSampleNeighbors);
    }
    std::uint32_t rank(std::size_t i) const { return std::uint32_t(keys_[i]); }

private:
    std::array<std::uint64_t, 96> keys_;
    std::size_t count_ = 0;
};

}  // namespace

int SampleIndex::cellOf(float inCells, int axis) const {
    if (!(inCells > 0.0f)) return 0;
    const int last = cells_[std::size_t(axis)] - 1;
    return inCells >= float(last) ? last : int(inCells);
}

bool SampleIndex::sortIntoCells(float reach) {
    const std::size_t n = samples_.size();
    Vec3f low = samples_[0].position, high = low;
    for (const SurfaceSample& sample : samples_) {
        low = componentMin(low, sample.position);
        high = componentMax(high, sample.position);
    }
    const Vec3f size = high - low;
    if (!isFinite(size) || !(reach > 0.0f)) return false;
    double cell = double(reach);
    const auto count = [&](int axis) { return std::floor(double(size[axis]) / cell) + 1.0; };
    const double most = double(kCellsPerSample * n + 4096);
    while (count(0) * count(1) * count(2) > most ||
           std::max({count(0), count(1), count(2)}) > double(kMaxCellsPerAxis))
        cell *= 1.1;
    low_ = low;
    inverse_ = float(1.0 / cell);
    for (int axis = 0; axis < 3; ++axis) cells_[std::size_t(axis)] = int(count(axis));

    cell_.resize(n);
    parallelRange(0, n, 4096, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) {
            const Vec3f at = (samples_[i].position - low_) * inverse_;
            cell_[i] = std::uint32_t((std::size_t(cellOf(at.z, 2)) * std::size_t(cells_[1]) +
                                      std::size_t(cellOf(at.y, 1))) *
                                         std::size_t(cells_[0]) +
                                     std::size_t(cellOf(at.x, 0)));
        }
    });
    starts_.assign(std::size_t(cells_[0]) * std::size_t(cells_[1]) * std::size_t(cells_[2]) + 1, 0);
    for (const std::uint32_t cellIndex : cell_) ++starts_[cellIndex + 1];
    double crowd = 0.0;
    for (std::size_t c = 1; c < starts_.size(); ++c) {
        crowd += double(starts_[c]) * double(starts_[c]);
        starts_[c] += starts_[c - 1];
    }
    if (crowd > kCrowded * double(n)) return false;

    byCell_.resize(n);
    // Filling from the back moves each start to where its cell begins.
    for (std::size_t i = n; i-- > 0;) {
        const std::uint32_t at = --starts_[cell_[i] + 1];
        byCell_[at] = {samples_[i].position, std::bit_cast<float>(ranks_[i])};
    }
    // Now starts_[c + 1] is where cell c begins: shift by one.
    for (std::size_t c = 0; c + 1 < starts_.size(); ++c) starts_[c] = starts_[c + 1];
    starts_.back() = std::uint32_t(n);
    return true;
}

void SampleIndex::rebuild(std::span<const SurfaceSample> samples,
                          std::span<const std::uint32_t> ranks, float reach, bool even) {
    samples_ = samples;
    ranks_ = ranks;
    reach_ = reach;
    const std::size_t n = samples.size();
    if (sampleOf_.size() != n) sampleOf_.resize(n);
    parallelRange(0, n, 4096, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) sampleOf_[ranks[i]] = std::uint32_t(i);
    });
    if (n == 0) return;
    useTree_ = !even || !sortIntoCells(reach);
    if (!useTree_) return;
    std::vector<Vec3f> positions(n);
    for (std::size_t i = 0; i < n; ++i) positions[ranks[i]] = samples[i].position;
    tree_ = PointIndex(positions);
}

void SampleIndex::nearest(std::uint32_t i, const SampleNeighbors* known,
                          SampleNeighbors& out) const {
    const Vec3f p = samples_[i].position;
    const std::size_t wanted = std::min(kSampleNeighbors, samples_.size() - 1);
    if (useTree_) {
        std::array<Neighbor, kSampleNeighbors + 1> found;
        const std::size_t count = tree_.nearest(p, found);
        std::size_t to = 0;
        for (std::size_t k = 0; k < count && to < wanted; ++k)
            if (found[k].index != ranks_[i]) out[to++] = sampleOf_[found[k].index];
        while (to < kSampleNeighbors) out[to++] = i;
        return;
    }

    constexpr float kNoBound = std::numeric_limits<float>::infinity();
    float bound = kNoBound;  // squared; at least `wanted` samples lie within
    bool bounded = false;
    if (known && wanted == kSampleNeighbors) {
        bound = 0.0f;
        for (const std::uint32_t j : *known)
            bound = std::max(bound, lengthSquared(samples_[j].position - p));
        bounded = true;
    }
    const std::uint32_t rank = ranks_[i];
    const Vec3f at = (p - low_) * inverse_;
    float radius = bounded ? std::sqrt(bound) : reach_ * kFirstReach;
    NearestKeys keys;
    for (;;) {
        if (!bounded) bound = radius * radius;
        const float spread = radius * inverse_ + kCellSlack;
        const int x0 = cellOf(at.x - spread, 0), x1 = cellOf(at.x + spread, 0);
        const int y0 = cellOf(at.y - spread, 1), y1 = cellOf(at.y + spread, 1);
        const int z0 = cellOf(at.z - spread, 2), z1 = cellOf(at.z + spread, 2);
        const bool all = x0 == 0 && y0 == 0 && z0 == 0 && x1 == cells_[0] - 1 &&
                         y1 == cells_[1] - 1 && z1 == cells_[2] - 1;
        if (all && !bounded) bound = kNoBound;
        keys.clear();
        for (int z = z0; z <= z1; ++z) {
            for (int y = y0; y <= y1; ++y) {
                const std::size_t row = (std::size_t(z) * std::size_t(cells_[1]) + std::size_t(y)) *
                                        std::size_t(cells_[0]);
                const std::uint32_t begin = starts_[row + std::size_t(x0)];
                const std::uint32_t end = starts_[row + std::size_t(x1) + 1];
                if (keys.hasRoom(end - begin + 1)) {
                    for (std::uint32_t k = begin; k < end; ++k) {
                        const float d2 = lengthSquared(byCell_[k].position - p);
                        const std::uint32_t other = std::bit_cast<std::uint32_t>(byCell_[k].radius);
                        keys.put(keyOf(d2, other), (d2 <= bound) & (other != rank));
                    }
                    continue;
                }
                for (std::uint32_t k = begin; k < end; ++k) {
                    const float d2 = lengthSquared(byCell_[k].position - p);
                    if (!(d2 <= bound)) continue;
                    const std::uint32_t other = std::bit_cast<std::uint32_t>(byCell_[k].radius);
                    if (other != rank) keys.add(keyOf(d2, other), bound);
                }
            }
        }
        if (bounded || all || keys.count() >= wanted) break;
        radius *= kReachGrowth;
    }
    const std::size_t count = std::min(keys.sortLeast(), wanted);
    for (std::size_t k = 0; k < count; ++k) out[k] = sampleOf_[keys.rank(k)];
    for (std::size_t k = count; k < kSampleNeighbors; ++k) out[k] = i;
}

}  // namespace corvelle
