#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/strandSet.h"
#include "operators/neighborKernels.h"

namespace corvelle {

/// The curves that a batch of strands reads, each measured once for all that read it: see
/// CurveRows. Small enough to stay in the caches, where a table of all strands would not: near
/// strands read much the same. Cost: O(points); 16 bytes a point.
class CurveTable {
public:
    /// Measures the listed strands, whose seats are their places in the list, for the kernels
    /// given, whose layout it takes.
    CurveTable(const StrandSet& strands, std::span<const std::uint32_t> list,
               const NeighborKernels& kernels = neighborKernels());
    /// Valid while the table lives.
    CurveRows rows() const { return rows_; }

private:
    std::vector<std::uint64_t> starts_;
    std::unique_ptr<float[]> numbers_, lengths_;
    CurveRows rows_;
};

}  // namespace corvelle
