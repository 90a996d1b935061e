#include "operators/neighborTable.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <compare>
#include <numeric>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/simd4.h"
#include "operators/previewStrands.h"

namespace corvelle {

/// The channels that the settings name and the strands have.
struct NeighborChannels {
    const std::vector<float>* region = nullptr;
    const std::vector<float>* clump = nullptr;
    const std::vector<float>* preview = nullptr;
    NeighborChannels(const StrandSet& strands, const NeighborSettings& settings)
        : preview(strands.strandChannel("_preview")) {
        if (!settings.regionChannel.empty()) region = strands.strandChannel(settings.regionChannel);
        if (!settings.clumpChannel.empty()) clump = strands.strandChannel(settings.clumpChannel);
    }
    static std::uint64_t bits(const std::vector<float>* channel, std::size_t strand) {
        return channel ? std::bit_cast<std::uint32_t>((*channel)[strand] + 0.0f) : 0u;  // -0 is 0
    }
    /// What neighbours have in common.
    std::uint64_t group(std::size_t strand) const {
        return bits(region, strand) << 32 | bits(clump, strand);
    }
    bool marked(std::size_t strand) const { return preview && (*preview)[strand] >= 0.5f; }
};

namespace {

using Channels = NeighborChannels;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

Vec3f rootOf(const StrandSet& strands, std::size_t s) {
    return strands.pointCountOf(s) > 0 ? strands.points()[std::size_t(strands.offsets()[s])]
                                       : Vec3f{kNan, kNan, kNan};
}

std::uint64_t settingsKeyOf(const NeighborSettings& settings) {
    std::uint64_t h = hashCombine(hashOf("neighbors"), std::uint64_t(settings.count));
    h = hashCombine(h, settings.maxDistance);
    h = hashCombine(hashCombine(h, hashOf(settings.regionChannel)), hashOf(settings.clumpChannel));
    return hashCombine(h, settings.parts && !settings.parts->empty() ? settings.parts->hash() : 0);
}

constexpr std::size_t kBucketGrain = 64;

/// Puts those at equal distances in the order of their ids.
void sortTies(std::span<Neighbor> near, std::span<const std::uint32_t> strands,
              std::span<const std::uint64_t> ids) {
    for (std::size_t i = 1; i < near.size(); ++i)
        for (std::size_t j = i; j > 0 && near[j].distanceSquared == near[j - 1].distanceSquared &&
                                ids[strands[near[j].index]] < ids[strands[near[j - 1].index]];
             --j)
            std::swap(near[j], near[j - 1]);
}

}  // namespace

/// The strands of one group, and those of them that may be neighbours.
struct NeighborTable::Group {
    std::uint64_t key = 0;
    std::vector<std::uint32_t> strands, candidates;
    PointIndex asking, asked;  ///< `asking` is empty where all are candidates
    const PointIndex& all() const { return asking.size() > 0 ? asking : asked; }
};

/// What takes the neighbours of a strand out of what lies near.
struct NeighborTable::Picker {
    const StrandSet& set;
    std::span<const Vec3f> roots;
    const PartLines* parts = nullptr;
    float maxDistance = 0.0f;

    /// From the nearest `wanted` candidates, of which `near` are there. False when more have to be
    /// known: those across a part leave room, or others may lie as far as the last one taken, for
    /// the ids to decide.
    bool pick(std::uint32_t strand, const Group& group, std::span<Neighbor> near,
              std::size_t wanted, std::span<std::uint32_t> out, std::size_t& kept) const {
        sortTies(near, group.candidates, set.ids());
        kept = 0;
        std::size_t j = 0;
        for (; j < near.size() && kept < out.size(); ++j) {
            const std::uint32_t other = group.candidates[near[j].index];
            if (other == strand || (parts && parts->separates(roots[strand], roots[other])))
                continue;
            out[kept++] = other;
        }
        if (near.size() < wanted) return true;
        return kept == out.size() && near[j - 1].distanceSquared != near.back().distanceSquared;
    }

