#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "model/simd4.h"
#include "operators/curlLines.h"
#include "operators/curlShape.h"

namespace corvelle {

/// Winds strands as curlStrand does, to the same bits. Those of one point count wait for one
/// another and are wound four side by side, where their turns are even along them and no step of
/// theirs is too short for a direction. So do strands that go along with the line of their clump:
/// each is moved as that is wound, at equal shares of the length, and keeps its place in the clump.
/// A strand's bits do not depend on its company. One winder per batch, not shared between threads;
/// no allocation a strand.
class CurlWinder {
public:
    CurlWinder(const CurlSettings& settings, std::size_t mostPoints);
    /// As curlStrand; all arrays must live until `finish`.
    void wind(std::span<const Vec3f> points, std::span<const float> radii, Vec3f across,
              const CurlDraws& draws, std::span<Vec3f> out);
    /// The same along the line of a group.
    void windAlong(std::span<const Vec3f> points, std::span<const float> radii,
                   const CurlLines& lines, std::size_t group, std::span<Vec3f> out);
    void finish();

private:
    static constexpr std::size_t kLanes = Float4::kLanes;
    struct Waiting {
        std::span<const Vec3f> points;
        std::span<const float> radii;
        Vec3f across;
        CurlDraws draws;
        std::span<Vec3f> out;
    };
    struct Along {
        std::span<const Vec3f> points;
        std::span<const float> radii;
        CurlLines::View line;
        CurlDraws draws;
        std::span<Vec3f> out;
    };
    void finishOwn();
    void finishAlong();
    bool windAcross();

    const CurlSettings& settings_;
    bool even_ = false;  ///< turns go with the length
    CurlScratch scratch_;
    std::vector<Float4> lanes_;
    std::array<Waiting, kLanes> waiting_;
    std::array<Along, kLanes> along_;
    std::size_t count_ = 0, alongCount_ = 0;  ///< of those that wait
};

}  // namespace corvelle
