#pragma once

#include <numbers>

#include "operators/deformLanes.h"
#include "operators/neighborKernels.h"
#include "operators/polynomialTrig.h"
#include "operators/strandLanes.h"

// The kernels of neighborKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

template <class F>
CORVELLE_LANES_TARGET inline void measureGroup(const MeasureJob& job, const StrandGroup<F>& group,
                                               std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const along = segments + n;
    F* const rows = along + n;
    gatherLanes(group.from, 3 * n, points);
    const F total = sharesAcross(points, n, segments, along);
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t x = 0; x < 3; ++x) rows[4 * i + x] = points[3 * i + x];
        rows[4 * i + 3] = along[i];
    }
    alignas(F) float lengths[F::kLanes];
    total.store(lengths);
    float* to[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l) {
        const std::uint32_t seat = job.seats[group.places[l]];
        to[l] = job.rows + 4 * job.starts[seat];
        job.lengths[seat] = lengths[l];
    }
    scatterLanes(rows, 4 * n, to);
}

/// One curve for each lane, at its next row. A curve stays at its last row.
template <class F>
struct CurveWalk {
    const float* first[F::kLanes];
    std::size_t last[F::kLanes];   ///< in floats
    std::size_t at = 0, rows = 0;  ///< rows: of the longest
    bool same = true;              ///< all have as many

    CORVELLE_LANES_TARGET inline void start(std::size_t lane, const float* from,
                                            std::size_t count) {
        first[lane] = from;
        last[lane] = 4 * (count - 1);
        same &= lane == 0 || count == rows;
        if (count > rows) rows = count;
    }
    CORVELLE_LANES_TARGET inline void start(std::size_t lane, const CurveRows& curves,
                                            std::uint32_t seat) {
        start(lane, curves.rows + 4 * curves.starts[seat],
              std::size_t(curves.starts[seat + 1] - curves.starts[seat]));
    }
    CORVELLE_LANES_TARGET inline void next(F row[4]) {
        const float* from[F::kLanes];
        if (same)
            for (std::size_t l = 0; l < F::kLanes; ++l) from[l] = first[l] + at;
        else
            for (std::size_t l = 0; l < F::kLanes; ++l)
                from[l] = first[l] + (at < last[l] ? at : last[l]);
        at += 4;
        loadAcross(from, row);
    }
};

/// One curve for each lane, of as many points, that lie side by side already.
template <class F>
struct GatheredWalk {
    const F* points;  ///< [3 rows]
    const F* along;   ///< [rows]
    std::size_t rows;

    CORVELLE_LANES_TARGET inline void next(F row[4]) {
        for (int x = 0; x < 3; ++x) row[x] = points[x];
        row[3] = *along++;
        points += 3;
    }
};

/// Goes along the curves and the places on them, [n] and ascending, together: take.point(i, in, p)
/// with the point p of the curves at places[i], for the lanes `in`; each lane comes up once for
/// each i but 0, which is its root. Places past a curve's end do not come up, and slow it down.
template <class F, class Walk, class Take>
CORVELLE_LANES_TARGET inline void walkCurves(Walk& curves, const F* places, std::size_t begin,
                                             std::size_t n, Take& take) {
    const F zero(0.0f), one(1.0f);
    const int all = laneBits(zero < one);
    F here[4], there[4];
    curves.next(here);
    for (std::size_t k = 0; k + 1 < curves.rows && begin < n; ++k) {
        curves.next(there);
        F across[3];
        for (int x = 0; x < 3; ++x) across[x] = there[x] - here[x];
        const F start = here[3], end = there[3], span = end - start;
        const auto any = span > zero;
        for (std::size_t i = begin; i < n; ++i) {
            const F place = places[i];
            const auto reached = end >= place;
            const int bits = laneBits(reached);
            if (bits == 0) break;
            if (bits == all) begin = i + 1;
            const F along = select(any, lower(one, (place - start) / span), zero);
            F p[3];
            for (int x = 0; x < 3; ++x) p[x] = here[x] + across[x] * along;
            take.point(i, k > 0 ? reached & (start < place) : reached, p);
        }
        for (int x = 0; x < 4; ++x) here[x] = there[x];
    }
}

