#include "model/surfaceTopology.h"

#include <algorithm>

namespace corvelle {
namespace {

struct Side {
    std::uint64_t edge;    // lower vertex, higher vertex
    std::uint32_t corner;  // 3 triangle + side
};

}  // namespace

SurfaceTopology::SurfaceTopology(std::span<const Triangle> triangles, std::size_t pointCount)
    : across_(3 * triangles.size(), -1),
      triangleOffsets_(pointCount + 1, 0),
      neighborOffsets_(pointCount + 1, 0) {
    std::vector<Side> sides;
    sides.reserve(3 * triangles.size());
    for (std::size_t t = 0; t < triangles.size(); ++t)
        for (std::size_t k = 0; k < 3; ++k) {
            const std::uint32_t a = std::uint32_t(triangles[t][k]);
            const std::uint32_t b = std::uint32_t(triangles[t][(k + 1) % 3]);
            if (a == b) continue;
            sides.push_back(
                {std::uint64_t(std::min(a, b)) << 32 | std::max(a, b), std::uint32_t(3 * t + k)});
        }
    std::sort(sides.begin(), sides.end(), [](const Side& a, const Side& b) {
        return a.edge != b.edge ? a.edge < b.edge : a.corner < b.corner;
    });

    std::vector<std::uint32_t> open;
    for (std::size_t begin = 0, end = 0; begin < sides.size(); begin = end) {
        while (end < sides.size() && sides[end].edge == sides[begin].edge) ++end;
        if (end - begin == 1) {
            open.push_back(sides[begin].corner);
        } else if (end - begin == 2) {
            across_[sides[begin].corner] = std::int32_t(sides[begin + 1].corner / 3);
            across_[sides[begin + 1].corner] = std::int32_t(sides[begin].corner / 3);
        } else {
            ++nonManifold_;
        }
        const std::uint32_t low = std::uint32_t(sides[begin].edge >> 32);
        const std::uint32_t high = std::uint32_t(sides[begin].edge);
        ++neighborOffsets_[low + 1];
        ++neighborOffsets_[high + 1];
    }
    std::sort(open.begin(), open.end());
    boundary_.reserve(open.size());
    for (const std::uint32_t corner : open) {
        const Triangle& t = triangles[corner / 3];
        boundary_.push_back({t[corner % 3], t[(corner + 1) % 3], std::int32_t(corner / 3),
                             std::int32_t(corner % 3)});
    }

    for (std::size_t v = 0; v < pointCount; ++v) neighborOffsets_[v + 1] += neighborOffsets_[v];
    neighbors_.resize(neighborOffsets_.back());
    std::vector<std::uint32_t> next(neighborOffsets_.begin(), neighborOffsets_.end() - 1);
    // Edges ascend by (low, high): a vertex meets its lower neighbours first, then the higher ones.
    for (std::size_t i = 0; i < sides.size(); ++i) {
        if (i > 0 && sides[i].edge == sides[i - 1].edge) continue;
        const std::uint32_t low = std::uint32_t(sides[i].edge >> 32),
                            high = std::uint32_t(sides[i].edge);
        neighbors_[next[high]++] = std::int32_t(low);
        neighbors_[next[low]++] = std::int32_t(high);
    }

    const auto forEachCorner = [&](auto&& visit) {
        for (std::size_t t = 0; t < triangles.size(); ++t)
            for (std::size_t k = 0; k < 3; ++k) {  // a vertex named twice counts once
                const std::int32_t v = triangles[t][k];
                const bool again =
                    (k > 0 && v == triangles[t][0]) || (k > 1 && v == triangles[t][1]);
                if (!again) visit(std::size_t(v), std::int32_t(t));
            }
    };
    forEachCorner([&](std::size_t v, std::int32_t) { ++triangleOffsets_[v + 1]; });
    for (std::size_t v = 0; v < pointCount; ++v) triangleOffsets_[v + 1] += triangleOffsets_[v];
    vertexTriangles_.resize(triangleOffsets_.back());
    next.assign(triangleOffsets_.begin(), triangleOffsets_.end() - 1);
    forEachCorner([&](std::size_t v, std::int32_t t) { vertexTriangles_[next[v]++] = t; });
}

}  // namespace corvelle
