#include "tools/keepOffScalp.h"

namespace corvelle {
namespace {

constexpr float kSlack = 1e-5f;   // cm below the offset that still count as clear
constexpr float kMargin = 1e-4f;  // cm looked at beyond a segment's reach
constexpr int kRounds = 2;        // of pushing out after the first slide

}  // namespace

void keepOffScalp(std::span<Vec3f> points, const ScalpMesh& scalp, float offset,
                  std::int32_t rootTriangle) {
    if (points.size() < 2 || scalp.triangles().empty()) return;
    std::int32_t near = rootTriangle;
    Vec3f proposedBefore = points[0];
    for (std::size_t i = 1; i < points.size(); ++i) {
        const Vec3f previous = points[i - 1], proposed = points[i];
        const Vec3f segment = proposed - proposedBefore;
        proposedBefore = proposed;
        const float l = length(segment);
        Vec3f d = normalized(proposed - previous);
        if (d == Vec3f{}) d = normalized(segment);
        points[i] = previous + d * l;
        for (int round = 0; round <= kRounds; ++round) {
            SurfaceHit hit;
            if (!scalp.closestPointFrom(points[i], l + offset + kMargin, near, hit)) break;
            near = hit.triangle;
            const Vec3f normal = normalized(scalp.surfaceNormal(hit.root()));
            const float height = dot(points[i] - hit.position, normal);
            if (!(height < offset - kSlack)) break;
            if (round == 0) {
                d = d - normal * dot(d, normal);
                if (length(d) < 1e-6f) d = anyPerpendicular(normal);
            } else {
                d = points[i] + normal * (offset - height) - previous;
            }
            d = normalized(d);
            points[i] = previous + d * l;
        }
    }
}

}  // namespace corvelle
