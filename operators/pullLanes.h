#pragma once

#include "operators/deformLanes.h"

// The pull of laneKernels.h over F, under the rules of splineLanes.h.

namespace corvelle {

namespace {

constexpr std::size_t kAxisFloats = 8;  ///< of a point: x, y, z, arc, and the step's x, y, z per cm
/// Points of an axis that strands side by side may lie apart before each looks for its own.
constexpr std::size_t kMostApart = 6;

/// The axes that the strands of a group follow, side by side, and which they are.
template <class F>
struct GroupAxes {
    std::uint32_t axis[F::kLanes];
    F* points = nullptr;  ///< kAxisFloats a point
};

template <class F>
CORVELLE_LANES_TARGET inline void layAxes(const PullJob& job, GroupAxes<F>& axes) {
    bool same = true;
    for (std::size_t l = 1; l < F::kLanes; ++l) same = same && axes.axis[l] == axes.axis[0];
    if (same) {  // mostly: strands of a clump come together
        const float* const own = job.axes + kAxisFloats * job.axisOffsets[axes.axis[0]];
        const std::size_t end = job.axisOffsets[axes.axis[0] + 1];
        const std::size_t count = kAxisFloats * (end - job.axisOffsets[axes.axis[0]]);
        for (std::size_t k = 0; k < count; ++k) axes.points[k] = F(own[k]);
        return;
    }
    const float* first[F::kLanes];
    const float* second[F::kLanes];
    std::size_t last[F::kLanes], most = 0;
    for (std::size_t l = 0; l < F::kLanes; ++l) {
        const std::size_t start = job.axisOffsets[axes.axis[l]];
        last[l] = job.axisOffsets[axes.axis[l] + 1] - start - 1;
        first[l] = job.axes + kAxisFloats * start;
        if (last[l] > most) most = last[l];
    }
    for (std::size_t k = 0; k <= most; ++k) {
        for (std::size_t l = 0; l < F::kLanes; ++l) second[l] = first[l] + 4;
        loadAcross(first, axes.points + kAxisFloats * k);
        loadAcross(second, axes.points + kAxisFloats * k + 4);
        for (std::size_t l = 0; l < F::kLanes; ++l)
            if (k < last[l]) first[l] += kAxisFloats;  // what stands behind the last repeats
    }
}

/// The place at `arc` on from a point of the axis.
template <class F>
CORVELLE_LANES_TARGET inline void goOn(const F* point, F arc, F out[3]) {
    const F gone = arc - point[3];
    for (int x = 0; x < 3; ++x) out[x] = point[x] + point[4 + x] * gone;
}

/// The place at `arc` on each strand's axis, searched for one by one.
template <class F>
CORVELLE_LANES_TARGET inline void searchAxes(const PullJob& job, const GroupAxes<F>& axes, F arc,
                                             F out[3]) {
    alignas(F) float asked[F::kLanes];
    arc.store(asked);
    const float* at[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l) {
        const std::size_t start = job.axisOffsets[axes.axis[l]];
        const float* const points = job.axes + kAxisFloats * start;
        std::size_t low = 0, high = job.axisOffsets[axes.axis[l] + 1] - start - 1;
        while (low + 1 < high) {  // point `low` is not past the arc, `high` is
            const std::size_t middle = (low + high) / 2;
            if (points[kAxisFloats * middle + 3] <= asked[l])
                low = middle;
            else
                high = middle;
        }
        at[l] = points + kAxisFloats * low;
    }
    F point[kAxisFloats];
    loadAcross(at, point);
    for (std::size_t l = 0; l < F::kLanes; ++l) at[l] += 4;
    loadAcross(at, point + 4);
    goOn(point, arc, out);
}

template <class F>
CORVELLE_LANES_TARGET inline void pullGroup(const PullJob& job, const StrandGroup<F>& group,
                                            const GroupAxes<F>& axes, std::size_t n, F* points) {
    F* const arcs = points + 3 * n;
    gatherLanes(group.from, 3 * n, points);
    const F strength = numberAcross(group, job.strengths), zero(0.0f), one(1.0f);
    F total = zero;
    for (std::size_t i = 1; i < n; ++i) {
        F v[3];
        for (int x = 0; x < 3; ++x) v[x] = points[3 * i + x] - points[3 * (i - 1) + x];
        total = total + lengthAcross(v);
        arcs[i] = total;
    }
    // A strand of no length, or of none that is a number, goes by its points' numbers.
    const auto measured = (total > zero) & (total < F(3e38f));
    const F whole = select(measured, total, F(float(n - 1)));
    alignas(F) float lengths[F::kLanes];
    for (std::size_t l = 0; l < F::kLanes; ++l)
        lengths[l] = job.axes[kAxisFloats * (job.axisOffsets[axes.axis[l] + 1] - 2) + 3];
    const F perShare = upper(select(measured, total, zero), F::load(lengths));
    const int all = laneBits(zero < one);

    const F from(job.profile.values[0]), by(job.profile.values[1] - job.profile.values[0]);

    std::size_t base = 0;  // the last point that no strand of the group has before it
    for (std::size_t i = 1; i < n; ++i) {
        const F share = select(measured, arcs[i], F(float(i))) / whole;
        const F arc = share * perShare;
        while (laneBits(axes.points[kAxisFloats * (base + 1) + 3] <= arc) == all) ++base;
        F target[3];
        goOn(axes.points + kAxisFloats * base, arc, target);
        for (std::size_t k = base + 1;; ++k) {
            const F* const point = axes.points + kAxisFloats * k;
            const auto past = point[3] <= arc;
            if (laneBits(past) == 0) break;
            if (k - base > kMostApart) {
                searchAxes(job, axes, arc, target);
                break;
            }
            F further[3];
            goOn(point, arc, further);
            for (int x = 0; x < 3; ++x) target[x] = select(past, further[x], target[x]);
        }
        const F profile = job.straight ? from + by * share : rampAcross(job.profile, share);
        const F pull = lower(profile * strength, one);
        F* const p = points + 3 * i;
        for (int x = 0; x < 3; ++x) p[x] = p[x] + (target[x] - p[x]) * pull;
    }
    scatterLanes(points, 3 * n, group.to);
}

template <class F>
CORVELLE_LANES_TARGET inline void pullLanes(const PullJob& job, std::size_t first,
                                            std::size_t count, std::size_t n, float* scratch) {
    GroupAxes<F> axes;
    axes.points = reinterpret_cast<F*>(scratch);
    F* const points = axes.points + kAxisFloats * (job.mostAxisPoints + 1);
    StrandGroup<F> group;
    for (std::size_t k = 0; k < count; k += F::kLanes) {
        bool same = k > 0;
        for (std::size_t l = 0; l < F::kLanes; ++l) {
            const std::size_t place = laneTo(job.points, first, count, k + l, l, n, group);
            same = same && axes.axis[l] == job.axisOf[place];
            axes.axis[l] = job.axisOf[place];
        }
        if (!same) layAxes(job, axes);
        pullGroup(job, group, axes, n, points);
    }
}

}  // namespace

}  // namespace corvelle
