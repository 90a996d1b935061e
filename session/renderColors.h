#pragma once

#include <vector>

#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

/// What renderers read beside the curves. Linear RGB.
struct RenderColors {
    std::vector<Vec2f> rootUV;      ///< per strand; empty without UVs
    std::vector<Vec3f> color;       ///< per strand: the colour at the root
    std::vector<Vec3f> pointColor;  ///< per point; empty unless colour varies along strands
};
/// From the colour channels of the set (`colorR`, `colorG`, `colorB`, per strand or per point);
/// without them every strand has the default pigment's colour. `scalp` may be null. Parallel.
RenderColors renderColors(const StrandSet& strands, const ScalpMesh* scalp);

}  // namespace corvelle
