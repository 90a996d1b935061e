#include "expr/expressionNoise.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "model/hash.h"
#include "model/noise.h"

namespace corvelle::expression {

namespace {

constexpr std::uint64_t kNoiseSeed = 28161;
constexpr std::uint64_t kVectorNoiseSeed = 28162;
constexpr std::uint64_t kFbmSeed = 64256;        // octave k: + k
constexpr std::uint64_t kVectorFbmSeed = 64512;  // octave k: + k
constexpr std::uint64_t kCellSeed = 52753;
constexpr std::uint64_t kVoronoiSeed = 52754;
constexpr float kCellLimit = 1e7f;  // floats still tell the cells apart

int octaveCount(float octaves) {
    if (!(octaves >= 1.0f)) return 1;
    return octaves > 16.0f ? 16 : int(octaves);
}

template <class Value, class Octave>
Value sumOctaves(Vec3f p, float octaves, float lacunarity, float gain, Octave&& octave) {
    const int count = octaveCount(octaves);
    Value sum{};
    float norm = 0.0f, amplitude = 1.0f, frequency = 1.0f;
    for (int k = 0; k < count; ++k) {
        sum += octave(p * frequency, std::uint64_t(k)) * amplitude;
        norm += amplitude;
        frequency *= lacunarity;
        amplitude *= gain;
    }
    return sum / norm;
}

float cellCoordinate(float x) {
    if (x != x) return 0.0f;
    return std::clamp(x, -kCellLimit, kCellLimit);
}
Vec3f cellPlace(Vec3f p) { return {cellCoordinate(p.x), cellCoordinate(p.y), cellCoordinate(p.z)}; }

}  // namespace

float noise(Vec3f p) { return noise3(p, kNoiseSeed); }

Vec3f vectorNoise(Vec3f p) { return fbmVectorWeighted(p, kVectorNoiseSeed, 1, {}); }

float fbm(Vec3f p, float octaves, float lacunarity, float gain) {
    return sumOctaves<float>(p, octaves, lacunarity, gain,
                             [](Vec3f q, std::uint64_t k) { return noise3(q, kFbmSeed + k); });
}

float turbulence(Vec3f p, float octaves, float lacunarity, float gain) {
    return sumOctaves<float>(p, octaves, lacunarity, gain, [](Vec3f q, std::uint64_t k) {
        return std::abs(noise3(q, kFbmSeed + k));
    });
}

Vec3f vectorFbm(Vec3f p, float octaves, float lacunarity, float gain) {
    return sumOctaves<Vec3f>(p, octaves, lacunarity, gain, [](Vec3f q, std::uint64_t k) {
        return noiseVector3(q, kVectorFbmSeed + k);
    });
}

float cellNoise(Vec3f p) {
    const Vec3f q = cellPlace(p);
    return unitHash(latticeHash(std::int64_t(std::floor(q.x)), std::int64_t(std::floor(q.y)),
                                std::int64_t(std::floor(q.z)), kCellSeed));
}

float voronoi(Vec3f p, float jitter, float mode) {
    const Vec3f q = cellPlace(p);
    const float amount = jitter > 0.0f ? std::min(jitter, 1.0f) : 0.0f;
    const float fx = std::floor(q.x), fy = std::floor(q.y), fz = std::floor(q.z);
    const std::int64_t cx(fx), cy(fy), cz(fz);
    const Vec3f inCell{q.x - fx, q.y - fy, q.z - fz};
    float first = std::numeric_limits<float>::max(), second = first;
    for (int k = 0; k < 27; ++k) {
        const int dx = k % 3 - 1, dy = k / 3 % 3 - 1, dz = k / 9 - 1;
        const std::uint64_t h = latticeHash(cx + dx, cy + dy, cz + dz, kVoronoiSeed);
        const Vec3f random{unitHash(h), unitHash(h + 1), unitHash(h + 2)};
        const Vec3f feature{float(dx) + 0.5f + amount * (random.x - 0.5f),
                            float(dy) + 0.5f + amount * (random.y - 0.5f),
                            float(dz) + 0.5f + amount * (random.z - 0.5f)};
        const float d = lengthSquared(feature - inCell);
        second = std::min(second, std::max(first, d));
        first = std::min(first, d);
    }
    if (mode >= 1.5f) {
        const float far = std::sqrt(second);
        return mode >= 2.5f ? far - std::sqrt(first) : far;
    }
    return std::sqrt(first);
}

}  // namespace corvelle::expression
