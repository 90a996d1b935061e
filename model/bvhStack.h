#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace corvelle {

/// The children that a query still has to see, farthest first, as (distance bits, child): distances
/// are not negative, so their bits order as they do.
struct BvhStack {
    /// Deep enough for any tree: three entries stay behind per level, and the levels of a median
    /// split over 2^31 triangles are 16.
    static constexpr int kSize = 128;
    std::uint64_t entries[kSize];
    int size = 0;
    void pushSorted(const float* distances, const std::array<std::int32_t, 4>& children,
                    int lanes) {
        const int base = size;
        for (; lanes != 0; lanes &= lanes - 1) {
            const int lane = std::countr_zero(unsigned(lanes));
            const std::uint64_t entry = std::uint64_t(std::bit_cast<std::uint32_t>(distances[lane]))
                                            << 32 |
                                        std::uint32_t(children[std::size_t(lane)]);
            int at = size++;
            for (; at > base && entries[at - 1] < entry; --at) entries[at] = entries[at - 1];
            entries[at] = entry;
        }
    }
    void push(std::int32_t child) { entries[size++] = std::uint32_t(child); }
    /// Farthest first, as one sorted push would have left them.
    void sort() {
        for (int i = 1; i < size; ++i) {
            const std::uint64_t entry = entries[i];
            int at = i;
            for (; at > 0 && entries[at - 1] < entry; --at) entries[at] = entries[at - 1];
            entries[at] = entry;
        }
    }
    bool pop(float& distance, std::int32_t& child) {
        if (size == 0) return false;
        const std::uint64_t entry = entries[--size];
        distance = std::bit_cast<float>(std::uint32_t(entry >> 32));
        child = std::int32_t(std::uint32_t(entry));
        return true;
    }
};

}  // namespace corvelle
