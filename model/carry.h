#pragma once

#include <span>

#include "model/scalpMesh.h"

namespace corvelle {

/// The rigid motion that a root's triangle makes from one pose of a mesh to another.
struct RootMotion {
    Vec3f from, to;  ///< the surface point in both poses
    Rotation rotation;
    bool identity = true;  ///< the triangle's points and normals are bit-equal in both poses
    Vec3f operator()(Vec3f p) const { return identity ? p : to + rotation(p - from); }
};

/// How `root` moves from mesh `a` to mesh `b` of the same topology: the shortest rotation of the
/// normal, then the in-plane polar rotation of the triangle's two edges. Swapping a and b inverts
/// it. An unrooted or invalid root does not move.
RootMotion rootMotion(const StrandRoot& root, const ScalpMesh& a, const ScalpMesh& b);

/// Carries the points of one strand; out may be points. Copied bit for bit where nothing moved.
void carry(std::span<const Vec3f> points, const StrandRoot& root, const ScalpMesh& a,
           const ScalpMesh& b, std::span<Vec3f> out);

}  // namespace corvelle
