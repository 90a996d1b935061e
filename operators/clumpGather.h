#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "graph/nodeValue.h"
#include "model/partLines.h"
#include "operators/clumpBinding.h"
#include "operators/clumpCenters.h"

namespace corvelle {

enum class CentersFrom { Pick, InputPoints, InputCurves };

/// The curves of a centers input, strands or guides, by ascending id. Views: the value must live.
struct CenterCurves {
    std::vector<std::uint64_t> ids;
    std::vector<StrandRoot> roots;
    std::vector<std::span<const Vec3f>> points;  ///< 1 or more each; of curves as axes 2 or more
    std::vector<float> regions;                  ///< their own; empty where they carry none
    std::size_t size() const { return ids.size(); }
    /// Over all but the points behind the first.
    std::uint64_t rootsHash() const;
};
/// `index[k]` is where curve k stands in the value. `region` names their regions' channel, or is
/// empty.
CenterCurves centerCurves(const NodeValue& value, CentersFrom from, const std::string& region,
                          std::vector<std::uint32_t>& index);

/// The clumps of a set of strands: all that hangs on roots alone, not on shapes.
struct GatheredClumps {
    ClumpCenters centers;
    ClumpBinding binding;
    std::vector<float> numbers;  ///< [clumps], as the clump channel holds them
    /// [clumps]: the strand that is the axis, -1 for a clump that gathers none; of curves as axes
    /// the curve's place in its input.
    std::vector<std::int64_t> axis;
    /// (axis, clump), ascending: which clumps change with a strand or a curve.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> clumpsOfAxis;
    std::uint64_t centersHash = 0;  ///< CenterCurves::rootsHash
    /// Calls visit(clump) for the clumps whose axis is `index`.
    template <class Visit>
    void forEachClumpOf(std::uint32_t index, Visit&& visit) const {
        auto at = std::lower_bound(clumpsOfAxis.begin(), clumpsOfAxis.end(),
                                   std::pair(index, std::uint32_t(0)));
        for (; at != clumpsOfAxis.end() && at->first == index; ++at) visit(at->second);
    }
};

/// What strands are gathered by.
struct GatherSource {
    const StrandSet& strands;
    std::span<const std::uint32_t> core;                ///< the strands that every preview holds
    const std::vector<float>* strandRegions = nullptr;  ///< [strands]; null: across regions
    const PartLines* parts = nullptr;
};

/// Clumps round picked strands, `picked` by ascending id.
GatheredClumps gatherAroundStrands(const GatherSource& source,
                                   std::span<const std::uint32_t> picked);
/// Clumps round the curves of an input; with `curvesAreAxes` those are the axes, else the strands
/// rooted nearest to theirs. index: as centerCurves gives it.
GatheredClumps gatherAroundCurves(const GatherSource& source, const CenterCurves& curves,
                                  std::span<const std::uint32_t> index, bool curvesAreAxes);

}  // namespace corvelle
