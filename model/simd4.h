#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define CORVELLE_SSE2 1
#else
#define CORVELLE_SSE2 0
#endif

namespace corvelle {

// Four floats side by side, on the SSE2 of the x86-64 baseline or in plain loops elsewhere. Every
// operation is one correctly rounded IEEE operation per lane, none is fused or approximated, so
// both forms, and the same formula over plain floats, give the same bits. That is why the helpers
// below come for float and bool too: a kernel is written once as a template and run either way.

/// Four truth values.
struct Mask4 {
#if CORVELLE_SSE2
    __m128 bits;
    friend Mask4 operator&(Mask4 a, Mask4 b) { return {_mm_and_ps(a.bits, b.bits)}; }
    friend Mask4 operator|(Mask4 a, Mask4 b) { return {_mm_or_ps(a.bits, b.bits)}; }
    /// Bit i is lane i.
    friend int laneBits(Mask4 a) { return _mm_movemask_ps(a.bits); }
#else
    bool bits[4];
    friend Mask4 operator&(Mask4 a, Mask4 b) {
        for (int i = 0; i < 4; ++i) a.bits[i] = a.bits[i] && b.bits[i];
        return a;
    }
    friend Mask4 operator|(Mask4 a, Mask4 b) {
        for (int i = 0; i < 4; ++i) a.bits[i] = a.bits[i] || b.bits[i];
        return a;
    }
    friend int laneBits(Mask4 a) {
        return int(a.bits[0]) | int(a.bits[1]) << 1 | int(a.bits[2]) << 2 | int(a.bits[3]) << 3;
    }
#endif
};

struct Float4 {
#if CORVELLE_SSE2
    __m128 lanes;
    Float4() = default;
    Float4(__m128 v) : lanes(v) {}
    Float4(float v) : lanes(_mm_set1_ps(v)) {}
    /// `p` is 16-byte aligned.
    static Float4 load(const float* p) { return _mm_load_ps(p); }
    static Float4 loadUnaligned(const float* p) { return _mm_loadu_ps(p); }
    void store(float* p) const { _mm_store_ps(p, lanes); }
    void storeUnaligned(float* p) const { _mm_storeu_ps(p, lanes); }
    static constexpr std::size_t kLanes = 4;
    friend Float4 operator+(Float4 a, Float4 b) { return _mm_add_ps(a.lanes, b.lanes); }
    friend Float4 operator-(Float4 a, Float4 b) { return _mm_sub_ps(a.lanes, b.lanes); }
    friend Float4 operator*(Float4 a, Float4 b) { return _mm_mul_ps(a.lanes, b.lanes); }
    friend Float4 operator/(Float4 a, Float4 b) { return _mm_div_ps(a.lanes, b.lanes); }
    friend Mask4 operator<(Float4 a, Float4 b) { return {_mm_cmplt_ps(a.lanes, b.lanes)}; }
    friend Mask4 operator<=(Float4 a, Float4 b) { return {_mm_cmple_ps(a.lanes, b.lanes)}; }
    friend Mask4 operator>(Float4 a, Float4 b) { return {_mm_cmpgt_ps(a.lanes, b.lanes)}; }
    friend Mask4 operator>=(Float4 a, Float4 b) { return {_mm_cmpge_ps(a.lanes, b.lanes)}; }
    /// a < b ? a : b, so b where either is NaN.
    friend Float4 lower(Float4 a, Float4 b) { return _mm_min_ps(a.lanes, b.lanes); }
    /// a > b ? a : b, so b where either is NaN.
    friend Float4 upper(Float4 a, Float4 b) { return _mm_max_ps(a.lanes, b.lanes); }
    friend Float4 squareRoot(Float4 a) { return _mm_sqrt_ps(a.lanes); }
    friend Float4 select(Mask4 m, Float4 a, Float4 b) {
        return _mm_or_ps(_mm_and_ps(m.bits, a.lanes), _mm_andnot_ps(m.bits, b.lanes));
    }
#else
    alignas(16) float lanes[4];
    Float4() = default;
    Float4(float v) : lanes{v, v, v, v} {}
    static Float4 load(const float* p) { return loadUnaligned(p); }
    static Float4 loadUnaligned(const float* p) {
        Float4 r;
        for (int i = 0; i < 4; ++i) r.lanes[i] = p[i];
        return r;
    }
    void store(float* p) const {
        for (int i = 0; i < 4; ++i) p[i] = lanes[i];
    }
    void storeUnaligned(float* p) const { store(p); }
    static constexpr std::size_t kLanes = 4;
    template <class F>
    static Float4 each(Float4 a, Float4 b, F f) {
        for (int i = 0; i < 4; ++i) a.lanes[i] = f(a.lanes[i], b.lanes[i]);
        return a;
    }
    template <class F>
    static Mask4 test(Float4 a, Float4 b, F f) {
        Mask4 m;
        for (int i = 0; i < 4; ++i) m.bits[i] = f(a.lanes[i], b.lanes[i]);
        return m;
    }
    friend Float4 operator+(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x + y; });
    }
    friend Float4 operator-(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x - y; });
    }
    friend Float4 operator*(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x * y; });
    }
    friend Float4 operator/(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x / y; });
    }
    friend Mask4 operator<(Float4 a, Float4 b) {
        return test(a, b, [](float x, float y) { return x < y; });
    }
    friend Mask4 operator<=(Float4 a, Float4 b) {
        return test(a, b, [](float x, float y) { return x <= y; });
    }
    friend Mask4 operator>(Float4 a, Float4 b) {
        return test(a, b, [](float x, float y) { return x > y; });
    }
    friend Mask4 operator>=(Float4 a, Float4 b) {
        return test(a, b, [](float x, float y) { return x >= y; });
    }
    friend Float4 lower(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x < y ? x : y; });
    }
    friend Float4 upper(Float4 a, Float4 b) {
        return each(a, b, [](float x, float y) { return x > y ? x : y; });
    }
    friend Float4 squareRoot(Float4 a) {
        return each(a, a, [](float x, float) { return std::sqrt(x); });
    }
    friend Float4 select(Mask4 m, Float4 a, Float4 b) {
        for (int i = 0; i < 4; ++i) a.lanes[i] = m.bits[i] ? a.lanes[i] : b.lanes[i];
        return a;
    }
