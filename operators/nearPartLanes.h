#pragma once

#include "operators/laneKernels.h"
#include "operators/splineLanes.h"

// The search of laneKernels.h for places on parts over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

/// Above 1 by more than distances squared round.
constexpr float kPastRounding = 1.00001f;

/// From a box to `p`, squared.
template <class F>
CORVELLE_LANES_TARGET inline F boxAwayAcross(const PartNode& node, const F p[3]) {
    const F zero(0.0f);
    F sum = zero;
    for (int x = 0; x < 3; ++x) {
        const F out = upper(upper(F(node.low[x]) - p[x], p[x] - F(node.high[x])), zero);
        sum = x == 0 ? out * out : sum + out * out;
    }
    return sum;
}

/// The nearest segment to each root at `p`, below 0 where none is within reach; `to` and `squared`
/// get the way from its place, and that way's length squared. Lanes that a node is too far from
/// take nothing from it, whatever the others do.
template <class F>
CORVELLE_LANES_TARGET inline F nearPartAcross(const NearPartJob& job, const F p[3], F to[3],
                                              F& squared) {
    const PartTable& table = job.table;
    const F zero(0.0f), one(1.0f), limit(job.maxDistance * job.maxDistance);
    F reach = limit;
    for (std::uint32_t k = 0; k < table.sampleCount; ++k) {
        const PartSegment& segment = table.segments[table.samples[k]];
        if (job.part >= 0 && segment.part != job.part) continue;
        F v[3];
        for (int x = 0; x < 3; ++x) v[x] = p[x] - F(segment.start[x]);
        reach = lower((v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) * F(kPastRounding), reach);
    }
    F found(-1.0f);
    squared = F(__builtin_inff());
    for (int x = 0; x < 3; ++x) to[x] = zero;
    for (std::uint32_t n = 0; n < table.nodeCount;) {
        const PartNode& node = table.nodes[n];
        const auto in = boxAwayAcross(node, p) <= reach;
        if (laneBits(in) == 0) {
            n = node.next;
            continue;
        }
        if (node.next != ++n) continue;
        for (std::uint32_t s = node.begin; s < node.end; ++s) {
            const PartSegment& segment = table.segments[s];
            if (job.part >= 0 && segment.part != job.part) continue;
            F v[3];
            for (int x = 0; x < 3; ++x) v[x] = p[x] - F(segment.start[x]);
            const F t = v[0] * F(segment.along[0]) + v[1] * F(segment.along[1]) +
                        v[2] * F(segment.along[2]);
            const F share =
                segment.squared > 0.0f ? lower(upper(t / F(segment.squared), zero), one) : zero;
            for (int x = 0; x < 3; ++x)
                v[x] = p[x] - (F(segment.start[x]) + F(segment.along[x]) * share);
            const F away = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
            const auto nearer = (away < squared) & in;
            squared = select(nearer, away, squared);
            found = select(nearer, F(float(s)), found);
            for (int x = 0; x < 3; ++x) to[x] = select(nearer, v[x], to[x]);
        }
        reach = lower(squared, reach);
    }
    return select(squared <= limit, found, F(-1.0f));
}

/// Lanes left over take the last place once more.
template <class F>
CORVELLE_LANES_TARGET inline void nearPartLanes(const NearPartJob& job, std::size_t count) {
    alignas(F) float shares[F::kLanes];
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        const float* roots[F::kLanes];
        float* to[F::kLanes];
        for (std::size_t l = 0; l < F::kLanes; ++l) {
            const std::size_t place = k + l < count ? k + l : count - 1;
            roots[l] = job.points + 3 * job.offsets[job.strands[place]];
            to[l] = job.from + 4 * place;
        }
        F p[4], from[4], squared;  // the fourth of p is the next point's
        loadAcross(roots, p);
        nearPartAcross(job, p, from, squared).store(shares);
        for (std::size_t l = 0; l < F::kLanes && k + l < count; ++l)
            job.segments[k + l] = shares[l];
        from[3] = squareRoot(squared);
        storeAcross(from, to);
    }
}

}  // namespace

}  // namespace corvelle
