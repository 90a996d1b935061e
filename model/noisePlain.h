#pragma once

#include <array>
#include <cmath>
#include <cstdint>

#include "model/vec3f.h"

namespace corvelle::plain {

// One octave of the lattice noise in its plainest form. It defines the bits of noise.h: the engine
// runs it where there is no SSE2, tests and benchmarks hold the fast form against it.

inline constexpr std::uint64_t kPrimeX = 0x9e3779b185ebca87u;
inline constexpr std::uint64_t kPrimeY = 0xc2b2ae3d27d4eb4fu;
inline constexpr std::uint64_t kPrimeZ = 0x165667b19e3779f9u;
inline constexpr std::uint64_t kPrimeW = 0xd6e8feb86659fd93u;
inline constexpr std::uint64_t kLatticeMultiplier = 0xbf58476d1ce4e5b9u;
inline constexpr float kLatticeLimit = 1e9f;

inline constexpr std::array<Vec3f, 12> kNoiseGradients = {{{1, 1, 0},
                                                           {-1, 1, 0},
                                                           {1, -1, 0},
                                                           {-1, -1, 0},
                                                           {1, 0, 1},
                                                           {-1, 0, 1},
                                                           {1, 0, -1},
                                                           {-1, 0, -1},
                                                           {0, 1, 1},
                                                           {0, -1, 1},
                                                           {0, 1, -1},
                                                           {0, -1, -1}}};

constexpr std::uint64_t latticeHash(std::int64_t x, std::int64_t y, std::int64_t z,
                                    std::uint64_t seed) {
    std::uint64_t v = (std::uint64_t(x) * kPrimeX) ^ (std::uint64_t(y) * kPrimeY) ^
                      (std::uint64_t(z) * kPrimeZ) ^ seed;
    v = (v ^ (v >> 29)) * kLatticeMultiplier;
    return v ^ (v >> 32);
}
/// The term of the fourth coordinate enters by xor, so it acts as a change of seed.
constexpr std::uint64_t seedAt(std::int64_t w, std::uint64_t seed) {
    return (std::uint64_t(w) * kPrimeW) ^ seed;
}

/// A coordinate as the lattice takes it: a cell and the place within.
struct Cell {
    std::int64_t index;
    float fraction;
};
inline Cell cellOf(float x) {
    if (std::isnan(x)) x = 0.0f;
    x = std::min(std::max(x, -kLatticeLimit), kLatticeLimit);
    const float floored = std::floor(x);
    return {std::int64_t(floored), x - floored};
}

constexpr float fade(float t) { return ((t * 6.0f - 15.0f) * t + 10.0f) * (t * t * t); }

/// The gradient noise whose gradients are picked by bits `shift` to `shift + 15` of the hash.
/// The sum with +0 makes a zero positive.
inline float noise3(Vec3f p, std::uint64_t seed, int shift = 0) {
    const Cell x = cellOf(p.x), y = cellOf(p.y), z = cellOf(p.z);
    float values[8];
    for (int corner = 0; corner < 8; ++corner) {
        const int dx = corner & 1, dy = (corner >> 1) & 1, dz = corner >> 2;
        const std::uint64_t hash = latticeHash(x.index + dx, y.index + dy, z.index + dz, seed);
        const Vec3f gradient = kNoiseGradients[((hash >> shift) & 0xffff) % 12];
        values[corner] =
            dot(gradient, {x.fraction - float(dx), y.fraction - float(dy), z.fraction - float(dz)});
    }
    const float u = fade(x.fraction), v = fade(y.fraction), w = fade(z.fraction);
    const float y0 = mix(mix(values[0], values[1], u), mix(values[2], values[3], u), v);
    const float y1 = mix(mix(values[4], values[5], u), mix(values[6], values[7], u), v);
    return mix(y0, y1, w) + 0.0f;
}

inline float noise4(Vec3f p, float w, std::uint64_t seed) {
    const Cell cell = cellOf(w);
    return mix(plain::noise3(p, seedAt(cell.index, seed)),
               plain::noise3(p, seedAt(cell.index + 1, seed)), fade(cell.fraction)) +
           0.0f;
}

inline Vec3f noiseVector3(Vec3f p, std::uint64_t seed) {
    return {plain::noise3(p, seed, 0), plain::noise3(p, seed, 16), plain::noise3(p, seed, 32)};
}

}  // namespace corvelle::plain
