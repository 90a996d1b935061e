#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "model/ramp.h"
#include "model/vec3f.h"
#include "operators/laneRuns.h"
#include "operators/strandLoop.h"

namespace corvelle {

/// How far each segment of a strand goes: strength times the profile at its middle, held to 0..1.
/// out[i] is for the segment that ends at point i, out[0] without meaning. out [n].
void segmentShares(std::span<const Vec3f> points, const Ramp& profile, float strength,
                   std::span<float> out);

/// Turns each segment of a strand toward a direction by a share of the angle between them and puts
/// the strand together again from the root out: every segment keeps its length, the root its place.
/// `toward` need not be unit; zero copies the strand. shares [n] or [1], 0..1: shares[i] is for the
/// segment that ends at point i, shares[0] unused when there are n. Points before the first segment
/// that turns keep their bits. A segment that points straight away turns in a plane picked from its
/// own direction. out [n], apart from `points`. No allocation.
///
/// The turn is the spherical interpolation of Shoemake, "Animating rotation with quaternion curves"
/// (SIGGRAPH 1985), its angle and sines by polynomials (polynomialTrig.h): within 1e-5.
void turnSegments(std::span<const Vec3f> points, Vec3f toward, std::span<const float> shares,
                  std::span<Vec3f> out);

/// `direction` laid onto the plane square to the unit `normal`: zero where it stands along the
/// normal, itself (unit) where the normal is zero.
Vec3f laidOnSurface(Vec3f direction, Vec3f normal);

/// Turns the listed strands as turnSegments does, several side by side; single(k) does the same for
/// the strand at place k alone, where that is no use or no way. `profile`: of the strength, see
/// segmentShares; null for the same everywhere. `toward`, `normals` (may be null) and `straighten`
/// as TurnJob has them.
template <class Single>
void turnStrands(const StrandSet& in, std::span<const std::uint32_t> strands,
                 const LaneNumbers<4>& toward, const LaneNumbers<4>* normals, bool straighten,
                 const LaneRamp* profile, std::span<Vec3f> out, Single&& single) {
    if (profile && !profile->fits()) {
        for (std::size_t k = 0; k < strands.size(); ++k) single(k);
        return;
    }
    std::array<std::uint8_t, StrandPick::kBatch> again{};
    const TurnJob job{lanePoints(in, strands, out),           toward.data(),
                      normals ? normals->data() : nullptr,    straighten,
                      profile ? profile->keys() : RampKeys{}, again.data()};
    deformStrands(laneKernels().turn, job, in, strands, single);
    for (std::size_t k = 0; k < strands.size(); ++k)
        if (again[k]) single(k);
}

}  // namespace corvelle
