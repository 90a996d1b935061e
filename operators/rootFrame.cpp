#include "operators/rootFrame.h"

#include "operators/vectorLanes.h"

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

ShortestArc shortestArc(Vec3f from, Vec3f to) {
    LanesArc<float> arc;
    arcBetween(lanes3(from), lanes3(to), arc);
    return {vec3(arc.axis), arc.angle};
}

}  // namespace corvelle
