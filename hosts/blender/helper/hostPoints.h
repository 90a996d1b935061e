#pragma once

#include <span>

#include "model/vec3f.h"
#include "session/sceneSpace.h"

namespace corvelle {

/// Turns points of groom space to the host's, into `out` of the same size, which may be where they
/// lie: the same bits as
/// `space.pointToHost` for each, on one thread, two divisions at a time.
void pointsToHost(std::span<const Vec3f> points, const SceneSpace& space, Vec3f* out);

}  // namespace corvelle
