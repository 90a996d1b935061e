// Brushes that take shape out of guides: smooth, straighten.
#include "tools/brushModes.h"

namespace corvelle {

void relaxGuide(const BrushWork& work, float strength, BrushEdit& edit) {
    const std::span<const Vec3f> p = work.points;
    const std::size_t n = work.count();
    for (std::size_t i = 1; i < n; ++i) {
        const float a = work.weights[i] * strength * 0.5f * work.profileWithin(i);
        if (!(a > 0.0f)) continue;
        const Vec3f target = i + 1 < n ? (p[i - 1] + p[i + 1]) * 0.5f
                             : n < 3   ? p[i]
                                       : 2.0f * p[i - 1] - p[i - 2];
        work.moved(edit)[i] = mix(p[i], target, a);
    }
    work.keepLengths(edit);
}

void smoothGuide(const BrushWork& work, BrushEdit& edit) {
    relaxGuide(work, work.strength(0.0f, 1.0f), edit);
}

void straightenGuide(const BrushWork& work, BrushEdit& edit) {
    const std::span<const Vec3f> p = work.points;
    const float b = work.strength(0.0f, 1.0f) * 0.5f;
    const Vec3f along = normalized(p[1] - p[0]);
    float l = 0.0f;
    for (std::size_t i = 1; i < work.count(); ++i) {
        l += distance(p[i], p[i - 1]);
        const float a = work.weights[i] * b * work.profileWithin(i);
        if (a > 0.0f) work.moved(edit)[i] = mix(p[i], p[0] + along * l, a);
    }
    work.keepLengths(edit);
}

}  // namespace corvelle