    /// Looks further, in growing numbers.
    std::size_t lookOn(std::uint32_t strand, const Group& group,
                       std::span<std::uint32_t> out) const {
        std::array<Neighbor, kMostLooked> near;
        for (std::size_t wanted = 2 * (out.size() + 2);;
             wanted = std::min(2 * wanted, near.size())) {
            const std::size_t looked =
                group.asked.nearest(roots[strand], std::span(near).first(wanted), maxDistance);
            std::size_t kept = 0;
            if (pick(strand, group, std::span(near).first(looked), wanted, out, kept) ||
                wanted == near.size())
                return kept;
        }
    }
};

NeighborTable::NeighborTable(const StrandSet& strands, const NeighborSettings& settings)
    : count_(std::clamp<std::size_t>(settings.count, 1, kMost)) {
    static_assert(kMost + 2 <= PointIndex::kMostTogether);
    const std::size_t n = strands.strandCount();
    const Channels channels(strands, settings);
    neighbors_.resize(n * count_);
    found_.assign(n, 0);
    const PartLines* parts =
        settings.parts && !settings.parts->empty() ? settings.parts.get() : nullptr;

    ids_.assign(strands.ids().begin(), strands.ids().end());
    roots_.resize(n);
    marked_.resize(n);
    if (channels.region || channels.clump) groups_.resize(n);
    for (std::size_t s = 0; s < n; ++s) {
        roots_[s] = rootOf(strands, s);
        marked_[s] = channels.marked(s);
        if (!groups_.empty()) groups_[s] = channels.group(s);
    }
    const std::span<const Vec3f> roots = roots_;
    std::vector<std::uint8_t> candidate(n, 0);
    for (const std::uint32_t s : previewStrands(strands)) candidate[s] = 1;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> members(n);
    for (std::uint32_t s = 0; s < n; ++s) members[s] = {channels.group(s), s};
    if (channels.region || channels.clump) std::sort(members.begin(), members.end());
    std::vector<Group> groups;
    for (const auto& [key, s] : members) {
        if (groups.empty() || groups.back().key != key) groups.push_back({.key = key});
        groups.back().strands.push_back(s);
        if (candidate[s]) groups.back().candidates.push_back(s);
    }
    parallelRange(0, groups.size(), 1, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> places;
        const auto indexOf = [&](std::span<const std::uint32_t> listed) {
            places.clear();
            for (const std::uint32_t s : listed) places.push_back(roots[s]);
            return PointIndex(places);
        };
        for (Group& group : std::span(groups).subspan(begin, end - begin)) {
            group.asked = indexOf(group.candidates);
            if (group.candidates.size() < group.strands.size())
                group.asking = indexOf(group.strands);
        }
    });

    struct Job {
        std::uint32_t group, bucket;
    };
    std::vector<Job> jobs;
    for (std::uint32_t g = 0; g < groups.size(); ++g)
        for (std::uint32_t b = 0; b < groups[g].all().bucketCount(); ++b) jobs.push_back({g, b});
    constexpr std::uint32_t kNone = 0xffffffffu;
    std::vector<std::uint32_t> seats(jobs.size() * PointIndex::kBucket, kNone);
    const Picker picker{strands, roots, parts, settings.maxDistance};
    parallelRange(0, jobs.size(), kBucketGrain, [&](std::size_t begin, std::size_t end) {
        PointIndex::BucketNeighbors near;
        // Itself is mostly among them, and one more tells whether others lie as far as the last.
        const std::size_t wanted = count_ + 2;
        for (std::size_t j = begin; j < end; ++j) {
            const Job job = jobs[j];
            const Group& group = groups[job.group];
            group.asked.nearestToBucket(group.all(), job.bucket, wanted, settings.maxDistance,
                                        near);
            for (std::size_t q = 0; q < near.points; ++q) {
                const std::uint32_t s = group.strands[near.index[q]];
                seats[j * PointIndex::kBucket + q] = s;
                const std::span<std::uint32_t> to(neighbors_.data() + s * count_, count_);
                const std::span<Neighbor> found = std::span(near.near[q]).first(near.found[q]);
                std::size_t kept = 0;
                if (!picker.pick(s, group, found, wanted, to, kept))
                    kept = picker.lookOn(s, group, to);
                found_[s] = std::uint8_t(kept);
            }
        }
    });
    std::vector<bool> seated(n, false);
    order_.reserve(n);
    for (const std::uint32_t s : seats)
        if (s != kNone) {
            order_.push_back(s);
            seated[s] = true;
        }
    for (std::uint32_t s = 0; s < n; ++s)
        if (!seated[s]) order_.push_back(s);  // without a root
}

