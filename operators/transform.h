#pragma once

#include <span>

#include "model/vec3f.h"
#include "operators/rootFrame.h"

namespace corvelle {

/// The turn by `degrees.x` about x, then `degrees.y` about y, then `degrees.z` about z: fixed axes,
/// those of `frame`.
Rotation turnInFrame(Vec3f degrees, const RootFrame& frame);

/// Scales a strand about its root, turns it, and sets its root on `root`. points [n], out [n].
void placeStrand(std::span<const Vec3f> points, float scale, const Rotation& turn, Vec3f root,
                 std::span<Vec3f> out);

}  // namespace corvelle
