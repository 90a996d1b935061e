#pragma once

#include <cstdint>
#include <vector>

#include "model/strandSet.h"

namespace corvelle {

/// The strands that every preview holds, ascending: those marked in "_preview", or all where none
/// is. What a node takes from these alone comes out the same in a thinned view.
std::vector<std::uint32_t> previewStrands(const StrandSet& strands);

}  // namespace corvelle
