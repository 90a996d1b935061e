#pragma once

#include "operators/deformLanes.h"
#include "operators/vectorLanes.h"

// The kernels of laneKernels.h that set strands about their roots as a whole, over F, under the
// rules of splineLanes.h. Each job has a form of placement(): where the roots go and the turn that
// takes the other points along; a mask tells the strands that move.

namespace corvelle {

namespace {

template <class F>
struct Placement {
    LanesTurn<F> turn;
    Lanes3<F> root;
};

/// To an inclination from the normal and a roll around it.
template <class F>
CORVELLE_LANES_TARGET inline auto placement(const LeanJob& job, const F* numbers, const F* points,
                                            std::size_t n, Placement<F>& out) {
    const F zero(0.0f), one(1.0f);
    const F lean = numbers[3], roll = numbers[7], share = numbers[8];
    const Lanes3<F> first = firstAcross(points, n);
    const Lanes3<F> normal = normalAcross(Lanes3<F>::at(numbers), first);
    const Lanes3<F> tangent = Lanes3<F>::at(numbers + 4);
    // Where roll 0 points.
    const Lanes3<F> laid = laidAcross(Lanes3<F>::all(job.direction), normal);
    Lanes3<F> ahead = select3(isThere(laid), laid, alongAcross(tangent, normal));
    if (job.alongTangent) ahead = select3(isThere(tangent), tangent, ahead);

    F sine, rest;
    sineAndRest(roll, sine, rest);
    const Lanes3<F> side = ahead * (one - rest) + cross(normal, ahead) * sine;
    sineAndRest(lean, sine, rest);
    LanesArc<F> arc;
    arcBetween(first, unitOf(normal * (one - rest) + side * sine), arc);
    sineAndRest(arc.angle * share, sine, rest);
    const auto part = share < one;  // the whole of it is known without any series
    out.turn =
        LanesTurn<F>::about(arc.axis, select(part, sine, arc.sine), select(part, rest, arc.rest));
    out.root = Lanes3<F>::at(points);
    return both(isThere(first), share > zero);
}

/// Along `way`, `lift` above the surface: see layStrand. `chord` and `way` unit or zero; the mask
/// tells which have a way.
template <class F>
CORVELLE_LANES_TARGET inline auto turnToLay(const Lanes3<F>& chord, const Lanes3<F>& normal,
                                            Lanes3<F> way, F lift, F roll, LanesTurn<F>& out) {
    const F one(1.0f), zero(0.0f);
    Lanes3<F> heading = laidAcross(chord, normal);
    way = select3(isThere(way), way, heading);
    F sine, rest;
    sineAndRest(roll, sine, rest);
    way = unitOf(way * (one - rest) + cross(normal, way) * sine);
    // Two frames of the chord, the upright direction beside it and what is square to both. A chord
    // along the normal has no heading: it is tipped the straight way.
    heading = select3(isThere(heading), heading, way);
    const F upright = lower(one, upper(zero - one, dot(chord, normal)));
    const Lanes3<F> up = unitOf(normal * squareRoot(one - upright * upright) - heading * upright);
    const Lanes3<F> across = cross(chord, up);
    sineAndRest(lift, sine, rest);
    const Lanes3<F> toChord = way * (one - rest) + normal * sine;
    const Lanes3<F> toUp = normal * (one - rest) - way * sine;
    const Lanes3<F> toAcross = cross(toChord, toUp);
    out = {chord * toChord.x + up * toUp.x + across * toAcross.x,
           chord * toChord.y + up * toUp.y + across * toAcross.y,
           chord * toChord.z + up * toUp.z + across * toAcross.z};
    return isThere(way);
}
template <class F>
CORVELLE_LANES_TARGET inline auto placement(const LayJob&, const F* numbers, const F* points,
                                            std::size_t n, Placement<F>& out) {
    const Lanes3<F> first = firstAcross(points, n);
    Lanes3<F> chord = unitOf(Lanes3<F>::at(points + 3 * (n - 1)) - Lanes3<F>::at(points));
    chord = select3(isThere(chord), chord, first);
    const auto lies = turnToLay(chord, normalAcross(Lanes3<F>::at(numbers), first),
                                Lanes3<F>::at(numbers + 4), numbers[3], numbers[7], out.turn);
    out.root = Lanes3<F>::at(points);
    return both(lies, isThere(chord));
}

/// The turn by radians about x, then y, then z, each -pi to pi: see turnInFrame.
template <class F>
CORVELLE_LANES_TARGET inline LanesTurn<F> turnAbout(const Lanes3<F>& radians, const Lanes3<F>& x,
                                                    const Lanes3<F>& y, const Lanes3<F>& z) {
    return LanesTurn<F>::about(z, radians.z)
        .after(LanesTurn<F>::about(y, radians.y).after(LanesTurn<F>::about(x, radians.x)));
}
template <class F>
CORVELLE_LANES_TARGET inline auto placement(const TransformJob& job, const F* numbers,
                                            const F* points, std::size_t n, Placement<F>& out) {
    const F zero(0.0f), one(1.0f);
    const Lanes3<F> radians = Lanes3<F>::at(numbers + 8), move = Lanes3<F>::at(numbers + 12);
    Lanes3<F> x(one, zero, zero), y(zero, one, zero), z(zero, zero, one);
    out.root = move;
    if (!job.world) {
        y = normalAcross(Lanes3<F>::at(numbers), firstAcross(points, n));
        x = alongAcross(Lanes3<F>::at(numbers + 4), y);
        z = cross(x, y);
        out.root = Lanes3<F>::at(points) + (x * move.x + y * move.y + z * move.z);
    }
    out.turn = turnAbout(radians, x, y, z) * numbers[3];
    return zero < one;
}

/// Places strands, in place: points [3 n]. See placeStrand.
template <class F, class Job>
CORVELLE_LANES_TARGET inline void placeAcross(const Job& job, const F* numbers, F* points,
                                              std::size_t n) {
    Placement<F> place;
    const auto moves = placement(job, numbers, points, n, place);
    const Lanes3<F> from = Lanes3<F>::at(points);
    for (std::size_t i = 0; i < n; ++i) {
        F* const p = points + 3 * i;
        const Lanes3<F> was = Lanes3<F>::at(p);
        const Lanes3<F> to = i == 0 ? place.root : place.root + place.turn(was - from);
        p[0] = select(moves, to.x, was.x);
        p[1] = select(moves, to.y, was.y);
        p[2] = select(moves, to.z, was.z);
    }
}

template <class F, class Job>
CORVELLE_LANES_TARGET inline void placeGroup(const Job& job, const StrandGroup<F>& group,
                                             std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    gatherLanes(group.from, 3 * n, points);
    F numbers[Job::kNumbers];
    numbersAcross(group, job.numbers, Job::kNumbers, numbers);
    placeAcross(job, numbers, points, n);
    scatterLanes(points, 3 * n, group.to);
}

template <class F, class Job>
CORVELLE_LANES_TARGET inline void placeLanes(const Job& job, std::size_t first, std::size_t count,
                                             std::size_t n, float* scratch) {
    eachPlaceGroup<F, Job>(placeGroup<F, Job>, job, first, count, n, scratch);
}

}  // namespace

}  // namespace corvelle
