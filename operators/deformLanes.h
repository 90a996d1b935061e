#pragma once

#include "operators/strandLanes.h"
#include "operators/vectorLanes.h"

// The deformers of laneKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

/// Below this cosine two directions no longer span a plane that floats can tell.
constexpr float kOpposite = -0.9999f;
/// Share of the length that a kink takes: above the shares' rounding.
constexpr float kSharpestBend = 1e-5f;
/// A chord shorter than this share of the strand says nothing of where it goes.
constexpr float kClosed = 1e-6f;
/// Rounding alone leaves about 1e-7 of a unit direction along the normal: no way to comb to.
constexpr float kAlongNormal = 1e-5f;

// Turning the segment v, of length `size`, toward the unit b by a share, keeping its length: see
// turnSegments. In three steps, so that many segments go through one before the next: what takes
// its time in each is then waited for together.

/// v to its direction, or zero.
template <class F>
CORVELLE_LANES_TARGET inline void shortenAcross(F v[3], F size) {
    const F zero(0.0f);
    const F inverse = select(size > zero, F(1.0f) / size, zero);
    for (int x = 0; x < 3; ++x) v[x] = v[x] * inverse;
}
/// Turns it, and changes its length. Returns the cosine between the two; of no use where that is
/// below kOpposite.
template <class F>
CORVELLE_LANES_TARGET inline F turnAcross(F v[3], const F b[3], F share) {
    const F cosine = v[0] * b[0] + v[1] * b[1] + v[2] * b[2];
    const F angle = arcCosine(cosine), keep = F(1.0f) - share;
    const F own = keep * sineRatio(keep * angle), other = share * sineRatio(share * angle);
    for (int x = 0; x < 3; ++x) v[x] = v[x] * own + b[x] * other;
    return cosine;
}
/// To its own length again.
template <class F>
CORVELLE_LANES_TARGET inline void lengthenAcross(F v[3], F size) {
    const F zero(0.0f);
    const F is = lengthAcross(v);
    const F scale = select(is > zero, size / is, zero);
    for (int x = 0; x < 3; ++x) v[x] = v[x] * scale;
}

/// v turned by `angle` (-pi to pi) about a unit axis: Rodrigues' formula.
template <class F>
CORVELLE_LANES_TARGET inline void bendAcross(F v[3], const F axis[3], F angle) {
    F sine, rest;
    sineAndRest(angle, sine, rest);
    const F once[3] = {axis[1] * v[2] - axis[2] * v[1], axis[2] * v[0] - axis[0] * v[2],
                       axis[0] * v[1] - axis[1] * v[0]};
    const F twice[3] = {axis[1] * once[2] - axis[2] * once[1],
                        axis[2] * once[0] - axis[0] * once[2],
                        axis[0] * once[1] - axis[1] * once[0]};
    for (int x = 0; x < 3; ++x) v[x] = v[x] + once[x] * sine + twice[x] * rest;
}

/// The strands at some places of a job's list: where they are and where they go.
template <class F>
struct StrandGroup {
    const float* from[F::kLanes];
    float* to[F::kLanes];
    std::size_t places[F::kLanes];
};

/// One number of each.
template <class F>
CORVELLE_LANES_TARGET inline F numberAcross(const StrandGroup<F>& group, const float* numbers) {
    alignas(F) float lanes[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l) lanes[l] = numbers[group.places[l]];
    return F::load(lanes);
}
/// `count` numbers of each, a multiple of 4 that stand together.
template <class F>
CORVELLE_LANES_TARGET inline void numbersAcross(const StrandGroup<F>& group, const float* numbers,
                                                std::size_t count, F* out) {
    const float* from[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l) from[l] = numbers + count * group.places[l];
    gatherLanes(from, count, out);
}

/// See clampShare.
template <class F>
CORVELLE_LANES_TARGET inline F clampAcross(F x) {
    const F zero(0.0f);
    return select(x > zero, lower(F(1.0f), x), zero);
}

