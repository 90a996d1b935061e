#include "hosts/blender/helper/hostPoints.h"

#include <cmath>

#if defined(__SSE2__) || defined(_M_X64)
#define CORVELLE_SSE2 1
#include <emmintrin.h>
#endif

namespace corvelle {
namespace {

#if defined(CORVELLE_SSE2)

// What turns four lengths. The first two hold for a scale that is a float: a quotient of floats,
// first rounded to double, is rounded to float as if at once, since double has more than twice the
// digits. Source: Figueroa, "When is double rounding innocuous?", ACM SIGNUM Newsletter 30(3),
// 1995.
struct Divide {
    __m128 by;
    explicit Divide(double scale) : by(_mm_set1_ps(float(scale))) {}
    __m128 operator()(__m128 v) const { return _mm_div_ps(v, by); }
};
// A power of two has an exact reciprocal: no division.
struct Multiply {
    __m128 by;
    explicit Multiply(double scale) : by(_mm_set1_ps(float(1.0 / scale))) {}
    __m128 operator()(__m128 v) const { return _mm_mul_ps(v, by); }
};
// Any other scale.
struct DivideInDouble {
    __m128d by;
    explicit DivideInDouble(double scale) : by(_mm_set1_pd(scale)) {}
    __m128 operator()(__m128 v) const {
        const __m128d low = _mm_div_pd(_mm_cvtps_pd(v), by);
        const __m128d high = _mm_div_pd(_mm_cvtps_pd(_mm_movehl_ps(v, v)), by);
        return _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high));
    }
};

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
        __m128 a = scale(_mm_loadu_ps(from));
        __m128 b = scale(_mm_loadu_ps(from + 4));
        __m128 c = scale(_mm_loadu_ps(from + 8));
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
std::size_t scaleFours(std::span<const float> lengths, const Scale& scale, float* out) {
    std::size_t i = 0;
    for (; i + 4 <= lengths.size(); i += 4)
        _mm_storeu_ps(out + i, scale(_mm_loadu_ps(&lengths[i])));
    return i;
}

bool isNormalFloat(double value) {
    return std::isnormal(float(value)) && double(float(value)) == value;
}

/// What `convert` returns for the fastest way to scale to `space`.
template <class Convert>
std::size_t scaledBy(const SceneSpace& space, const Convert& convert) {
    const double scale = space.centimetersPerUnit();
    int exponent = 0;
    if (std::frexp(scale, &exponent) == 0.5 && isNormalFloat(1.0 / scale))
        return convert(Multiply(scale));
    return isNormalFloat(scale) ? convert(Divide(scale)) : convert(DivideInDouble(scale));
}

#endif

}  // namespace

void pointsToHost(std::span<const Vec3f> points, const SceneSpace& space, Vec3f* out) {
    const SceneSpace own = space;  // in registers: the stores below cannot change it
    std::size_t done = 0;
#if defined(CORVELLE_SSE2)
    done = scaledBy(own, [&](const auto& scale) {
        return own.zUp() ? convertFours<true>(points, scale, out)
                         : convertFours<false>(points, scale, out);
    });
#endif
    for (; done < points.size(); ++done) out[done] = own.pointToHost(points[done]);
}

void lengthsToHost(std::span<const float> lengths, const SceneSpace& space, float* out) {
    const SceneSpace own = space;
    std::size_t done = 0;
#if defined(CORVELLE_SSE2)
    done = scaledBy(own, [&](const auto& scale) { return scaleFours(lengths, scale, out); });
#endif
    for (; done < lengths.size(); ++done) out[done] = own.lengthToHost(lengths[done]);
}

}  // namespace corvelle
