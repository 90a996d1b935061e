#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "model/parallel.h"

namespace corvelle {

/// The strands a run works on: all of a set, or the listed ones. One worker serves the full run and
/// the incremental one, so both give the same bits.
class StrandPick {
public:
    explicit StrandPick(std::size_t all) : count_(all) {}
    explicit StrandPick(std::span<const std::uint32_t> list) : list_(list), count_(list.size()), listed_(true) {}
    std::size_t size() const { return count_; }
    bool listed() const { return listed_; }
    /// The listed ones; empty for all.
    std::span<const std::uint32_t> list() const { return list_; }

    static constexpr std::size_t kBatch = kStrandGrain;
    /// Calls body(indices) in parallel, at most kBatch strand indices at a time, ascending in a batch.
    template <class Body>
    void forEachBatch(Body&& body) const {
        forEachBatchAt([&](std::size_t, std::span<const std::uint32_t> batch) { body(batch); });
    }
    /// The same with the place of the batch's first strand in the pick, a multiple of kBatch:
    /// body(first, indices). All batches but the last are full.
    template <class Body>
    void forEachBatchAt(Body&& body) const {
        const std::size_t batches = (count_ + kBatch - 1) / kBatch;
        parallelRange(0, batches, 1, [&](std::size_t begin, std::size_t end) {
            std::array<std::uint32_t, kBatch> run;
            for (std::size_t b = begin * kBatch; b < std::min(end * kBatch, count_); b += kBatch) {
                const std::size_t n = std::min(kBatch, count_ - b);
                if (listed_) {
                    body(b, list_.subspan(b, n));
                } else {
                    for (std::size_t i = 0; i < n; ++i) run[i] = std::uint32_t(b + i);
                    body(b, std::span<const std::uint32_t>(run.data(), n));
                }
            }
        });
    }

private:
    std::span<const std::uint32_t> list_;
    std::size_t count_ = 0;
    bool listed_ = false;
};

}  // namespace corvelle
