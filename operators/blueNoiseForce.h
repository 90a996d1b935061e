#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "model/hash.h"
#include "model/vec3f.h"
#include "operators/meshSides.h"

namespace corvelle {

// The terms of the blue-noise relaxation, shared with the plain form it is measured against.
namespace blueNoise {

inline constexpr int kIterations = 30;
inline constexpr int kRefresh = 4;  ///< steps between refreshes of neighbours and reprojections
inline constexpr float kStep = 0.6f;
inline constexpr float kMaxMove = 0.5f;
inline constexpr float kQuantum = 1.0f / 1024.0f;
inline constexpr float kFrozenMove = 0.02f;
inline constexpr float kCoincident = 1e-6f;
/// Of both radii: samples nearer than this, 0.82 of the spacing, are no sample at rest, nor is one
/// beside them. Without it whole neighbourhoods freeze round a pair at 0.7.
inline constexpr float kSqueezed = 0.41f;

/// How a neighbour `offset` away (from it to the sample) pushes, with R the sum of both radii and
/// d = |offset| < R.
inline Vec3f push(Vec3f offset, float d, float R) {
    const float near = 1.0f - d / R;
    return offset * (near * near / d);
}
/// The push between samples at one place: along a direction drawn for this sample and step.
inline Vec3f partingPush(std::uint64_t stepSeed, std::uint64_t id, float d, float R) {
    const std::uint64_t h = hashCombine(stepSeed, id);
    const float near = 1.0f - d / R;
    return Vec3f{unitHash(h) - 0.5f, unitHash(mix64(h)) - 0.5f, 0.0f} * (near * near);
}
/// The push of an open border, as of the sample's mirror image behind it.
inline Vec3f borderPush(Vec3f p, const BorderEdge& edge, float radius, Vec3f closest) {
    const float d2 = 2.0f * distance(p, closest), R2 = 2.0f * radius;
    if (!(d2 < R2)) return {};
    const float near = 1.0f - d2 / R2;
    return edge.inward * (near * near);
}
/// The step of a sample under `force`.
inline Vec3f stepOf(Vec3f force, Vec3f normal, float radius) {
    Vec3f f = (force - normal * dot(force, normal)) * (kStep * radius);
    const float size = length(f), most = kMaxMove * radius;
    if (size > most) f *= most / size;
    return f;
}
/// How far a step went, in radii, as the freezing test sees it.
inline float movedOf(Vec3f step, float radius, bool squeezed) {
    const float moved = std::min(kMaxMove * radius, length(step)) / radius;
    return squeezed ? std::max(moved, kFrozenMove) : moved;
}
/// `value` on the grid of multiples of `quantum`, halves to even.
inline float onGrid(float value, float quantum) {
    constexpr double kRound = 6755399441055744.0;  // 1.5 * 2^52: adding it drops the fraction
    return float(((double(value) / double(quantum) + kRound) - kRound) * double(quantum));
}
inline Vec3f onGrid(Vec3f p, float quantum) {
    return {onGrid(p.x, quantum), onGrid(p.y, quantum), onGrid(p.z, quantum)};
}
inline std::uint64_t stepSeed(std::uint64_t seed, int iteration) {
    return hashCombine(drawBase(seed, "Scatter.part"), std::uint64_t(iteration));
}

}  // namespace blueNoise

}  // namespace corvelle
