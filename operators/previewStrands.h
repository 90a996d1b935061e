#pragma once

#include <cstdint>
#include <vector>

#include "model/strandSet.h"

namespace corvelle {

/// The strands that every preview of a groom holds, ascending: those that the channel "_preview"
/// marks with 0.5 or more, or all when none is marked. What is worked out from these strands alone
/// is the same in a thinned set and in the full one.
std::vector<std::uint32_t> previewStrands(const StrandSet& strands);

}  // namespace corvelle
