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

void SplineResampler::run(const SplineJob& job, std::span<const std::uint32_t> strands) {
    const auto pointsOf = [](const std::uint64_t* offsets, std::uint32_t s) {
        return std::size_t(offsets[s + 1] - offsets[s]);
    };
    const auto counts = [&](std::uint32_t s) {
        return std::pair(pointsOf(job.fromOffsets, s), pointsOf(job.toOffsets, s));
    };
    if (strands.empty()) return;
    // Strands of the same counts are worked on together.
    if (!std::ranges::all_of(strands,
                             [&](std::uint32_t s) { return counts(s) == counts(strands[0]); })) {
        order_.assign(strands.begin(), strands.end());
        std::ranges::sort(order_, {}, [&](std::uint32_t s) { return std::pair(counts(s), s); });
        strands = order_;
    }
    const LaneKernels& kernels = laneKernels(lanes_);
    while (!strands.empty()) {
        const auto [n, m] = counts(strands[0]);
        std::size_t same = 1;
        while (same < strands.size() && counts(strands[same]) == std::pair(n, m)) ++same;
        const std::size_t floats = kernels.lanes * laneScratch(n, m, job.arrayCount);
        constexpr std::size_t kMore = kLaneAlignment / sizeof(float);
        if (scratch_.size() < floats + kMore) scratch_.resize(floats + kMore);
        void* aligned = scratch_.data();
        std::size_t room = scratch_.size() * sizeof(float);
        std::align(kLaneAlignment, floats * sizeof(float), aligned, room);
        kernels.resample(job, strands.data(), same, n, m, static_cast<float*>(aligned));
        strands = strands.subspan(same);
    }
}

}  // namespace corvelle
