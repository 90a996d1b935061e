#include "operators/curlPoints.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "operators/pointArrays.h"
#include "operators/strandLoop.h"
#include "operators/strandSpline.h"

namespace corvelle {

namespace {

constexpr float kApart = 1e-4f;     ///< of a segment: nearer to a point there is no need of another
constexpr float kMostPeaks = 1e6f;  ///< floats tell halves apart up to there

/// A strand's points at places on its straight segments.
void placeStraight(const StrandSet& in, const SplineJob& job, std::uint32_t s,
                   std::span<const float> params) {
    const auto from = in.pointsOf(s);
    const std::size_t last = from.size() - 1;
    float* to = job.to + 3 * job.toOffsets[s];
    for (const float param : params) {
        const std::size_t i = std::min(std::size_t(param), last);
        const Vec3f p = i == last ? from[last] : mix(from[i], from[i + 1], param - float(i));
        for (int axis = 0; axis < 3; ++axis) *to++ = p[axis];
    }
    for (const PointArray& array : std::span(job.arrays, job.arrayCount)) {
        const std::span<const float> values(array.from + job.fromOffsets[s], from.size());
        float* value = array.to + job.toOffsets[s];
        for (const float param : params) *value++ = valueAt(values, param, array.discrete);
    }
}

void copyPoints(const SplineJob& job, std::uint32_t s) {
    const std::size_t from = job.fromOffsets[s], to = job.toOffsets[s];
    const std::size_t count = job.toOffsets[s + 1] - to;
    std::copy_n(job.from + 3 * from, 3 * count, job.to + 3 * to);
    for (const PointArray& array : std::span(job.arrays, job.arrayCount))
        std::copy_n(array.from + from, count, array.to + to);
}

}  // namespace

int segmentsPerTurn(double tolerance) {
    if (!(tolerance > 0.0)) return 0;
    const double chords = std::numbers::pi / math::acos(1.0 - std::min(tolerance, 1.0));
    return std::max(3, int(std::ceil(std::min(chords, 1e6) - 1e-9)));
}

std::size_t segmentsForTurns(float turns, int perTurn, std::size_t most) {
    const double wanted = std::ceil(double(turns) * double(perTurn));
    return wanted > 0.0 ? std::size_t(std::min(wanted, double(most))) : 0;
}

void zigzagPlaces(std::span<const float> shares, std::span<const float> turns, float start,
                  std::vector<float>& params) {
    params.clear();
    const std::size_t n = shares.size(), cells = turns.size() - 1;
    // Peaks of the wave stand at a quarter turn past every half one.
    float peak = std::ceil(2.0f * start - 0.5f);
    const auto turnsOf = [&] { return 0.5f * peak + 0.25f - start; };
    std::size_t cell = 0;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        params.push_back(float(i));
        const float span = shares[i + 1] - shares[i];
        while (peak < kMostPeaks) {
            const float at = turnsOf();
            while (cell + 1 < cells && turns[cell + 1] < at) ++cell;
            if (!(at < turns[cells])) break;
            const float gone = turns[cell + 1] - turns[cell];
            const float share =
                (float(cell) + (gone > 0.0f ? (at - turns[cell]) / gone : 0.0f)) / float(cells);
            if (!(share < shares[i + 1])) break;
            peak += 1.0f;
            const float along = span > 0.0f ? (share - shares[i]) / span : 0.0f;
            if (along > kApart && along<1.0f - kApart&& float(i) + along> params.back() + kApart)
                params.push_back(float(i) + along);
        }
    }
    params.push_back(float(n - 1));
}

StrandSet refinedStrands(const StrandSet& in, std::span<const std::uint64_t> counts,
                         const std::function<PlacePoints()>& makePlacer) {
    StrandSet out;
    out.allocate(counts, StrandSet::kLeavePoints | StrandSet::kLeaveWidths);
    takeStrandData(in, out);
    const std::vector<PointArray> arrays = openPointArrays(in, out, true);
    const std::span<Vec3f> points = out.mutablePoints();
    if (points.empty()) return out;
    const SplineJob job{.from = in.points().empty() ? nullptr : &in.points()[0].x,
                        .to = &points[0].x,
                        .fromOffsets = in.offsets().data(),
                        .toOffsets = out.offsets().data(),
                        .arrays = arrays.data(),
                        .arrayCount = arrays.size()};
    StrandPick(in.strandCount()).forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::array<std::uint32_t, StrandPick::kBatch> even;
        std::size_t count = 0;
        std::vector<float> params;
        const PlacePoints place = makePlacer();
        for (const std::uint32_t s : batch) {
            if (counts[s] == in.pointCountOf(s))
                copyPoints(job, s);
            else if (place(s, params))
                placeStraight(in, job, s, params);
            else
                even[count++] = s;
        }
        SplineResampler().run(job, std::span(even).first(count));
    });
    return out;
}

}  // namespace corvelle
