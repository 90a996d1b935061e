#pragma once

#include <cstdint>

#include "model/guideHierarchy.h"

namespace corvelle {

/// A hierarchy for tests and benchmarks: primary guides in two root groups, "hair" and "brow", on
/// random triangles of the scalp; child groups "hair_1", "hair_2", ... below "hair". Guides curl,
/// have tubes that widen and twist, point counts that differ from their parents' here and there,
/// attributes "stiff" and per point "mask"; with `locks` some children are locked.
struct MadeHierarchy {
    std::size_t primaries = 12;  ///< of "hair"; "brow" has a third of it
    std::size_t pointsPerGuide = 8;
    int levels = 2;    ///< child groups below "hair"
    int children = 3;  ///< a parent
    bool locks = true;
    std::uint64_t seed = 0;
};
GuideHierarchy makeHierarchy(const ScalpMesh& scalp, const MadeHierarchy& settings);

/// A curl of `count` points out of the scalp at `root`, `length` cm long.
std::vector<Vec3f> makeCurl(const ScalpMesh& scalp, const StrandRoot& root, std::size_t count,
                            float length, std::uint64_t seed);

}  // namespace corvelle
