#pragma once

#include <cstdint>
#include <span>

#include "model/vec3f.h"

namespace corvelle {

// Gradient noise on an integer lattice (Perlin, "Improving Noise", SIGGRAPH 2002: twelve gradients,
// quintic fade), hashed by `latticeHash` instead of a permutation table, so that it never repeats
// and takes a 64-bit seed. Coordinates that are NaN count as 0 and are limited to +-1e9 before the
// lattice cast. All functions are pure; a result is never -0.

std::uint64_t latticeHash(std::int64_t x, std::int64_t y, std::int64_t z, std::uint64_t seed);
std::uint64_t latticeHash(std::int64_t x, std::int64_t y, std::int64_t z, std::int64_t w,
                          std::uint64_t seed);

/// About -1 to 1; 0 at lattice points.
float noise3(Vec3f p, std::uint64_t seed);
/// The same with a fourth coordinate, such as time.
float noise4(Vec3f p, float w, std::uint64_t seed);
/// Three gradient noises from one lattice hash a corner.
Vec3f noiseVector3(Vec3f p, std::uint64_t seed);

/// A sum of octaves, each of twice the frequency, half the amplitude and its own seed
/// `hashCombine(seed, k)`, over the sum of amplitudes. Octaves below 1 count as 1.
float fbm(Vec3f p, std::uint64_t seed, int octaves);
float fbm4(Vec3f p, float w, std::uint64_t seed, int octaves);
Vec3f fbmVector(Vec3f p, std::uint64_t seed, int octaves);
/// `weights` holds one float per octave (empty: all 1); an octave of weight exactly 0 is not
/// computed, octaves past the end count as 1. The sum is over the plain amplitudes, so a weight
/// fades its octave out.
Vec3f fbmVectorWeighted(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights);

/// Batches: out[i] for points[i], bit for bit as above, faster than one by one; out holds one
/// element per point, else std::invalid_argument. `out` may be `points` itself.
void noise3(std::span<const Vec3f> points, std::uint64_t seed, std::span<float> out);
void noiseVector3(std::span<const Vec3f> points, std::uint64_t seed, std::span<Vec3f> out);
void fbm(std::span<const Vec3f> points, std::uint64_t seed, int octaves, std::span<float> out);
void fbmVector(std::span<const Vec3f> points, std::uint64_t seed, int octaves,
               std::span<Vec3f> out);
void fbmVectorWeighted(std::span<const Vec3f> points, std::uint64_t seed, int octaves,
                       std::span<const float> weights, std::span<Vec3f> out);

}  // namespace corvelle
