#pragma once

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

/// Room for the worker, reused from strand to strand.
struct PullScratch {
    std::vector<float> shares, pulls, volumes;
    void reserve(std::size_t points);
};

/// Pulls a strand toward its axis (or pushes it away), then squashes it across the ribbon, then
/// spreads it by `volumize`: each on the offset from the axis that the one before left. The root
/// stays. A strand longer than the axis follows it by arc length from the root, any other by its
/// share of the length. out [points]. No allocation.
void pullStrand(const ClumpMember& member, const ClumpAxes& axes, std::size_t axis,
                const PullSettings& settings, PullScratch& scratch, std::span<Vec3f> out);

}  // namespace corvelle
