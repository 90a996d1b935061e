#include "operators/nearBoundary.h"

#include <algorithm>
#include <cmath>

namespace corvelle {

namespace {

constexpr std::int64_t kAxisCells = std::int64_t(1) << 20;  ///< 21 bits an axis, either side of 0

std::int64_t axisCell(float coordinate, float inverse) {
    const double cell = std::floor(double(coordinate) * double(inverse));
    return std::int64_t(std::clamp(cell, double(-kAxisCells), double(kAxisCells - 1)));
}
std::uint64_t cellKey(std::int64_t x, std::int64_t y, std::int64_t z) {
    return (std::uint64_t(x + kAxisCells) << 42) | (std::uint64_t(y + kAxisCells) << 21) |
           std::uint64_t(z + kAxisCells);
}

}  // namespace

Vec3f closestOnEdge(Vec3f p, const BorderEdge& edge) {
    const Vec3f along = edge.b - edge.a;
    const float whole = dot(along, along);
    if (!(whole > 0.0f)) return edge.a;
    return edge.a + along * std::clamp(dot(p - edge.a, along) / whole, 0.0f, 1.0f);
}

std::uint64_t NearBoundary::keyOf(Vec3f p) const {
    return cellKey(axisCell(p.x, inverse_), axisCell(p.y, inverse_), axisCell(p.z, inverse_));
}

NearBoundary::NearBoundary(std::span<const BorderEdge> edges, float maxReach) : edges_(edges) {
    if (edges.empty() || !(maxReach > 0.0f)) return;
    const float cell = 2.0f * maxReach;
    inverse_ = 1.0f / cell;
    const float margin = maxReach * 1.001f;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> entries;
    for (std::size_t i = 0; i < edges.size(); ++i) {
        const BorderEdge& edge = edges[i];
        // Pieces a cell long keep the boxes of a slanted edge small.
        const int pieces =
            int(std::clamp(std::ceil(distance(edge.a, edge.b) / cell), 1.0f, 1e6f));
        const std::size_t before = entries.size();
        for (int piece = 0; piece < pieces; ++piece) {
            const Vec3f a = mix(edge.a, edge.b, float(piece) / float(pieces));
            const Vec3f b = mix(edge.a, edge.b, float(piece + 1) / float(pieces));
            const Vec3f low = componentMin(a, b), high = componentMax(a, b);
            for (std::int64_t z = axisCell(low.z - margin, inverse_);
                 z <= axisCell(high.z + margin, inverse_); ++z)
                for (std::int64_t y = axisCell(low.y - margin, inverse_);
                     y <= axisCell(high.y + margin, inverse_); ++y)
                    for (std::int64_t x = axisCell(low.x - margin, inverse_);
                         x <= axisCell(high.x + margin, inverse_); ++x)
                        entries.emplace_back(cellKey(x, y, z), std::uint32_t(i));
        }
        std::sort(entries.begin() + std::ptrdiff_t(before), entries.end());
        entries.erase(std::unique(entries.begin() + std::ptrdiff_t(before), entries.end()),
                      entries.end());
    }
    std::sort(entries.begin(), entries.end());
    listed_.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size();) {
        const std::uint64_t key = entries[i].first;
        const std::uint32_t begin = std::uint32_t(i);
        for (; i < entries.size() && entries[i].first == key; ++i)
            listed_.push_back(entries[i].second);
        cells_.emplace(key, std::pair(begin, std::uint32_t(i)));
    }
}

std::int32_t NearBoundary::nearest(Vec3f p, float reach) const {
    const auto cell = cells_.find(keyOf(p));
    if (cell == cells_.end()) return -1;
    std::int32_t best = -1;
    float bestSquared = reach * reach;
    for (std::uint32_t k = cell->second.first; k < cell->second.second; ++k) {
        const std::uint32_t e = listed_[k];
        const float d2 = lengthSquared(closestOnEdge(p, edges_[e]) - p);
        if (d2 < bestSquared || (d2 == bestSquared && best < 0)) {
            bestSquared = d2;
            best = std::int32_t(e);
        }
    }
    return best;
}

}  // namespace corvelle