const NeighborTable::Batches& NeighborTable::batches() const {
    std::call_once(batched_, [&] {
        Batches& made = batches_;
        const std::size_t n = order_.size();
        made.count_ = count_;
        made.neighbors_.resize(n * count_);
        made.found_.resize(n);
        std::vector<std::size_t> listed(n, 0);  // by strand: 1 + where in strands_
        for (std::size_t begin = 0; begin < n; begin += Batches::kSize) {
            const std::size_t first = made.strands_.size();
            const std::size_t end = std::min(begin + Batches::kSize, n);
            made.starts_.push_back(first);
            const auto seatOf = [&](std::uint32_t strand) {
                if (listed[strand] <= first) {
                    made.strands_.push_back(strand);
                    listed[strand] = made.strands_.size();
                }
                return std::uint32_t(listed[strand] - 1 - first);
            };
            for (std::size_t place = begin; place < end; ++place) seatOf(order_[place]);
            for (std::size_t place = begin; place < end; ++place) {
                const auto others = of(order_[place]);
                made.found_[place] = std::uint8_t(others.size());
                for (std::size_t j = 0; j < others.size(); ++j)
                    made.neighbors_[place * count_ + j] = seatOf(others[j]);
            }
        }
        made.starts_.push_back(made.strands_.size());
    });
    return batches_;
}

std::span<const std::uint32_t> NeighborTable::neighborsTo(std::size_t strand) const {
    std::call_once(turned_, [&] {
        const std::size_t n = found_.size();
        toOffsets_.assign(n + 1, 0);
        for (std::size_t s = 0; s < n; ++s)
            for (const std::uint32_t other : of(s)) ++toOffsets_[other + 1];
        std::partial_sum(toOffsets_.begin(), toOffsets_.end(), toOffsets_.begin());
        to_.resize(toOffsets_.back());
        std::vector<std::uint32_t> next(toOffsets_.begin(), toOffsets_.end() - 1);
        for (std::size_t s = 0; s < n; ++s)
            for (const std::uint32_t other : of(s)) to_[next[other]++] = std::uint32_t(s);
    });
    return std::span(to_).subspan(toOffsets_[strand], toOffsets_[strand + 1] - toOffsets_[strand]);
}

bool NeighborTable::knows(const StrandSet& strands, const NeighborChannels& channels,
                          std::size_t s) const {
    using Bits = std::array<std::uint32_t, 3>;
    return strands.ids()[s] == ids_[s] &&
           std::bit_cast<Bits>(rootOf(strands, s)) == std::bit_cast<Bits>(roots_[s]) &&
           channels.marked(s) == (marked_[s] != 0) &&
           channels.group(s) == (groups_.empty() ? 0 : groups_[s]);
}

bool NeighborTable::fits(const StrandSet& strands, std::span<const std::uint32_t> changed,
                         const NeighborSettings& settings) const {
    if (strands.strandCount() != ids_.size()) return false;
    const Channels channels(strands, settings);
    return std::ranges::all_of(changed,
                               [&](std::uint32_t s) { return knows(strands, channels, s); });
}

bool NeighborTable::fits(const StrandSet& strands, const NeighborSettings& settings) const {
    if (strands.strandCount() != ids_.size()) return false;
    const Channels channels(strands, settings);
    std::atomic<bool> same = true;
    parallelRange(0, ids_.size(), kChunkStrands, [&](std::size_t begin, std::size_t end) {
        constexpr std::size_t kAhead = 16;  // roots lie too far apart for the caches to foresee
        for (std::size_t s = begin; s < end; ++s) {
            if (s + kAhead < end) prefetch(strands.points().data() + strands.offsets()[s + kAhead]);
            if (!knows(strands, channels, s)) {
                same = false;
                return;
            }
        }
    });
    return same;
}

std::shared_ptr<const NeighborTable> NeighborCache::table(const StrandSet& strands,
                                                          const NeighborSettings& settings) {
    const std::uint64_t settingsKey = settingsKeyOf(settings);
    if (Held last = held();
        last.table && last.settingsKey == settingsKey && last.table->fits(strands, settings))
        return last.table;
    auto made = std::make_shared<const NeighborTable>(strands, settings);
    const std::lock_guard lock(mutex_);
    held_ = {settingsKey, made};
    return made;
}

std::shared_ptr<const NeighborTable> NeighborCache::kept(const StrandSet& strands,
                                                         std::span<const std::uint32_t> changed,
                                                         const NeighborSettings& settings) const {
    const Held last = held();
    if (!last.table || last.settingsKey != settingsKeyOf(settings)) return nullptr;
    return last.table->fits(strands, changed, settings) ? last.table : nullptr;
}

void NeighborCache::copyFrom(const NeighborCache& other) {
    if (&other == this) return;
    Held copy = other.held();
    const std::lock_guard lock(mutex_);
    held_ = std::move(copy);
}

NeighborCache::Held NeighborCache::held() const {
    const std::lock_guard lock(mutex_);
    return held_;
}

}  // namespace corvelle
