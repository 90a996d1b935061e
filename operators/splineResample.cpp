#include "operators/splineResample.h"

#include <algorithm>
#include <memory>

#include "model/simd4.h"
#include "operators/splineLanes.h"
#include "operators/splineLanesAvx2.h"

namespace corvelle {

namespace {

constexpr std::size_t kMaxLanes = 8;
constexpr std::size_t kAlignment = 32;

bool eightLanes() {
    static const bool able = splineLanesAvx2() != nullptr;
    return able;
}

}  // namespace

bool canResample(SplineLanes lanes) { return lanes != SplineLanes::Eight || eightLanes(); }

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
    const SplineLanesFunction resample =
        lanes_ != SplineLanes::Four && eightLanes() ? splineLanesAvx2() : resampleLanes<Float4>;
    while (!strands.empty()) {
        const auto [n, m] = counts(strands[0]);
        std::size_t same = 1;
        while (same < strands.size() && counts(strands[same]) == std::pair(n, m)) ++same;
        const std::size_t floats = kMaxLanes * laneScratch(n, m, job.arrayCount);
        if (scratch_.size() < floats + kAlignment) scratch_.resize(floats + kAlignment);
        void* aligned = scratch_.data();
        std::size_t room = scratch_.size() * sizeof(float);
        std::align(kAlignment, floats * sizeof(float), aligned, room);
        resample(job, strands.data(), same, n, m, static_cast<float*>(aligned));
        strands = strands.subspan(same);
    }
}

}  // namespace corvelle
