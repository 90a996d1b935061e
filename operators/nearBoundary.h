#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "model/vec3f.h"
#include "operators/meshSides.h"

namespace corvelle {

Vec3f closestOnEdge(Vec3f p, const BorderEdge& edge);

/// Finds the border edge nearest to a place, when one lies within reach: edges are listed in the
/// cells of a sparse grid that their surroundings touch. Immutable once made; any thread may ask.
class NearBoundary {
public:
    /// `maxReach`: no query asks farther. `edges` must outlive this.
    NearBoundary(std::span<const BorderEdge> edges, float maxReach);
    /// Index of the nearest edge no farther than `reach` (ties: the lower index), or -1.
    std::int32_t nearest(Vec3f p, float reach) const;

private:
    std::uint64_t keyOf(Vec3f p) const;

    std::span<const BorderEdge> edges_;
    float inverse_ = 0.0f;
    std::unordered_map<std::uint64_t, std::pair<std::uint32_t, std::uint32_t>> cells_;
    std::vector<std::uint32_t> listed_;  ///< edges, cell after cell
};

}  // namespace corvelle
