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

// Two arrangements: `Corners` holds the eight corners of one cell in two registers, `Lanes` one
// corner of four cells in one. No branch, no table: gradients are sums of two signed offsets,
// picked by masks. All bits as in noisePlain.h.

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

/// Written so that the part without the mask is shared between corners.
inline __m128 choose(__m128i mask, __m128 yes, __m128 no) {
    return _mm_xor_ps(no, _mm_and_ps(_mm_castsi128_ps(mask), _mm_xor_ps(yes, no)));
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

/// Four coordinates on the lattice.
struct Places {
    __m128i cell;
    __m128 fraction, fade;

    explicit Places(__m128 x) {
        x = _mm_and_ps(x, _mm_cmpord_ps(x, x));  // NaN becomes 0
        const __m128 limit = _mm_set1_ps(plain::kLatticeLimit);
        x = _mm_min_ps(_mm_max_ps(x, _mm_sub_ps(_mm_setzero_ps(), limit)), limit);
        cell = _mm_cvttps_epi32(x);
        // Truncation lies one above the floor for negative fractions; the mask is that -1.
        cell = _mm_add_epi32(cell, _mm_castps_si128(_mm_cmplt_ps(x, _mm_cvtepi32_ps(cell))));
        fraction = _mm_sub_ps(x, _mm_cvtepi32_ps(cell));
        const __m128 cube = _mm_mul_ps(_mm_mul_ps(fraction, fraction), fraction);
        const __m128 six = _mm_set1_ps(6.0f), fifteen = _mm_set1_ps(15.0f);
        const __m128 curve =
            _mm_add_ps(_mm_mul_ps(_mm_sub_ps(_mm_mul_ps(fraction, six), fifteen), fraction),
                       _mm_set1_ps(10.0f));
        fade = _mm_mul_ps(curve, cube);
    }
};

/// What the corners of one cell share: their offsets, their places on the lattice and the fades.
struct Corners {
    __m128 x, y, z0, z1;  ///< offsets of corners 0 to 3; those of 4 to 7 differ in z
    __m128 fadeX, fadeY;
    float fadeZ;
    __m128i a, b;  ///< x and y products of corners 0, 1 and 2, 3
    std::uint64_t hashZ0, hashZ1;

    explicit Corners(Vec3f point) {
        const Places places(_mm_setr_ps(point.x, point.y, point.z, 0.0f));
        const __m128i cell = places.cell;
        const __m128 f = places.fraction, fades = places.fade;
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

/// Two 64-bit values to a register: those of lanes 0, 1 and of lanes 2, 3.
struct Wide {
    __m128i a, b;
    friend Wide operator^(Wide l, Wide r) {
        return {_mm_xor_si128(l.a, r.a), _mm_xor_si128(l.b, r.b)};
    }
    Wide plus(std::uint64_t x) const {
        return {_mm_add_epi64(a, spread64(x)), _mm_add_epi64(b, spread64(x))};
    }
    /// The signed cells times `prime`.
    static Wide product(__m128i cells, std::uint64_t prime) {
        const __m128i low = bits32(prime), high = bits32(prime >> 32);
        const __m128i lowAbove = spread64(prime << 32);
        const auto times = [&](__m128i doubled) {
            const __m128i unsignedProduct = _mm_add_epi64(
                _mm_mul_epu32(doubled, low), _mm_slli_epi64(_mm_mul_epu32(doubled, high), 32));
            const __m128i negative = _mm_srai_epi32(doubled, 31);
            return _mm_sub_epi64(unsignedProduct, _mm_and_si128(negative, lowAbove));
        };
        return {times(_mm_unpacklo_epi32(cells, cells)), times(_mm_unpackhi_epi32(cells, cells))};
    }
    static Wide all(std::uint64_t x) { return {spread64(x), spread64(x)}; }
};

/// Four points, each in its own lane and with its own seed.
struct Lanes {
    Places px, py, pz;
    Wide x, y, z;

    Lanes(__m128 xs, __m128 ys, __m128 zs)
        : px(xs),
          py(ys),
          pz(zs),
          x(Wide::product(px.cell, plain::kPrimeX)),
          y(Wide::product(py.cell, plain::kPrimeY)),
          z(Wide::product(pz.cell, plain::kPrimeZ)) {}

    /// Component c of the result from the indices `pick(c, hashes)`: 1 component or 3.
    template <int Components, class Pick>
    void blend(Wide seed, Pick&& pick, __m128* out) const {
        const __m128 one = _mm_set1_ps(1.0f), zero = _mm_setzero_ps();
        const __m128 fx[2] = {px.fraction, _mm_sub_ps(px.fraction, one)};
        const __m128 fy[2] = {py.fraction, _mm_sub_ps(py.fraction, one)};
        const __m128 fz[2] = {pz.fraction, _mm_sub_ps(pz.fraction, one)};
        const Wide hx[2] = {x, x.plus(plain::kPrimeX)};
        const Wide hy[2] = {y, y.plus(plain::kPrimeY)};
        const Wide hz[2] = {z ^ seed, z.plus(plain::kPrimeZ) ^ seed};
        __m128 alongY[2][Components];
        for (int k = 0; k < 2; ++k) {
            __m128 alongX[2][Components];
            for (int j = 0; j < 2; ++j) {
                const Wide yz = hy[j] ^ hz[k];
                const Wide v0 = hx[0] ^ yz, v1 = hx[1] ^ yz;
                const Hashes h0 = finishHash<Components != 1>(v0.a, v0.b);
                const Hashes h1 = finishHash<Components != 1>(v1.a, v1.b);
                for (int c = 0; c < Components; ++c)
                    alongX[j][c] = lerp(gradientDots(pick(c, h0), fx[0], fy[j], fz[k]),
                                        gradientDots(pick(c, h1), fx[1], fy[j], fz[k]), px.fade);
            }
            for (int c = 0; c < Components; ++c)
                alongY[k][c] = lerp(alongX[0][c], alongX[1][c], py.fade);
        }
        for (int c = 0; c < Components; ++c)
            out[c] = _mm_add_ps(lerp(alongY[0][c], alongY[1][c], pz.fade), zero);
    }

    __m128 value(Wide seed) const {
        __m128 out;
        blend<1>(
            seed,
            [](int, const Hashes& h) {
                return modulo12(_mm_and_si128(h.low, _mm_set1_epi32(0xffff)));
            },
            &out);
        return out;
    }
    void vector(Wide seed, __m128 out[3]) const {
        blend<3>(
            seed,
            [](int component, const Hashes& h) {
                const __m128i words = modulo12(component == 2 ? h.high : h.low);
                return component == 1 ? _mm_srli_epi32(words, 16)
                                      : _mm_and_si128(words, _mm_set1_epi32(0xffff));
            },
            out);
    }
};

/// Four consecutive points, one coordinate to a register.
struct FourPoints {
    __m128 x, y, z;

    explicit FourPoints(const Vec3f* p) {
        const float* const f = &p->x;
        const __m128 a = _mm_loadu_ps(f), b = _mm_loadu_ps(f + 4), c = _mm_loadu_ps(f + 8);
        // a = x0 y0 z0 x1, b = y1 z1 x2 y2, c = z2 x3 y3 z3
        const __m128 xy = _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 1, 3, 2));  // x2 y2 x3 y3
        const __m128 yz = _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
        x = _mm_shuffle_ps(a, xy, _MM_SHUFFLE(2, 0, 3, 0));
        y = _mm_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));
        z = _mm_shuffle_ps(yz, c, _MM_SHUFFLE(3, 0, 3, 1));
    }
    void twice() {
        x = _mm_add_ps(x, x);
        y = _mm_add_ps(y, y);
        z = _mm_add_ps(z, z);
    }
};

