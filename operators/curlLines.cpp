#include "operators/curlLines.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "model/parallel.h"
#include "model/polyline.h"
#include "operators/previewStrands.h"
#include "operators/rootFrame.h"
#include "operators/strandFrames.h"

namespace corvelle {

namespace {

constexpr std::size_t kGroupGrain = 16;
constexpr float kCellsPerTurn = 8.0f;  ///< that turns along a line are added up in
constexpr std::size_t kMostCells = 8192;

/// Strands by their group, as a flat table. groupOf(strand) is below 0 for none.
template <class GroupOf>
void tabulate(std::size_t groups, std::span<const std::uint32_t> strands, GroupOf&& groupOf,
              std::vector<std::size_t>& offsets, std::vector<std::uint32_t>& list) {
    offsets.assign(groups + 1, 0);
    for (const std::uint32_t s : strands)
        if (const std::int32_t g = groupOf(s); g >= 0) ++offsets[std::size_t(g) + 1];
    for (std::size_t g = 0; g < groups; ++g) offsets[g + 1] += offsets[g];
    list.resize(offsets[groups]);
    std::vector<std::size_t> next(offsets.begin(), offsets.end() - 1);
    for (const std::uint32_t s : strands)
        if (const std::int32_t g = groupOf(s); g >= 0) list[next[std::size_t(g)]++] = s;
}

}  // namespace

CurlGroups::CurlGroups(const StrandSet& strands, std::span<const float> numbers) {
    const std::vector<std::uint32_t> core = previewStrands(strands);
    for (const std::uint32_t s : core)
        if (numbers[s] >= 0.0f && strands.pointCountOf(s) >= 2) values_.push_back(numbers[s]);
    std::sort(values_.begin(), values_.end());
    values_.erase(std::unique(values_.begin(), values_.end()), values_.end());
    groupOf_.resize(numbers.size());
    parallelRange(0, numbers.size(), kChunkStrands, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const auto found = std::lower_bound(values_.begin(), values_.end(), numbers[s]);
            groupOf_[s] = found != values_.end() && *found == numbers[s]
                              ? std::int32_t(found - values_.begin())
                              : -1;
        }
    });
    const auto groupOf = [&](std::uint32_t s) { return groupOf_[s]; };
    tabulate(
        values_.size(), core,
        [&](std::uint32_t s) { return strands.pointCountOf(s) >= 2 ? groupOf_[s] : -1; },
        coreOffsets_, core_);
    std::vector<std::uint32_t> all(numbers.size());
    for (std::uint32_t s = 0; s < all.size(); ++s) all[s] = s;
    tabulate(values_.size(), all, groupOf, memberOffsets_, members_);
}

bool CurlGroups::isCore(std::uint32_t strand) const {
    const std::int32_t group = of(strand);
    return group >= 0 && std::ranges::binary_search(coreOf(std::size_t(group)), strand);
}

CurlLines::CurlLines(const StrandSet& strands, const CurlGroups& groups,
                     std::span<const std::uint8_t> wanted, const ScalpMesh* scalp,
                     const CurlSettings& settings)
    : lines_(groups.size()) {
    const auto isWanted = [&](std::size_t g) { return wanted.empty() || wanted[g] != 0; };
    std::size_t points = 0;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        if (!isWanted(g)) continue;
        std::size_t most = 2;
        for (const std::uint32_t s : groups.coreOf(g))
            most = std::max(most, strands.pointCountOf(s));
        lines_[g].begin = points;
        lines_[g].end = points += most;
    }
    std::vector<Vec3f> means(points), tangents(points), normals(points);
    if (scalp) scalp->normals();  // made before the loop asks for them
    parallelRange(0, groups.size(), kGroupGrain, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> one;
        for (std::size_t g = begin; g < end; ++g) {
            if (!isWanted(g)) continue;
            Line& line = lines_[g];
            const std::size_t n = line.end - line.begin;
            const std::span<Vec3f> mean = std::span(means).subspan(line.begin, n);
            const auto core = groups.coreOf(g);
            std::uint32_t first = core.front();
            one.resize(n);
            for (const std::uint32_t s : core) {
                resamplePolyline(strands.pointsOf(s), one);
                for (std::size_t i = 0; i < n; ++i) mean[i] += one[i];
                if (strands.ids()[s] < strands.ids()[first]) first = s;
            }
            for (Vec3f& p : mean) p *= 1.0f / float(core.size());
            line.length = polylineLength(mean);
            line.draws = curlDraws(settings, std::bit_cast<std::uint32_t>(groups.number(g)));
            const RootFrame frame = rootFrame(scalp, strands.roots()[first], firstDirection(mean));
            transportFrames(mean, frame.x, std::span(tangents).subspan(line.begin, n),
                            std::span(normals).subspan(line.begin, n));
        }
    });
    frames_.resize(points);
    for (std::size_t i = 0; i < points; ++i)
        frames_[i] = {normals[i], cross(tangents[i], normals[i])};

    std::size_t cells = 0;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        Line& line = lines_[g];
        if (!isWanted(g)) continue;
        const float turns = line.draws.frequency * line.length * kCellsPerTurn;
        const std::size_t fine =
            turns < float(kMostCells) ? std::size_t(std::max(turns, 0.0f)) + 1 : kMostCells;
        line.turnsBegin = cells;
        line.turnsEnd = cells += std::max(fine, line.end - line.begin) + 1;
    }
    turns_.resize(cells);
    parallelRange(0, groups.size(), kGroupGrain, [&](std::size_t begin, std::size_t end) {
        CurlScratch scratch;
        std::vector<float> shares;
        for (std::size_t g = begin; g < end; ++g) {
            if (!isWanted(g)) continue;
            const Line& line = lines_[g];
            const std::size_t n = line.turnsEnd - line.turnsBegin;
            shares.resize(n);
            scratch.reserve(n);
            for (std::size_t i = 0; i < n; ++i) shares[i] = float(i) / float(n - 1);
            integrateTurns(shares, line.length, line.draws, settings, scratch,
                           std::span(turns_).subspan(line.turnsBegin, n));
        }
    });
}

float CurlLines::turnsAt(std::size_t group, float share) const {
    const Line& line = lines_[group];
    const std::size_t last = line.turnsEnd - line.turnsBegin - 1;
    const float at = share * float(last);
    const std::size_t i = std::min(std::size_t(at), last - 1);
    const float* const turns = turns_.data() + line.turnsBegin + i;
    return mix(turns[0], turns[1], at - float(i));
}

}  // namespace corvelle
