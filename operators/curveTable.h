#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "model/sharedArray.h"
#include "model/strandSet.h"
#include "operators/neighborKernels.h"

namespace corvelle {

/// The curves of all strands of a set, measured once for all that read them: see CurveRows.
/// Cost: O(points), parallel; 16 bytes a point, taken from the pool of big arrays.
class CurveTable {
public:
    /// `order`: all strands, those near to one another close together; speed alone depends on it.
    void measure(const StrandSet& strands, std::span<const std::uint32_t> order);
    bool empty() const { return lengths_.size() == 0; }
    /// Valid while the strands live.
    CurveRows rows() const { return rows_; }
    /// True when every strand has 2 points or more.
    bool allCurves() const { return allCurves_; }

private:
    std::mutex lock_;
    SharedArray<float> points_, lengths_;
    std::vector<std::uint64_t> starts_;
    CurveRows rows_;
    bool allCurves_ = false;
};

}  // namespace corvelle
