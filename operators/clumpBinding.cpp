#include "operators/clumpBinding.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr std::size_t kFirstLook = 16;  ///< centers looked at before more are asked for

}  // namespace

ClumpFinder::ClumpFinder(const ClumpCenters& centers, const PartLines* parts)
    : centers_(centers), parts_(parts) {
    std::vector<std::uint32_t> order(centers.size());
    for (std::uint32_t c = 0; c < order.size(); ++c) order[c] = c;
    if (!centers.regions.empty()) {
        std::erase_if(order, [&](std::uint32_t c) { return std::isnan(centers.regions[c]); });
        std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            return centers.regions[a] < centers.regions[b];
        });
    }
    for (const std::uint32_t c : order) {
        const float region = centers.regions.empty() ? 0.0f : centers.regions[c];
        if (groups_.empty() || groups_.back().region != region)
            groups_.push_back({.region = region, .centers = {}, .index = {}});
        groups_.back().centers.push_back(c);
    }
    for (Group& group : groups_) {
        std::vector<Vec3f> positions;
        positions.reserve(group.centers.size());
        for (const std::uint32_t c : group.centers) positions.push_back(centers.positions[c]);
        group.index = PointIndex(positions);
    }
}

const ClumpFinder::Group* ClumpFinder::groupOf(float region) const {
    if (centers_.regions.empty()) return groups_.empty() ? nullptr : &groups_.front();
    const auto found = std::lower_bound(groups_.begin(), groups_.end(), region,
                                        [](const Group& g, float r) { return g.region < r; });
    return found != groups_.end() && found->region == region ? &*found : nullptr;
}

template <class Take>
void ClumpFinder::visit(const Group& group, Vec3f position, std::size_t first, Take&& take) const {
    std::size_t seen = 0;
    std::vector<Neighbor> found;
    for (std::size_t ask = std::min(first, group.centers.size());;
         ask = std::min(4 * ask, group.centers.size())) {
        found.resize(ask);
        const std::size_t count = group.index.nearest(position, found);
        for (; seen < count; ++seen) {
            const std::uint32_t center = group.centers[found[seen].index];
            if (parts_ && parts_->separates(position, centers_.positions[center])) continue;
            if (!take(center)) return;
        }
        if (count < ask || ask == group.centers.size()) return;
    }
}

std::int32_t ClumpFinder::nearest(Vec3f position, float region) const {
    const Group* group = groupOf(region);
    if (!group) return -1;
    Neighbor closest;
    if (!group->index.nearestOne(position, closest)) return -1;
    std::int32_t out = std::int32_t(group->centers[closest.index]);
    if (!parts_ || !parts_->separates(position, centers_.positions[std::size_t(out)])) return out;
    out = -1;
    visit(*group, position, kFirstLook, [&](std::uint32_t center) {
        out = std::int32_t(center);
        return false;
    });
    return out;
}

std::size_t ClumpFinder::neighborsOf(std::size_t of, std::span<std::uint32_t> out) const {
    const Group* group = groupOf(centers_.regions.empty() ? 0.0f : centers_.regions[of]);
    std::size_t count = 0;
    if (!group || out.empty()) return count;
    visit(*group, centers_.positions[of], out.size() + 1, [&](std::uint32_t center) {
        if (center != of) out[count++] = center;
        return count < out.size();
    });
    return count;
}

ClumpBinding bindClumps(const StrandSet& strands, std::span<const std::uint32_t> core,
                        const ClumpCenters& centers, const ClumpBounds& bounds) {
    const std::size_t count = strands.strandCount(), clumps = centers.size();
    const ClumpFinder finder(centers, bounds.parts);
    ClumpBinding out;
    out.clumpOf.resize(count);
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const auto points = strands.pointsOf(s);
            const float region = bounds.strandRegions ? (*bounds.strandRegions)[s] : 0.0f;
            out.clumpOf[s] = points.empty() ? -1 : finder.nearest(points.front(), region);
        }
    });

    out.memberOffsets.assign(clumps + 1, 0);
    for (const std::int32_t c : out.clumpOf)
        if (c >= 0) ++out.memberOffsets[std::size_t(c) + 1];
    for (std::size_t c = 0; c < clumps; ++c) out.memberOffsets[c + 1] += out.memberOffsets[c];
    out.members.resize(out.memberOffsets[clumps]);
    std::vector<std::size_t> next(out.memberOffsets.begin(), out.memberOffsets.end() - 1);
    for (std::size_t s = 0; s < count; ++s)
        if (const std::int32_t c = out.clumpOf[s]; c >= 0)
            out.members[next[std::size_t(c)]++] = std::uint32_t(s);

    out.reach.assign(clumps, 0.0f);
    for (const std::uint32_t s : core)
        if (const std::int32_t c = out.clumpOf[s]; c >= 0) {
            float& reach = out.reach[std::size_t(c)];
            reach = std::max(
                reach, distance(strands.pointsOf(s).front(), centers.positions[std::size_t(c)]));
        }
    const PointIndex all(centers.positions);
    parallelRange(0, clumps, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            Neighbor two[2];
            const std::size_t found = all.nearest(centers.positions[c], two);
            for (std::size_t k = 0; k < found; ++k)
                if (two[k].index != c)
                    out.reach[c] = std::max(out.reach[c], 0.5f * std::sqrt(two[k].distanceSquared));
        }
    });
    return out;
}

std::vector<float> clumpNumbers(std::span<const std::uint64_t> ids) {
    std::vector<float> out;
    out.reserve(ids.size());
    constexpr std::size_t kMostDistinct = std::size_t(1) << 23;  // half of what 24 bits tell apart
    std::unordered_set<std::uint32_t> taken;
    taken.reserve(ids.size());
    for (const std::uint64_t id : ids) {
        std::uint64_t mixed = mix64(id);
        while (taken.size() < kMostDistinct && !taken.insert(std::uint32_t(mixed >> 40)).second)
            mixed = mix64(mixed);
        out.push_back(float(mixed >> 40));
    }
    return out;
}

}  // namespace corvelle
