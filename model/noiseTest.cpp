#include <array>
#include <bit>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/noise.h"
#include "model/noisePlain.h"

namespace corvelle {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::uint32_t bits(float x) { return std::bit_cast<std::uint32_t>(x); }
std::array<std::uint32_t, 3> bits(Vec3f v) { return {bits(v.x), bits(v.y), bits(v.z)}; }

/// Points of all magnitudes, on and off the lattice, and some that are not numbers.
std::vector<Vec3f> probes(std::uint64_t seed, std::size_t count) {
    SplitMix random(seed);
    const auto coordinate = [&] {
        const float x = random.nextRange(-1.0f, 1.0f);
        switch (random.nextU64() % 12) {
            case 0:
                return std::round(x * 20.0f);
            case 1:
                return x * 1e5f;
            case 2:
                return x * 1e-6f;
            case 3:
                return x * 3e9f;
            case 4:
                return x < 0.0f ? -0.0f : 0.0f;
            case 5:
                return x * 1e38f;
            case 6:
                return random.nextU64() % 4 != 0 ? x : x < -0.3f ? -kInf : x > 0.3f ? kInf : kNaN;
            default:
                return x * 30.0f;
        }
    };
    std::vector<Vec3f> points(count);
    for (Vec3f& p : points) p = {coordinate(), coordinate(), coordinate()};
    return points;
}

TEST(LatticeHash, KeepsTheValuesThatSavedGroomsDependOn) {
    EXPECT_EQ(latticeHash(0, 0, 0, 0), 0u);
    EXPECT_EQ(latticeHash(1, 2, 3, 4), 0x144da4c1df97dbdfu);
    EXPECT_EQ(latticeHash(-1, -2, -3, 4), 0xec2a835c42df1a39u);
    EXPECT_EQ(latticeHash(1, -2, 3, -7, 5), 0xf36f472b3496cec5u);
}

TEST(Noise, KeepsTheValuesThatSavedGroomsDependOn) {
    // From an independent program in double precision.
    EXPECT_NEAR(noise3({0.5f, 0.25f, 0.75f}, 0), -0.271484375, 1e-7);
    EXPECT_NEAR(noise3({-3.125f, 17.5f, 0.375f}, 42), -0.397640478098765, 1e-6);
    const Vec3f v = noiseVector3({1234.5f, -987.25f, 3.0625f}, (std::uint64_t(1) << 63) + 5);
    EXPECT_NEAR(v.x, 0.027898158878087997, 1e-6);
    EXPECT_NEAR(v.y, -0.3010107510490343, 1e-6);
    EXPECT_NEAR(v.z, 0.48947778379078954, 1e-6);
    EXPECT_NEAR(noise4({-3.125f, 17.5f, 0.375f}, -2.25f, 42), 0.10371108338722479, 1e-6);
    EXPECT_NEAR(fbm({-3.125f, 17.5f, 0.375f}, 42, 3), 0.058448891288467815, 1e-6);
}

TEST(Noise, HasTheBitsOfItsPlainForm) {
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        const std::vector<Vec3f> points = probes(seed, 500);
        const std::uint64_t s = seed % 3 == 0 ? seed : mix64(seed);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const Vec3f p = points[i];
            const float w = points[(i + 1) % points.size()].x;
            ASSERT_EQ(bits(noise3(p, s)), bits(plain::noise3(p, s)))
                << p.x << " " << p.y << " " << p.z;
            ASSERT_EQ(bits(noise4(p, w, s)), bits(plain::noise4(p, w, s)));
            ASSERT_EQ(bits(noiseVector3(p, s)), bits(plain::noiseVector3(p, s)));
        }
    }
}

TEST(Noise, FirstComponentOfTheVectorIsTheScalarNoise) {
    for (const Vec3f p : probes(5, 500)) EXPECT_EQ(bits(noiseVector3(p, 9).x), bits(noise3(p, 9)));
}

TEST(Noise, IsZeroOnTheLatticeAndBounded) {
    SplitMix random(3);
    float lowest = 0.0f, highest = 0.0f;
    for (int i = 0; i < 20'000; ++i) {
        const Vec3f p{random.nextRange(-50, 50), random.nextRange(-50, 50),
                      random.nextRange(-50, 50)};
        const Vec3f corner{std::round(p.x), std::round(p.y), std::round(p.z)};
        EXPECT_EQ(bits(noise3(corner, 11)), 0u);
        EXPECT_EQ(bits(noise4(corner, corner.x, 11)), 0u);
        EXPECT_EQ(bits(fbmVector(corner, 11, 3)), bits(Vec3f{}));
        const float n = noise3(p, 11);
        lowest = std::min(lowest, n);
        highest = std::max(highest, n);
    }
    EXPECT_GT(highest, 0.6f) << "too calm to prove anything";
    EXPECT_LT(lowest, -0.6f);
    EXPECT_LE(highest, 1.1f);
    EXPECT_GE(lowest, -1.1f);
}

TEST(Noise, IsContinuousAcrossCells) {
    for (const Vec3f p : {Vec3f{3, 0.3f, 0.7f}, Vec3f{0.2f, -5, 0.6f}, Vec3f{0.4f, 0.9f, 8}}) {
        const Vec3f step{1e-4f, 1e-4f, 1e-4f};
        EXPECT_NEAR(noise3(p - step, 1), noise3(p + step, 1), 2e-3f);
        EXPECT_NEAR(noise4(p - step, 2 - 1e-4f, 1), noise4(p + step, 2 + 1e-4f, 1), 2e-3f);
    }
}

