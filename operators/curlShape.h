#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/ramp.h"
#include "model/vec3f.h"
#include "operators/frameLanes.h"
#include "operators/turnWave.h"

namespace corvelle {

enum class CurlKind {
    Helix,   ///< round the center line; a coil is a helix of another radius
    Wave,    ///< a sine in a plane
    Zigzag,  ///< straight from peak to peak of that sine
};

/// How strands curl.
struct CurlSettings {
    CurlKind kind = CurlKind::Helix;
    float frequency = 0.4f;      ///< turns per cm
    float randomness = 0.3f;     ///< 0 to 1: of radius and frequency, either way
    float spacingRandom = 0.0f;  ///< 0 to 1: of the frequency along the curl
    float phase = 0.0f;          ///< turns
    float phaseRandom = 1.0f;    ///< turns
    Ramp profile;                ///< of the radius, root to tip
    Ramp frequencyProfile;       ///< of the frequency, root to tip
    std::uint64_t seed = 0;
};

/// What is random about one curl: a strand's, or that of a clump.
struct CurlDraws {
    float start = 0.0f;      ///< turns: where the curl begins, and how its plane is turned
    float radius = 1.0f;     ///< times the radius
    float frequency = 0.0f;  ///< turns per cm
    std::uint64_t spacing = 0;
};
/// `who` is a strand's id or a clump's number.
CurlDraws curlDraws(const CurlSettings& settings, std::uint64_t who);

/// Room for the functions below, reused from strand to strand.
struct CurlScratch {
    std::vector<float> mids, rates, noise, shares, turns, profile;
    std::vector<Vec3f> places, tangents, normals;
    void reserve(std::size_t points);
};

/// Turns from the root to each point of a line `length` cm long: the integral of the frequency by
/// the midpoint rule, a segment at a time. shares [n] ascend from 0 to 1; out [n]. Returns the
/// last.
float integrateTurns(std::span<const float> shares, float length, const CurlDraws& draws,
                     const CurlSettings& settings, CurlScratch& scratch, std::span<float> out);

/// The directions that a curl winds in at a point.
struct CurlFrame {
    Vec3f normal, binormal;  ///< unit, square to the center line
};

/// Where a curl of radius 1 lies beside its center line after `turns`.
Vec3f curlOffset(CurlKind kind, float turns, float start, const CurlFrame& frame);

/// The same over F, float or Float4.
template <class F>
inline Wide3<F> curlOffset(CurlKind kind, F turns, F start, const Wide3<F>& normal,
                           const Wide3<F>& binormal) {
    const F at = start + turns;
    if (kind == CurlKind::Helix) return normal * cosineOfTurns(at) + binormal * sineOfTurns(at);
    const Wide3<F> plane = normal * cosineOfTurns(start) + binormal * sineOfTurns(start);
    return plane * (kind == CurlKind::Wave ? sineOfTurns(at) : triangleOfTurns(at));
}

/// How far the curl has come out after `turns`: 0 at the root to 1 from a quarter turn on.
template <class F>
inline F curlEase(F turns) {
    const F x = select(turns < F(0.25f), F(4.0f) * turns, F(1.0f));
    return x * x * (F(3.0f) - F(2.0f) * x);
}

/// Winds a strand round itself. `across` is the direction that its plane starts from, at the root:
/// the scalp's own. radii [n] cm, before the profile and what is random. The root stays.
/// Shapes: points, radii, out [n], n >= 2. No allocation past the scratch.
void curlStrand(std::span<const Vec3f> points, std::span<const float> radii, Vec3f across,
                const CurlDraws& draws, const CurlSettings& settings, CurlScratch& scratch,
                std::span<Vec3f> out);

}  // namespace corvelle
