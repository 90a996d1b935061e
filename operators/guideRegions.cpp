#include "operators/guideRegions.h"

#include <algorithm>
#include <numeric>

namespace corvelle {

namespace {

/// Squared distance from p to the segment from a to b.
float toSegment(Vec3f p, Vec3f a, Vec3f b) {
    const Vec3f along = b - a;
    const float length2 = lengthSquared(along);
    const float t = length2 > 0.0f ? std::clamp(dot(p - a, along) / length2, 0.0f, 1.0f) : 0.0f;
    return lengthSquared(p - (a + along * t));
}

constexpr float kSame2 = GuideRegions::kSameColor * GuideRegions::kSameColor;

}  // namespace

GuideRegions::GuideRegions(std::span<const Vec3f> colors) : ofGuides_(colors.size(), 0) {
    std::vector<std::uint32_t> order(colors.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        const Vec3f u = colors[a], v = colors[b];
        return u.x != v.x ? u.x < v.x : u.y != v.y ? u.y < v.y : u.z < v.z;
    });
    for (const std::uint32_t guide : order) {
        const Vec3f color = colors[guide];
        std::size_t nearest = regions_.size();
        float least = kSame2;
        // Ascending in red: the ones that may be near are the last ones.
        for (std::size_t r = regions_.size(); r-- > 0 && color.x - regions_[r].x <= kSameColor;) {
            const float d = lengthSquared(color - regions_[r]);
            if (d <= least) {
                least = d;
                nearest = r;
            }
        }
        if (nearest == regions_.size()) regions_.push_back(color);
        ofGuides_[guide] = std::int32_t(nearest);
    }
    index_ = PointIndex(regions_);
    low_ = high_ = regions_.empty() ? Vec3f{} : regions_.front();
    for (const Vec3f color : regions_) {
        low_ = componentMin(low_, color);
        high_ = componentMax(high_, color);
    }
}

bool GuideRegions::isMix(Vec3f color, std::size_t nearest) const {
    for (int axis = 0; axis < 3; ++axis)
        if (color[axis] < low_[axis] - kSameColor || color[axis] > high_[axis] + kSameColor)
            return false;
    // Mostly a mix with the nearest one.
    for (const Vec3f other : regions_)
        if (toSegment(color, regions_[nearest], other) <= kSame2) return true;
    for (std::size_t a = 0; a < regions_.size(); ++a)
        for (std::size_t b = a + 1; b < regions_.size(); ++b)
            if (toSegment(color, regions_[a], regions_[b]) <= kSame2) return true;
    return false;
}

std::int32_t GuideRegions::of(Vec3f color) const {
    Neighbor nearest;
    if (!index_.nearestOne(color, nearest)) return -1;
    if (nearest.distanceSquared <= kSame2 || isMix(color, nearest.index))
        return std::int32_t(nearest.index);
    return -1;
}

}  // namespace corvelle
