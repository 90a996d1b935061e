#pragma once

#include "operators/laneKernels.h"
#include "operators/splineLanes.h"

// The kernels of laneKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

/// Lengths of the n - 1 segments, and the arc length at each of n points. Returns the whole.
template <class F>
CORVELLE_LANES_TARGET inline F measureAcross(const F* points, std::size_t n, F* segments, F* arcs) {
    F arc(0.0f);
    arcs[0] = arc;
    for (std::size_t i = 1; i < n; ++i) {
        F v[3];
        for (int x = 0; x < 3; ++x) v[x] = points[3 * i + x] - points[3 * (i - 1) + x];
        segments[i - 1] = lengthAcross(v);
        arc = arc + segments[i - 1];
        arcs[i] = arc;
    }
    return arc;
}

/// Arc lengths [n], the last of which is `total`, to shares: see polylineShares.
template <class F>
CORVELLE_LANES_TARGET inline void sharesOfArcs(F total, std::size_t n, F* arcs) {
    const F zero(0.0f), most(3.4028235e38f);
    for (std::size_t i = 0; i < n; ++i) {
        const F byIndex(float(i) / float(n - 1));
        const F measured = select(most < total, byIndex, arcs[i] / total);
        arcs[i] = select(total > zero, measured, byIndex);
    }
}

/// The share of the arc length at each point: see polylineShares. segments [n - 1], shares [n].
/// Returns the arc length.
template <class F>
CORVELLE_LANES_TARGET inline F sharesAcross(const F* points, std::size_t n, F* segments,
                                            F* shares) {
    const F total = measureAcross(points, n, segments, shares);
    sharesOfArcs(total, n, shares);
    return total;
}

template <class F>
CORVELLE_LANES_TARGET inline void trimAcross(const TrimJob& job, const std::uint32_t* strands,
                                             const float* shares, std::size_t n, float* scratch) {
    constexpr std::size_t kLanes = F::kLanes;
    F* const points = reinterpret_cast<F*>(scratch);
    F* const out = points + 3 * n;
    F* const segments = out + 3 * n;
    F* const arcs = segments + n;
    F* const targets = arcs + n;
    const float* from[kLanes];
    float* to[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        from[l] = job.from + 3 * job.offsets[strands[l]];
        to[l] = job.to + 3 * job.offsets[strands[l]];
    }
    alignas(F) float numbers[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) numbers[l] = shares[l];
    const F share = F::load(numbers), zero(0.0f), one(1.0f);
    const auto cut = share < one;
    gatherLanes(from, 3 * n, points);
    if (laneBits(cut) == 0) return scatterLanes(points, 3 * n, to);
    const int all = laneBits(zero < one);
    measureAcross(points, n, segments, arcs);
    for (std::size_t j = 1; j < n; ++j) targets[j] = arcs[j] * share;
    // All points but the roots are written below, save for strands that are not cut, or not of a
    // length that is a number.
    const bool written = laneBits(cut & (targets[n - 1] >= zero)) == all;
    for (std::size_t i = 0; i < (written ? 3 : 3 * n); ++i) out[i] = points[i];
    // Segments and new points walk on together, as in resampleAcross: the last segment that is not
    // beyond a point in some lane writes it there.
    std::size_t begin = 1;
    for (std::size_t k = 0; k + 1 < n && begin < n; ++k) {
        const bool final = k + 2 == n;
        const F start = arcs[k], end = arcs[k + 1], length = segments[k];
        F a[3], across[3];
        for (int x = 0; x < 3; ++x) {
            a[x] = points[3 * k + x];
            across[x] = points[3 * (k + 1) + x] - a[x];
        }
        for (std::size_t j = begin; j < n; ++j) {
            const F target = targets[j];
            const int in = final ? all : all & ~laneBits(end < target);
            if (in == 0) break;
            if (in == all) begin = j + 1;
            const auto write = k == 0 ? cut : (start < target) & cut;
            const F along = select(length > zero, lower(one, (target - start) / length), zero);
            for (int x = 0; x < 3; ++x)
                out[3 * j + x] = select(write, a[x] + across[x] * along, out[3 * j + x]);
        }
    }
    scatterLanes(out, 3 * n, to);
}

