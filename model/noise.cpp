#include "model/noise.h"

#include <stdexcept>
#include <string>

#include "model/hash.h"
#include "model/noisePlain.h"

#if defined(__SSE2__) || defined(_M_X64)
#define CORVELLE_NOISE_SSE2 1
#include <emmintrin.h>
#endif

namespace corvelle {

namespace {

#ifdef CORVELLE_NOISE_SSE2

// The eight corners of a cell in two registers: corners 0 to 3 and, one up in z, 4 to 7. No branch,
// no table: gradients are sums of two signed offsets, picked by masks. All bits as in noisePlain.h.

/// Four 64-bit hashes of which the low halves are whole and, of the high halves, `high`.
struct Hashes {
    __m128i low;   ///< bits 0 to 31 of the four corners
    __m128i high;  ///< bits 32 to 63
};

inline __m128i bits32(std::uint64_t x) { return _mm_set1_epi32(int(std::uint32_t(x))); }

inline __m128i spread64(std::uint64_t a) { return _mm_set1_epi64x((long long)a); }

inline __m128i lowWords(__m128i a, __m128i b) {
    return _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(a), _mm_castsi128_ps(b), _MM_SHUFFLE(2, 0, 2, 0)));
}
inline __m128i highWords(__m128i a, __m128i b) {
    return _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(a), _mm_castsi128_ps(b), _MM_SHUFFLE(3, 1, 3, 1)));
}

/// The last steps of latticeHash over four values. With `Whole` false the low 16 bits alone hold,
/// which is all that one noise asks for and saves the wide products.
template <bool Whole>
inline Hashes finishHash(__m128i a, __m128i b) {
    constexpr std::uint64_t m = plain::kLatticeMultiplier;
    a = _mm_xor_si128(a, _mm_srli_epi64(a, 29));
    b = _mm_xor_si128(b, _mm_srli_epi64(b, 29));
    const __m128i multiplierLow = bits32(m);
    const __m128i pa = _mm_mul_epu32(a, multiplierLow), pb = _mm_mul_epu32(b, multiplierLow);
    const __m128i low = lowWords(pa, pb);
    __m128i high = highWords(pa, pb);
    if constexpr (Whole) {
        const __m128i multiplierHigh = bits32(m >> 32);
        const __m128i ca = _mm_add_epi32(_mm_mul_epu32(_mm_srli_epi64(a, 32), multiplierLow),
                                         _mm_mul_epu32(a, multiplierHigh));
        const __m128i cb = _mm_add_epi32(_mm_mul_epu32(_mm_srli_epi64(b, 32), multiplierLow),
                                         _mm_mul_epu32(b, multiplierHigh));
        high = _mm_add_epi32(high, lowWords(ca, cb));
    } else {
        const __m128i cross =
            _mm_add_epi16(_mm_mullo_epi16(highWords(a, b), bits32(m & 0xffff)),
                          _mm_mullo_epi16(lowWords(a, b), bits32((m >> 32) & 0xffff)));
        high = _mm_add_epi16(high, cross);
    }
    return {_mm_xor_si128(low, high), high};
}

/// Every 16-bit word modulo 12, by multiplication: 43691 / 2^19 is near enough to 1/12.
inline __m128i modulo12(__m128i words) {
    const __m128i quotient =
        _mm_srli_epi16(_mm_mulhi_epu16(words, _mm_set1_epi16(short(0xaaab))), 3);
    return _mm_sub_epi16(words, _mm_mullo_epi16(quotient, _mm_set1_epi16(12)));
}

inline __m128 choose(__m128i mask, __m128 yes, __m128 no) {
    const __m128 m = _mm_castsi128_ps(mask);
    return _mm_or_ps(_mm_and_ps(m, yes), _mm_andnot_ps(m, no));
}