TEST(Noise, CountsNaNAsZeroAndLimitsTheRest) {
    EXPECT_EQ(bits(noise3({kNaN, 0.3f, 0.4f}, 1)), bits(noise3({0, 0.3f, 0.4f}, 1)));
    EXPECT_EQ(bits(noise3({kInf, 0.3f, 0.4f}, 1)), bits(noise3({1e9f, 0.3f, 0.4f}, 1)));
    EXPECT_EQ(bits(noise3({-3e38f, 0.3f, 0.4f}, 1)), bits(noise3({-1e9f, 0.3f, 0.4f}, 1)));
    EXPECT_EQ(bits(noise4({0.1f, 0.3f, 0.4f}, kNaN, 1)), bits(noise4({0.1f, 0.3f, 0.4f}, 0, 1)));
}

TEST(Fbm, SumsOctavesOfTheirOwnSeeds) {
    for (const Vec3f p : probes(6, 200)) {
        const float first = noise3(p, hashCombine(8, 0));
        const float second = noise3(p * 2.0f, hashCombine(8, 1));
        EXPECT_EQ(bits(fbm(p, 8, 2)), bits((first + second * 0.5f) / 1.5f));
        EXPECT_EQ(bits(fbm(p, 8, 0)), bits(fbm(p, 8, 1)));
        EXPECT_EQ(bits(fbm(p, 8, -5)), bits(first));
        const float inTime =
            noise4(p, 0.3f, hashCombine(8, 0)) + noise4(p * 2.0f, 0.6f, hashCombine(8, 1)) * 0.5f;
        EXPECT_EQ(bits(fbm4(p, 0.3f, 8, 2)), bits(inTime / 1.5f));
    }
}

TEST(Fbm, HasTheBitsOfTheSumOfPlainOctavesAtAnyCount) {
    for (const Vec3f p : probes(9, 100))
        for (int octaves = 1; octaves <= 10; ++octaves) {
            float sum = 0.0f, amplitude = 1.0f, norm = 0.0f;
            Vec3f vectorSum, q = p;
            for (int k = 0; k < octaves; ++k, amplitude *= 0.5f, q *= 2.0f) {
                sum += plain::noise3(q, hashCombine(3, k)) * amplitude;
                vectorSum += plain::noiseVector3(q, hashCombine(3, k)) * amplitude;
                norm += amplitude;
            }
            ASSERT_EQ(bits(fbm(p, 3, octaves)), bits(sum / norm));
            ASSERT_EQ(bits(fbmVector(p, 3, octaves)), bits(vectorSum / norm));
        }
}

TEST(Fbm, WeightsFadeOctavesOutOverThePlainAmplitudes) {
    const std::array<float, 3> ones = {1, 1, 1}, without = {1, 0, 1}, half = {0.5f, 0.5f, 0.5f};
    for (const Vec3f p : probes(7, 200)) {
        EXPECT_EQ(bits(fbmVectorWeighted(p, 8, 3, {})), bits(fbmVector(p, 8, 3)));
        EXPECT_EQ(bits(fbmVectorWeighted(p, 8, 3, ones)), bits(fbmVector(p, 8, 3)));
        const Vec3f kept =
            noiseVector3(p, hashCombine(8, 0)) + noiseVector3(p * 4.0f, hashCombine(8, 2)) * 0.25f;
        EXPECT_EQ(bits(fbmVectorWeighted(p, 8, 3, without)), bits(kept / 1.75f));
        EXPECT_EQ(fbmVectorWeighted(p, 8, 3, half), fbmVector(p, 8, 3) * 0.5f);
        EXPECT_EQ(fbmVectorWeighted(p, 8, 1, std::array<float, 1>{0.0f}), Vec3f{});
    }
}

TEST(NoiseBatch, HasTheBitsOfOneByOne) {
    for (const std::size_t count : {0u, 1u, 3u, 4u, 5u, 1001u}) {
        const std::vector<Vec3f> points = probes(8, count);
        std::vector<float> noise(count), sums(count);
        std::vector<Vec3f> vectors(count), inPlace = points;
        noise3(points, 5, noise);
        fbm(points, 5, 3, sums);
        fbmVector(points, 5, 3, vectors);
        fbmVector(inPlace, 5, 3, inPlace);
        std::vector<Vec3f> weighted(count), single(count);
        noiseVector3(points, 5, single);
        const std::array<float, 3> weights = {0.5f, 0.0f, 2.0f};
        fbmVectorWeighted(points, 5, 4, weights, weighted);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(bits(noise[i]), bits(noise3(points[i], 5)));
            EXPECT_EQ(bits(sums[i]), bits(fbm(points[i], 5, 3)));
            EXPECT_EQ(bits(vectors[i]), bits(fbmVector(points[i], 5, 3)));
            EXPECT_EQ(bits(inPlace[i]), bits(vectors[i]));
            EXPECT_EQ(bits(single[i]), bits(noiseVector3(points[i], 5)));
            EXPECT_EQ(bits(weighted[i]), bits(fbmVectorWeighted(points[i], 5, 4, weights)));
        }
    }
    std::vector<float> two(2);
    EXPECT_THROW(noise3(probes(1, 3), 5, two), std::invalid_argument);
    EXPECT_THROW(fbm(probes(1, 3), 5, 2, two), std::invalid_argument);
}

}  // namespace
}  // namespace corvelle
