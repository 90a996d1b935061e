#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

// Deterministic meshes for tests and benchmarks, outward (or up, for a plane) facing, as meshes
// whose extras may still be set. Sizes in centimetres.

/// An open sheet of nx by ny quads, `size` wide in x and z, centred on the origin, facing +y, with
/// UVs from 0 to 1 (u along x, v along -z) and its quads as polygons.
ScalpMesh makePlane(int nx, int ny, float size);

/// A closed sphere round the origin with its poles on y: `rings` bands of `segments` quads, the
/// polar ones triangles. UVs run once round and pole to pole; polygons are the quads.
ScalpMesh makeSphere(int rings, int segments, float radius);

/// A closed sphere of 20 * 4^levels nearly equal triangles, without UVs.
ScalpMesh makeIcosphere(int levels, float radius);

/// `count` separate triangles of up to `size` in a box of side 2 `extent` round the origin. About
/// one in four is degenerate: a point, a segment, a sliver or a twin of another one.
ScalpMesh makeTriangleSoup(std::size_t count, float extent, float size, std::uint64_t seed);

/// One polygon of `corners` corners on a circle of `radius` in the xz plane, facing +y, as a fan.
ScalpMesh makeFan(std::size_t corners, float radius);

/// The mesh's points, each moved by up to `amount` along every axis.
std::vector<Vec3f> jitteredPoints(const ScalpMesh& mesh, float amount, std::uint64_t seed);

}  // namespace corvelle
