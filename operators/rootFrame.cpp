#include "operators/rootFrame.h"

#include <cmath>

#include "model/elementary.h"

namespace corvelle {

Vec3f firstDirection(std::span<const Vec3f> points) {
    for (std::size_t i = 1; i < points.size(); ++i)
        if (const Vec3f d = normalized(points[i] - points[i - 1]); !(d == Vec3f{})) return d;
    return {};
}

Vec3f scalpNormal(const ScalpMesh* scalp, const StrandRoot& root) {
    return scalp && scalp->validRoot(root) ? scalp->surfaceNormal(root) : Vec3f{};
}

Vec3f rootNormal(const ScalpMesh* scalp, const StrandRoot& root, Vec3f first) {
    if (const Vec3f normal = scalpNormal(scalp, root); !(normal == Vec3f{})) return normal;
    return first == Vec3f{} ? Vec3f{0.0f, 1.0f, 0.0f} : first;
}

Vec3f rootTangent(const ScalpMesh* scalp, const StrandRoot& root) {
    return scalp ? scalp->surfaceTangentU(root) : Vec3f{};
}

RootFrame rootFrame(const ScalpMesh* scalp, const StrandRoot& root, Vec3f first) {
    RootFrame frame;
    frame.y = rootNormal(scalp, root, first);
    frame.x = rootTangent(scalp, root);
    if (frame.x == Vec3f{}) frame.x = laidOnto({1.0f, 0.0f, 0.0f}, frame.y);
    if (frame.x == Vec3f{}) frame.x = laidOnto({0.0f, 0.0f, 1.0f}, frame.y);
    frame.z = cross(frame.x, frame.y);
    return frame;
}

namespace {

/// The sine times the axis of the turn between two directions.
struct WideCross {
    double x, y, z, sine;
};

WideCross wideCross(Vec3f from, Vec3f to) {
    // In double: near the half turn a float cross product is mostly rounding.
    const double x = double(from.y) * to.z - double(from.z) * to.y;
    const double y = double(from.z) * to.x - double(from.x) * to.z;
    const double z = double(from.x) * to.y - double(from.y) * to.x;
    return {x, y, z, std::sqrt(x * x + y * y + z * z)};
}

Vec3f axisOf(const WideCross& c, Vec3f from) {
    if (!(c.sine > 1e-6)) return anyPerpendicular(from);
    return {float(c.x / c.sine), float(c.y / c.sine), float(c.z / c.sine)};
}

}  // namespace

Vec3f shortestAxis(Vec3f from, Vec3f to) { return axisOf(wideCross(from, to), from); }

ShortestArc shortestArc(Vec3f from, Vec3f to) {
    const WideCross c = wideCross(from, to);
    const double cosine = double(from.x) * to.x + double(from.y) * to.y + double(from.z) * to.z;
    return {axisOf(c, from), float(math::atan2(c.sine, cosine))};
}

}  // namespace corvelle
