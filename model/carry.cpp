#include "model/carry.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace corvelle {
namespace {

bool sameBits(Vec3f a, Vec3f b) {
    for (int axis = 0; axis < 3; ++axis)
        if (std::bit_cast<std::uint32_t>(a[axis]) != std::bit_cast<std::uint32_t>(b[axis]))
            return false;
    return true;
}

/// The turn about `axis` whose cosine and sine are given: no angle, so no trigonometric function
/// whose bits differ between systems.
Rotation turnAbout(Vec3f axis, float c, float s) {
    const float k = 1.0f - c;
    Rotation r;
    r.row0 = {c + k * axis.x * axis.x, k * axis.x * axis.y - s * axis.z,
              k * axis.x * axis.z + s * axis.y};
    r.row1 = {k * axis.x * axis.y + s * axis.z, c + k * axis.y * axis.y,
              k * axis.y * axis.z - s * axis.x};
    r.row2 = {k * axis.x * axis.z - s * axis.y, k * axis.y * axis.z + s * axis.x,
              c + k * axis.z * axis.z};
    return r;
}

struct Edges2 {  // two edges as columns in the plane's axes
    double x1, y1, x2, y2;
};

bool tiny(double determinant, const Edges2& e) {
    return !(std::fabs(determinant) >
             1e-9 * (e.x1 * e.x1 + e.y1 * e.y1 + e.x2 * e.x2 + e.y2 * e.y2));
}

}  // namespace

RootMotion rootMotion(const StrandRoot& root, const ScalpMesh& a, const ScalpMesh& b) {
    RootMotion motion;
    if (!a.validRoot(root) || !b.validRoot(root)) return motion;
    const Triangle& ta = a.triangles()[std::size_t(root.triangle)];
    const Triangle& tb = b.triangles()[std::size_t(root.triangle)];
    Vec3f pa[3], pb[3];
    bool still = true;
    for (std::size_t k = 0; k < 3; ++k) {
        const std::size_t ia = std::size_t(ta[k]), ib = std::size_t(tb[k]);
        pa[k] = a.points()[ia];
        pb[k] = b.points()[ib];
        still = still && sameBits(pa[k], pb[k]) && sameBits(a.normals()[ia], b.normals()[ib]);
    }
    motion.from = a.surfacePoint(root);
    motion.to = b.surfacePoint(root);
    if (still) return motion;

    motion.identity = false;
    const Vec3f normalA = a.surfaceNormal(root), normalB = b.surfaceNormal(root);
    const Rotation swing = Rotation::shortest(normalA, normalB);

    // The triangle's edges in the plane across normalB: how they turned beyond the swing.
    const Vec3f axisX = normalized(anyPerpendicular(normalB));
    const Vec3f axisY = cross(normalB, axisX);
    const auto inPlane = [&](Vec3f e1, Vec3f e2) {
        return Edges2{dot(e1, axisX), dot(e1, axisY), dot(e2, axisX), dot(e2, axisY)};
    };
    const Edges2 ea = inPlane(swing(pa[1] - pa[0]), swing(pa[2] - pa[0]));
    const Edges2 eb = inPlane(pb[1] - pb[0], pb[2] - pb[0]);
    const double detA = ea.x1 * ea.y2 - ea.x2 * ea.y1, detB = eb.x1 * eb.y2 - eb.x2 * eb.y1;
    Rotation turn;
    // No turn where a triangle has no area across the normal or folds over from pose to pose: there
    // the polar rotations to and fro are not each other's inverses.
    if (!tiny(detA, ea) && !tiny(detB, eb) && (detA > 0.0) == (detB > 0.0)) {
        // M = eb ea^-1; its polar rotation needs only two sums, and their common factor 1 / |detA|
        // falls out.
        const double sign = detA > 0.0 ? 1.0 : -1.0;
        const double m00 = eb.x1 * ea.y2 - eb.x2 * ea.y1, m01 = eb.x2 * ea.x1 - eb.x1 * ea.x2;
        const double m10 = eb.y1 * ea.y2 - eb.y2 * ea.y1, m11 = eb.y2 * ea.x1 - eb.y1 * ea.x2;
        const double c = sign * (m00 + m11), s = sign * (m10 - m01);
        const double size = std::sqrt(c * c + s * s);
        if (size > 0.0) turn = turnAbout(normalB, float(c / size), float(s / size));
    }
    motion.rotation = turn.after(swing);
    return motion;
}

void carry(std::span<const Vec3f> points, const StrandRoot& root, const ScalpMesh& a,
           const ScalpMesh& b, std::span<Vec3f> out) {
    const RootMotion motion = rootMotion(root, a, b);
    if (motion.identity) {
        if (out.data() != points.data()) std::copy(points.begin(), points.end(), out.begin());
        return;
    }
    for (std::size_t i = 0; i < points.size(); ++i) out[i] = motion(points[i]);
}

}  // namespace corvelle