/// What a job reads and writes at a place, asked of the caches.
CORVELLE_FETCH void fetchPlace(const MeasureJob& job, std::size_t place, std::size_t n) {
    fetchFloats(job.points.from + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
}
CORVELLE_FETCH void fetchPlace(const BlendJob& job, std::size_t place, std::size_t n) {
    fetchFloats(job.points.to + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
}
CORVELLE_FETCH void fetchPlace(const StickJob& job, std::size_t place, std::size_t n) {
    fetchFloats(job.points.from + 3 * job.points.offsets[job.partners[place]], 3 * n);
    fetchFloats(job.points.from + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
    fetchFloats(job.points.to + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
}

CORVELLE_FETCH void fetchPlace(const RestoreJob& job, std::size_t place, std::size_t n) {
    fetchFloats(job.references[place], 3 * n);
    fetchFloats(job.points.from + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
    fetchFloats(job.points.to + 3 * job.points.offsets[job.points.strands[place]], 3 * n);
}

/// As eachPlaceGroup, with the next group's share of the caches by fetchPlace.
template <class F, class Job>
CORVELLE_LANES_TARGET inline void eachFetchedGroup(
    void (*across)(const Job&, const StrandGroup<F>&, std::size_t, float*), const Job& job,
    std::size_t first, std::size_t count, std::size_t n, float* scratch) {
    StrandGroup<F> group;
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        for (std::size_t l = 0; l < F::kLanes; ++l) {
            if (k + l + F::kLanes < count) fetchPlace(job, first + k + l + F::kLanes, n);
            const std::size_t place = first + (k + l < count ? k + l : count - 1);
            const std::uint64_t start = 3 * job.points.offsets[job.points.strands[place]];
            group.places[l] = place;
            group.from[l] = job.points.from + start;
            group.to[l] = job.points.to + start;
        }
        across(job, group, n, scratch);
    }
}

/// Adds up shapes, counted from the root.
template <class F>
struct TakeShape {
    F* sum;
    F root[3];

    template <class Mask>
    CORVELLE_LANES_TARGET inline void point(std::size_t i, Mask in, const F p[3]) {
        for (std::size_t x = 0; x < 3; ++x) {
            F& to = sum[3 * i + x];
            to = to + select(in, p[x] - root[x], F(0.0f));
        }
    }
};

/// Relative: less is rounding, not stretch.
constexpr float kSameLength = 1e-6f;

/// Rows of a curve that adds nothing.
constexpr float kNoShape[8] = {0, 0, 0, 0, 0, 0, 0, 1};

template <class F>
CORVELLE_LANES_TARGET inline void blendGroup(const BlendJob& job, const StrandGroup<F>& group,
                                             std::size_t n, float* scratch) {
    constexpr std::size_t kLanes = F::kLanes;
    F* const rows = reinterpret_cast<F*>(scratch);
    F* const shares = rows + 4 * n;
    F* const sum = shares + n;
    const F zero(0.0f), one(1.0f);
    const float* from[kLanes];
    alignas(F) float numbers[kLanes], lengths[kLanes], strengths[kLanes];
    std::uint32_t most = 0;
    for (std::size_t l = 0; l < kLanes; ++l) {
        const std::size_t place = group.places[l];
        const std::uint32_t seat = job.seats[place];
        lengths[l] = job.curves.lengths[seat];
        from[l] = job.curves.rows + 4 * job.curves.starts[seat];
        strengths[l] = job.strengths[place];
        numbers[l] = 1.0f / float(job.counts[place]);
        if (job.counts[place] > most) most = job.counts[place];
    }
    gatherLanes(from, 4 * n, rows);
    for (std::size_t i = 0; i < n; ++i) shares[i] = rows[4 * i + 3];
    for (std::size_t i = 0; i < 3 * n; ++i) sum[i] = zero;
    TakeShape<F> take{sum, {}};
    for (std::uint32_t j = 0; j < most; ++j) {
        CurveWalk<F> curves;
        for (std::size_t l = 0; l < kLanes; ++l) {
            const std::size_t place = group.places[l];
            if (j < job.counts[place])
                curves.start(l, job.curves, job.neighbors[place][j]);
            else
                curves.start(l, kNoShape, 2);
        }
        F root[4];
        loadAcross(curves.first, root);
        for (int x = 0; x < 3; ++x) take.root[x] = root[x];
        walkCurves(curves, shares, 1, n, take);
    }
    const F share = F::load(numbers), strength = F::load(strengths), length = F::load(lengths);
    F* const out = sum;
    F is = zero, last[3];
    for (int x = 0; x < 3; ++x) out[x] = last[x] = rows[x];
    for (std::size_t i = 1; i < n; ++i) {
        const F amount = clampAcross(rampAcross(job.profile, shares[i]) * strength);
        F step[3];
        for (std::size_t x = 0; x < 3; ++x) {
            const F p = rows[4 * i + x], target = rows[x] + out[3 * i + x] * share;
            out[3 * i + x] = p + (target - p) * amount;
            step[x] = last[x] - out[3 * i + x];
            last[x] = out[3 * i + x];
        }
        is = is + lengthAcross(step);
    }
    if (job.keepLength) {
        const auto scales = (is > zero) & (length > zero);
        const F scale = select(scales, length / is, one);
        for (std::size_t i = 1; i < n; ++i)
            for (std::size_t x = 0; x < 3; ++x) {
                F& p = out[3 * i + x];
                p = select(scales, rows[x] + (p - rows[x]) * scale, p);
            }
    }
    scatterLanes(out, 3 * n, group.to);
}

/// 1 in the middle of 0 to 1, eased to nothing over a quarter at both ends.
template <class F>
CORVELLE_LANES_TARGET inline F easedAcross(F x) {
    const F zero(0.0f), one(1.0f), t = lower(one - x, x) / F(0.25f);
    const F c = select(t < zero, zero, lower(one, t));
    return c * c * (F(3.0f) - F(2.0f) * c);
}

/// Pulls points toward where they would stick.
template <class F>
struct TakePull {
    const F* lengths;
    F* points;
    F begin, end, scale, strength, reachSquared;
    F far;  ///< above 0: some point is too far off

    template <class Mask>
    CORVELLE_LANES_TARGET inline void point(std::size_t i, Mask in, const F p[3]) {
        const F at = lengths[i];
        const auto takes = in & (at > begin) & (at < end);
        if (laneBits(takes) == 0) return;
        F pull[3];
        for (std::size_t x = 0; x < 3; ++x) pull[x] = p[x] - points[3 * i + x];
        const F squared = pull[0] * pull[0] + pull[1] * pull[1] + pull[2] * pull[2];
        far = select(takes & (squared > reachSquared), F(1.0f), far);
        const F amount = strength * easedAcross((at - begin) * scale);
        for (std::size_t x = 0; x < 3; ++x) {
            F& to = points[3 * i + x];
            to = select(takes, to + pull[x] * amount, to);
        }
    }
};

template <class F>
CORVELLE_LANES_TARGET inline void stickGroup(const StickJob& job, const StrandGroup<F>& group,
                                             std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const lengths = points + 3 * n;
    F* const segments = lengths + n;
    F* const partner = segments + n;
    F* const partnerLengths = partner + 3 * n;
    const F zero(0.0f), one(1.0f), most(3.4028235e38f);
    const float* from[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l)
        from[l] = job.points.from + 3 * job.points.offsets[job.partners[group.places[l]]];
    gatherLanes(group.from, 3 * n, points);
    gatherLanes(from, 3 * n, partner);
    F span[4];
    numbersAcross(group, job.spans, 4, span);
    const F length = measureAcross(points, n, segments, lengths);
    const F partnerLength = measureAcross(partner, n, segments, partnerLengths);
    const F whole = span[1] * length, begin = span[0] * length;
    const F end = lower(partnerLength, whole);
    const auto sticks = (end > begin) & (most >= partnerLength);
    // So that the walk comes to its end: what lies past the partner's does not stick anyway.
    for (std::size_t i = 0; i < n; ++i) lengths[i] = lower(lengths[i], partnerLength);
    const F reach(job.reach > 0.0f ? job.reach : 3e38f);
    TakePull<F> take{
        lengths, points,        begin, select(sticks, end, zero - one), one / (end - begin),
        span[2], reach * reach, zero};
    GatheredWalk<F> curves{partner, partnerLengths, n};
    std::size_t first = 1;  // that is within some lane's span
    while (first < n && laneBits(lengths[first] > begin) == 0) ++first;
    walkCurves(curves, lengths, first, n, take);
    const auto stays = take.far > zero;
    if (laneBits(stays) != 0) {
        F* const before = lengths;  // 3 n, of no more use
        gatherLanes(group.from, 3 * n, before);
        for (std::size_t i = 0; i < 3 * n; ++i) points[i] = select(stays, before[i], points[i]);
    }
    scatterLanes(points, 3 * n, group.to);
}

/// `turns` less the nearest whole number, -0.5 to 0.5; at halves the sign is the other one's.
template <class F>
CORVELLE_LANES_TARGET inline F beyondWhole(F turns) {
    const F zero(0.0f), half(0.5f), round(8388608.0f);  // 2^23: floats beyond it are whole
    const F size = upper(turns, zero - turns);
    const F left = size - ((size + round) - round);
    const F off = select(size < round, select(left < half, left, zero - half), zero);
    return select(turns < zero, zero - off, off);
}

/// A point turned about the axis through `center`, by turns: Rodrigues' formula, about a zero
/// tangent the identity. `tangent` of any length.
template <class F>
CORVELLE_LANES_TARGET inline void twistAcross(F p[3], const F center[3], const F tangent[3],
                                              F turns) {
    const F zero(0.0f), size = lengthAcross(tangent);
    const auto any = size > zero;
    F t[3], off[3];
    for (int x = 0; x < 3; ++x) {
        t[x] = select(any, tangent[x] / size, zero);
        off[x] = p[x] - center[x];
    }
    const F angle = F(2.0f * std::numbers::pi_v<float>) * beyondWhole(turns);
    const F sine = sineOf(angle), versine = F(1.0f) - cosineOf(angle);
    const F once[3] = {t[1] * off[2] - t[2] * off[1], t[2] * off[0] - t[0] * off[2],
                       t[0] * off[1] - t[1] * off[0]};
    const F twice[3] = {t[1] * once[2] - t[2] * once[1], t[2] * once[0] - t[0] * once[2],
                        t[0] * once[1] - t[1] * once[0]};
    for (int x = 0; x < 3; ++x) p[x] = p[x] + once[x] * sine + twice[x] * versine;
}

template <class F>
CORVELLE_LANES_TARGET inline void twistGroup(const TwistJob& job, const StrandGroup<F>& group,
                                             std::size_t n, float* scratch) {
    constexpr std::size_t kLanes = F::kLanes;
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    gatherLanes(group.from, 3 * n, points);
    sharesAcross(points, n, segments, shares);
    const float* row[kLanes];
    const float* last[kLanes];
    alignas(F) float turns[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        const std::uint32_t axis = job.axes[group.places[l]];
        row[l] = job.rows + 8 * job.offsets[axis];
        last[l] = job.rows + 8 * (job.offsets[axis + 1] - 2);
        turns[l] = job.turns[group.places[l]];
    }
    const F zero(0.0f), one(1.0f), turn = F::load(turns);
    for (std::size_t i = 1; i < n; ++i) {
        alignas(F) float places[kLanes];
        shares[i].store(places);
        for (std::size_t l = 0; l < kLanes; ++l) {
            const float* at = row[l];
            // Twice without a branch is nearly always enough.
            at += 8 * (int(at < last[l]) & int(at[8 + 3] < places[l]));
            at += 8 * (int(at < last[l]) & int(at[8 + 3] < places[l]));
            while (at < last[l] && at[8 + 3] < places[l]) at += 8;
            row[l] = at;
        }
        F here[8], there[8];
        const float* from[kLanes];
        loadAcross(row, here);
        for (std::size_t l = 0; l < kLanes; ++l) from[l] = row[l] + 4;
        loadAcross(from, here + 4);
        for (std::size_t l = 0; l < kLanes; ++l) from[l] = row[l] + 8;
        loadAcross(from, there);
        for (std::size_t l = 0; l < kLanes; ++l) from[l] = row[l] + 12;
        loadAcross(from, there + 4);
        const F start = here[3], span = there[3] - start;
        const F along = select(span > zero, lower(one, (shares[i] - start) / span), zero);
        for (int x = 0; x < 8; ++x) here[x] = here[x] + (there[x] - here[x]) * along;
        twistAcross(points + 3 * i, here, here + 4, turn * here[7]);
    }
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void restoreGroup(const RestoreJob& job, const StrandGroup<F>& group,
                                               std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const reference = points + 3 * n;
    const float* from[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l) from[l] = job.references[group.places[l]];
    gatherLanes(group.from, 3 * n, points);
    gatherLanes(from, 3 * n, reference);
    const F zero(0.0f), one(1.0f), near(kSameLength);
    F kept = one;  // 0: some segment is not as long as it should be
    F direction[3] = {zero, zero, zero}, at[3], before[3];
    for (int x = 0; x < 3; ++x) {
        at[x] = points[x];
        before[x] = reference[x];
    }
    int again = 0;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        F* const next = reference + 3 * (i + 1);
        F own[3], wanted[3];
        for (std::size_t x = 0; x < 3; ++x) {
            own[x] = points[3 * (i + 1) + x] - points[3 * i + x];
            wanted[x] = next[x] - before[x];
            before[x] = next[x];
        }
        const F size = lengthAcross(own), target = lengthAcross(wanted);
        const F off = size - target;
        kept = select(near * upper(target, size) >= upper(off, zero - off), kept, zero);
        const auto any = size > zero;
        if (i == 0) again = laneBits(zero < one) & ~laneBits(any);
        const F inverse = one / size;
        for (std::size_t x = 0; x < 3; ++x) {
            direction[x] = select(any, own[x] * inverse, direction[x]);
            at[x] = at[x] + direction[x] * target;
            next[x] = at[x];
        }
    }
    const auto stays = kept > zero;
    for (std::size_t x = 0; x < 3; ++x) reference[x] = points[x];
    if (laneBits(stays) != 0)
        for (std::size_t i = 3; i < 3 * n; ++i)
            reference[i] = select(stays, points[i], reference[i]);
    for (std::size_t l = 0; l < F::kLanes; ++l)
        job.again[group.places[l]] = std::uint8_t((again >> l) & 1);
    scatterLanes(reference, 3 * n, group.to);
}

/// A polyline at m >= 2 points evenly spaced along it: targets ascend, so segments and new points
/// walk on together. One of no length, or of none that is a number, is read by index. Root and tip
/// are exact. points [3 n], n >= 2; segments, arcs [n]; out [3 m].
template <class F>
CORVELLE_LANES_TARGET inline void evenAcross(const F* points, std::size_t n, F* segments, F* arcs,
                                             F* out, std::size_t m) {
    const F zero(0.0f), one(1.0f);
    const int all = laneBits(zero < one);
    F total = measureAcross(points, n, segments, arcs);
    const auto measured = (total > zero) & (total < F(3e38f));
    if (laneBits(measured) != all) {
        for (std::size_t i = 0; i < n; ++i) {
            arcs[i] = select(measured, arcs[i], F(float(i)));
            segments[i] = select(measured, i + 1 < n ? segments[i] : zero, one);
        }
        total = arcs[n - 1];
    }
    const F step = total * F(1.0f / float(m - 1));
    for (std::size_t x = 0; x < 3; ++x) {
        out[x] = points[x];
        out[3 * (m - 1) + x] = points[3 * (n - 1) + x];
    }
    std::size_t begin = 1;
    for (std::size_t k = 0; k + 1 < n && begin + 1 < m; ++k) {
        const bool final = k + 2 == n;
        const F start = arcs[k], end = arcs[k + 1], length = segments[k];
        const auto any = length > zero;
        F across[3];
        for (std::size_t x = 0; x < 3; ++x) across[x] = points[3 * k + 3 + x] - points[3 * k + x];
        for (std::size_t j = begin; j + 1 < m; ++j) {
            const F target = step * F(float(j));
            const int in = final ? all : all & ~laneBits(end < target);
            if (in == 0) break;
            if (in == all) begin = j + 1;
            const auto write = k == 0 ? zero < one : start < target;
            const F along = select(any, lower(one, (target - start) / length), zero);
            for (std::size_t x = 0; x < 3; ++x) {
                F& to = out[3 * j + x];
                to = select(write, points[3 * k + x] + across[x] * along, to);
            }
        }
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void evenLanes(const EvenJob& job, const std::uint32_t* strands,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const arcs = segments + n;
    F* const out = arcs + n;
    for (std::size_t half = 0; half < kEvenSums; half += F::kLanes) {
        const float* from[F::kLanes];
        for (std::size_t l = 0; l < F::kLanes; ++l)
            from[l] = job.from + 3 * job.offsets[strands[half + l]];
        gatherLanes(from, 3 * n, points);
        evenAcross(points, n, segments, arcs, out, job.to);
        for (std::size_t i = 0; i < 3 * job.to; ++i) {
            float* const sum = job.sums + kEvenSums * i + half;
            (F::load(sum) + out[i]).store(sum);
        }
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void measureLanes(const MeasureJob& job, std::size_t first,
                                               std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<F, MeasureJob>(measureGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void blendLanes(const BlendJob& job, std::size_t first,
                                             std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<F, BlendJob>(blendGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void stickLanes(const StickJob& job, std::size_t first,
                                             std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<F, StickJob>(stickGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void twistLanes(const TwistJob& job, std::size_t first,
                                             std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, TwistJob>(twistGroup<F>, job, first, count, n, scratch);
}

template <class F>
CORVELLE_LANES_TARGET inline void restoreLanes(const RestoreJob& job, std::size_t first,
                                               std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<F, RestoreJob>(restoreGroup<F>, job, first, count, n, scratch);
}

template <class F>
NeighborKernels neighborKernelsOver() {
    return {.measure = measureLanes<F>,
            .blend = blendLanes<F>,
            .stick = stickLanes<F>,
            .twist = twistLanes<F>,
            .restore = restoreLanes<F>,
            .even = evenLanes<F>};
}

}  // namespace

}  // namespace corvelle