/// The chord from root to tip; `closed` gets a bit for each strand whose chord says nothing.
template <class F>
CORVELLE_LANES_TARGET inline void chordAcross(const F* points, std::size_t n, F* scratch, F b[3],
                                              int& closed) {
    for (int x = 0; x < 3; ++x) b[x] = points[3 * (n - 1) + std::size_t(x)] - points[x];
    const F size = lengthAcross(b), zero(0.0f);
    const F total = measureAcross(points, n, scratch, scratch + n);
    const int all = laneBits(zero < F(1.0f));
    closed = all & ~laneBits(size > F(kClosed) * total);
    for (int x = 0; x < 3; ++x) b[x] = select(size > zero, b[x] / size, zero);
}

/// A unit direction laid onto the plane square to a unit normal: see laidOnSurface.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> laidOnAcross(const Lanes3<F>& unit,
                                                    const Lanes3<F>& normal) {
    const F zero(0.0f);
    const Lanes3<F> laid = unit - normal * dot(unit, normal);
    const F size = squareRoot(dot(laid, laid));
    return select3(size > F(kAlongNormal), laid / size, Lanes3<F>(zero, zero, zero));
}

/// From the shares of the length at the points, what the segments that end there take of a
/// strength: see segmentShares.
template <class F>
CORVELLE_LANES_TARGET inline void segmentSharesAcross(const RampKeys& profile, F strength,
                                                      std::size_t n, F* shares) {
    const F half(0.5f);
    for (std::size_t i = n; i-- > 1;)
        shares[i] = clampAcross(rampAcross(profile, half * (shares[i] + shares[i - 1])) * strength);
}

