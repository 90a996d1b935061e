#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace corvelle {

/// Many strands to evenly spaced points along their splines (see StrandSpline), with their point
/// values. Bare arrays: this crosses into code compiled for other instruction sets.
struct SplineJob {
    /// A value at each point; a discrete one is that of the nearer point.
    struct Array {
        const float* from = nullptr;
        float* to = nullptr;
        bool discrete = false;
    };
    const float* from = nullptr;  ///< x, y, z of each point
    float* to = nullptr;
    const std::uint64_t* fromOffsets = nullptr;  ///< strand s begins at point fromOffsets[s]
    const std::uint64_t* toOffsets = nullptr;
    const Array* arrays = nullptr;
    std::size_t arrayCount = 0;
};

/// How many strands are worked on side by side: the results have the same bits.
enum class SplineLanes { Widest, Four, Eight, Sixteen };
/// False for Eight and Sixteen on processors (or compilers) that are not up to it.
bool canResample(SplineLanes lanes);

/// Resamples the strands listed, of any point counts from 2 up, both given and wanted; root and tip
/// are exact. Strands of length 0 are read by index. Scratch for one thread, reused from call to
/// call.
class SplineResampler {
public:
    explicit SplineResampler(SplineLanes lanes = SplineLanes::Widest) : lanes_(lanes) {}
    void run(const SplineJob& job, std::span<const std::uint32_t> strands);

private:
    float* scratchFor(std::size_t floats);
    SplineLanes lanes_;
    std::vector<std::uint32_t> order_;
    /// Enough for strands of 16 points to as many, with two values each.
    alignas(64) std::array<float, 16 * 350> onStack_;
    std::vector<float> onHeap_;
};

}  // namespace corvelle
