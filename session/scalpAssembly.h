#pragma once

#include <string>
#include <utility>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

/// One mesh of several scalps for evaluation: the own mesh first (piece "scalp"), the named ones
/// behind it in order, so that the own mesh's triangle numbers never shift. UVs, colour sets, rest
/// points and polygons are kept where any has them; the others are filled with zero, white, the
/// points, or single triangles. Null meshes are left out; without named ones it is the own mesh.
ScalpPtr assembleScalps(const ScalpPtr& own, const std::vector<std::pair<std::string, ScalpPtr>>& named);

}  // namespace corvelle