template <class F>
CORVELLE_LANES_TARGET inline void turnGroup(const TurnJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    F* const ways = shares + n;
    gatherLanes(group.from, 3 * n, points);
    F b[4];
    numbersAcross(group, job.toward, 4, b);
    const F zero(0.0f);
    F strength = b[3];
    int again = 0;
    if (job.straighten) {
        chordAcross(points, n, segments, b, again);
    } else {
        Lanes3<F> way = unitOf(Lanes3<F>::at(b));
        if (job.normals) {
            F normal[4];
            numbersAcross(group, job.normals, 4, normal);
            way = unitOf(laidOnAcross(way, Lanes3<F>::at(normal)));
        }
        b[0] = way.x;
        b[1] = way.y;
        b[2] = way.z;
        strength = select(isThere(way), strength, zero);
    }
    const bool profiled = job.profile.count > 0;
    if (profiled) sharesAcross(points, n, segments, shares);
    const bool measured = profiled || job.straighten;
    for (std::size_t i = 1; i < n; ++i) {
        F* const turned = ways + 3 * i;
        for (int x = 0; x < 3; ++x) turned[x] = points[3 * i + x] - points[3 * (i - 1) + x];
        if (!measured) segments[i - 1] = lengthAcross(turned);
        shortenAcross(turned, segments[i - 1]);
    }
    if (profiled) segmentSharesAcross(job.profile, strength, n, shares);
    for (std::size_t i = 1; i < n; ++i) {
        const F share = profiled ? shares[i] : strength;
        const F cosine = turnAcross(ways + 3 * i, b, share);
        again |= laneBits((share > zero) & (cosine < F(kOpposite)));
    }
    F last[3], before[3];
    for (int x = 0; x < 3; ++x) last[x] = before[x] = points[x];
    F moved = zero;
    for (std::size_t i = 1; i < n; ++i) {
        F* const p = points + 3 * i;
        F* const turned = ways + 3 * i;
        lengthenAcross(turned, segments[i - 1]);
        const auto turns = (profiled ? shares[i] : strength) > zero;
        moved = select(turns, F(1.0f), moved);
        const auto off = moved > zero;
        for (int x = 0; x < 3; ++x) {
            const F segment = p[x] - before[x];
            before[x] = p[x];
            last[x] = select(off, last[x] + select(turns, turned[x], segment), p[x]);
            p[x] = last[x];
        }
    }
    for (std::size_t l = 0; l < F::kLanes; ++l)
        job.again[group.places[l]] = std::uint8_t((again >> l) & 1);
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void stepGroup(const StepJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    gatherLanes(group.from, 3 * n, points);
    F step[4];
    numbersAcross(group, job.steps, 4, step);
    sharesAcross(points, n, segments, shares);
    for (std::size_t i = 1; i < n; ++i) {
        const F amount = rampAcross(job.profile, shares[i]);
        F* const p = points + 3 * i;
        for (int x = 0; x < 3; ++x) p[x] = p[x] + step[x] * amount;
    }
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void smoothGroup(const SmoothJob& job, const StrandGroup<F>& group,
                                              std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const out = points + 3 * n;
    F* const halves = out + 3 * n;  // half the amount at each point
    gatherLanes(group.from, 3 * n, points);
    if (n < 3) return scatterLanes(points, 3 * n, group.to);
    const F strength = numberAcross(group, job.strengths), zero(0.0f), half(0.5f), two(2.0f);
    auto moves = strength > zero;
    if (job.profile.count > 0) {
        sharesAcross(points, n, halves + n, halves);
        moves = zero > zero;
        for (std::size_t i = 0; i < n; ++i) {
            const F amount = clampAcross(rampAcross(job.profile, halves[i]) * strength);
            moves = moves | (amount > zero);
            halves[i] = half * amount;
        }
    } else {
        for (std::size_t i = 0; i < n; ++i) halves[i] = half * strength;
    }
    if (laneBits(moves) == 0) return scatterLanes(points, 3 * n, group.to);
    for (std::size_t i = 0; i < 3 * n; ++i) out[i] = points[i];
    for (int pass = 0; pass < job.passes; ++pass) {
        for (int x = 0; x < 3; ++x) {
            F* const q = out + x;
            F first = q[0], second = q[0], here = q[3];  // as they were: i - 2, i - 1, i
            for (std::size_t i = 1; i + 1 < n; ++i) {
                const F next = q[3 * (i + 1)], target = (second + next) * half;
                q[3 * i] = here + (target - here) * halves[i];
                first = second;
                second = here;
                here = next;
            }
            const F straight = second * two - first;
            q[3 * (n - 1)] = here + (straight - here) * halves[n - 1];
        }
    }
    // The lengths come back. `out` keeps the smoothed places until they are read.
    F smoothed[3], last[3];
    for (int x = 0; x < 3; ++x) smoothed[x] = last[x] = out[x];
    for (std::size_t i = 1; i < n; ++i) {
        const F* const p = points + 3 * i;
        F* const q = out + 3 * i;
        F segment[3], along[3];
        for (int x = 0; x < 3; ++x) {
            segment[x] = p[x] - p[x - 3];
            along[x] = q[x] - smoothed[x];
            smoothed[x] = q[x];
        }
        const F is = lengthAcross(along), scale = lengthAcross(segment) / is;
        for (int x = 0; x < 3; ++x) {
            last[x] = last[x] + select(is > zero, along[x] * scale, segment[x]);
            q[x] = select(moves, last[x], p[x]);
        }
    }
    scatterLanes(out, 3 * n, group.to);
}

/// Where the bend starts to count from: see bendDirection.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> headingAcross(const F* points, std::size_t n,
                                                     const F* segments, const F* shares,
                                                     float start) {
    const F zero(0.0f), one(1.0f), limit(start + kSharpestBend);
    Lanes3<F> found(zero, zero, zero);
    F size = one, open = one;
    for (std::size_t i = 1; i < n && laneBits(open > zero) != 0; ++i) {
        const auto takes = (segments[i - 1] > zero) & (open > zero);
        found = select3(takes, Lanes3<F>::at(points + 3 * i) - Lanes3<F>::at(points + 3 * (i - 1)),
                        found);
        size = select(takes, segments[i - 1], size);
        open = select(takes & (shares[i] > limit), zero, open);
    }
    return found / size;
}

/// See limitedToScalp.
template <class F>
CORVELLE_LANES_TARGET inline F limitAcross(F angle, F toNormal) {
    const F zero(0.0f);
    const F toPlane = upper(F(0.5f * std::numbers::pi_v<float>) - toNormal, zero);
    return lower(upper(angle, zero - toPlane), toNormal);
}

/// The unit axis about which a bend of `angle` from `heading` goes `toward`, both unit or zero, and
/// what is left of the angle: see bendToward.
template <class F>
CORVELLE_LANES_TARGET inline F bendTurn(const Lanes3<F>& heading, const Lanes3<F>& toward, F angle,
                                        bool limited, Lanes3<F>& axis) {
    LanesArc<F> arc;
    arcBetween(heading, toward, arc);
    axis = arc.axis;
    if (limited) angle = limitAcross(angle, arc.angle);
    return select(both(isThere(heading), isThere(toward)), angle, F(0.0f));
}

template <class F>
CORVELLE_LANES_TARGET inline void bendGroup(const BendJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    gatherLanes(group.from, 3 * n, points);
    sharesAcross(points, n, segments, shares);
    F numbers[4];
    numbersAcross(group, job.bends, 4, numbers);
    Lanes3<F> toward = Lanes3<F>::at(numbers), axis;
    if (job.limited) toward = normalAcross(toward, firstAcross(points, n));
    const F angle = bendTurn(headingAcross(points, n, segments, shares, job.start), toward,
                             numbers[3], job.limited, axis);
    const F about[3] = {axis.x, axis.y, axis.z};
    const F zero(0.0f), one(1.0f), start(job.start), perShare(job.perShare);
    F last[3], before[3], moved = zero;
    for (int x = 0; x < 3; ++x) last[x] = before[x] = points[x];
    for (std::size_t i = 1; i < n; ++i) {
        F* const p = points + 3 * i;
        const F past = (shares[i] - start) * perShare;
        const F turn = angle * select(past < zero, zero, lower(one, past));
        moved = select((turn < zero) | (turn > zero), one, moved);
        const auto off = moved > zero;
        F v[3];
        for (int x = 0; x < 3; ++x) v[x] = p[x] - before[x];
        bendAcross(v, about, turn);
        for (int x = 0; x < 3; ++x) {
            before[x] = p[x];
            last[x] = select(off, last[x] + v[x], p[x]);
            p[x] = last[x];
        }
    }
    scatterLanes(points, 3 * n, group.to);
}

/// Lane l of a group takes the k-th of `count` places; the last one fills up the lanes left over.
/// The caches are asked for the strand that the lane takes next. Returns the place.
template <class F>
CORVELLE_LANES_TARGET inline std::size_t laneTo(const LanePoints& points, std::size_t first,
                                                std::size_t count, std::size_t k, std::size_t l,
                                                std::size_t n, StrandGroup<F>& group) {
    const std::size_t place = first + (k < count ? k : count - 1);
    const std::uint64_t start = 3 * points.offsets[points.strands[place]];
    group.places[l] = place;
    group.from[l] = points.from + start;
    group.to[l] = points.to + start;
    if (k + F::kLanes < count) {
        const std::uint64_t next = 3 * points.offsets[points.strands[place + F::kLanes]];
        fetchFloats(points.from + next, 3 * n);
        fetchFloats(points.to + next, 3 * n);
    }
    return place;
}

/// All of the places, kLanes at a time.
template <class F, class Job>
CORVELLE_LANES_TARGET inline void eachPlaceGroup(void (*across)(const Job&, const StrandGroup<F>&,
                                                                std::size_t, float*),
                                                 const Job& job, std::size_t first,
                                                 std::size_t count, std::size_t n, float* scratch) {
    StrandGroup<F> group;
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        for (std::size_t l = 0; l < F::kLanes; ++l)
            laneTo(job.points, first, count, k + l, l, n, group);
        across(job, group, n, scratch);
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void turnLanes(const TurnJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, TurnJob>(turnGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void stepLanes(const StepJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, StepJob>(stepGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void smoothLanes(const SmoothJob& job, std::size_t first,
                                              std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, SmoothJob>(smoothGroup<F>, job, first, count, n, scratch);
}
template <class F>
CORVELLE_LANES_TARGET inline void bendLanes(const BendJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, BendJob>(bendGroup<F>, job, first, count, n, scratch);
}

}  // namespace

}  // namespace corvelle
