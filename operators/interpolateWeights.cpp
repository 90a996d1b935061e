#include "operators/interpolateWeights.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

#include "model/elementary.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kLeastDistance =
    1e-6f;  ///< cm: a guide at the strand's own root weighs much, not all
constexpr std::size_t kWeightBlock = 4096;
/// A front goes this much past the reach it is for.
constexpr float kPastReach = 1.25f;

float raised(float base, float power) {
    if (!(base > 0.0f)) return 0.0f;
    return power == 2.0f ? base * base : math::pow(base, power);
}

/// Values over their largest, raised to `power`; returns their sum, 0 when none is above 0.
float raiseAll(std::span<float> values, float power) {
    float most = 0.0f;
    for (const float v : values) most = std::max(most, v);
    float sum = 0.0f;
    for (float& v : values) {
        v = most > 0.0f ? raised(v / most, power) : 0.0f;
        sum += v;
    }
    return sum;
}

}  // namespace

void shepardWeights(std::span<const float> distances, std::span<const float> reaches,
                    const WeightSettings& settings, std::span<float> weights) {
    const std::size_t c = distances.size();
    std::fill(weights.begin(), weights.end(), 0.0f);
    if (c == 0 || !std::isfinite(distances[0])) return;
    if (settings.neighbors <= 1) {
        weights[0] = 1.0f;
        return;
    }
    float cover = 0.0f;  // how deep the strand lies inside some guide's reach
    for (std::size_t i = 0; i < c && std::isfinite(distances[i]); ++i) {
        const float d = distances[i], r = reaches[i];
        if (!std::isfinite(r)) {
            weights[i] = 1.0f / std::max(d, kLeastDistance);
            cover = 1.0f;
        } else if (r > d) {
            weights[i] = (r - d) / (r * std::max(d, kLeastDistance));
            cover = std::max(cover, (r - d) / r);
        }
    }
    const float sum = raiseAll(weights.first(c), settings.power);
    const float gate = std::min(4.0f * cover, 1.0f);
    if (gate >= 1.0f) {
        for (float& w : weights.first(c)) w /= sum;
        return;
    }

    // Near the edge of all reaches: the nearest guides as they would share if there were no edges.
    const std::size_t m = std::min(std::size_t(settings.neighbors), c);
    std::array<float, kMaxNeighbors> near{};
    const auto fill = [&](float far) {
        for (std::size_t i = 0; i < m; ++i) {
            const float d = distances[i], least = std::max(d, kLeastDistance);
            near[i] = !std::isfinite(far) ? 1.0f / least
                      : far > d           ? (far - d) / (least * far)
                                          : 0.0f;
        }
        return raiseAll(std::span(near).first(m), settings.power);
    };
    float nearSum = fill(m < c ? distances[m] : kInfinity);
    // All of them as far as the next one: then by distance alone.
    if (!(nearSum > 0.0f)) nearSum = fill(kInfinity);
    if (!(nearSum > 0.0f)) {
        if (sum > 0.0f)
            for (float& w : weights.first(c)) w /= sum;
        return;
    }
    const float own = sum > 0.0f ? gate / sum : 0.0f;
    const float other = (sum > 0.0f ? 1.0f - gate : 1.0f) / nearSum;
    for (std::size_t i = 0; i < c; ++i)
        weights[i] = own * weights[i] + (i < m ? other * near[i] : 0.0f);
}

GuideReach::GuideReach(const GuideRoots& guides, const WeightSettings& settings,
                       std::shared_ptr<const SurfaceGraph> surface)
    : settings_(settings),
      surface_(std::move(surface)),
      positions_(guides.positions.begin(), guides.positions.end()),
      regions_(guides.regions.begin(), guides.regions.end()) {
    const std::int32_t regionCount =
        regions_.empty() ? 0 : 1 + *std::max_element(regions_.begin(), regions_.end());
    groups_.resize(1 + std::size_t(regionCount));
    slot_.resize(positions_.size());
    for (std::size_t g = 0; g < positions_.size(); ++g) {
        groups_[0].guides.push_back(std::uint32_t(g));
        Group& own = groups_[groupOf(g)];
        slot_[g] = std::uint32_t(regions_.empty() ? g : own.guides.size());
        if (!regions_.empty()) own.guides.push_back(std::uint32_t(g));
    }
    for (Group& group : groups_) build(group, guides);
}

