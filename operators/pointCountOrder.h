#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "model/strandSet.h"
#include "operators/strandLoop.h"

namespace corvelle {

/// The places of a batch's strands, those of one point count together, so that they fill the lanes
/// of kernels; as they come where all have as many.
class PointCountOrder {
public:
    PointCountOrder(const StrandSet& set, std::span<const std::uint32_t> strands)
        : count_(strands.size()) {
        bool same = true;
        for (std::size_t k = 0; k < count_; ++k) {
            places_[k] = std::uint32_t(k);
            same &= set.pointCountOf(strands[k]) == set.pointCountOf(strands[0]);
        }
        if (!same)
            std::sort(places_.begin(), places_.begin() + std::ptrdiff_t(count_),
                      [&](std::uint32_t a, std::uint32_t b) {
                          const std::size_t n = set.pointCountOf(strands[a]);
                          const std::size_t m = set.pointCountOf(strands[b]);
                          return n != m ? n < m : a < b;
                      });
    }
    const std::uint32_t* begin() const { return places_.data(); }
    const std::uint32_t* end() const { return places_.data() + count_; }

private:
    std::size_t count_;
    std::array<std::uint32_t, StrandPick::kBatch> places_;
};

}  // namespace corvelle
