#include "operators/strandFrames.h"

#include <cstddef>

#include "operators/rootFrame.h"

namespace corvelle {

namespace {

constexpr float kTinySquared = 1e-24f;  ///< cm^2: shorter steps say nothing of a direction

constexpr std::size_t kSettle = 16;

Vec3f squareTo(Vec3f v, Vec3f unit) {
    const Vec3f laid = laidOnto(v, unit);
    return laid == Vec3f{} ? anyPerpendicular(unit) : laid;
}

}  // namespace

void transportFrames(std::span<const Vec3f> points, Vec3f rootNormal, std::span<Vec3f> tangents,
                     std::span<Vec3f> normals) {
    const std::size_t n = points.size();
    Vec3f tangent = firstDirection(points);
    if (tangent == Vec3f{}) tangent = {0.0f, 1.0f, 0.0f};
    Vec3f normal = squareTo(rootNormal, tangent);
    tangents[0] = tangent;
    normals[0] = normal;
    for (std::size_t i = 1; i < n; ++i) {
        const Vec3f step = points[i] - points[i - 1];
        const float stepSquared = lengthSquared(step);
        const Vec3f across = i + 1 < n ? points[i + 1] - points[i - 1] : step;
        const float acrossSquared = lengthSquared(across);
        if (stepSquared > kTinySquared && acrossSquared > kTinySquared) {
            const Vec3f after = across * (1.0f / std::sqrt(acrossSquared));
            // Mirrored in the plane half way along the step, then in the one that makes the
            // mirrored tangent the new one.
            const float first = 2.0f / stepSquared;
            const Vec3f mirrored = normal - step * (first * dot(step, normal));
            const Vec3f turn = after - (tangent - step * (first * dot(step, tangent)));
            const float turnSquared = lengthSquared(turn);
            Vec3f next = mirrored;
            if (turnSquared > 1e-12f)
                next = mirrored - turn * (2.0f / turnSquared * dot(turn, mirrored));
            // Mirroring keeps lengths and angles; what rounding adds up to is taken away now and
            // then, not at every point, since each point has to wait for the one before it.
            if (i % kSettle == 0) {
                next = next - after * dot(next, after);
                const float size = lengthSquared(next);
                next = size > 1e-8f ? next * (1.0f / std::sqrt(size)) : squareTo(normal, after);
            }
            normal = next;
            tangent = after;
        }
        tangents[i] = tangent;
        normals[i] = normal;
    }
}

}  // namespace corvelle