void GuideReach::build(Group& group, const GuideRoots& guides) {
    const std::size_t count = group.guides.size();
    std::vector<Vec3f> places(count);
    for (std::size_t i = 0; i < count; ++i) places[i] = positions_[group.guides[i]];
    group.index = PointIndex(places);
    group.reaches.assign(count, kInfinity);
    group.measured.assign(count, 0.0f);
    group.fronts.resize(count);
    const std::size_t k = std::size_t(settings_.neighbors);
    const std::size_t wanted = std::max<std::size_t>(4 * k + 2, 8);
    const float diagonal =
        surface_ ? distance(surface_->mesh()->boundsMax(), surface_->mesh()->boundsMin()) : 0.0f;

    parallelRange(0, count, 8, [&](std::size_t begin, std::size_t end) {
        std::array<Neighbor, kMaxCandidates + 1> near;
        std::array<float, kMaxCandidates + 1> along;
        for (std::size_t i = begin; i < end; ++i) {
            std::size_t found =
                group.index.nearest(places[i], std::span(near).first(std::min(wanted + 1, count)));
            const auto self = std::find_if(near.begin(), near.begin() + std::ptrdiff_t(found),
                                           [&](const Neighbor& n) { return n.index == i; });
            if (self != near.begin() + std::ptrdiff_t(found)) {
                std::move(self + 1, near.begin() + std::ptrdiff_t(found), self);
                --found;
            }
            const bool enough = found >= k;
            const float straight = enough ? std::sqrt(near[k - 1].distanceSquared) : kInfinity;
            const StrandRoot& root = guides.roots[group.guides[i]];
            if (!surface_ || !surface_->mesh()->validRoot(root)) {
                if (enough) group.reaches[i] = settings_.reach * straight;
                continue;
            }
            // The distance to the k-th nearest along the surface: the first try mostly reaches it.
            float radius =
                enough ? kPastReach * std::max(settings_.reach, 1.0f) * straight : kInfinity;
            std::shared_ptr<const SurfaceGraph::Front> front;
            float kth = kInfinity;
            while (enough) {
                front = surface_->front(root, radius);
                for (std::size_t n = 0; n < found; ++n) {
                    const std::uint32_t other = group.guides[near[n].index];
                    const bool rooted = surface_->mesh()->validRoot(guides.roots[other]);
                    along[n] =
                        rooted ? surface_->distance(*front, guides.roots[other], positions_[other])
                               : std::sqrt(near[n].distanceSquared);
                }
                std::nth_element(along.begin(), along.begin() + std::ptrdiff_t(k - 1),
                                 along.begin() + std::ptrdiff_t(found));
                kth = along[k - 1];
                if (std::isfinite(kth) || radius > 4.0f * diagonal || !std::isfinite(radius)) break;
                radius = radius > 0.0f ? 2.0f * radius : diagonal * 0.01f;
                if (!(radius > 0.0f)) break;
            }
            const float reach = settings_.reach * kth;
            group.reaches[i] = std::isfinite(kth) ? reach : kInfinity;
            if (!front || !(radius >= group.reaches[i])) {
                radius = std::isfinite(kth) ? kPastReach * reach : kInfinity;
                front = surface_->front(root, radius);
            }
            group.fronts[i] = std::move(front);
            group.measured[i] = radius;
        }
    });
}

float GuideReach::measure(const Group& group, std::size_t member, const StrandRoot& root,
                          Vec3f position, float straight) const {
    if (!group.fronts[member] || straight > group.measured[member]) return straight;
    const float along = surface_->distance(*group.fronts[member], root, position);
    if (std::isfinite(along)) return std::max(along, straight);
    return straight <= group.reaches[member] ? kInfinity
                                             : std::max(straight, group.measured[member]);
}

