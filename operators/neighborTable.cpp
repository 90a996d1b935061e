#include "operators/neighborTable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <compare>
#include <numeric>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "operators/previewStrands.h"

namespace corvelle {

namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// The channels that the settings name and the strands have.
struct Channels {
    const std::vector<float>* region = nullptr;
    const std::vector<float>* clump = nullptr;
    const std::vector<float>* preview = nullptr;
    Channels(const StrandSet& strands, const NeighborSettings& settings)
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

Vec3f rootOf(const StrandSet& strands, std::size_t s) {
    return strands.pointCountOf(s) > 0 ? strands.points()[std::size_t(strands.offsets()[s])]
                                       : Vec3f{kNan, kNan, kNan};
}

/// All that the table takes from one strand.
std::uint64_t keyOf(const StrandSet& strands, const Channels& channels, std::size_t s) {
    const Vec3f root = rootOf(strands, s);
    const auto bits = [](float x) { return std::uint64_t(std::bit_cast<std::uint32_t>(x)); };
    std::uint64_t h = hashCombine(strands.ids()[s], bits(root.x) << 32 | bits(root.y));
    h = hashCombine(h, bits(root.z) << 1 | std::uint64_t(channels.marked(s)));
    return channels.region || channels.clump ? hashCombine(h, channels.group(s)) : h;
}

std::vector<std::uint64_t> keysOf(const StrandSet& strands, const Channels& channels) {
    std::vector<std::uint64_t> keys(strands.strandCount());
    parallelRange(0, keys.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) keys[s] = keyOf(strands, channels, s);
    });
    return keys;
}

std::uint64_t settingsKeyOf(const NeighborSettings& settings) {
    std::uint64_t h = hashCombine(hashOf("neighbors"), std::uint64_t(settings.count));
    h = hashCombine(h, settings.maxDistance);
    h = hashCombine(hashCombine(h, hashOf(settings.regionChannel)), hashOf(settings.clumpChannel));
    return hashCombine(h, settings.parts && !settings.parts->empty() ? settings.parts->hash() : 0);
}

std::uint64_t joined(std::uint64_t h, std::span<const std::uint64_t> keys) {
    const std::size_t chunks = (keys.size() + kChunkStrands - 1) / kChunkStrands;
    std::vector<std::uint64_t> hashes(chunks);
    parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            std::uint64_t own = c;
            const std::size_t last = std::min(keys.size(), (c + 1) * kChunkStrands);
            for (std::size_t s = c * kChunkStrands; s < last; ++s) own = hashCombine(own, keys[s]);
            hashes[c] = own;
        }
    });
    h = hashCombine(h, std::uint64_t(keys.size()));
    for (const std::uint64_t chunk : hashes) h = hashCombine(h, chunk);
    return h;
}

/// The bits of a number below 1024, two apart.
std::uint32_t spreadBits(std::uint32_t x) {
    x = (x | x << 16) & 0x030000ffu;
    x = (x | x << 8) & 0x0300f00fu;
    x = (x | x << 4) & 0x030c30c3u;
    return (x | x << 2) & 0x09249249u;
}

/// All indices of `places` in the order of a Z curve through their box, so that one search begins
/// near the last one. Places that are no numbers come last.
std::vector<std::uint32_t> curveOrder(std::span<const Vec3f> places) {
    Vec3f low{3e38f, 3e38f, 3e38f}, high = -low;
    for (const Vec3f p : places) {
        if (!isFinite(p)) continue;
        low = componentMin(low, p);
        high = componentMax(high, p);
    }
    const Vec3f size = high - low;
    const float most = std::max({size.x, size.y, size.z});
    const float scale = most > 0.0f && std::isfinite(most) ? 1023.0f / most : 0.0f;
    struct Entry {
        std::uint32_t code, index;
    };
    std::vector<Entry> entries(places.size()), sorted(places.size());
    parallelRange(0, places.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            entries[i] = {1u << 30, std::uint32_t(i)};
            if (!isFinite(places[i])) continue;
            const Vec3f at = (places[i] - low) * scale;
            entries[i].code = spreadBits(std::uint32_t(at.x)) |
                              spreadBits(std::uint32_t(at.y)) << 1 |
                              spreadBits(std::uint32_t(at.z)) << 2;
        }
    });
    constexpr int kDigit = 11;  // three passes over 31 bits
    std::vector<std::uint32_t> starts(std::size_t(1) << kDigit);
    for (int shift = 0; shift < 3 * kDigit; shift += kDigit) {
        const auto digit = [&](const Entry& e) {
            return std::size_t(e.code >> shift) & (starts.size() - 1);
        };
        std::fill(starts.begin(), starts.end(), 0u);
        for (const Entry& e : entries) ++starts[digit(e)];
        std::exclusive_scan(starts.begin(), starts.end(), starts.begin(), 0u);
        for (const Entry& e : entries) sorted[starts[digit(e)]++] = e;
        entries.swap(sorted);
    }
    std::vector<std::uint32_t> order(places.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = entries[i].index;
    return order;
}

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

