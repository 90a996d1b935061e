#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/ramp.h"
#include "model/vec3f.h"
#include "operators/clumpAxes.h"
#include "operators/laneRuns.h"

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
/// its share of the length. One puller per batch, not shared between threads; no allocation a
/// strand.
class StrandPuller {
public:
    StrandPuller(const ClumpAxes& axes, const PullSettings& settings, std::size_t mostPoints);
    void pull(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out);

private:
    const ClumpAxes& axes_;
    const PullSettings& settings_;
    std::vector<float> shares_, strengths_, volumes_;
};

/// Pulls strands that are no more than pulled, as most are: many side by side, each to bits that do
/// not depend on its company. Any thread may ask.
class PlainPull {
public:
    PlainPull(const ClumpAxes& axes, const PullSettings& settings);
    /// False where the settings do more than pull, or pull in a way that lanes do not know.
    bool fits() const { return fits_; }
    /// Whether a strand may come: the strength over its whole length, and what it is spread by.
    static bool takes(float strength, float volumize, std::size_t points) {
        return strength >= 0.0f && volumize == 0.0f && points >= 2;
    }
    /// The listed strands, fastest where those of one axis stand together. Shapes: axisOf,
    /// strengths (with the clump's share) [strands]; out [in.pointCount()].
    void pull(const StrandSet& in, std::span<const std::uint32_t> strands,
              std::span<const std::uint32_t> axisOf, std::span<const float> strengths,
              std::span<Vec3f> out, SplineLanes lanes = SplineLanes::Widest) const;

private:
    const ClumpAxes& axes_;
    LaneRamp profile_;
    bool straight_ = false;  ///< the profile is a straight line from one end to the other
    bool fits_ = false;
};

}  // namespace corvelle
