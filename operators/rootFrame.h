#pragma once

#include <span>

#include "model/scalpMesh.h"
#include "model/vec3f.h"

namespace corvelle {

/// A right-handed frame at a strand's root, all axes unit.
struct RootFrame {
    Vec3f x{1, 0, 0};  ///< along the scalp's U direction
    Vec3f y{0, 1, 0};  ///< the scalp's interpolated normal
    Vec3f z{0, 0, 1};  ///< cross(x, y)
    Vec3f toWorld(Vec3f v) const { return x * v.x + y * v.y + z * v.z; }
};

// What a strand's root says of directions. A root on no triangle of `scalp`, or a null `scalp`, is
// unrooted: the strand's own first direction stands for the normal. Pure, no allocation.

/// Unit direction of the first segment that has a length; zero for a strand that has none.
Vec3f firstDirection(std::span<const Vec3f> points);

/// `v` less its share along the unit `normal`, unit; zero where the two are parallel.
inline Vec3f laidOnto(Vec3f v, Vec3f normal) {
    constexpr float kParallel = 1e-4f;  // sine of the angle below which v says nothing
    const Vec3f unit = normalized(v);
    const Vec3f laid = unit - normal * dot(unit, normal);
    if (!(lengthSquared(laid) > kParallel * kParallel)) return {};
    const Vec3f once = normalized(laid);  // a second pass takes what rounding left along the normal
    return normalized(once - normal * dot(once, normal));
}

/// The scalp's unit normal at the root; zero when unrooted.
Vec3f scalpNormal(const ScalpMesh* scalp, const StrandRoot& root);

/// Unit normal at the root; unrooted: `first`, or +Y where that is zero too.
Vec3f rootNormal(const ScalpMesh* scalp, const StrandRoot& root, Vec3f first);

/// The scalp's U direction at the root, unit; zero when unrooted or without UVs to tell it.
Vec3f rootTangent(const ScalpMesh* scalp, const StrandRoot& root);

/// The root's frame. Without a U direction x is world X laid onto the surface, Z where X is
/// parallel to the normal.
RootFrame rootFrame(const ScalpMesh* scalp, const StrandRoot& root, Vec3f first);

/// The shortest turn from one direction to another.
struct ShortestArc {
    Vec3f axis;          ///< unit, square to both; right-handed
    float angle = 0.0f;  ///< radians, 0 to pi
};
/// Between unit directions. Parallel and antiparallel ones turn about `anyPerpendicular(from)`.
/// The angle is within 2e-6.
ShortestArc shortestArc(Vec3f from, Vec3f to);

}  // namespace corvelle
