#include "operators/strandFrames.h"

#include <cstddef>

#include "operators/frameLanes.h"
#include "operators/rootFrame.h"

namespace corvelle {

namespace {

Wide3<float> wide(Vec3f v) { return {v.x, v.y, v.z}; }

Vec3f squareTo(Vec3f v, Vec3f unit) {
    const Vec3f laid = laidOnto(v, unit);
    return laid == Vec3f{} ? anyPerpendicular(unit) : laid;
}

}  // namespace

void rootDirections(std::span<const Vec3f> points, Vec3f rootNormal, Vec3f& tangent,
                    Vec3f& normal) {
    tangent = firstDirection(points);
    if (tangent == Vec3f{}) tangent = {0.0f, 1.0f, 0.0f};
    normal = squareTo(rootNormal, tangent);
}

void transportFrames(std::span<const Vec3f> points, Vec3f rootNormal, std::span<Vec3f> tangents,
                     std::span<Vec3f> normals) {
    const std::size_t n = points.size();
    Vec3f tangent, normal;
    rootDirections(points, rootNormal, tangent, normal);
    tangents[0] = tangent;
    normals[0] = normal;
    for (std::size_t i = 1; i < n; ++i) {
        const Vec3f step = points[i] - points[i - 1];
        const float stepSquared = lengthSquared(step);
        const Vec3f across = i + 1 < n ? points[i + 1] - points[i - 1] : step;
        const float acrossSquared = lengthSquared(across);
        if (stepSquared > kTinyStepSquared && acrossSquared > kTinyStepSquared) {
            const Vec3f after = across * (1.0f / std::sqrt(acrossSquared));
            const Wide3<float> turned =
                reflectedNormal(wide(step), stepSquared, wide(after), wide(tangent), wide(normal));
            Vec3f next{turned.x, turned.y, turned.z};
            if (i % kSettleEvery == 0) {
                next = next - after * dot(next, after);
                const float size = lengthSquared(next);
                next = size > kTinySideSquared ? next * (1.0f / std::sqrt(size))
                                               : squareTo(normal, after);
            }
            normal = next;
            tangent = after;
        }
        tangents[i] = tangent;
        normals[i] = normal;
    }
}

}  // namespace corvelle