inline void storeVectors(const __m128 components[3], Vec3f* out) {
    float lanes[3][4];
    for (int c = 0; c < 3; ++c) _mm_storeu_ps(lanes[c], components[c]);
    for (int l = 0; l < 4; ++l) out[l] = {lanes[0][l], lanes[1][l], lanes[2][l]};
}

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

/// Calls octave(k, amplitude) for every octave; returns the sum of amplitudes.
template <class Octave>
inline float forEachOctave(int octaves, Octave&& octave) {
    float amplitude = 1.0f, norm = 0.0f;
    const int count = octaves < 1 ? 1 : octaves;
    for (int k = 0; k < count; ++k) {
        octave(k, amplitude);
        norm += amplitude;
        amplitude *= 0.5f;
    }
    return norm;
}

inline float weightOf(std::span<const float> weights, int octave) {
    return std::size_t(octave) < weights.size() ? weights[std::size_t(octave)] : 1.0f;
}

#ifdef CORVELLE_NOISE_SSE2

/// Octaves k to k + 3 of one point, an octave to a lane. Doubling is exact, so the order of the
/// products does not matter.
inline Lanes octaveLanes(Vec3f p) {
    const __m128 frequency = _mm_setr_ps(1.0f, 2.0f, 4.0f, 8.0f);
    return {_mm_mul_ps(_mm_set1_ps(p.x), frequency), _mm_mul_ps(_mm_set1_ps(p.y), frequency),
            _mm_mul_ps(_mm_set1_ps(p.z), frequency)};
}
inline Wide octaveSeeds(std::uint64_t seed, int k) {
    const auto at = [&](int octave) { return (long long)hashCombine(seed, octave); };
    return {_mm_set_epi64x(at(k + 1), at(k)), _mm_set_epi64x(at(k + 3), at(k + 2))};
}

