#pragma once

#include "model/guideHierarchy.h"

namespace corvelle {

/// The way back of an edit that was made on `shown`, which is `stored` deformed from the scalp `to`
/// to the scalp `from`: guides of `edited` that are the very ones of `shown` become those of
/// `stored`, bit for bit; only the others are carried, followers by their offsets.
/// Throws std::invalid_argument if the two poses differ in triangles.
GuideHierarchy deformedBack(const GuideHierarchy& edited, const GuideHierarchy& shown,
                            const GuideHierarchy& stored, const ScalpMesh& from,
                            const ScalpMesh& to);

}  // namespace corvelle
