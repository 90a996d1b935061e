#pragma once

#include <cstdint>
#include <span>
#include <unordered_set>

#include "model/strandSet.h"

namespace corvelle {

/// The arrays of a strand set that is about to be dropped, kept to be written again: a brush that moves
/// one strand in a hundred then copies one in a hundred too, where copy-on-write would copy whole
/// arrays. Two results back and forth make a double buffer.
class SpareStrands {
public:
    /// Takes over the arrays of `old`, of which no other holder is left when this is used, but for those
    /// in `taken` (by address): these belong to a spare before this one. `current` has old's layout.
    SpareStrands(const StrandSet& old, const StrandSet& current,
                 std::unordered_set<const void*>& taken);

    /// A set equal to `current`, bit by bit, whose written arrays are the spare ones: where the old
    /// set and the current one share nothing, the `changed` strands (all that differ between them) are
    /// copied over. Uses this up.
    StrandSet equalTo(const StrandSet& current, std::span<const std::uint32_t> changed);

private:
    StrandSet spare_;
};

}  // namespace corvelle
