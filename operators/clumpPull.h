#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/ramp.h"
#include "model/vec3f.h"
#include "operators/clumpAxes.h"

namespace corvelle {

/// How strands are moved about the axes of their clumps.
struct PullSettings {
    Ramp profile;              ///< of the pull along the strand
    Ramp volumizeProfile;      ///< of `volumize`
    float repelRadius = 0.5f;  ///< cm; a negative pull brings what is nearer out toward it
    float flatness = 0.0f;     ///< 0 to 1
    bool lock = false;         ///< pulled onto a disc round the axis, not onto it
};

/// One strand's part in its clump.
struct ClumpMember {
    std::span<const Vec3f> points;     ///< root first, 1 or more
    float strength = 0.0f;             ///< -1 to 1, where `strengths` is empty
    std::span<const float> strengths;  ///< [points] or empty
    float clumpStrength = 1.0f;
    float volumize = 0.0f;
    float lockX = 0.0f, lockZ = 0.0f;  ///< cm: its place on the disc, along the axis' frame
};

/// Pulls strands toward their axes (or pushes them away), then squashes them across the ribbon,
/// then spreads them by `volumize`: each on the offset from the axis that the one before left.
/// Roots stay. A strand longer than its axis follows it by arc length from the root, any other by
/// its share of the length.
///
/// Strands that are only pulled, as most are, wait for others of their point count and are pulled
/// four side by side: a strand's bits do not depend on its company. One puller per batch, not
/// shared between threads; no allocation a strand.
class StrandPuller {
public:
    StrandPuller(const ClumpAxes& axes, const PullSettings& settings, std::size_t mostPoints);
    /// `member.points` and out [points] must live until `finish`.
    void pull(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out);
    void finish();

private:
    static constexpr std::size_t kLanes = 4;
    struct Waiting {
        const float* points = nullptr;
        float* out = nullptr;
        float strength = 0.0f;
        std::size_t axis = 0;
    };
    void pullOne(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out);
    void pullWaiting();

    const ClumpAxes& axes_;
    const PullSettings& settings_;
    bool pulls_ = false;  ///< no part of the profile is below 0
    bool line_ = false;   ///< the profile is a straight line from one end to the other...
    float from_ = 0.0f, by_ = 0.0f;  ///< ...with these values
    std::vector<float> shares_, strengths_, volumes_, lanes_;
    std::array<Waiting, kLanes> waiting_;
    std::size_t count_ = 0, points_ = 0;  ///< of those that wait
};

}  // namespace corvelle
