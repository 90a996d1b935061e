// Brushes that turn guides or their segments: lift, twist, curl, direction.
#include <cmath>

#include "model/elementary.h"
#include "tools/brushModes.h"

namespace corvelle {
namespace {

/// All points turned about the root by `angleRadians`, by more or less of it where a profile says.
void turnAboutRoot(const BrushWork& work, Vec3f axis, float angleRadians, BrushEdit& edit) {
    const Vec3f root = work.points[0];
    const std::span<Vec3f> q = work.moved(edit);
    const Rotation whole = Rotation::about(axis, angleRadians);
    for (std::size_t i = 1; i < q.size(); ++i) {
        const Rotation turn =
            work.profile.empty() ? whole : Rotation::about(axis, angleRadians * work.profile[i]);
        q[i] = root + turn(q[i] - root);
    }
    if (!work.profile.empty()) work.keepLengths(edit);
}

}  // namespace

void liftGuide(const BrushWork& work, BrushEdit& edit) {
    const float f = work.guideWeight * work.strength(-1.0f, 1.0f) * 0.5f;
    if (f == 0.0f) return;
    const Vec3f normal = work.normal();
    const std::span<Vec3f> q = work.moved(edit);
    for (std::size_t i = 1; i < q.size(); ++i) {
        const Vec3f segment = work.points[i] - work.points[i - 1];
        const Vec3f d = normalized(segment);
        const float share = f * work.profileWithin(i);
        const Vec3f turned = share > 0.0f ? normal * share + d * (1.0f - share)
                                          : d - normal * (-share * dot(normal, d));
        q[i] = q[i - 1] + normalized(turned) * length(segment);
    }
}

void twistGuide(const BrushWork& work, BrushEdit& edit) {
    const float angle = work.guideWeight * work.strength(-1.0f, 1.0f) * 0.1f;
    if (angle != 0.0f) turnAboutRoot(work, work.normal(), angle, edit);
}

void curlGuide(const BrushWork& work, BrushEdit& edit) {
    const std::span<const Vec3f> p = work.points;
    const Vec3f along = normalized(p[1] - p[0]);
    Vec3f axis = cross(along, work.normal());
    if (length(axis) < 0.001f) axis = cross(along, work.guide.frameUp);
    if (length(axis) < 1e-6f) return;
    axis = normalized(axis);
    const float b = work.strength(-1.0f, 1.0f) * 0.25f / float(work.count() - 1);
    // Joints turn about one axis, so what lies beyond them turns by the sum.
    float angle = 0.0f;
    bool turned = false;
    Rotation turn;
    for (std::size_t i = 1; i + 1 < work.count(); ++i) {
        const float a = work.weights[i] * b * work.profileAt(i);
        if (a != 0.0f) {
            turned = true;
            turn = Rotation::about(axis, angle += a);
        }
        if (!turned) continue;
        const std::span<Vec3f> q = work.moved(edit);
        q[i + 1] = q[i] + turn(p[i + 1] - p[i]);
    }
}

void directionGuide(const BrushWork& work, BrushEdit& edit) {
    if (length(work.drag) == 0.0f) return;
    const float s = work.settings.strength;
    const Vec3f normal = normalized(work.normal());
    const auto across = [&](Vec3f v) { return v - normal * dot(v, normal); };
    Vec3f way = across(work.drag), lie = across(work.points.back() - work.points.front());
    if (length(way) < 1e-9f || length(lie) < 1e-6f) return;
    way = normalized(s < 0.0f ? -way : way);
    lie = normalized(lie);
    const float angle = math::atan2(dot(normal, cross(lie, way)), dot(lie, way));
    const float turn = angle * std::min(work.guideWeight * std::abs(s), 1.0f) * 0.5f;
    if (turn != 0.0f) turnAboutRoot(work, normal, turn, edit);
}

}  // namespace corvelle
