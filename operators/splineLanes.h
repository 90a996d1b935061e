#pragma once

#include <cstddef>
#include <cstdint>

#include "model/simd4.h"
#include "operators/splineResample.h"

// The kernels of splines, over F: one strand (float) or several side by side (Float4, Float8). Each
// lane does the same correctly rounded operations whatever F is, so a strand's bits depend neither
// on F nor on its neighbours. A source that compiles them for a wider instruction set defines
// CORVELLE_LANES_TARGET first; nothing of the standard library is used here, lest code for that set
// gets into functions shared with other sources.
#ifndef CORVELLE_LANES_TARGET
#define CORVELLE_LANES_TARGET
#endif

// For functions that ask the caches for something and do nothing else. GCC takes these for
// functions without effects and drops their calls, unless they are inlined before it looks.
#if defined(__GNUC__) || defined(__clang__)
#define CORVELLE_FETCH __attribute__((always_inline)) inline
#else
#define CORVELLE_FETCH inline
#endif

namespace corvelle {

namespace {  // a copy of its own for every source: each has its own target

/// The span from point a to the next: a + t (b + t (c + t d)), t from 0 to 1. `start` is the arc
/// length before it. The share u of the span's own length is reached at t = u (1 + bias - bias u).
template <class F>
struct SplineSpan {
    F b[3], c[3], d[3];
    F start, perLength, bias;
};

template <class F>
CORVELLE_LANES_TARGET inline F lengthAcross(const F v[3]) {
    return squareRoot(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// The spans of a strand are measured in four steps, each for all spans before the next: roots and
// divisions take long, and those of many spans are then waited for together.

/// Chords, in c; their lengths, in `start`; the roots of these, in `perLength`.
template <class F>
CORVELLE_LANES_TARGET inline void measureChords(const F* points, std::size_t n,
                                                SplineSpan<F>* spans) {
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const F* const p = points + 3 * i;
        F chord[3];
        for (int x = 0; x < 3; ++x) chord[x] = p[3 + x] - p[x];
        const F length = lengthAcross(chord), knot = squareRoot(length);
        for (int x = 0; x < 3; ++x) spans[i].c[x] = chord[x];
        spans[i].start = length;
        spans[i].perLength = knot;
    }
}

/// From the chords the tangents: where a span begins in b, where it ends in d.
template <class F>
CORVELLE_LANES_TARGET inline void findTangents(std::size_t n, SplineSpan<F>* spans) {
    const F one(1.0f), least(1e-30f), most(1e30f);
    const int all = laneBits(least < most);
    for (std::size_t i = 0; i + 2 < n; ++i) {
        SplineSpan<F>&span = spans[i], &next = spans[i + 1];
        const F chordLength = span.start, knot = span.perLength;
        const F afterLength = next.start, afterKnot = next.perLength;
        const F product = knot * afterKnot * (knot + afterKnot);
        const auto usable = (product > least) & (product < most);
        const F over = one / product;
        const F before = over * knot, behind = over * afterKnot;
        F reaching[3], leaving[3];
        for (int x = 0; x < 3; ++x) {
            const F slope = span.c[x] * afterLength + next.c[x] * chordLength;
            reaching[x] = slope * before;
            leaving[x] = slope * behind;
        }
        if (laneBits(usable) != all) {  // seldom
            for (int x = 0; x < 3; ++x) {
                reaching[x] = select(usable, reaching[x], span.c[x]);
                leaving[x] = select(usable, leaving[x], next.c[x]);
            }
        }
        for (int x = 0; x < 3; ++x) {
            span.d[x] = reaching[x];
            next.b[x] = leaving[x];
        }
    }
    for (int x = 0; x < 3; ++x) {
        spans[0].b[x] = spans[0].c[x];
        spans[n - 2].d[x] = spans[n - 2].c[x];
    }
}

/// From chords and tangents the coefficients; lengths, in `perLength`, and those of the first
/// halves, in `bias`.
template <class F>
CORVELLE_LANES_TARGET inline void measureHalves(std::size_t n, SplineSpan<F>* spans) {
    const F two(2.0f), half(0.5f), eighth(0.125f);
    for (std::size_t i = 0; i + 1 < n; ++i) {
        SplineSpan<F>& span = spans[i];
        F first[3], second[3];
        for (int x = 0; x < 3; ++x) {
            const F chord = span.c[x], leaving = span.b[x], reaching = span.d[x];
            const F d = leaving + reaching - two * chord;
            span.c[x] = chord - leaving - d;
            span.d[x] = d;
            const F bulge = (leaving - reaching) * eighth, middle = chord * half;
            first[x] = middle + bulge;
            second[x] = middle - bulge;
        }
        const F firstLength = lengthAcross(first);
        span.bias = firstLength;
        span.perLength = firstLength + lengthAcross(second);
    }
}

/// Centripetal Catmull-Rom (Yuksel, Schaefer, Keyser 2009; knots are the roots k of the chords).
/// The slope at a joint of chords p, q with lengths k^2, l^2 is (p l^2 + q k^2) / (k l (k + l)):
/// one division; times k it is the tangent of the span before, times l that of the span after. The
/// ends, and joints of an empty or boundless chord, take the chord. The length of a span is that of
/// its two halves, its middle lying at (a + a')/2 + (m0 - m1)/8; their ratio sets `bias` so that t
/// follows the length to second order. points [3 n] flat, n >= 2; spans [n - 1]. Returns the arc
/// length.
template <class F>
CORVELLE_LANES_TARGET inline F measureSpans(const F* points, std::size_t n, SplineSpan<F>* spans) {
    const F zero(0.0f), one(1.0f), two(2.0f);
    const int all = laneBits(zero < one);
    measureChords(points, n, spans);
    findTangents(n, spans);
    measureHalves(n, spans);
    F total = zero;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        SplineSpan<F>& span = spans[i];
        const F length = span.perLength;
        const F perLength = select(length > zero, one / length, zero);
        const F bias = two - F(4.0f) * (span.bias * perLength);
        span.start = total;
        span.perLength = perLength;
        span.bias = lower(upper(bias, F(-1.0f)), one);
        total = total + length;
    }
    // A strand of no length, or of none that is a number, is read by index.
    const auto measured = (total > zero) & (total < F(3e38f));
    if (laneBits(measured) != all) {
        for (std::size_t i = 0; i + 1 < n; ++i) {
            spans[i].start = select(measured, spans[i].start, F(float(i)));
            spans[i].perLength = select(measured, spans[i].perLength, one);
            spans[i].bias = select(measured, spans[i].bias, zero);
        }
        total = select(measured, total, F(float(n - 1)));
    }
    return total;
}

/// The place t in a span of an arc length from the root.
template <class F>
CORVELLE_LANES_TARGET inline F placeIn(const SplineSpan<F>& span, F arc) {
    const F u = (arc - span.start) * span.perLength;
    return u * (F(1.0f) + span.bias - span.bias * u);
}

/// Component x of the point at t of the span that begins at a.
template <class F>
CORVELLE_LANES_TARGET inline F componentAt(const SplineSpan<F>& span, F a, int x, F t) {
    return a + t * (span.b[x] + t * (span.c[x] + t * span.d[x]));
}

/// Asks the caches for what the next strands read and write, while these are worked on: hair is
/// walked in pieces too short for the processor to see where they go.
CORVELLE_FETCH void fetchFloats(const float* from, std::size_t count) {
    constexpr std::size_t kLine = 16;
    for (std::size_t k = 0; k < count; k += kLine) __builtin_prefetch(from + k);
    if (count > 0) __builtin_prefetch(from + count - 1);  // they need not begin with a line
}

/// `count` floats of each of F::kLanes arrays, side by side: in squares of kLanes by kLanes where
/// there are as many, which reads each array's pointer once for all of them, else by fours.
template <class F>
CORVELLE_LANES_TARGET inline void gatherLanes(const float* const* from, std::size_t count, F* out) {
    if constexpr (F::kLanes > 4) {
        if (count >= F::kLanes) {
            for (std::size_t k = 0; k < count; k += F::kLanes) {
                // The last square holds some of the one before once more.
                if (k + F::kLanes > count) k = count - F::kLanes;
                loadSquare(from, k, out + k);
            }
            return;
        }
    }
    const float* at[F::kLanes];
    for (std::size_t k = 0; k < count; k += 4) {
        if (k + 4 > count) {
            if (count < 4) {
                alignas(F) float lanes[F::kLanes];
                for (; k < count; ++k) {
                    for (std::size_t l = 0; l < F::kLanes; ++l) lanes[l] = from[l][k];
                    out[k] = F::load(lanes);
                }
                return;
            }
            k = count - 4;  // once more with some of the last ones
        }
        for (std::size_t l = 0; l < F::kLanes; ++l) at[l] = from[l] + k;
        loadAcross(at, out + k);
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void scatterLanes(const F* in, std::size_t count, float* const* to) {
    if constexpr (F::kLanes > 4) {
        if (count >= F::kLanes) {
            for (std::size_t k = 0; k < count; k += F::kLanes) {
                if (k + F::kLanes > count) k = count - F::kLanes;
                storeSquare(in + k, to, k);
            }
            return;
        }
    }
    float* at[F::kLanes];
    for (std::size_t k = 0; k < count; k += 4) {
        if (k + 4 > count) {
            if (count < 4) {
                alignas(F) float lanes[F::kLanes];
                for (; k < count; ++k) {
                    in[k].store(lanes);
                    for (std::size_t l = 0; l < F::kLanes; ++l) to[l][k] = lanes[l];
                }
                return;
            }
            k = count - 4;
        }
        for (std::size_t l = 0; l < F::kLanes; ++l) at[l] = to[l] + k;
        storeAcross(in + k, at);
    }
}

/// Floats of scratch per lane.
inline std::size_t laneScratch(std::size_t n, std::size_t m, std::size_t arrays) {
    return 3 * (n + m) + 12 * (n - 1) + arrays * (n + m);
}

/// Asks the caches for what resampling a strand reads, and what it writes.
CORVELLE_FETCH void fetchGiven(const SplineJob& job, std::uint32_t strand, std::size_t n) {
    const std::uint64_t from = job.fromOffsets[strand];
    fetchFloats(job.from + 3 * from, 3 * n);
    for (std::size_t a = 0; a < job.arrayCount; ++a) fetchFloats(job.arrays[a].from + from, n);
}
CORVELLE_FETCH void fetchWanted(const SplineJob& job, std::uint32_t strand, std::size_t m) {
    const std::uint64_t to = job.toOffsets[strand];
    fetchFloats(job.to + 3 * to, 3 * m);
    for (std::size_t a = 0; a < job.arrayCount; ++a) fetchFloats(job.arrays[a].to + to, m);
}

/// F::kLanes strands of n points each to m points each. `scratch` is aligned for F. The caches are
/// asked for what the strands `next` take, a little at a time: a processor waits for few lines at
/// once, and this group's own would queue behind.
template <class F>
CORVELLE_LANES_TARGET inline void resampleAcross(const SplineJob& job, const std::uint32_t* strands,
                                                 const std::uint32_t* next, std::size_t nextCount,
                                                 std::size_t n, std::size_t m, float* scratch) {
    constexpr std::size_t kLanes = F::kLanes;
    F* const points = reinterpret_cast<F*>(scratch);
    F* const out = points + 3 * n;
    F* const values = out + 3 * m;
    F* const valuesOut = values + job.arrayCount * n;
    auto* const spans = reinterpret_cast<SplineSpan<F>*>(valuesOut + job.arrayCount * m);

    const float* from[kLanes];
    float* to[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) from[l] = job.from + 3 * job.fromOffsets[strands[l]];
    gatherLanes(from, 3 * n, points);
    for (std::size_t a = 0; a < job.arrayCount; ++a) {
        for (std::size_t l = 0; l < kLanes; ++l)
            from[l] = job.arrays[a].from + job.fromOffsets[strands[l]];
        gatherLanes(from, n, values + a * n);
    }

    for (std::size_t l = 0; l < nextCount; ++l) fetchGiven(job, next[l], n);
    const F total = measureSpans(points, n, spans);
    const std::size_t last = m - 1;
    const F step = total * F(1.0f / float(last));
    const int all = laneBits(F(0.0f) < F(1.0f));
    for (int x = 0; x < 3; ++x) {
        out[x] = points[x];
        out[3 * last + x] = points[3 * (n - 1) + x];
    }
    for (std::size_t a = 0; a < job.arrayCount; ++a) {
        valuesOut[a * m] = values[a * n];
        valuesOut[a * m + last] = values[a * n + n - 1];
    }
    // Spans and new points walk on together. A point is written for all lanes by every span that
    // one of the lanes has it in, and kept by the lanes that have left it behind: what stays is
    // from its own span, or from none before it. The last span takes what rounding leaves over.
    std::size_t begin = 1, fetched = 0;
    for (std::size_t i = 0; i + 1 < n && begin < last; ++i) {
        if (fetched < nextCount) fetchWanted(job, next[fetched++], m);
        // Taken out of the arrays, which the compiler must believe to be written below.
        SplineSpan<F> span;
        F a[3];
        for (int x = 0; x < 3; ++x) {
            a[x] = points[3 * i + x];
            span.b[x] = spans[i].b[x];
            span.c[x] = spans[i].c[x];
            span.d[x] = spans[i].d[x];
        }
        span.start = spans[i].start;
        span.perLength = spans[i].perLength;
        span.bias = spans[i].bias;
        const bool final = i + 2 == n;
        const F start = span.start, end = final ? start : spans[i + 1].start;
        for (std::size_t j = begin; j < last; ++j) {
            const F arc = step * F(float(j));
            const int in = final ? all : laneBits(arc < end);
            if (in == 0) break;
            if (in == all) begin = j + 1;
            const auto kept = arc < start;
            const F t = placeIn(span, arc);
            for (int x = 0; x < 3; ++x)
                out[3 * j + x] = select(kept, out[3 * j + x], componentAt(span, a[x], x, t));
            for (std::size_t k = 0; k < job.arrayCount; ++k) {
                const F v0 = values[k * n + i], v1 = values[k * n + i + 1];
                F& value = valuesOut[k * m + j];
                const F mixed =
                    job.arrays[k].discrete ? select(t < F(0.5f), v0, v1) : v0 + (v1 - v0) * t;
                value = select(kept, value, mixed);
            }
        }
    }

    while (fetched < nextCount) fetchWanted(job, next[fetched++], m);
    for (std::size_t l = 0; l < kLanes; ++l) to[l] = job.to + 3 * job.toOffsets[strands[l]];
    scatterLanes(out, 3 * m, to);
    for (std::size_t a = 0; a < job.arrayCount; ++a) {
        for (std::size_t l = 0; l < kLanes; ++l)
            to[l] = job.arrays[a].to + job.toOffsets[strands[l]];
        scatterLanes(valuesOut + a * m, m, to);
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void resampleLanes(const SplineJob& job, const std::uint32_t* strands,
                                                std::size_t count, std::size_t n, std::size_t m,
                                                float* scratch) {
    std::uint32_t group[F::kLanes];
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        const std::uint32_t* of = strands + k;
        if (k + F::kLanes > count) {  // a last strand fills up the lanes left over
            for (std::size_t l = 0; l < F::kLanes; ++l)
                group[l] = strands[k + l < count ? k + l : count - 1];
            of = group;
        }
        const std::size_t next = k + F::kLanes < count ? k + F::kLanes : count;
        const std::size_t left = count - next;
        resampleAcross<F>(job, of, strands + next, left < F::kLanes ? left : F::kLanes, n, m,
                          scratch);
    }
}

}  // namespace

}  // namespace corvelle