/// The ramp at `at`: see Ramp::sample.
template <class F>
CORVELLE_LANES_TARGET inline F rampAcross(const RampKeys& ramp, F at) {
    const F first(ramp.values[0]);
    F out = first;
    for (std::size_t s = 0; s + 1 < ramp.count; ++s) {
        const float left = ramp.positions[s], span = ramp.positions[s + 1] - left;
        if (!(span > 0.0f)) continue;
        const float va = ramp.values[s], vb = ramp.values[s + 1];
        const F a(va), b(vb);
        F value = a;
        if (va != vb) {
            const F t = (at - F(left)) / F(span);
            if (ramp.linear) {
                value = a + (b - a) * t;
            } else {
                const F two(2.0f), three(3.0f), width(span);
                const F t2 = t * t, t3 = t2 * t;
                value = (two * t3 - three * t2 + F(1.0f)) * a +
                        (t3 - two * t2 + t) * width * F(ramp.tangents[s]) +
                        (three * t2 - two * t3) * b + (t3 - t2) * width * F(ramp.tangents[s + 1]);
                const F low(va < vb ? va : vb), high(va < vb ? vb : va);
                value = select(value < low, low, select(high < value, high, value));
            }
        }
        out = select(at < F(left), out, value);
    }
    out = select(at < F(ramp.positions[ramp.count - 1]), out, F(ramp.values[ramp.count - 1]));
    return select(F(ramp.positions[0]) < at, out, first);
}

template <class F>
CORVELLE_LANES_TARGET inline void widthsAcross(const WidthJob& job, const std::uint32_t* strands,
                                               const float* widths, std::size_t n, float* scratch) {
    constexpr std::size_t kLanes = F::kLanes;
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    const float* from[kLanes];
    float* to[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        from[l] = job.points + 3 * job.offsets[strands[l]];
        to[l] = job.to + job.offsets[strands[l]];
    }
    alignas(F) float numbers[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) numbers[l] = widths[l];
    const F width = F::load(numbers);
    gatherLanes(from, 3 * n, points);
    sharesAcross(points, n, segments, shares);
    for (std::size_t i = 0; i < n; ++i) shares[i] = rampAcross(job.profile, shares[i]) * width;
    scatterLanes(shares, n, to);
}

CORVELLE_FETCH void fetchStrand(const TrimJob& job, std::uint32_t strand, std::size_t n) {
    fetchFloats(job.from + 3 * job.offsets[strand], 3 * n);
    fetchFloats(job.to + 3 * job.offsets[strand], 3 * n);
}
CORVELLE_FETCH void fetchStrand(const WidthJob& job, std::uint32_t strand, std::size_t n) {
    fetchFloats(job.points + 3 * job.offsets[strand], 3 * n);
    fetchFloats(job.to + job.offsets[strand], n);
}

/// All of the strands, kLanes at a time; a last one fills up the lanes left over.
template <class F, class Job>
CORVELLE_LANES_TARGET inline void eachGroup(void (*across)(const Job&, const std::uint32_t*,
                                                           const float*, std::size_t, float*),
                                            const Job& job, const std::uint32_t* strands,
                                            const float* numbers, std::size_t count, std::size_t n,
                                            float* scratch) {
    std::uint32_t group[F::kLanes];
    float values[F::kLanes];
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        for (std::size_t l = 0; l < F::kLanes; ++l) {
            if (k + l + F::kLanes < count) fetchStrand(job, strands[k + l + F::kLanes], n);
            const std::size_t at = k + l < count ? k + l : count - 1;
            group[l] = strands[at];
            values[l] = numbers[at];
        }
        across(job, group, values, n, scratch);
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void trimLanes(const TrimJob& job, const std::uint32_t* strands,
                                            const float* numbers, std::size_t count, std::size_t n,
                                            float* scratch) {
    eachGroup<F, TrimJob>(trimAcross<F>, job, strands, numbers, count, n, scratch);
}

template <class F>
CORVELLE_LANES_TARGET inline void widthLanes(const WidthJob& job, const std::uint32_t* strands,
                                             const float* numbers, std::size_t count, std::size_t n,
                                             float* scratch) {
    eachGroup<F, WidthJob>(widthsAcross<F>, job, strands, numbers, count, n, scratch);
}

}  // namespace

}  // namespace corvelle
