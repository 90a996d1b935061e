#pragma once

#include <optional>

#include "model/scalpMirror.h"
#include "tools/brushWeight.h"

namespace corvelle {

/// Reflection across the plane where the coordinate `axis` is `plane`; its own inverse.
SideMap planeMap(int axis, float plane);

/// What the scalp's own left and right make of the surroundings of a place: from the scalp's
/// triangle nearest `about` to where the partners of its corners lie in this pose, with left and
/// right exchanged. Empty where the triangle has no partner, or no area on either side.
std::optional<SideMap> sideMap(const ScalpMirror& mirror, const ScalpMesh& scalp, Vec3f about);

}  // namespace corvelle
