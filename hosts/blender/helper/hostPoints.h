#pragma once

#include <span>

#include "model/vec3f.h"
#include "session/sceneSpace.h"

namespace corvelle {

/// Turns points of groom space to the host's, into `out` of the same size, which may be where they
/// lie: the same bits as `space.pointToHost` for each, on one thread. A scale that is a float, as
/// of metres and centimetres, takes a third of the time of others.
void pointsToHost(std::span<const Vec3f> points, const SceneSpace& space, Vec3f* out);
/// The same for lengths, as `space.lengthToHost` for each.
void lengthsToHost(std::span<const float> lengths, const SceneSpace& space, float* out);

}  // namespace corvelle