inline float fbmAt(Vec3f p, std::uint64_t seed, int octaves) {
    if (octaves < 2) return value3(p, hashCombine(seed, 0));
    float sum = 0.0f, values[4];
    const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
        if (k % 4 == 0) {
            _mm_storeu_ps(values, octaveLanes(p).value(octaveSeeds(seed, k)));
            p *= 16.0f;
        }
        sum += values[k % 4] * amplitude;
    });
    return sum / norm;
}

inline Vec3f fbmVectorAt(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights) {
    Vec3f sum, values[4];
    const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
        if (k % 4 == 0) {
            if (octaves - k < 2) {
                values[0] = vector3(p, hashCombine(seed, k));
            } else {
                __m128 components[3];
                octaveLanes(p).vector(octaveSeeds(seed, k), components);
                storeVectors(components, values);
            }
            p *= 16.0f;
        }
        if (const float weight = weightOf(weights, k); weight != 0.0f)
            sum += values[k % 4] * (amplitude * weight);
    });
    return sum / norm;
}

#else

inline float fbmAt(Vec3f p, std::uint64_t seed, int octaves) {
    float sum = 0.0f;
    const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
        sum += value3(p, hashCombine(seed, k)) * amplitude;
        p *= 2.0f;
    });
    return sum / norm;
}

inline Vec3f fbmVectorAt(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights) {
    Vec3f sum;
    const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
        if (const float weight = weightOf(weights, k); weight != 0.0f)
            sum += vector3(p, hashCombine(seed, k)) * (amplitude * weight);
        p *= 2.0f;
    });
    return sum / norm;
}

#endif

inline float fbm4At(Vec3f p, float w, std::uint64_t seed, int octaves) {
    float sum = 0.0f;
    const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
        sum += value4(p, w, hashCombine(seed, k)) * amplitude;
        p *= 2.0f;
        w *= 2.0f;
    });
    return sum / norm;
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
    return fbm4At(p, w, seed, octaves);
}

Vec3f fbmVector(Vec3f p, std::uint64_t seed, int octaves) {
    return fbmVectorAt(p, seed, octaves, {});
}
Vec3f fbmVectorWeighted(Vec3f p, std::uint64_t seed, int octaves, std::span<const float> weights) {
    return fbmVectorAt(p, seed, octaves, weights);
}

