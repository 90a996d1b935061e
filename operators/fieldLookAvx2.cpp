#include "operators/fieldLook.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))

#include <immintrin.h>

namespace corvelle {

namespace {

__attribute__((target("avx2"))) inline __m256 rowsAt(const float* at) {
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(at)), _mm_loadu_ps(at + 12), 1);
}

/// The same arithmetic as DistanceField::surelyOutside.
__attribute__((target("avx2"))) std::uint32_t lookAtEight(const FieldLook& look, const float* p) {
    // x, y, z of four points in each half, sorted by shuffles.
    const __m256 a = rowsAt(p), b = rowsAt(p + 4), c = rowsAt(p + 8);
    const __m256 xy = _mm256_shuffle_ps(b, c, _MM_SHUFFLE(2, 1, 3, 2));
    const __m256 yz = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));
    const __m256 axes[3] = {_mm256_shuffle_ps(a, xy, _MM_SHUFFLE(2, 0, 3, 0)),
                            _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0)),
                            _mm256_shuffle_ps(yz, c, _MM_SHUFFLE(3, 0, 3, 1))};
    const __m256 zero = _mm256_setzero_ps(), inverse = _mm256_set1_ps(look.inverse);
    __m256 on = _mm256_cmp_ps(zero, zero, _CMP_EQ_OQ);  // the grid
    __m256i block[3];
    for (int x = 0; x < 3; ++x) {
        const __m256 at =
            _mm256_mul_ps(_mm256_sub_ps(axes[x], _mm256_set1_ps(look.low[x])), inverse);
        on = _mm256_and_ps(on, _mm256_cmp_ps(at, zero, _CMP_GE_OQ));
        on = _mm256_and_ps(on, _mm256_cmp_ps(at, _mm256_set1_ps(look.last[x]), _CMP_LT_OQ));
        block[x] = _mm256_srli_epi32(_mm256_cvttps_epi32(at), look.blockShift);
    }
    const __m256i row =
        _mm256_add_epi32(_mm256_mullo_epi32(block[2], _mm256_set1_epi32(look.blocks[1])), block[1]);
    const __m256i at =
        _mm256_add_epi32(_mm256_mullo_epi32(row, _mm256_set1_epi32(look.blocks[0])), block[0]);
    const __m256 least = _mm256_mask_i32gather_ps(zero, look.ranges, at, on, 8);
    __m256 outside = _mm256_cmp_ps(least, _mm256_set1_ps(look.above), _CMP_GE_OQ);
    // The other end of the ranges only where some are not told apart by this one: seldom.
    if (_mm256_movemask_ps(_mm256_andnot_ps(outside, on)) != 0) {
        const __m256 most = _mm256_mask_i32gather_ps(zero, look.ranges + 1, at, on, 8);
        outside =
            _mm256_or_ps(outside, _mm256_cmp_ps(most, _mm256_set1_ps(look.below), _CMP_LT_OQ));
    }
    const std::uint32_t onGrid = std::uint32_t(_mm256_movemask_ps(on));
    const std::uint32_t sure = std::uint32_t(_mm256_movemask_ps(outside)) & onGrid;
    const std::uint32_t beside = look.borderLeast >= look.above ? ~onGrid : 0u;
    return ~(sure | beside) & 0xffu;
}

}  // namespace

LookAtEight lookAtEightAvx2() { return __builtin_cpu_supports("avx2") ? lookAtEight : nullptr; }

}  // namespace corvelle

#else

namespace corvelle {

LookAtEight lookAtEightAvx2() { return nullptr; }

}  // namespace corvelle

#endif
