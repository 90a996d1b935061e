#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "graph/nodeValue.h"

namespace corvelle {

/// The pairs of arrays of two strand sets of equal layout that are not shared, for comparing strand
/// by strand and bit by bit: roots, points, widths and all channels. Shared arrays need no look.
class StrandPairs {
public:
    /// Nothing when strand counts, ids, points per strand, channels (names, defaults, flags) or
    /// layers differ: then no list of strands tells the difference. The sets must outlive this.
    static std::optional<StrandPairs> of(const StrandSet& a, const StrandSet& b);
    bool allShared() const { return perStrand_.empty() && perPoint_.empty(); }
    bool strandDiffers(std::size_t strand) const;

private:
    struct Pair {
        const std::byte* a;
        const std::byte* b;
        std::size_t size;  ///< bytes of an element
    };
    std::span<const std::uint64_t> offsets_;
    std::vector<Pair> perStrand_, perPoint_;
};

/// The strands that differ between two sets, bit by bit; null when no list can tell, or when most
/// of a fixed sample differ and looking at all is not worth its time. Parallel; the same list on
/// any number of threads.
StrandChangesPtr strandDiff(const StrandSet& before, const StrandSet& after);
/// The guides that differ between two sets of the same ids in the same order, else null.
StrandChangesPtr guideDiff(const GuideSet& before, const GuideSet& after);
/// Of two values: strands, guides, or the very same object; else null.
StrandChangesPtr valueDiff(const NodeValue& before, const NodeValue& after);

/// The strands of either list, ascending; null when either is null or all.
StrandChangesPtr unite(const StrandChangesPtr& a, const StrandChangesPtr& b);
StrandChangesPtr noChanges();
/// True when a list of strands is stated.
inline bool isList(const StrandChangesPtr& changes) { return changes && !changes->all; }

}  // namespace corvelle
