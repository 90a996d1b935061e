#include "tools/brushWeight.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "tools/screenOcclusion.h"

namespace corvelle {
namespace {

constexpr std::size_t kChunk = 64;  // places turned over at a time, on the stack

template <class Map>
PointWeight weightThrough(PointWeight weight, Map map) {
    const bool isThreadSafe = weight.threadSafe;
    return PointWeight(
        [weight = std::move(weight), map](std::span<const Vec3f> places, std::span<float> out) {
            std::array<Vec3f, kChunk> turned;
            for (std::size_t begin = 0; begin < places.size(); begin += kChunk) {
                const std::size_t count = std::min(kChunk, places.size() - begin);
                for (std::size_t i = 0; i < count; ++i) turned[i] = map(places[begin + i]);
                weight({turned.data(), count}, out.subspan(begin, count));
            }
        },
        isThreadSafe);
}

/// The box round the images of a box's corners.
template <class Map>
BoxReach reachThrough(BoxReach reach, Map map) {
    return [reach = std::move(reach), map](Vec3f low, Vec3f high) {
        Vec3f least = map(low), most = least;
        for (int corner = 1; corner < 8; ++corner) {
            const Vec3f p = map({corner & 1 ? high.x : low.x, corner & 2 ? high.y : low.y,
                                 corner & 4 ? high.z : low.z});
            least = componentMin(least, p);
            most = componentMax(most, p);
        }
        return reach(least, most);
    };
}

/// A plane of groom space.
struct SidePlane {
    double a, b, c, d;
    /// The least that the plane says of any place of the box.
    double least(Vec3f low, Vec3f high) const {
        return a * double(a > 0.0 ? low.x : high.x) + b * double(b > 0.0 ? low.y : high.y) +
               c * double(c > 0.0 ? low.z : high.z) + d;
    }
};

/// `x` times row 0 or 1 of the view's matrix plus `w` times the row of w.
SidePlane sidePlane(const ToolView& view, std::size_t row, double x, double w) {
    const std::array<double, 16>& m = view.matrix;
    const auto mixed = [&](std::size_t k) { return x * m[4 * row + k] + w * m[12 + k]; };
    return {mixed(0), mixed(1), mixed(2), mixed(3)};
}

/// `ifBehind`: the answer for a box with a corner behind the camera.
BoxReach screenReach(const ToolView& view, double x, double y, float radiusPixels, bool ifBehind) {
    const double reach = double(radiusPixels) + 1.0;
    const double halfWidth = 0.5 * view.width, halfHeight = 0.5 * view.height;
    // Nearly all boxes lie wholly to one side of the circle. That takes no division: before the
    // camera (w > 0), px > x + reach is one plane, and so are the other three.
    const std::array<SidePlane, 4> sides = {
        sidePlane(view, 0, halfWidth, halfWidth - x - reach),
        sidePlane(view, 0, -halfWidth, x - reach - halfWidth),
        sidePlane(view, 1, halfHeight, halfHeight - y - reach),
        sidePlane(view, 1, -halfHeight, y - reach - halfHeight)};
    const SidePlane camera = sidePlane(view, 0, 0.0, 1.0);
    return [view, x, y, reach, ifBehind, sides, camera](Vec3f low, Vec3f high) {
        if (!(camera.least(low, high) > 1e-9)) return ifBehind;
        for (const SidePlane& side : sides)
            if (side.least(low, high) > 0.0) return false;
        constexpr double kFar = std::numeric_limits<double>::infinity();
        double x0 = kFar, y0 = kFar, x1 = -kFar, y1 = -kFar;
        for (int corner = 0; corner < 8; ++corner) {
            double px = 0.0, py = 0.0;
            if (!view.project({corner & 1 ? high.x : low.x, corner & 2 ? high.y : low.y,
                               corner & 4 ? high.z : low.z},
                              px, py))
                return ifBehind;
            x0 = std::min(x0, px);
            y0 = std::min(y0, py);
            x1 = std::max(x1, px);
            y1 = std::max(y1, py);
        }
        const double dx = std::max({x0 - x, x - x1, 0.0});
        const double dy = std::max({y0 - y, y - y1, 0.0});
        return dx * dx + dy * dy <= reach * reach;
    };
}

Vec3f mirrored(Vec3f p, int axis, float center) {
    p[axis] = 2.0f * center - p[axis];
    return p;
}

}  // namespace

float brushFalloff(float distance, float radius, float hardness, const Ramp* profile) {
    brushFalloff({&distance, 1}, radius, hardness, profile);
    return distance;
}

void brushFalloff(std::span<float> distances, float radius, float hardness, const Ramp* profile) {
    const float full = std::clamp(hardness, 0.0f, 1.0f);
    const bool byProfile = profile && !profile->keys().empty();
    for (float& d : distances) {
        if (!(radius > 0.0f) || !(d < radius)) {
            d = 0.0f;
            continue;
        }
        const float share = d / radius;
        if (byProfile) {
            d = std::clamp((*profile)(share), 0.0f, 1.0f);
        } else if (full < 1.0f && share > full) {
            const float t = (share - full) / (1.0f - full);
            d = (1.0f - t * t) * (1.0f - t * t);
        } else {
            d = 1.0f;
        }
    }
}

PointWeight sphereWeight(Vec3f center, float radius, float hardness,
                         std::shared_ptr<const Ramp> profile) {
    return PointWeight([center, radius, hardness, profile = std::move(profile)](
                           std::span<const Vec3f> places, std::span<float> out) {
        for (std::size_t i = 0; i < places.size(); ++i) out[i] = distance(places[i], center);
        brushFalloff(out, radius, hardness, profile.get());
    });
}

PointWeight screenBrushWeight(const ToolView& view, double x, double y, float radiusPixels,
                              float hardness, std::shared_ptr<const Ramp> profile,
                              std::shared_ptr<const ScreenOcclusionCache> occlusion) {
    return PointWeight([view, x, y, radiusPixels, hardness, profile = std::move(profile),
                        occlusion = std::move(occlusion)](std::span<const Vec3f> places,
                                                          std::span<float> out) {
        const std::array<double, 16>& m = view.matrix;
        const double halfWidth = 0.5 * view.width, halfHeight = 0.5 * view.height;
        // The pointer measured from the middle, so that no division is left but the one by w.
        const double px = x - halfWidth, py = y - halfHeight;
        for (std::size_t i = 0; i < places.size(); ++i) {
            const double a = double(places[i].x), b = double(places[i].y), c = double(places[i].z);
            const double w = m[12] * a + m[13] * b + m[14] * c + m[15];
            const double dx = (m[0] * a + m[1] * b + m[2] * c + m[3]) / w * halfWidth - px;
            const double dy = (m[4] * a + m[5] * b + m[6] * c + m[7]) / w * halfHeight - py;
            // Also for what is no number.
            out[i] = w > 1e-9 ? float(std::sqrt(dx * dx + dy * dy))
                              : std::numeric_limits<float>::infinity();
        }
        brushFalloff(out, radiusPixels, hardness, profile.get());
        if (occlusion) occlusion->maskWeights(places, out);
    });
}

BoxReach screenBrushReach(const ToolView& view, double x, double y, float radiusPixels) {
    return screenReach(view, x, y, radiusPixels, false);
}

BoxReach screenBrushMayReach(const ToolView& view, double x, double y, float radiusPixels) {
    return screenReach(view, x, y, radiusPixels, true);
}

PointWeight mirroredWeight(PointWeight weight, int axis, float center) {
    return weightThrough(std::move(weight),
                         [axis, center](Vec3f p) { return mirrored(p, axis, center); });
}

BoxReach mirroredReach(BoxReach reach, int axis, float center) {
    return [reach = std::move(reach), axis, center](Vec3f low, Vec3f high) {
        const Vec3f a = mirrored(low, axis, center), b = mirrored(high, axis, center);
        return reach(componentMin(a, b), componentMax(a, b));
    };
}

PointWeight mappedWeight(PointWeight weight, const SideMap& toOriginal) {
    return weightThrough(std::move(weight), toOriginal);
}

BoxReach mappedReach(BoxReach reach, const SideMap& toOriginal) {
    return reachThrough(std::move(reach), toOriginal);
}

float BrushStamp::weight(Vec3f place) const {
    float out = 0.0f;
    weights({&place, 1}, {&out, 1});
    return out;
}

void BrushStamp::weights(std::span<const Vec3f> places, std::span<float> out) const {
    if (weightFunction) {
        weightFunction(places, out);
        for (float& w : out) w = w > 0.0f ? std::min(w, 1.0f) : 0.0f;
    } else {
        for (std::size_t i = 0; i < places.size(); ++i) out[i] = distance(places[i], center);
        brushFalloff(out, radius, hardness, falloffProfile.get());
    }
    if (scale != 1.0f)
        for (float& w : out) w *= scale;
}

bool BrushStamp::reaches(Vec3f low, Vec3f high) const {
    return weightFunction ? !reach || reach(low, high) : sphereReaches(low, high);
}

bool BrushStamp::mayReachWithin(Vec3f low, Vec3f high) const {
    return weightFunction ? !mayReach || mayReach(low, high) : sphereReaches(low, high);
}

bool BrushStamp::sphereReaches(Vec3f low, Vec3f high) const {
    const Vec3f nearest = componentMax(low, componentMin(center, high));
    // A hair wider than the sphere, for the rounding of two square roots.
    return lengthSquared(nearest - center) <= radius * radius * 1.00001f;
}

}  // namespace corvelle