/// The candidates of one group.
struct NeighborTable::Group {
    std::uint64_t key = 0;
    std::vector<std::uint32_t> strands;
    PointIndex index;  ///< over `strands`
};

NeighborTable::NeighborTable(const StrandSet& strands, const NeighborSettings& settings)
    : count_(std::clamp<std::size_t>(settings.count, 1, kMost)) {
    const std::size_t n = strands.strandCount();
    const Channels channels(strands, settings);
    keys_ = keysOf(strands, channels);
    neighbors_.resize(n * count_);
    found_.assign(n, 0);
    const PartLines* parts =
        settings.parts && !settings.parts->empty() ? settings.parts.get() : nullptr;

    std::vector<Vec3f> roots(n);
    for (std::size_t s = 0; s < n; ++s) roots[s] = rootOf(strands, s);
    // Along the curve, so that trees are built from places that lie together already.
    const std::vector<std::uint32_t> order = curveOrder(roots);
    std::vector<bool> candidate(n, false);
    for (const std::uint32_t s : previewStrands(strands)) candidate[s] = true;
    struct Member {
        std::uint64_t group;
        std::uint32_t place, strand;
        auto operator<=>(const Member&) const = default;
    };
    std::vector<Member> members;
    members.reserve(n);
    for (const std::uint32_t s : order)
        if (candidate[s]) members.push_back({channels.group(s), std::uint32_t(members.size()), s});
    if (channels.region || channels.clump) std::sort(members.begin(), members.end());
    std::vector<Group> groups;
    for (const Member& member : members) {
        if (groups.empty() || groups.back().key != member.group)
            groups.push_back({member.group, {}, {}});
        groups.back().strands.push_back(member.strand);
    }
    parallelRange(0, groups.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            std::vector<Vec3f> places;
            places.reserve(groups[g].strands.size());
            for (const std::uint32_t s : groups[g].strands) places.push_back(roots[s]);
            groups[g].index = PointIndex(places);
        }
    });

    parallelRange(0, n, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        std::array<Neighbor, kMostLooked> near;
        const Group* group = nullptr;
        // The last search of the group, when it found all that it looked for: as many lie within
        // its reach, so as many lie within that and the step from there to here.
        Vec3f lastRoot;
        float lastReach = -1.0f;
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint32_t s = order[i];
            const std::uint64_t key = channels.group(s);
            if (!group || group->key != key) {
                const auto at = std::lower_bound(
                    groups.begin(), groups.end(), key,
                    [](const Group& g, std::uint64_t wanted) { return g.key < wanted; });
                if (at == groups.end() || at->key != key) continue;
                group = &*at;
                lastReach = -1.0f;
            }
            std::uint32_t* const to = neighbors_.data() + s * count_;
            // Itself is mostly among them, and one more tells whether others lie as far as the
            // last.
            const std::size_t first = count_ + 2;
            std::size_t wanted = first, kept = 0;
            while (true) {
                float reach = settings.maxDistance;
                if (wanted == first && lastReach >= 0.0f)
                    reach = std::min(reach,
                                     (lastReach + distance(lastRoot, roots[s])) * 1.0001f + 1e-30f);
                const std::size_t looked =
                    group->index.nearest(roots[s], std::span(near).first(wanted), reach);
                if (wanted == first && looked == wanted) {
                    lastRoot = roots[s];
                    lastReach = std::sqrt(near[looked - 1].distanceSquared);
                }
                sortTies(std::span(near).first(looked), group->strands, strands.ids());
                kept = 0;
                std::size_t j = 0;
                for (; j < looked && kept < count_; ++j) {
                    const std::uint32_t other = group->strands[near[j].index];
                    if (other == s || (parts && parts->separates(roots[s], roots[other]))) continue;
                    to[kept++] = other;
                }
                // All that lies as far as the last one taken must be known, for the ids to decide.
                const bool tied = j > 0 && looked > 0 &&
                                  near[j - 1].distanceSquared == near[looked - 1].distanceSquared;
                if (looked < wanted || wanted == near.size() || (kept == count_ && !tied)) break;
                wanted = std::min(2 * wanted, near.size());
            }
            found_[s] = std::uint8_t(kept);
        }
    });
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

bool NeighborTable::fits(const StrandSet& strands, std::span<const std::uint32_t> changed,
                         const NeighborSettings& settings) const {
    if (strands.strandCount() != keys_.size()) return false;
    const Channels channels(strands, settings);
    return std::ranges::all_of(
        changed, [&](std::uint32_t s) { return keyOf(strands, channels, s) == keys_[s]; });
}

std::shared_ptr<const NeighborTable> NeighborCache::table(const StrandSet& strands,
                                                          const NeighborSettings& settings) {
    const std::uint64_t settingsKey = settingsKeyOf(settings);
    const std::uint64_t key = joined(settingsKey, keysOf(strands, Channels(strands, settings)));
    if (Held last = held(); last.table && last.key == key) return last.table;
    auto made = std::make_shared<const NeighborTable>(strands, settings);
    const std::lock_guard lock(mutex_);
    held_ = {key, settingsKey, made};
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
