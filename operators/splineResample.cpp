#include "operators/splineResample.h"

#include <algorithm>
#include <memory>

#include "operators/laneKernels.h"
#include "operators/splineLanes.h"

namespace corvelle {

bool canResample(SplineLanes lanes) {
    const std::size_t given = laneKernels(lanes).lanes;
    return lanes == SplineLanes::Sixteen ? given == 16 : lanes != SplineLanes::Eight || given == 8;
}

float* SplineResampler::scratchFor(std::size_t floats) {
    static_assert(alignof(SplineResampler) >= kLaneAlignment);
    if (floats <= onStack_.size()) return onStack_.data();
    constexpr std::size_t kMore = kLaneAlignment / sizeof(float);
    if (onHeap_.size() < floats + kMore) onHeap_.resize(floats + kMore);
    void* aligned = onHeap_.data();
    std::size_t room = onHeap_.size() * sizeof(float);
    return static_cast<float*>(std::align(kLaneAlignment, floats * sizeof(float), aligned, room));
}

void SplineResampler::run(const SplineJob& job, std::span<const std::uint32_t> strands) {
    const auto pointsOf = [](const std::uint64_t* offsets, std::uint32_t s) {
        return std::size_t(offsets[s + 1] - offsets[s]);
    };
    const auto counts = [&](std::uint32_t s) {
        return std::pair(pointsOf(job.fromOffsets, s), pointsOf(job.toOffsets, s));
    };
    // How many of the first ones have the counts of the first.
    const auto alike = [&](std::span<const std::uint32_t> list) {
        const auto first = counts(list[0]);
        std::size_t same = 1;
        if (job.fromOffsets == job.toOffsets)
            while (same < list.size() && pointsOf(job.fromOffsets, list[same]) == first.first)
                ++same;
        else
            while (same < list.size() && counts(list[same]) == first) ++same;
        return same;
    };
    if (strands.empty()) return;
    // Strands of the same counts are worked on together.
    std::size_t same = alike(strands);
    if (same < strands.size()) {
        order_.assign(strands.begin(), strands.end());
        std::ranges::sort(order_, {}, [&](std::uint32_t s) { return std::pair(counts(s), s); });
        strands = order_;
        same = alike(strands);
    }
    const LaneKernels& kernels = laneKernels(lanes_);
    for (;;) {
        const auto [n, m] = counts(strands[0]);
        kernels.resample(job, strands.data(), same, n, m,
                         scratchFor(kernels.lanes * laneScratch(n, m, job.arrayCount)));
        strands = strands.subspan(same);
        if (strands.empty()) return;
        same = alike(strands);
    }
}

}  // namespace corvelle
