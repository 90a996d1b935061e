#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "model/strandSet.h"
#include "operators/laneKernels.h"

namespace corvelle {

/// Scratch for lane kernels on strands of n points: on the stack for what hair mostly has.
class LaneScratch {
public:
    float* of(std::size_t n) {
        const std::size_t floats = kLanes * kLaneScratchPerPoint * n;
        if (floats <= onStack_.size()) return onStack_.data();
        constexpr std::size_t kAlignment = 32 / sizeof(float);
        if (onHeap_.size() < floats + kAlignment) onHeap_.resize(floats + kAlignment);
        const auto past =
            (reinterpret_cast<std::uintptr_t>(onHeap_.data()) / sizeof(float)) % kAlignment;
        return onHeap_.data() + (kAlignment - past) % kAlignment;
    }

private:
    static constexpr std::size_t kLanes = 8;
    alignas(32) std::array<float, kLanes * kLaneScratchPerPoint * 32> onStack_;
    std::vector<float> onHeap_;
};

/// Fewer strands than this do not fill the lanes.
inline constexpr std::size_t kLeastLaneRun = 4;

/// Splits the listed strands into runs of one point count n: wide(first, count, n) where they fill
/// the lanes, single(k) for each of the others, k being the place in the list.
template <class Wide, class Single>
void forEachLaneRun(const StrandSet& set, std::span<const std::uint32_t> strands, Wide&& wide,
                    Single&& single) {
    for (std::size_t k = 0; k < strands.size();) {
        const std::size_t n = set.pointCountOf(strands[k]);
        std::size_t end = k + 1;
        while (end < strands.size() && set.pointCountOf(strands[end]) == n) ++end;
        if (n >= 2 && end - k >= kLeastLaneRun)
            wide(k, end - k, n);
        else
            for (std::size_t i = k; i < end; ++i) single(i);
        k = end;
    }
}

}  // namespace corvelle
