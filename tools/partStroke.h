#pragma once

#include <span>
#include <string>

#include "model/partData.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// A part through places on (or near) the scalp. Places nearer than 0.002 of the scalp's diagonal
/// to the one kept before are dropped. Throws std::invalid_argument "a part needs
/// a longer stroke" for fewer than two that are left, "a part needs at least two points on the
/// scalp" when fewer than two have a closest point on it.
PartLine partFromStroke(const ScalpMesh& scalp, const std::string& name,
                        std::span<const Vec3f> places);

}  // namespace corvelle