/// The dot products of four gradients with four offsets. Gradients 0 to 3 pair x with y, 4 to 7 x
/// with z, 8 to 11 y with z; bits 0 and 1 of the index are the signs of the pair.
inline __m128 gradientDots(__m128i index, __m128 x, __m128 y, __m128 z) {
    const __m128 first = choose(_mm_cmplt_epi32(index, _mm_set1_epi32(8)), x, y);
    const __m128 second = choose(_mm_cmplt_epi32(index, _mm_set1_epi32(4)), y, z);
    const __m128i firstSign = _mm_slli_epi32(index, 31);
    const __m128i secondSign = _mm_slli_epi32(_mm_srli_epi32(index, 1), 31);
    return _mm_add_ps(_mm_xor_ps(first, _mm_castsi128_ps(firstSign)),
                      _mm_xor_ps(second, _mm_castsi128_ps(secondSign)));
}

inline __m128 lerp(__m128 a, __m128 b, __m128 t) {
    return _mm_add_ps(a, _mm_mul_ps(_mm_sub_ps(b, a), t));
}

/// What the corners of one cell share: their offsets, their places on the lattice and the fades.
struct Corners {
    __m128 x, y, z0, z1;  ///< offsets of corners 0 to 3; those of 4 to 7 differ in z
    __m128 fadeX, fadeY;
    float fadeZ;
    __m128i a, b;  ///< x and y products of corners 0, 1 and 2, 3
    std::uint64_t hashZ0, hashZ1;

    explicit Corners(Vec3f point) {
        __m128 p = _mm_setr_ps(point.x, point.y, point.z, 0.0f);
        p = _mm_and_ps(p, _mm_cmpord_ps(p, p));  // NaN becomes 0
        const __m128 limit = _mm_set1_ps(plain::kLatticeLimit);
        p = _mm_min_ps(_mm_max_ps(p, _mm_sub_ps(_mm_setzero_ps(), limit)), limit);
        __m128i cell = _mm_cvttps_epi32(p);
        // Truncation lies one above the floor for negative fractions; the mask is that -1.
        cell = _mm_add_epi32(cell, _mm_castps_si128(_mm_cmplt_ps(p, _mm_cvtepi32_ps(cell))));
        const __m128 f = _mm_sub_ps(p, _mm_cvtepi32_ps(cell));
        const __m128 cube = _mm_mul_ps(_mm_mul_ps(f, f), f);
        const __m128 curve = _mm_add_ps(
            _mm_mul_ps(_mm_sub_ps(_mm_mul_ps(f, _mm_set1_ps(6.0f)), _mm_set1_ps(15.0f)), f),
            _mm_set1_ps(10.0f));
        const __m128 fades = _mm_mul_ps(curve, cube);

        x = _mm_sub_ps(_mm_shuffle_ps(f, f, _MM_SHUFFLE(0, 0, 0, 0)),
                       _mm_setr_ps(0.0f, 1.0f, 0.0f, 1.0f));
        y = _mm_sub_ps(_mm_shuffle_ps(f, f, _MM_SHUFFLE(1, 1, 1, 1)),
                       _mm_setr_ps(0.0f, 0.0f, 1.0f, 1.0f));
        z0 = _mm_shuffle_ps(f, f, _MM_SHUFFLE(2, 2, 2, 2));
        z1 = _mm_sub_ps(z0, _mm_set1_ps(1.0f));
        fadeX = _mm_shuffle_ps(fades, fades, _MM_SHUFFLE(0, 0, 0, 0));
        fadeY = _mm_shuffle_ps(fades, fades, _MM_SHUFFLE(1, 1, 1, 1));
        fadeZ = _mm_cvtss_f32(_mm_shuffle_ps(fades, fades, _MM_SHUFFLE(2, 2, 2, 2)));

        const auto product = [](__m128i lane, std::uint64_t prime) {
            return std::uint64_t(std::int64_t(_mm_cvtsi128_si32(lane))) * prime;
        };
        const std::uint64_t hx = product(cell, plain::kPrimeX);
        const std::uint64_t hy =
            product(_mm_shuffle_epi32(cell, _MM_SHUFFLE(1, 1, 1, 1)), plain::kPrimeY);
        hashZ0 = product(_mm_shuffle_epi32(cell, _MM_SHUFFLE(2, 2, 2, 2)), plain::kPrimeZ);
        hashZ1 = hashZ0 + plain::kPrimeZ;
        const __m128i xs = _mm_set_epi64x((long long)(hx + plain::kPrimeX), (long long)hx);
        a = _mm_xor_si128(xs, spread64(hy));
        b = _mm_xor_si128(xs, spread64(hy + plain::kPrimeY));
    }

