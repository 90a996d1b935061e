#pragma once

#include "operators/deformLanes.h"

// The lift of laneKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

constexpr int kLiftPasses = 3;

/// Where places lie in the grid, and the values round them.
template <class F>
struct FieldPlace {
    F values[8];      ///< at the corners of the cell, x fastest
    F share[3];       ///< within the cell
    F off[3];         ///< cm, from the nearest place on the grid
    F far;            ///< cm: how long `off` is
    int outside = 0;  ///< a bit for each place off the grid
};

/// Whole part of 0 to 2^22.
template <class F>
CORVELLE_LANES_TARGET inline F floorAcross(F x) {
    const F shift(8388608.0f), one(1.0f);
    const F rounded = (x + shift) - shift;
    return select(x < rounded, rounded - one, rounded);
}

/// The distance at p: see DistanceField::sample.
template <class F>
CORVELLE_LANES_TARGET inline F distanceAcross(const FieldGrid& grid, const F p[3],
                                              FieldPlace<F>& place) {
    const F zero(0.0f);
    const int all = laneBits(zero < F(1.0f));
    F cell[3];
    int on = all;
    for (int x = 0; x < 3; ++x) {
        const F last(grid.last[x]);
        const F at = (p[x] - F(grid.low[x])) * F(grid.inverse);
        const F inside = select(at > zero, lower(at, last), zero);
        on &= laneBits((at <= inside) & (inside <= at));
        place.off[x] = (at - inside) * F(grid.cell);
        cell[x] = lower(floorAcross(inside), last - F(1.0f));
        place.share[x] = inside - cell[x];
    }
    alignas(F) float column[F::kLanes];
    alignas(F) float rows[F::kLanes];
    cell[0].store(column);
    // Rows and columns are fewer than 2^24, which floats tell apart.
    (cell[2] * F(float(grid.plane / grid.row)) + cell[1]).store(rows);
    const float* from[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l)
        from[l] = grid.values + std::size_t(int(rows[l])) * grid.row + std::size_t(int(column[l]));
    const std::size_t steps[4] = {0, grid.row, grid.plane, grid.plane + grid.row};
    for (int r = 0; r < 4; ++r) {
        const float* row[F::kLanes];
        for (std::size_t l = 0; l < F::kLanes; ++l) row[l] = from[l] + steps[r];
        F four[4];  // the first two are of use
        loadAcross(row, four);
        place.values[2 * r] = four[0];
        place.values[2 * r + 1] = four[1];
    }
    const F *v = place.values, *s = place.share;
    const F v00 = v[0] + (v[1] - v[0]) * s[0], v10 = v[2] + (v[3] - v[2]) * s[0];
    const F v01 = v[4] + (v[5] - v[4]) * s[0], v11 = v[6] + (v[7] - v[6]) * s[0];
    const F v0 = v00 + (v10 - v00) * s[1], v1 = v01 + (v11 - v01) * s[1];
    F distance = v0 + (v1 - v0) * s[2];
    place.outside = all & ~on;
    if (place.outside != 0) {
        place.far = lengthAcross(place.off);
        distance = distance + place.far;
    }
    return distance;
}

/// The unit direction that distances grow in.
template <class F>
CORVELLE_LANES_TARGET inline void directionAcross(const FieldGrid& grid, const FieldPlace<F>& place,
                                                  F out[3]) {
    const F *v = place.values, *s = place.share;
    const F zero(0.0f);
    const F low = (v[1] - v[0]) + ((v[3] - v[2]) - (v[1] - v[0])) * s[1];
    const F high = (v[5] - v[4]) + ((v[7] - v[6]) - (v[5] - v[4])) * s[1];
    out[0] = low + (high - low) * s[2];
    const F v00 = v[0] + (v[1] - v[0]) * s[0], v10 = v[2] + (v[3] - v[2]) * s[0];
    const F v01 = v[4] + (v[5] - v[4]) * s[0], v11 = v[6] + (v[7] - v[6]) * s[0];
    out[1] = (v10 - v00) + ((v11 - v01) - (v10 - v00)) * s[2];
    const F v0 = v00 + (v10 - v00) * s[1], v1 = v01 + (v11 - v01) * s[1];
    out[2] = v1 - v0;
    if (place.outside != 0) {  // out along some axes, and as the border slopes along the others
        const auto off = place.far > zero;
        for (int x = 0; x < 3; ++x) {
            const auto beyond = (place.off[x] < zero) | (place.off[x] > zero);
            const F slope = select(beyond, place.off[x] / place.far, out[x] * F(grid.inverse));
            out[x] = select(off, slope, out[x]);
        }
    }
    const F size = lengthAcross(out);
    for (int x = 0; x < 3; ++x) out[x] = select(size > zero, out[x] / size, zero);
}

template <class F>
CORVELLE_LANES_TARGET inline void liftGroup(const LiftJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const before = points + 3 * n;
    F* const lengths = before + 3 * n;
    F* const wanted = lengths + n;
    gatherLanes(group.from, 3 * n, points);
    const float* heights[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l)
        heights[l] = job.wanted + job.wantedStride * group.places[l];
    gatherLanes(heights, n, wanted);

    const F zero(0.0f), band(job.band);
    int lifted = 0;
    for (int pass = 0; pass < kLiftPasses; ++pass) {
        auto pushed = zero < zero;
        for (std::size_t j = 1; j < n; ++j) {
            F* const p = points + 3 * j;
            const F height = lower(band, wanted[j]);
            const F least = height - F(job.slack) - F(job.slackShare) * upper(height, zero);
            FieldPlace<F> place;
            if (laneBits(distanceAcross(job.floor, p, place) < least) == 0) continue;  // mostly
            const F distance = distanceAcross(job.field, p, place);
            const auto low = distance < least;
            if (laneBits(low) == 0) continue;
            pushed = pushed | low;
            F up[3];
            directionAcross(job.field, place, up);
            const F rise = height - distance;
            for (int x = 0; x < 3; ++x) p[x] = select(low, p[x] + up[x] * rise, p[x]);
        }
        if (laneBits(pushed) == 0) break;
        if (lifted == 0) {
            gatherLanes(group.from, 3 * n, before);
            for (std::size_t j = 1; j < n; ++j) {
                F v[3];
                for (int x = 0; x < 3; ++x) v[x] = before[3 * j + x] - before[3 * (j - 1) + x];
                lengths[j] = lengthAcross(v);
            }
        }
        lifted |= laneBits(pushed);
        // Each segment points to where its end was pushed and has its own length.
        for (std::size_t j = 1; j < n; ++j) {
            F* const p = points + 3 * j;
            F way[3];
            for (int x = 0; x < 3; ++x) way[x] = p[x] - p[x - 3];
            const F size = lengthAcross(way), scale = lengths[j] / size;
            for (int x = 0; x < 3; ++x) {
                const F own = before[3 * j + x] - before[3 * (j - 1) + x];
                p[x] = select(pushed, p[x - 3] + select(size > zero, way[x] * scale, own), p[x]);
            }
        }
    }
    for (std::size_t l = 0; l < F::kLanes; ++l)
        job.lifted[group.places[l]] = std::uint8_t((lifted >> l) & 1);
    if (lifted != 0) scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void liftLanes(const LiftJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, LiftJob>(liftGroup<F>, job, first, count, n, scratch);
}

}  // namespace

}  // namespace corvelle
