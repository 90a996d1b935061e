#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "model/ramp.h"
#include "model/rampSlopes.h"
#include "model/strandSet.h"
#include "operators/laneKernels.h"
#include "operators/strandLoop.h"

namespace corvelle {

/// Scratch for lane kernels on strands of n points: on the stack for what hair mostly has.
class LaneScratch {
public:
    float* of(std::size_t n) {
        const std::size_t floats = kMostLanes * kLaneScratchPerPoint * n;
        if (floats <= onStack_.size()) return onStack_.data();
        constexpr std::size_t kAlignment = kLaneAlignment / sizeof(float);
        if (onHeap_.size() < floats + kAlignment) onHeap_.resize(floats + kAlignment);
        const auto past =
            (reinterpret_cast<std::uintptr_t>(onHeap_.data()) / sizeof(float)) % kAlignment;
        return onHeap_.data() + (kAlignment - past) % kAlignment;
    }

private:
    alignas(kLaneAlignment) std::array<float, kMostLanes * kLaneScratchPerPoint * 32> onStack_;
    std::vector<float> onHeap_;
};

/// What a job takes for each strand of a batch, by the strands' places in it: kNumbers of them, in
/// fours.
template <std::size_t kNumbers>
class LaneNumbers {
public:
    /// Fours by their index.
    void set(std::size_t place, std::size_t four, Vec3f v, float w) {
        float* const to = &numbers_[kNumbers * place + 4 * four];
        to[0] = v.x;
        to[1] = v.y;
        to[2] = v.z;
        to[3] = w;
    }
    const float* data() const { return numbers_.data(); }
    const float* at(std::size_t place) const { return &numbers_[kNumbers * place]; }

private:
    std::array<float, kNumbers * StrandPick::kBatch> numbers_;
};

/// Draws for the strands of a batch, by their places in it, times a scale; zeros when that is 0.
class LaneDraws {
public:
    LaneDraws(const StrandSet& set, std::span<const std::uint32_t> strands, std::uint64_t base,
              float scale)
        : scale_(scale) {
        if (scale != 0.0f)
            laneKernels().draw(base, set.ids().data(), strands.data(), strands.size(),
                               draws_.data());
    }
    /// As draw.
    float operator[](std::size_t place) const {
        return scale_ == 0.0f ? 0.0f : scale_ * draws_[place];
    }
    /// As drawSigned.
    float centered(std::size_t place) const {
        return scale_ == 0.0f ? 0.0f : scale_ * (2.0f * draws_[place] - 1.0f);
    }

private:
    float scale_;
    std::array<float, StrandPick::kBatch> draws_;
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

/// A ramp in the form that lanes read.
class LaneRamp {
public:
    LaneRamp() = default;
    explicit LaneRamp(const Ramp& ramp) : linear_(ramp.linear()) {
        if (ramp.keys().size() < 2 || ramp.keys().size() > kMostLaneKeys) return;
        for (const auto& [position, value] : ramp.keys()) {
            positions_.push_back(position);
            values_.push_back(value);
        }
        slopes_ = rampSlopes(ramp.keys());
    }
    /// False where one strand after the other is the way.
    bool fits() const { return !positions_.empty(); }
    RampKeys keys() const {
        return {positions_.data(), values_.data(), slopes_.data(), positions_.size(), linear_};
    }

private:
    std::vector<float> positions_, values_, slopes_;
    bool linear_ = false;
};

/// The points of a job, which must not outlive its arguments' arrays.
inline LanePoints lanePoints(const StrandSet& in, std::span<const std::uint32_t> strands,
                             std::span<Vec3f> to) {
    if (in.points().empty()) return {};
    return {&in.points()[0].x, &to[0].x, in.offsets().data(), strands.data()};
}

/// Deforms the listed strands by a kernel, those that do not fill the lanes by single(k).
template <class Job, class Single>
void deformStrands(LaneDeform<Job> kernel, const Job& job, const StrandSet& in,
                   std::span<const std::uint32_t> strands, Single&& single) {
    LaneScratch scratch;
    forEachLaneRun(
        in, strands,
        [&](std::size_t first, std::size_t count, std::size_t n) {
            kernel(job, first, count, n, scratch.of(n));
        },
        single);
}

}  // namespace corvelle
