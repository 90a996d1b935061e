#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "model/simd4.h"
#include "operators/curlShape.h"

namespace corvelle {

/// Winds strands as curlStrand does, to the same bits. Those of one point count wait for one
/// another and are wound four side by side, where their turns are even along them and no step of
/// theirs is too short for a direction. One winder per batch, not shared between threads; no
/// allocation a strand.
class CurlWinder {
public:
    CurlWinder(const CurlSettings& settings, std::size_t mostPoints);
    /// As curlStrand; all arrays must live until `finish`.
    void wind(std::span<const Vec3f> points, std::span<const float> radii, Vec3f across,
              const CurlDraws& draws, std::span<Vec3f> out);
    void finish();
    CurlScratch& scratch() { return scratch_; }

private:
    static constexpr std::size_t kLanes = Float4::kLanes;
    struct Waiting {
        std::span<const Vec3f> points;
        std::span<const float> radii;
        Vec3f across;
        CurlDraws draws;
        std::span<Vec3f> out;
    };
    bool windAcross();

    const CurlSettings& settings_;
    bool even_ = false;  ///< turns go with the length
    CurlScratch scratch_;
    std::vector<Float4> lanes_;
    std::array<Waiting, kLanes> waiting_;
    std::size_t count_ = 0;  ///< of those that wait
};

}  // namespace corvelle