std::size_t GuideReach::candidates(const StrandRoot& root, Vec3f position, std::int32_t region,
                                   const PartLines* parts, std::span<Candidate> out) const {
    const bool known = region >= 0 && std::size_t(region) + 1 < groups_.size() &&
                       !groups_[std::size_t(region) + 1].guides.empty();
    const Group& group = groups_[known ? std::size_t(region) + 1 : 0];
    const std::size_t count = group.guides.size();
    const std::size_t k = std::min(std::size_t(settings_.neighbors), count);
    const std::size_t c = std::min(std::max<std::size_t>(4 * k + 2, 8), count);
    std::array<Neighbor, kMaxCandidates> near;
    const std::size_t found = group.index.nearest(position, std::span(near).first(c));
    const bool along = surface_ && surface_->mesh()->validRoot(root);
    std::size_t used = 0;
    for (std::size_t n = 0; n < found; ++n) {
        const std::size_t member = near[n].index;
        const std::uint32_t guide = group.guides[member];
        if (parts && parts->separates(position, positions_[guide])) continue;
        const float straight = std::sqrt(near[n].distanceSquared);
        out[used++] = {along ? measure(group, member, root, position, straight) : straight,
                       group.reaches[member], guide};
    }
    std::sort(out.begin(), out.begin() + std::ptrdiff_t(used));
    return used;
}

WeightTable interpolationWeights(const StrandPlaces& strands, std::size_t guideCount,
                                 const GuideReach& reach, const WeightSettings& settings,
                                 const PartLines* parts) {
    const std::size_t count = strands.roots.size();
    const std::size_t blocks = (count + kWeightBlock - 1) / kWeightBlock;
    WeightTable table;
    table.offsets.assign(count + 1, 0);
    table.nearest.assign(count, kInfinity);
    std::vector<std::vector<GuideWeight>> blockPairs(blocks);
    if (parts && parts->empty()) parts = nullptr;

    parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
        std::array<GuideReach::Candidate, GuideReach::kMaxCandidates> near;
        std::array<float, GuideReach::kMaxCandidates> distances, reaches, weights;
        for (std::size_t b = begin; b < end; ++b) {
            std::vector<GuideWeight>& pairs = blockPairs[b];
            pairs.reserve(kWeightBlock * std::size_t(settings.neighbors) * 3);
            const std::size_t last = std::min(count, (b + 1) * kWeightBlock);
            for (std::size_t s = b * kWeightBlock; s < last; ++s) {
                const std::size_t c = reach.candidates(
                    strands.roots[s], strands.positions[s],
                    strands.regions.empty() ? -1 : strands.regions[s], parts, near);
                for (std::size_t i = 0; i < c; ++i) {
                    distances[i] = near[i].distance;
                    reaches[i] = near[i].reach;
                }
                if (c > 0) table.nearest[s] = distances[0];
                shepardWeights(std::span(distances).first(c), std::span(reaches).first(c), settings,
                               std::span(weights).first(c));
                const std::size_t before = pairs.size();
                for (std::size_t i = 0; i < c; ++i)
                    if (weights[i] > 0.0f) pairs.push_back({near[i].guide, weights[i]});
                table.offsets[s + 1] = pairs.size() - before;
            }
        }
    });

    std::partial_sum(table.offsets.begin(), table.offsets.end(), table.offsets.begin());
    table.pairs.resize(table.offsets.back());
    parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b)
            std::copy(blockPairs[b].begin(), blockPairs[b].end(),
                      table.pairs.begin() + std::ptrdiff_t(table.offsets[b * kWeightBlock]));
    });

    table.guideOffsets.assign(guideCount + 1, 0);
    for (const GuideWeight& pair : table.pairs) ++table.guideOffsets[pair.guide + 1];
    std::partial_sum(table.guideOffsets.begin(), table.guideOffsets.end(),
                     table.guideOffsets.begin());
    table.guideStrands.resize(table.pairs.size());
    std::vector<std::size_t> next(table.guideOffsets.begin(), table.guideOffsets.end() - 1);
    for (std::size_t s = 0; s < count; ++s)
        for (const GuideWeight& pair : table.of(s))
            table.guideStrands[next[pair.guide]++] = std::uint32_t(s);
    return table;
}

}  // namespace corvelle
