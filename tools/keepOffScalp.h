#pragma once

#include <span>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

/// Lifts a curve off the scalp: rebuilt from its root, every segment with its old length, it slides
/// along the surface `offset` cm above it where it would dip below. Fewer than 2 points, or a scalp
/// without triangles: nothing happens. `rootTriangle` (-1: none) only makes it faster.
void keepOffScalp(std::span<Vec3f> points, const ScalpMesh& scalp, float offset,
                  std::int32_t rootTriangle = -1);

}  // namespace corvelle
