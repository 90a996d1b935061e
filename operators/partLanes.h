#pragma once

#include "operators/deformLanes.h"
#include "operators/vectorLanes.h"

// The kernel of partings over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

/// A direction in the surface by its shares along two axes.
template <class F>
struct Flat {
    F x, y;
};

/// The angle from the unit `a` to the unit `b`, -pi to pi.
template <class F>
CORVELLE_LANES_TARGET inline F flatAngle(const Flat<F>& a, const Flat<F>& b) {
    const F zero(0.0f);
    const F angle = arcCosine(a.x * b.x + a.y * b.y);
    return select(a.x * b.y - a.y * b.x < zero, zero - angle, angle);
}

/// See turnAway; in place. points [3 n], shares [n].
template <class F>
CORVELLE_LANES_TARGET inline void awayAcross(F* points, std::size_t n, const Lanes3<F>& normal,
                                             const Lanes3<F>& away, const F* shares) {
    const F zero(0.0f), one(1.0f), pi(std::numbers::pi_v<float>),
        turn(2.0f * std::numbers::pi_v<float>);
    const Lanes3<F> side = cross(normal, away);
    const Lanes3<F> chord = Lanes3<F>::at(points + 3 * (n - 1)) - Lanes3<F>::at(points);
    // What angles count from: the strand as a whole, or `away` for one that stands upright.
    const Flat<F> reach{dot(chord, away), dot(chord, side)};
    const F size = squareRoot(reach.x * reach.x + reach.y * reach.y);
    const auto leans = size > zero;
    const Flat<F> whole{select(leans, reach.x / size, one), select(leans, reach.y / size, zero)};
    const F wholeAngle = flatAngle(Flat<F>{one, zero}, whole);
    Lanes3<F> last = Lanes3<F>::at(points), before = last;
    F moved = zero;
    for (std::size_t i = 1; i < n; ++i) {
        F* const p = points + 3 * i;
        const Lanes3<F> here = Lanes3<F>::at(p), segment = here - before;
        const Flat<F> own{dot(segment, away), dot(segment, side)};
        const F flat = squareRoot(own.x * own.x + own.y * own.y);
        const auto turns = both(shares[i] > zero, flat > zero);
        const F angle = wholeAngle + flatAngle(whole, Flat<F>{own.x / flat, own.y / flat});
        F left = (one - shares[i]) * angle;
        left = select(left > pi, left - turn, select(left < zero - pi, left + turn, left));
        const Lanes3<F> turned = normal * dot(segment, normal) + away * (flat * cosineOf(left)) +
                                 side * (flat * sineOf(left));
        moved = select(turns, one, moved);
        last = select3(moved > zero, last + select3(turns, turned, segment), here);
        before = here;
        p[0] = last.x;
        p[1] = last.y;
        p[2] = last.z;
    }
}

/// Away from a part along the surface, unit. `from`: the root from the place of the part nearest to
/// it; where that is no way, to a side across `along`.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> wayFromPart(const Lanes3<F>& normal, const Lanes3<F>& from,
                                                   const Lanes3<F>& along, F side) {
    const Lanes3<F> away = laidAcross(from, normal);
    Lanes3<F> across = laidAcross(cross(normal, along), normal);
    across = select3(isThere(across), across, perpendicularTo(normal));
    return select3(isThere(away), away, across * side);
}

template <class F>
CORVELLE_LANES_TARGET inline void awayGroup(const AwayJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const segments = points + 3 * n;
    F* const shares = segments + n;
    gatherLanes(group.from, 3 * n, points);
    F numbers[AwayJob::kNumbers];
    numbersAcross(group, job.numbers, AwayJob::kNumbers, numbers);
    const Lanes3<F> normal = normalAcross(Lanes3<F>::at(numbers), firstAcross(points, n));
    if (job.profile.count > 0) {
        sharesAcross(points, n, segments, shares);
        segmentSharesAcross(job.profile, numbers[3], n, shares);
    } else {
        for (std::size_t i = 0; i < n; ++i) shares[i] = numbers[3];
    }
    awayAcross(
        points, n, normal,
        wayFromPart(normal, Lanes3<F>::at(numbers + 4), Lanes3<F>::at(numbers + 8), numbers[7]),
        shares);
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void awayLanes(const AwayJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, AwayJob>(awayGroup<F>, job, first, count, n, scratch);
}

}  // namespace

}  // namespace corvelle
