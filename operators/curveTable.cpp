#include "operators/curveTable.h"

#include <algorithm>
#include <array>

#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/pointCountOrder.h"

namespace corvelle {

CurveTable::CurveTable(const StrandSet& strands, std::span<const std::uint32_t> list,
                       const NeighborKernels& kernels) {
    starts_.resize(list.size() + 1);
    std::size_t most = 0;
    for (std::size_t seat = 0; seat < list.size(); ++seat) {
        const std::size_t n = strands.pointCountOf(list[seat]);
        starts_[seat + 1] = starts_[seat] + n;
        most = std::max(most, n);
    }
    // Room to begin at a cache line: most strands then fill lines of their own.
    constexpr std::size_t kLine = 64 / sizeof(float);
    numbers_ = std::make_unique_for_overwrite<float[]>(4 * starts_.back() + kLine);
    lengths_ = std::make_unique_for_overwrite<float[]>(list.size());
    const std::size_t past =
        reinterpret_cast<std::uintptr_t>(numbers_.get()) / sizeof(float) % kLine;
    float* const rows = numbers_.get() + (kLine - past) % kLine;
    float* const lengths = lengths_.get();
    rows_ = {rows, lengths, starts_.data(), most <= kernels.mostByComponent};
    for (std::size_t first = 0; first < list.size(); first += StrandPick::kBatch) {
        const std::span<const std::uint32_t> batch =
            list.subspan(first, std::min(StrandPick::kBatch, list.size() - first));
        std::array<std::uint32_t, StrandPick::kBatch> listed, seats;
        std::size_t count = 0;
        for (const std::uint32_t k : PointCountOrder(strands, batch)) {
            seats[count] = std::uint32_t(first) + k;
            listed[count++] = batch[k];
        }
        const std::span<const std::uint32_t> run(listed.data(), count);
        const MeasureJob job{{&strands.points()[0].x, rows, strands.offsets().data(), run.data()},
                             seats.data(),
                             rows,
                             lengths,
                             starts_.data(),
                             rows_.byComponent};
        std::vector<float> places;
        deformStrands(kernels.measure, job, strands, run, [&](std::size_t k) {
            const auto points = strands.pointsOf(run[k]);
            const std::size_t n = points.size();
            places.resize(n);
            lengths[seats[k]] = polylineShares(points, places);
            float* const own = rows + 4 * starts_[seats[k]];
            const std::size_t point = job.byComponent ? 1 : 4, number = job.byComponent ? n : 1;
            for (std::size_t i = 0; i < n; ++i) {
                for (std::size_t x = 0; x < 3; ++x) own[point * i + number * x] = points[i][int(x)];
                own[point * i + number * 3] = places[i];
            }
        });
    }
}

}  // namespace corvelle
