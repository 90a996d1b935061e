#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Unit tangents, and unit normals square to them that turn about the strand as little as possible
/// from root to tip.
///
/// Shapes:  points, tangents, normals [n], n >= 1; root first. `rootNormal` has any length; its
/// part
///          along the first tangent is dropped, and one that is parallel to it gives way to
///          `anyPerpendicular`.
/// Edges:   a segment of zero length keeps the frame before it; a strand without a length has the
///          tangent +Y.
/// Cost:    O(n), no allocation. Pure.
/// Source:  Wang, Juettler, Zheng, Liu, "Computation of Rotation Minimizing Frames", ACM TOG 27(1),
///          2008: double reflection. We differ: central-difference tangents.
void transportFrames(std::span<const Vec3f> points, Vec3f rootNormal, std::span<Vec3f> tangents,
                     std::span<Vec3f> normals);

/// The tangent and the normal at the root, as transportFrames begins.
void rootDirections(std::span<const Vec3f> points, Vec3f rootNormal, Vec3f& tangent, Vec3f& normal);

}  // namespace corvelle
