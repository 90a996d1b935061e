#include "tools/scalpSides.h"

#include <array>

namespace corvelle {
namespace {

/// Square unit vectors: along a triangle's first edge, across it, and its normal.
struct Frame {
    Vec3f edge, across, normal;
};

std::optional<Frame> frameOf(const std::array<Vec3f, 3>& corners, bool flipped) {
    const Vec3f edge = normalized(corners[1] - corners[0]);
    const Vec3f normal = normalized(cross(corners[1] - corners[0], corners[2] - corners[0]));
    if (edge == Vec3f{} || normal == Vec3f{} || !isFinite(normal)) return {};
    // The partners of a triangle's corners run round it the other way: outward is against them, and
    // across is where the reflection puts it.
    return Frame{edge, cross(normal, edge), flipped ? -normal : normal};
}

}  // namespace

SideMap planeMap(int axis, float plane) {
    SideMap map;
    map.at[axis] = map.from[axis] = plane;
    Vec3f* rows[] = {&map.turn.row0, &map.turn.row1, &map.turn.row2};
    *rows[axis] = -*rows[axis];
    return map;
}

std::optional<SideMap> sideMap(const ScalpMirror& mirror, const ScalpMesh& scalp, Vec3f about) {
    SurfaceHit hit;
    if (!scalp.closestPoint(about, ScalpMesh::kAnyDistance, hit)) return {};
    const auto partners = mirror.mirroredCorners(scalp, hit.triangle);
    if (!partners) return {};
    std::array<Vec3f, 3> own;
    for (std::size_t k = 0; k < 3; ++k)
        own[k] = scalp.points()[std::size_t(scalp.triangles()[std::size_t(hit.triangle)][k])];
    const std::optional<Frame> here = frameOf(own, false), there = frameOf(*partners, true);
    if (!here || !there) return {};
    const auto row = [&](int k) {
        return there->edge[k] * here->edge + there->across[k] * here->across +
               there->normal[k] * here->normal;
    };
    SideMap map;
    map.from = hit.position;
    map.at =
        hit.u * (*partners)[0] + hit.v * (*partners)[1] + (1.0f - hit.u - hit.v) * (*partners)[2];
    map.turn = {row(0), row(1), row(2)};
    return map;
}

}  // namespace corvelle
