#include "operators/curveTable.h"

#include <vector>

#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/pointCountOrder.h"

namespace corvelle {

void CurveTable::measure(const StrandSet& strands, std::span<const std::uint32_t> order) {
    std::vector<float>& rows = points_.reset(4 * strands.pointCount(), 0.0f, true, lock_);
    std::vector<float>& lengths = lengths_.reset(strands.strandCount(), 0.0f, true, lock_);
    starts_.resize(strands.strandCount());
    rows_ = {rows.data(), lengths.data(), starts_.data(), strands.offsets().data()};
    allCurves_ = true;
    std::uint64_t start = 0;
    for (const std::uint32_t s : order) {
        starts_[s] = start;
        start += strands.pointCountOf(s);
        allCurves_ &= strands.pointCountOf(s) >= 2;
    }
    if (rows.empty()) return;
    StrandPick(order).forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::array<std::uint32_t, StrandPick::kBatch> listed;
        std::size_t count = 0;
        for (const std::uint32_t k : PointCountOrder(strands, batch)) listed[count++] = batch[k];
        const std::span<const std::uint32_t> list(listed.data(), count);
        const MeasureJob job{
            {&strands.points()[0].x, rows.data(), strands.offsets().data(), list.data()},
            rows.data(),
            lengths.data(),
            starts_.data()};
        std::vector<float> places;
        deformStrands(neighborKernels().measure, job, strands, list, [&](std::size_t k) {
            const auto points = strands.pointsOf(list[k]);
            places.resize(points.size());
            lengths[list[k]] = polylineShares(points, places);
            float* row = rows.data() + 4 * starts_[list[k]];
            for (std::size_t i = 0; i < points.size(); ++i, row += 4) {
                row[0] = points[i].x;
                row[1] = points[i].y;
                row[2] = points[i].z;
                row[3] = places[i];
            }
        });
    });
}

}  // namespace corvelle