    template <bool Whole>
    Hashes hashes(std::uint64_t zAndSeed) const {
        const __m128i s = spread64(zAndSeed);
        return finishHash<Whole>(_mm_xor_si128(a, s), _mm_xor_si128(b, s));
    }

    /// The noise from the gradient indices of corners 0 to 3 and 4 to 7.
    float blend(__m128i index0, __m128i index1) const {
        const __m128 c0 = gradientDots(index0, x, y, z0), c1 = gradientDots(index1, x, y, z1);
        const __m128 alongX = lerp(_mm_shuffle_ps(c0, c1, _MM_SHUFFLE(2, 0, 2, 0)),
                                   _mm_shuffle_ps(c0, c1, _MM_SHUFFLE(3, 1, 3, 1)), fadeX);
        const __m128 alongY = lerp(_mm_shuffle_ps(alongX, alongX, _MM_SHUFFLE(2, 0, 2, 0)),
                                   _mm_shuffle_ps(alongX, alongX, _MM_SHUFFLE(3, 1, 3, 1)), fadeY);
        const float v0 = _mm_cvtss_f32(alongY);
        const float v1 = _mm_cvtss_f32(_mm_shuffle_ps(alongY, alongY, _MM_SHUFFLE(1, 1, 1, 1)));
        return mix(v0, v1, fadeZ) + 0.0f;
    }

    float value(std::uint64_t seed) const {
        const __m128i word = _mm_set1_epi32(0xffff);
        const Hashes h0 = hashes<false>(hashZ0 ^ seed), h1 = hashes<false>(hashZ1 ^ seed);
        return blend(modulo12(_mm_and_si128(h0.low, word)), modulo12(_mm_and_si128(h1.low, word)));
    }

    Vec3f vector(std::uint64_t seed) const {
        const __m128i word = _mm_set1_epi32(0xffff);
        const Hashes h0 = hashes<true>(hashZ0 ^ seed), h1 = hashes<true>(hashZ1 ^ seed);
        const __m128i low0 = modulo12(h0.low), low1 = modulo12(h1.low);
        return {
            blend(_mm_and_si128(low0, word), _mm_and_si128(low1, word)),
            blend(_mm_srli_epi32(low0, 16), _mm_srli_epi32(low1, 16)),
            blend(modulo12(_mm_and_si128(h0.high, word)), modulo12(_mm_and_si128(h1.high, word)))};
    }
};

inline float value3(Vec3f p, std::uint64_t seed) { return Corners(p).value(seed); }

inline float value4(Vec3f p, float w, std::uint64_t seed) {
    const plain::Cell cell = plain::cellOf(w);
    const Corners corners(p);
    return mix(corners.value(plain::seedAt(cell.index, seed)),
               corners.value(plain::seedAt(cell.index + 1, seed)), plain::fade(cell.fraction)) +
           0.0f;
}

inline Vec3f vector3(Vec3f p, std::uint64_t seed) { return Corners(p).vector(seed); }

#else

inline float value3(Vec3f p, std::uint64_t seed) { return plain::noise3(p, seed); }
inline float value4(Vec3f p, float w, std::uint64_t seed) { return plain::noise4(p, w, seed); }
inline Vec3f vector3(Vec3f p, std::uint64_t seed) { return plain::noiseVector3(p, seed); }

#endif

