#pragma once

#include <algorithm>
#include <numbers>

#include "operators/laneRuns.h"
#include "operators/placeLanes.h"
#include "operators/rootFrame.h"

namespace corvelle {

inline constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;  ///< of a degree

/// Degrees as the radians from -pi to pi that jobs take.
inline float turnRadians(float degrees) {
    return kRadians *
           (degrees >= -180.0f && degrees <= 180.0f ? degrees : std::remainder(degrees, 360.0f));
}

/// The scalp's normal at the root, and its tangent, as jobs take them; zeros without a scalp. With
/// a branch for that, since a vector chosen by value is loaded whole before its parts are stored.
template <std::size_t kNumbers>
void setNormal(LaneNumbers<kNumbers>& numbers, std::size_t place, std::size_t four,
               const ScalpMesh* scalp, const StrandRoot& root, float w) {
    if (scalp)
        numbers.set(place, four, scalpNormal(scalp, root), w);
    else
        numbers.set(place, four, {}, w);
}
template <std::size_t kNumbers>
void setTangent(LaneNumbers<kNumbers>& numbers, std::size_t place, std::size_t four,
                const ScalpMesh* scalp, const StrandRoot& root, float w) {
    if (scalp)
        numbers.set(place, four, rootTangent(scalp, root), w);
    else
        numbers.set(place, four, {}, w);
}

/// Sets the listed strands about their roots by a kernel; those that do not fill the lanes get the
/// same one by one.
template <class Job>
void placeStrands(LaneDeform<Job> kernel, const Job& job, const StrandSet& in,
                  std::span<const std::uint32_t> strands, std::span<Vec3f> out) {
    deformStrands(kernel, job, in, strands, [&](std::size_t k) {
        const auto points = in.pointsOf(strands[k]);
        if (points.empty()) return;
        const std::span<Vec3f> to = out.subspan(in.offsets()[strands[k]], points.size());
        std::ranges::copy(points, to.begin());
        placeAcross(job, job.numbers + Job::kNumbers * k, &to[0].x, to.size());
    });
}

}  // namespace corvelle
