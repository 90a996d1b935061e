#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "model/scalpMesh.h"
#include "tools/brushWeight.h"

namespace corvelle {

/// A vertex under the brush and its weight.
using TouchedVertex = std::pair<std::int32_t, float>;

/// Which vertices share an edge: offsets into `neighbors`, one more than there are vertices.
struct VertexAdjacency {
    std::span<const std::uint32_t> offsets;
    std::span<const std::int32_t> neighbors;
};

// Operations on the values of a vertex map: `channels` (1 or 4) a scalp vertex. `channelMask` has
// the bits 1, 2, 4, 8 of red, green, blue, alpha; a map of one channel paints all it has, whatever
// the mask. A value is written only where it changes; both return whether any did. Throw
// std::invalid_argument, before anything is written: "<operation>: a map has 1 or 4 channels",
// "<operation>: one value per scalp vertex and channel", or naming a touched vertex that is none.

/// Moves each touched vertex towards `color` by min(strength * weight, 1), within 0..1.
bool stampVertexMap(std::span<float> values, int channels, std::uint32_t channelMask,
                    const ScalpMesh& scalp, std::span<const TouchedVertex> touched, float strength,
                    const std::array<float, 4>& color);

/// Moves each touched vertex towards the mean of its neighbours' old values by min(|strength| *
/// weight, 1). Throws also "smoothVertexMap: one adjacency offset per scalp vertex and one more".
bool smoothVertexMap(std::span<float> values, int channels, std::uint32_t channelMask,
                     const ScalpMesh& scalp, const VertexAdjacency& adjacency,
                     std::span<const TouchedVertex> touched, float strength);

/// The vertices of one pose of a scalp, by place: what a stamp touches is found in proportion to
/// it.
class VertexBlocks {
public:
    explicit VertexBlocks(const ScalpMesh& scalp);
    /// The vertices with a weight above 0, in an order of the scalp alone. Works in parallel where
    /// the stamp's weights allow it.
    std::vector<TouchedVertex> touched(const BrushStamp& stamp) const;

private:
    static constexpr std::size_t kBlock = 64;  ///< vertices
    static constexpr std::size_t kGroup = 64;  ///< blocks
    struct Box {
        Vec3f low, high;
    };
    std::vector<std::int32_t> vertices_;  ///< by place
    std::vector<Vec3f> places_;           ///< of `vertices_`
    std::vector<Box> blocks_, groups_;
};

}  // namespace corvelle