/// The sum of octaves of `noise(p, seed, amplitude, octave)`.
template <class Value, class Noise>
inline Value octaveSum(Vec3f p, std::uint64_t seed, int octaves, Noise&& noise) {
    Value sum{};
    float amplitude = 1.0f, norm = 0.0f;
    const int count = octaves < 1 ? 1 : octaves;
    for (int k = 0; k < count; ++k) {
        sum += noise(p, hashCombine(seed, k), amplitude, k);
        norm += amplitude;
        p *= 2.0f;
        amplitude *= 0.5f;
    }
    return sum / norm;
}

inline float fbmAt(Vec3f p, std::uint64_t seed, int octaves) {
    return octaveSum<float>(p, seed, octaves,
                            [](Vec3f q, std::uint64_t octaveSeed, float amplitude, int) {
                                return value3(q, octaveSeed) * amplitude;
                            });
}

inline Vec3f fbmVectorAt(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights) {
    return octaveSum<Vec3f>(
        p, seed, octaves, [&](Vec3f q, std::uint64_t octaveSeed, float amplitude, int k) {
            const float weight = std::size_t(k) < weights.size() ? weights[std::size_t(k)] : 1.0f;
            if (weight == 0.0f) return Vec3f{};
            return vector3(q, octaveSeed) * (amplitude * weight);
        });
}

void requireOnePerPoint(const char* function, std::size_t points, std::size_t out) {
    if (points == out) return;
    throw std::invalid_argument(std::string(function) + ": out has " + std::to_string(out) +
                                " elements for " + std::to_string(points) +
                                " points, give one per point");
}

}  // namespace

std::uint64_t latticeHash(std::int64_t x, std::int64_t y, std::int64_t z, std::uint64_t seed) {
    return plain::latticeHash(x, y, z, seed);
}
std::uint64_t latticeHash(std::int64_t x, std::int64_t y, std::int64_t z, std::int64_t w,
                          std::uint64_t seed) {
    return plain::latticeHash(x, y, z, plain::seedAt(w, seed));
}

float noise3(Vec3f p, std::uint64_t seed) { return value3(p, seed); }
float noise4(Vec3f p, float w, std::uint64_t seed) { return value4(p, w, seed); }
Vec3f noiseVector3(Vec3f p, std::uint64_t seed) { return vector3(p, seed); }

float fbm(Vec3f p, std::uint64_t seed, int octaves) { return fbmAt(p, seed, octaves); }

float fbm4(Vec3f p, float w, std::uint64_t seed, int octaves) {
    return octaveSum<float>(p, seed, octaves,
                            [&](Vec3f q, std::uint64_t octaveSeed, float amplitude, int) {
                                const float value = value4(q, w, octaveSeed) * amplitude;
                                w *= 2.0f;
                                return value;
                            });
}

Vec3f fbmVector(Vec3f p, std::uint64_t seed, int octaves) {
    return fbmVectorAt(p, seed, octaves, {});
}
Vec3f fbmVectorWeighted(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights) {
    return fbmVectorAt(p, seed, octaves, weights);
}

void noise3(std::span<const Vec3f> points, std::uint64_t seed, std::span<float> out) {
    requireOnePerPoint("noise3", points.size(), out.size());
    for (std::size_t i = 0; i < points.size(); ++i) out[i] = value3(points[i], seed);
}

void fbm(std::span<const Vec3f> points, std::uint64_t seed, int octaves, std::span<float> out) {
    requireOnePerPoint("fbm", points.size(), out.size());
    for (std::size_t i = 0; i < points.size(); ++i) out[i] = fbmAt(points[i], seed, octaves);
}

void fbmVector(std::span<const Vec3f> points, std::uint64_t seed, int octaves,
               std::span<Vec3f> out) {
    requireOnePerPoint("fbmVector", points.size(), out.size());
    for (std::size_t i = 0; i < points.size(); ++i)
        out[i] = fbmVectorAt(points[i], seed, octaves, {});
}

}  // namespace corvelle
