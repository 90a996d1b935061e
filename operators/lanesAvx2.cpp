#include "operators/collideKernels.h"
#include "operators/laneKernels.h"
#include "operators/neighborKernels.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))

#include <immintrin.h>

// Functions are compiled for AVX2 one by one, by attribute: the rest of the program keeps to the
// baseline, and no inline function shared with other sources is compiled for it here. FMA is left
// out: it would give other bits.
#define CORVELLE_LANES_TARGET __attribute__((target("avx2")))
#define CORVELLE_AVX2 __attribute__((target("avx2"), always_inline))

#include "operators/collideLanes.h"
#include "operators/laneTable.h"
#include "operators/neighborLanes.h"

namespace corvelle {

namespace {

struct Mask8 {
    __m256 bits;
    CORVELLE_AVX2 friend inline Mask8 operator&(Mask8 a, Mask8 b) {
        return {_mm256_and_ps(a.bits, b.bits)};
    }
    CORVELLE_AVX2 friend inline Mask8 operator|(Mask8 a, Mask8 b) {
        return {_mm256_or_ps(a.bits, b.bits)};
    }
    CORVELLE_AVX2 friend inline int laneBits(Mask8 a) { return _mm256_movemask_ps(a.bits); }
};

/// As Float4, of twice the width and with the same bits a lane.
struct Float8 {
    static constexpr std::size_t kLanes = 8;
    __m256 lanes;
    Float8() = default;
    // Not left to the compiler: GCC 12 copies the default's in halves, which the next load waits
    // for.
    CORVELLE_AVX2 inline Float8(const Float8& o) : lanes(o.lanes) {}
    CORVELLE_AVX2 inline Float8& operator=(const Float8& o) {
        lanes = o.lanes;
        return *this;
    }
    CORVELLE_AVX2 inline Float8(__m256 v) : lanes(v) {}
    CORVELLE_AVX2 inline explicit Float8(float v) : lanes(_mm256_set1_ps(v)) {}
    CORVELLE_AVX2 static inline Float8 load(const float* p) { return _mm256_load_ps(p); }
    CORVELLE_AVX2 inline void store(float* p) const { _mm256_store_ps(p, lanes); }
    CORVELLE_AVX2 friend inline Float8 operator+(Float8 a, Float8 b) {
        return _mm256_add_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Float8 operator-(Float8 a, Float8 b) {
        return _mm256_sub_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Float8 operator*(Float8 a, Float8 b) {
        return _mm256_mul_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Float8 operator/(Float8 a, Float8 b) {
        return _mm256_div_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Mask8 operator<(Float8 a, Float8 b) {
        return {_mm256_cmp_ps(a.lanes, b.lanes, _CMP_LT_OQ)};
    }
    CORVELLE_AVX2 friend inline Mask8 operator<=(Float8 a, Float8 b) {
        return {_mm256_cmp_ps(a.lanes, b.lanes, _CMP_LE_OQ)};
    }
    CORVELLE_AVX2 friend inline Mask8 operator>=(Float8 a, Float8 b) {
        return {_mm256_cmp_ps(a.lanes, b.lanes, _CMP_GE_OQ)};
    }
    CORVELLE_AVX2 friend inline Mask8 operator>(Float8 a, Float8 b) {
        return {_mm256_cmp_ps(a.lanes, b.lanes, _CMP_GT_OQ)};
    }
    CORVELLE_AVX2 friend inline Float8 lower(Float8 a, Float8 b) {
        return _mm256_min_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Float8 upper(Float8 a, Float8 b) {
        return _mm256_max_ps(a.lanes, b.lanes);
    }
    CORVELLE_AVX2 friend inline Float8 squareRoot(Float8 a) { return _mm256_sqrt_ps(a.lanes); }
    CORVELLE_AVX2 friend inline Float8 select(Mask8 m, Float8 a, Float8 b) {
        return _mm256_blendv_ps(b.lanes, a.lanes, m.bits);
    }
};

/// Four rows of four in each half, turned in place.
CORVELLE_AVX2 inline void turn(__m256 r[4]) {
    const __m256 a = _mm256_unpacklo_ps(r[0], r[1]), b = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 c = _mm256_unpacklo_ps(r[2], r[3]), d = _mm256_unpackhi_ps(r[2], r[3]);
    r[0] = _mm256_shuffle_ps(a, c, _MM_SHUFFLE(1, 0, 1, 0));
    r[1] = _mm256_shuffle_ps(a, c, _MM_SHUFFLE(3, 2, 3, 2));
    r[2] = _mm256_shuffle_ps(b, d, _MM_SHUFFLE(1, 0, 1, 0));
    r[3] = _mm256_shuffle_ps(b, d, _MM_SHUFFLE(3, 2, 3, 2));
}

CORVELLE_AVX2 inline void loadAcross(const float* const* from, Float8* out) {
    __m256 r[4];
    for (int l = 0; l < 4; ++l)
        r[l] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(from[l])),
                                    _mm_loadu_ps(from[l + 4]), 1);
    turn(r);
    for (int k = 0; k < 4; ++k) out[k] = r[k];
}

CORVELLE_AVX2 inline void storeAcross(const Float8* in, float* const* to) {
    __m256 r[4];
    for (int k = 0; k < 4; ++k) r[k] = in[k].lanes;
    turn(r);
    for (int l = 0; l < 4; ++l) {
        _mm_storeu_ps(to[l], _mm256_castps256_ps128(r[l]));
        _mm_storeu_ps(to[l + 4], _mm256_extractf128_ps(r[l], 1));
    }
}

CORVELLE_AVX2 inline void loadSquare(const float* const* from, std::size_t at, Float8* out) {
    __m256 low[4], high[4];
    for (int l = 0; l < 4; ++l) {
        const __m256 a = _mm256_loadu_ps(from[l] + at), b = _mm256_loadu_ps(from[l + 4] + at);
        low[l] = _mm256_permute2f128_ps(a, b, 0x20);
        high[l] = _mm256_permute2f128_ps(a, b, 0x31);
    }
    turn(low);
    turn(high);
    for (int k = 0; k < 4; ++k) {
        out[k] = low[k];
        out[k + 4] = high[k];
    }
}

CORVELLE_AVX2 inline void storeSquare(const Float8* in, float* const* to, std::size_t at) {
    __m256 low[4], high[4];
    for (int k = 0; k < 4; ++k) {
        low[k] = in[k].lanes;
        high[k] = in[k + 4].lanes;
    }
    turn(low);
    turn(high);
    for (int l = 0; l < 4; ++l) {
        _mm256_storeu_ps(to[l] + at, _mm256_permute2f128_ps(low[l], high[l], 0x20));
        _mm256_storeu_ps(to[l + 4] + at, _mm256_permute2f128_ps(low[l], high[l], 0x31));
    }
}

}  // namespace

const LaneKernels* laneKernelsAvx2() {
    static const LaneKernels kernels = kernelsOver<Float8>();
    return __builtin_cpu_supports("avx2") ? &kernels : nullptr;
}

const CollideKernels* collideKernelsAvx2() {
    static const CollideKernels kernels = collideKernelsOver<Float8>();
    return laneKernelsAvx2() ? &kernels : nullptr;
}

const NeighborKernels* neighborKernelsAvx2() {
    static const NeighborKernels kernels = neighborKernelsOver<Float8>();
    return __builtin_cpu_supports("avx2") ? &kernels : nullptr;
}

}  // namespace corvelle

#else

namespace corvelle {

const LaneKernels* laneKernelsAvx2() { return nullptr; }
const NeighborKernels* neighborKernelsAvx2() { return nullptr; }
const CollideKernels* collideKernelsAvx2() { return nullptr; }

}  // namespace corvelle

#endif
