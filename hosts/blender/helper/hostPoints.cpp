#include "hosts/blender/helper/hostPoints.h"

#include <cmath>

#if defined(__SSE2__) || defined(_M_X64)
#define CORVELLE_SSE2 1
#include <emmintrin.h>
#endif

namespace corvelle {
namespace {

#if defined(CORVELLE_SSE2)

// Compilers divide one component at a time here; the divider is what the loop waits for.
struct Divide {
    __m128d by;
    __m128d operator()(__m128d v) const { return _mm_div_pd(v, by); }
};
// A scale of a power of two has an exact reciprocal: no division, the same bits.
struct Multiply {
    __m128d by;
    __m128d operator()(__m128d v) const { return _mm_mul_pd(v, by); }
};

template <class Scale>
__m128 scaled(const float* four, const Scale& scale) {
    const __m128 v = _mm_loadu_ps(four);
    const __m128d low = scale(_mm_cvtps_pd(v));
    const __m128d high = scale(_mm_cvtps_pd(_mm_movehl_ps(v, v)));
    return _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high));
}

// Four points in three registers: (x0 y0 z0 x1) (y1 z1 x2 y2) (z2 x3 y3 z3).
template <bool kZUp, class Scale>
std::size_t convertFours(std::span<const Vec3f> points, const Scale& scale, Vec3f* out) {
    const __m128i minus = _mm_set1_epi32(int(0x80000000u));
    const auto negate = [&](__m128 v, __m128i lanes) {
        return _mm_xor_ps(v, _mm_castsi128_ps(_mm_and_si128(lanes, minus)));
    };
    std::size_t i = 0;
    for (; i + 4 <= points.size(); i += 4) {
        const float* from = &points[i].x;
        float* to = &out[i].x;
        __m128 a = scaled(from, scale);
        __m128 b = scaled(from + 4, scale);
        __m128 c = scaled(from + 8, scale);
        if constexpr (kZUp) {  // (x, y, z) becomes (x, -z, y)
            const __m128 x2z2 = _mm_shuffle_ps(b, c, _MM_SHUFFLE(0, 0, 2, 2));
            const __m128 y2x3 = _mm_shuffle_ps(b, c, _MM_SHUFFLE(1, 1, 3, 3));
            a = negate(_mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 1, 2, 0)), _mm_set_epi32(0, 0, -1, 0));
            b = negate(_mm_shuffle_ps(b, x2z2, _MM_SHUFFLE(2, 0, 0, 1)),
                       _mm_set_epi32(-1, 0, 0, -1));
            c = negate(_mm_shuffle_ps(y2x3, c, _MM_SHUFFLE(2, 3, 2, 0)),
                       _mm_set_epi32(0, -1, 0, 0));
        }
        _mm_storeu_ps(to, a);
        _mm_storeu_ps(to + 4, b);
        _mm_storeu_ps(to + 8, c);
    }
    return i;
}

template <class Scale>
std::size_t convertFours(std::span<const Vec3f> points, bool zUp, double by, Vec3f* out) {
    const Scale scale{_mm_set1_pd(by)};
    return zUp ? convertFours<true>(points, scale, out) : convertFours<false>(points, scale, out);
}

#endif

}  // namespace

void pointsToHost(std::span<const Vec3f> points, const SceneSpace& space, Vec3f* out) {
    const SceneSpace own = space;  // in registers: the stores below cannot change it
    std::size_t done = 0;
#if defined(CORVELLE_SSE2)
    int exponent = 0;
    const double scale = own.centimetersPerUnit();
    const bool powerOfTwo = std::frexp(scale, &exponent) == 0.5 && std::isnormal(1.0 / scale);
    done = powerOfTwo ? convertFours<Multiply>(points, own.zUp(), 1.0 / scale, out)
                      : convertFours<Divide>(points, own.zUp(), scale, out);
#endif
    for (; done < points.size(); ++done) out[done] = own.pointToHost(points[done]);
}

}  // namespace corvelle
