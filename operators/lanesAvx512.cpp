#include "operators/collideKernels.h"
#include "operators/laneKernels.h"
#include "operators/neighborKernels.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))

#if defined(__GNUC__) && !defined(__clang__)
// GCC 12's header has undefined vectors where a mask leaves nothing of them (its PR 105593).
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

// As lanesAvx2.cpp: function by function, and without the fused operations of the set, which would
// give other bits (the whole program is compiled with -ffp-contract=off).
#define CORVELLE_LANES_TARGET __attribute__((target("avx512f,avx512dq,avx512vl")))
#define CORVELLE_AVX512 __attribute__((target("avx512f,avx512dq,avx512vl"), always_inline))

#include "operators/collideLanes.h"
#include "operators/laneTable.h"
#include "operators/neighborLanes.h"

namespace corvelle {

namespace {

struct Mask16 {
    __mmask16 bits;
    CORVELLE_AVX512 friend inline Mask16 operator&(Mask16 a, Mask16 b) {
        return {__mmask16(a.bits & b.bits)};
    }
    CORVELLE_AVX512 friend inline Mask16 operator|(Mask16 a, Mask16 b) {
        return {__mmask16(a.bits | b.bits)};
    }
    CORVELLE_AVX512 friend inline int laneBits(Mask16 a) { return int(a.bits); }
};

/// As Float4, of four times the width and with the same bits a lane.
struct Float16 {
    static constexpr std::size_t kLanes = 16;
    __m512 lanes;
    Float16() = default;
    CORVELLE_AVX512 inline Float16(const Float16& o) : lanes(o.lanes) {}  // see Float8
    CORVELLE_AVX512 inline Float16& operator=(const Float16& o) {
        lanes = o.lanes;
        return *this;
    }
    CORVELLE_AVX512 inline Float16(__m512 v) : lanes(v) {}
    CORVELLE_AVX512 inline explicit Float16(float v) : lanes(_mm512_set1_ps(v)) {}
    CORVELLE_AVX512 static inline Float16 load(const float* p) { return _mm512_load_ps(p); }
    CORVELLE_AVX512 inline void store(float* p) const { _mm512_store_ps(p, lanes); }
    CORVELLE_AVX512 friend inline Float16 operator+(Float16 a, Float16 b) {
        return _mm512_add_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Float16 operator-(Float16 a, Float16 b) {
        return _mm512_sub_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Float16 operator*(Float16 a, Float16 b) {
        return _mm512_mul_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Float16 operator/(Float16 a, Float16 b) {
        return _mm512_div_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Mask16 operator<(Float16 a, Float16 b) {
        return {_mm512_cmp_ps_mask(a.lanes, b.lanes, _CMP_LT_OQ)};
    }
    CORVELLE_AVX512 friend inline Mask16 operator<=(Float16 a, Float16 b) {
        return {_mm512_cmp_ps_mask(a.lanes, b.lanes, _CMP_LE_OQ)};
    }
    CORVELLE_AVX512 friend inline Mask16 operator>=(Float16 a, Float16 b) {
        return {_mm512_cmp_ps_mask(a.lanes, b.lanes, _CMP_GE_OQ)};
    }
    CORVELLE_AVX512 friend inline Mask16 operator>(Float16 a, Float16 b) {
        return {_mm512_cmp_ps_mask(a.lanes, b.lanes, _CMP_GT_OQ)};
    }
    CORVELLE_AVX512 friend inline Float16 lower(Float16 a, Float16 b) {
        return _mm512_min_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Float16 upper(Float16 a, Float16 b) {
        return _mm512_max_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX512 friend inline Float16 squareRoot(Float16 a) { return _mm512_sqrt_ps(a.lanes); }
    CORVELLE_AVX512 friend inline Float16 select(Mask16 m, Float16 a, Float16 b) {
        return _mm512_mask_blend_ps(m.bits, b.lanes, a.lanes);
    }
};

/// Four rows of four in each quarter, turned in place.
CORVELLE_AVX512 inline void turn(__m512 r[4]) {
    const __m512 a = _mm512_unpacklo_ps(r[0], r[1]), b = _mm512_unpackhi_ps(r[0], r[1]);
    const __m512 c = _mm512_unpacklo_ps(r[2], r[3]), d = _mm512_unpackhi_ps(r[2], r[3]);
    r[0] = _mm512_shuffle_ps(a, c, _MM_SHUFFLE(1, 0, 1, 0));
    r[1] = _mm512_shuffle_ps(a, c, _MM_SHUFFLE(3, 2, 3, 2));
    r[2] = _mm512_shuffle_ps(b, d, _MM_SHUFFLE(1, 0, 1, 0));
    r[3] = _mm512_shuffle_ps(b, d, _MM_SHUFFLE(3, 2, 3, 2));
}

CORVELLE_AVX512 inline void loadAcross(const float* const* from, Float16* out) {
    __m512 r[4];
    for (int l = 0; l < 4; ++l) {
        r[l] = _mm512_castps128_ps512(_mm_loadu_ps(from[l]));
        r[l] = _mm512_insertf32x4(r[l], _mm_loadu_ps(from[l + 4]), 1);
        r[l] = _mm512_insertf32x4(r[l], _mm_loadu_ps(from[l + 8]), 2);
        r[l] = _mm512_insertf32x4(r[l], _mm_loadu_ps(from[l + 12]), 3);
    }
    turn(r);
    for (int k = 0; k < 4; ++k) out[k] = r[k];
}

CORVELLE_AVX512 inline void storeAcross(const Float16* in, float* const* to) {
    __m512 r[4];
    for (int k = 0; k < 4; ++k) r[k] = in[k].lanes;
    turn(r);
    for (int l = 0; l < 4; ++l) {
        _mm_storeu_ps(to[l], _mm512_castps512_ps128(r[l]));
        _mm_storeu_ps(to[l + 4], _mm512_extractf32x4_ps(r[l], 1));
        _mm_storeu_ps(to[l + 8], _mm512_extractf32x4_ps(r[l], 2));
        _mm_storeu_ps(to[l + 12], _mm512_extractf32x4_ps(r[l], 3));
    }
}

/// Four rows of four quarters, turned in place.
CORVELLE_AVX512 inline void turnQuarters(__m512 r[4]) {
    const __m512 a = _mm512_shuffle_f32x4(r[0], r[1], _MM_SHUFFLE(1, 0, 1, 0));
    const __m512 b = _mm512_shuffle_f32x4(r[2], r[3], _MM_SHUFFLE(1, 0, 1, 0));
    const __m512 c = _mm512_shuffle_f32x4(r[0], r[1], _MM_SHUFFLE(3, 2, 3, 2));
    const __m512 d = _mm512_shuffle_f32x4(r[2], r[3], _MM_SHUFFLE(3, 2, 3, 2));
    r[0] = _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    r[1] = _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(3, 1, 3, 1));
    r[2] = _mm512_shuffle_f32x4(c, d, _MM_SHUFFLE(2, 0, 2, 0));
    r[3] = _mm512_shuffle_f32x4(c, d, _MM_SHUFFLE(3, 1, 3, 1));
}

CORVELLE_AVX512 inline void loadSquare(const float* const* from, std::size_t at, Float16* out) {
    __m512 quarters[4][4];
    for (int l = 0; l < 4; ++l) {
        __m512 r[4];
        for (int q = 0; q < 4; ++q) r[q] = _mm512_loadu_ps(from[l + 4 * q] + at);
        turnQuarters(r);
        for (int q = 0; q < 4; ++q) quarters[q][l] = r[q];
    }
    for (int q = 0; q < 4; ++q) {
        turn(quarters[q]);
        for (int k = 0; k < 4; ++k) out[4 * q + k] = quarters[q][k];
    }
}

CORVELLE_AVX512 inline void storeSquare(const Float16* in, float* const* to, std::size_t at) {
    __m512 quarters[4][4];
    for (int q = 0; q < 4; ++q) {
        for (int k = 0; k < 4; ++k) quarters[q][k] = in[4 * q + k].lanes;
        turn(quarters[q]);
    }
    for (int l = 0; l < 4; ++l) {
        __m512 r[4];
        for (int q = 0; q < 4; ++q) r[q] = quarters[q][l];
        turnQuarters(r);
        for (int q = 0; q < 4; ++q) _mm512_storeu_ps(to[l + 4 * q] + at, r[q]);
    }
}

}  // namespace

}  // namespace corvelle

#include "operators/shortCurves16.h"

namespace corvelle {

const LaneKernels* laneKernelsAvx512() {
    static const LaneKernels kernels = kernelsOver<Float16>();
    const bool able = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                      __builtin_cpu_supports("avx512vl");
    return able ? &kernels : nullptr;
}

const CollideKernels* collideKernelsAvx512() {
    static const CollideKernels kernels = collideKernelsOver<Float16>();
    return laneKernelsAvx512() ? &kernels : nullptr;
}

const NeighborKernels* neighborKernelsAvx512() {
    static const NeighborKernels kernels = [] {
        NeighborKernels all = neighborKernelsOver<Float16>();
        all.mostByComponent = kShort;
        all.measure = measureEither;
        all.blend = blendEither;
        all.stick = stickEither;
        return all;
    }();
    const bool able = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq");
    return able ? &kernels : nullptr;
}

}  // namespace corvelle

#else

namespace corvelle {

const LaneKernels* laneKernelsAvx512() { return nullptr; }
const NeighborKernels* neighborKernelsAvx512() { return nullptr; }
const CollideKernels* collideKernelsAvx512() { return nullptr; }

}  // namespace corvelle

#endif