#endif
};

/// Lane i in every lane.
template <int i>
inline Float4 spread(Float4 a) {
#if CORVELLE_SSE2
    return _mm_shuffle_ps(a.lanes, a.lanes, _MM_SHUFFLE(i, i, i, i));
#else
    return Float4(a.lanes[i]);
#endif
}

/// Four arrays side by side: lane l of out[k] is from[l][k]; four elements of each are read.
inline void loadAcross(const float* const* from, Float4* out) {
#if CORVELLE_SSE2
    __m128 r0 = _mm_loadu_ps(from[0]), r1 = _mm_loadu_ps(from[1]);
    __m128 r2 = _mm_loadu_ps(from[2]), r3 = _mm_loadu_ps(from[3]);
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    out[0] = r0;
    out[1] = r1;
    out[2] = r2;
    out[3] = r3;
#else
    for (int l = 0; l < 4; ++l)
        for (int k = 0; k < 4; ++k) out[k].lanes[l] = from[l][k];
#endif
}
/// The way back: to[l][k] is lane l of in[k].
inline void storeAcross(const Float4* in, float* const* to) {
#if CORVELLE_SSE2
    __m128 r0 = in[0].lanes, r1 = in[1].lanes, r2 = in[2].lanes, r3 = in[3].lanes;
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    _mm_storeu_ps(to[0], r0);
    _mm_storeu_ps(to[1], r1);
    _mm_storeu_ps(to[2], r2);
    _mm_storeu_ps(to[3], r3);
#else
    for (int l = 0; l < 4; ++l)
        for (int k = 0; k < 4; ++k) to[l][k] = in[k].lanes[l];
#endif
}

/// Four triples one after the other: lane l of x, y and z is of triple l.
inline void splitTriples(const Float4* in, Float4& x, Float4& y, Float4& z) {
#if CORVELLE_SSE2
    const __m128 a = in[0].lanes, b = in[1].lanes, c = in[2].lanes;
    x = _mm_shuffle_ps(a, _mm_shuffle_ps(b, c, _MM_SHUFFLE(1, 1, 2, 2)), _MM_SHUFFLE(2, 0, 3, 0));
    y = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(0, 0, 1, 1)),
                       _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 2, 3, 3)), _MM_SHUFFLE(2, 0, 2, 0));
    z = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 1, 2, 2)), c, _MM_SHUFFLE(3, 0, 2, 0));
#else
    for (int l = 0; l < 4; ++l) {
        x.lanes[l] = in[3 * l / 4].lanes[3 * l % 4];
        y.lanes[l] = in[(3 * l + 1) / 4].lanes[(3 * l + 1) % 4];
        z.lanes[l] = in[(3 * l + 2) / 4].lanes[(3 * l + 2) % 4];
    }
#endif
}

/// The least and the greatest lane.
inline float lowest(Float4 a) {
#if CORVELLE_SSE2
    const __m128 pairs = _mm_min_ps(a.lanes, _mm_movehl_ps(a.lanes, a.lanes));
    return _mm_cvtss_f32(_mm_min_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
#else
    const auto least = [](float x, float y) { return x < y ? x : y; };
    return least(least(a.lanes[0], a.lanes[2]), least(a.lanes[1], a.lanes[3]));
#endif
}
inline float highest(Float4 a) {
#if CORVELLE_SSE2
    const __m128 pairs = _mm_max_ps(a.lanes, _mm_movehl_ps(a.lanes, a.lanes));
    return _mm_cvtss_f32(_mm_max_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
#else
    const auto most = [](float x, float y) { return x > y ? x : y; };
    return most(most(a.lanes[0], a.lanes[2]), most(a.lanes[1], a.lanes[3]));
#endif
}

/// Asks the caches for `count` objects side by side; changes nothing else.
template <class T>
inline void prefetch(const T* first, std::size_t count = 1) {
#if CORVELLE_SSE2
    const char* bytes = reinterpret_cast<const char*>(first);
    for (std::size_t at = 0; at < count * sizeof(T); at += 64)
        _mm_prefetch(bytes + at, _MM_HINT_T0);
#else
    (void)first;
    (void)count;
#endif
}

inline float lower(float a, float b) { return a < b ? a : b; }
inline float upper(float a, float b) { return a > b ? a : b; }
inline float select(bool m, float a, float b) { return m ? a : b; }
inline float squareRoot(float a) { return std::sqrt(a); }
inline int laneBits(bool m) { return int(m); }

}  // namespace corvelle