void noise3(std::span<const Vec3f> points, std::uint64_t seed, std::span<float> out) {
    requireOnePerPoint("noise3", points.size(), out.size());
    std::size_t i = 0;
#ifdef CORVELLE_NOISE_SSE2
    for (const Wide seeds = Wide::all(seed); i + 4 <= points.size(); i += 4) {
        const FourPoints p(&points[i]);
        _mm_storeu_ps(&out[i], Lanes(p.x, p.y, p.z).value(seeds));
    }
#endif
    for (; i < points.size(); ++i) out[i] = value3(points[i], seed);
}

void noiseVector3(std::span<const Vec3f> points, std::uint64_t seed, std::span<Vec3f> out) {
    requireOnePerPoint("noiseVector3", points.size(), out.size());
    std::size_t i = 0;
#ifdef CORVELLE_NOISE_SSE2
    for (const Wide seeds = Wide::all(seed); i + 4 <= points.size(); i += 4) {
        const FourPoints p(&points[i]);
        __m128 components[3];
        Lanes(p.x, p.y, p.z).vector(seeds, components);
        storeVectors(components, &out[i]);
    }
#endif
    for (; i < points.size(); ++i) out[i] = vector3(points[i], seed);
}

void fbm(std::span<const Vec3f> points, std::uint64_t seed, int octaves, std::span<float> out) {
    requireOnePerPoint("fbm", points.size(), out.size());
    std::size_t i = 0;
#ifdef CORVELLE_NOISE_SSE2
    for (; i + 4 <= points.size(); i += 4) {
        FourPoints p(&points[i]);
        __m128 sum = _mm_setzero_ps();
        const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
            const __m128 value = Lanes(p.x, p.y, p.z).value(Wide::all(hashCombine(seed, k)));
            sum = _mm_add_ps(sum, _mm_mul_ps(value, _mm_set1_ps(amplitude)));
            p.twice();
        });
        _mm_storeu_ps(&out[i], _mm_div_ps(sum, _mm_set1_ps(norm)));
    }
#endif
    for (; i < points.size(); ++i) out[i] = fbmAt(points[i], seed, octaves);
}

void fbmVector(std::span<const Vec3f> points, std::uint64_t seed, int octaves,
               std::span<Vec3f> out) {
    fbmVectorWeighted(points, seed, octaves, {}, out);
}

void fbmVectorWeighted(std::span<const Vec3f> points, std::uint64_t seed, int octaves,
                       std::span<const float> weights, std::span<Vec3f> out) {
    requireOnePerPoint("fbmVector", points.size(), out.size());
    std::size_t i = 0;
#ifdef CORVELLE_NOISE_SSE2
    for (; i + 4 <= points.size(); i += 4) {
        FourPoints p(&points[i]);
        __m128 sum[3] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
        const float norm = forEachOctave(octaves, [&](int k, float amplitude) {
            if (const float weight = weightOf(weights, k); weight != 0.0f) {
                __m128 value[3];
                Lanes(p.x, p.y, p.z).vector(Wide::all(hashCombine(seed, k)), value);
                const __m128 scale = _mm_set1_ps(amplitude * weight);
                for (int c = 0; c < 3; ++c)
                    sum[c] = _mm_add_ps(sum[c], _mm_mul_ps(value[c], scale));
            }
            p.twice();
        });
        float lanes[3][4];
        for (int c = 0; c < 3; ++c) _mm_storeu_ps(lanes[c], _mm_div_ps(sum[c], _mm_set1_ps(norm)));
        for (std::size_t l = 0; l < 4; ++l) out[i + l] = {lanes[0][l], lanes[1][l], lanes[2][l]};
    }
#endif
    for (; i < points.size(); ++i) out[i] = fbmVectorAt(points[i], seed, octaves, weights);
}

}  // namespace corvelle
