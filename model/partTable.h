#pragma once

#include <cstdint>

namespace corvelle {

// The segments of drawn parts, as flat arrays that cross into code compiled for other instruction
// sets: no library types.

/// From `start` (cm) along `along`; a place on it is start + along * share, share 0 to 1.
struct PartSegment {
    float start[3], along[3];
    float squared = 0.0f;   ///< the length of `along`, squared
    std::int32_t part = 0;  ///< as PartLines::find tells
    float way[3];           ///< `along`, unit; zeros for a segment of no length
};

/// A box round segments [begin, end), a tree of them in the order of a walk: what lies within a
/// node follows it, up to node `next`. A node that is followed by `next` at once is a leaf.
struct PartNode {
    float low[3], high[3];
    std::uint32_t begin = 0, end = 0, next = 0;
};

/// Good while what it came from is.
struct PartTable {
    const PartSegment* segments = nullptr;
    const PartNode* nodes = nullptr;
    std::uint32_t nodeCount = 0;
    /// Segments all over the parts, to tell at once that a part is near.
    const std::uint32_t* samples = nullptr;
    std::uint32_t sampleCount = 0;
};

}  // namespace corvelle
