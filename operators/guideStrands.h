#pragma once

#include <cstdint>

#include "model/guideSet.h"
#include "model/strandSet.h"

namespace corvelle {

/// The strands that become guides: for a `fraction` of all ids, of those that every preview holds.
struct ToGuidesSettings {
    float fraction = 1.0f;  ///< 0 to 1
    std::uint64_t seed = 0;
    bool channels = true;  ///< carried over as attributes, point channels as point attributes
};

/// A guide per picked strand, of its id, root and points. Strands of fewer than 2 points are left
/// out. Throws std::invalid_argument when an id comes twice.
GuidesPtr guidesFromStrands(const StrandSet& in, const ToGuidesSettings& settings);

struct ToStrandsSettings {
    std::size_t segments = 0;  ///< a strand; 0: each guide's own points
    float width = 0.005f;      ///< cm
};

/// A strand per guide, of its id and root, with its attributes as channels (0 where it has none).
/// With `segments` the points lie evenly on the spline through the guide's.
StrandSet strandsFromGuides(const GuideSet& in, const ToStrandsSettings& settings);

}  // namespace corvelle
