#pragma once

#include "operators/collideKernels.h"
#include "operators/liftLanes.h"

// The kernels of collideKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

template <class F>
CORVELLE_LANES_TARGET inline void distanceLanes(const FieldGrid& field, const float* points,
                                                const std::uint32_t* places, std::size_t count,
                                                float* out) {
    alignas(F) float axes[3][F::kLanes];
    alignas(F) float distances[F::kLanes];
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        for (std::size_t l = 0; l < F::kLanes; ++l) {
            const float* const from = points + 3 * std::size_t(places[k + l < count ? k + l : k]);
            for (int x = 0; x < 3; ++x) axes[x][l] = from[x];
        }
        const F p[3] = {F::load(axes[0]), F::load(axes[1]), F::load(axes[2])};
        FieldPlace<F> place;
        distanceAcross(field, p, place).store(distances);
        for (std::size_t l = 0; l < F::kLanes; ++l) out[k + l] = distances[l];
    }
}

template <class F>
CORVELLE_LANES_TARGET inline void pushGroup(const PushJob& job, const StrandGroup<F>& group,
                                            std::size_t n, float* scratch) {
    F* const points = reinterpret_cast<F*>(scratch);
    F* const rest = points + 3 * n;
    F* const lengths = rest + 3 * n;
    gatherLanes(group.from, 3 * n, points);
    for (std::size_t i = 0; i < 3 * n; ++i) rest[i] = points[i];
    for (std::size_t i = 1; i < n; ++i) {
        F v[3];
        for (int x = 0; x < 3; ++x) v[x] = rest[3 * i + x] - rest[3 * (i - 1) + x];
        lengths[i] = lengthAcross(v);
    }
    const F zero(0.0f), offset(job.offset), deepest(-job.maxDepth);
    for (int pass = 0; pass < job.iterations; ++pass) {
        auto moved = zero < zero;
        for (std::size_t i = 1; i < n; ++i) {
            F* const to = points + 3 * i;
            F p[3];
            for (int x = 0; x < 3; ++x) p[x] = to[x];
            for (std::size_t s = 0; s < job.fieldCount; ++s) {
                FieldPlace<F> place;
                const F distance = distanceAcross(job.fields[s], p, place);
                const auto in = (distance < offset) & (distance >= deepest);
                if (laneBits(in) == 0) continue;
                F up[3];
                directionAcross(job.fields[s], place, up);
                const F rise = offset - distance;
                for (int x = 0; x < 3; ++x) p[x] = select(in, p[x] + up[x] * rise, p[x]);
                moved = moved | in;
            }
            if (laneBits(moved) == 0) continue;
            F way[3];
            for (int x = 0; x < 3; ++x) way[x] = p[x] - to[x - 3];
            const F is = lengthAcross(way), scale = lengths[i] / is;
            for (int x = 0; x < 3; ++x) {
                const F own = rest[3 * i + x] - rest[3 * (i - 1) + x];
                to[x] = select(moved, to[x - 3] + select(is > zero, way[x] * scale, own), to[x]);
            }
        }
        if (laneBits(moved) == 0) break;
    }
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void pushLanes(const PushJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    eachPlaceGroup<F, PushJob>(pushGroup<F>, job, first, count, n, scratch);
}

template <class F>
CollideKernels collideKernelsOver() {
    return {.distances = distanceLanes<F>, .push = pushLanes<F>};
}

}  // namespace

}  // namespace corvelle
