#pragma once

#include <vector>

#include "model/strandSet.h"
#include "operators/splineResample.h"

namespace corvelle {

// For nodes that give strands other points: what goes over as it is, and what is worked out anew.

/// One channel to carry to the new points.
using PointArray = SplineJob::Array;

/// Strand channels, ids, roots and layers of `in`, by sharing; channels that it lacks go. False
/// when a channel does not fit.
bool takeStrandData(const StrandSet& in, StrandSet& out);

/// Write access to the widths and point channels of `out`, made as those of `in` are; with
/// `overwrite`, when every element will be written, to its points too.
std::vector<PointArray> openPointArrays(const StrandSet& in, StrandSet& out, bool overwrite);

}  // namespace corvelle
