#include "operators/clumpAxes.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "model/elementary.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "operators/strandFrames.h"

namespace corvelle {

namespace {

using Point = ClumpAxes::Point;
using Frame = ClumpAxes::Frame;

constexpr std::size_t kAxisGrain = 64;

void measureAxis(std::span<const Vec3f> from, bool extend, std::span<Point> out) {
    const std::size_t last = from.size() - 1;
    Vec3f direction;
    float arc = 0.0f;
    for (std::size_t i = 0; i <= last; ++i) {
        Point& point = out[i];
        point.place = from[i];
        point.arc = arc;
        if (i == last) break;
        const Vec3f segment = from[i + 1] - from[i];
        const float size = length(segment);
        point.perArc = size > 0.0f ? 1.0f / size : 0.0f;
        point.step = segment * point.perArc;
        if (size > 0.0f) direction = point.step;
        arc += size;
    }
    out[last].step = extend ? direction : Vec3f{};
    out[last].perArc = 0.0f;
}

/// The ribbon's width at the root: along the surface, across the way the hair leans.
Vec3f surfaceWidth(const AxisCurve& curve) {
    const Vec3f lean = curve.points.back() - curve.points.front();
    const Vec3f width = cross(laidOnto(lean, curve.frame.y), curve.frame.y);
    return width == Vec3f{} ? curve.frame.x : width;
}

void carryFrames(const AxisCurve& curve, const AxisSettings& settings, std::span<Vec3f> tangents,
                 std::span<Vec3f> normals, std::span<Frame> out) {
    const Vec3f first = firstDirection(curve.points);
    // What lies on the surface at the root turns with the shortest turn from its normal.
    const Rotation onto =
        Rotation::shortest(curve.frame.y, first == Vec3f{} ? curve.frame.y : first);
    const auto carried = [&](Vec3f direction) {
        transportFrames(curve.points, direction, tangents, normals);
    };
    if (settings.frames) {
        carried(onto(curve.frame.x));
        for (std::size_t i = 0; i < out.size(); ++i) {
            out[i].x = normals[i];
            out[i].z = cross(normals[i], tangents[i]);
        }
    }
    switch (settings.flatten) {
        case FlattenMode::None:
            return;
        case FlattenMode::Surface:
            carried(surfaceWidth(curve));
            break;
        case FlattenMode::Random:
            carried(onto(curve.frame.x * math::cos(curve.turn) +
                         curve.frame.z * math::sin(curve.turn)));
            break;
        case FlattenMode::Direction:
            carried(curve.frame.x);
            for (Vec3f& width : normals.first(out.size())) width = settings.flattenDirection;
            break;
    }
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i].across = normalized(cross(tangents[i], normals[i]));
}

}  // namespace

ClumpAxes::ClumpAxes(std::span<const AxisCurve> curves, const AxisSettings& settings)
    : offsets_(curves.size() + 1, 0) {
    static_assert(sizeof(Point) == 8 * sizeof(float));
    std::size_t& most = mostPoints_;
    for (std::size_t a = 0; a < curves.size(); ++a) {
        offsets_[a + 1] = offsets_[a] + curves[a].points.size() + 1;
        most = std::max(most, curves[a].points.size());
    }
    const bool framed = settings.frames || settings.flatten != FlattenMode::None;
    points_.resize(offsets_.back());
    frames_.resize(framed ? offsets_.back() : 0);
    parallelRange(0, curves.size(), kAxisGrain, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> scratch(framed ? 2 * most : 0);
        for (std::size_t a = begin; a < end; ++a) {
            const std::size_t n = curves[a].points.size();
            points_[offsets_[a] + n].arc = std::numeric_limits<float>::quiet_NaN();
            measureAxis(curves[a].points, settings.extend,
                        std::span(points_).subspan(offsets_[a], n));
            if (framed)
                carryFrames(curves[a], settings, std::span(scratch).first(n),
                            std::span(scratch).subspan(n, n),
                            std::span(frames_).subspan(offsets_[a], n));
        }
    });
}

void copyShapes(std::span<const Vec3f> own, std::span<const std::span<const Vec3f>> others,
                float amount, std::span<Vec3f> out) {
    const std::size_t n = own.size();
    std::vector<Vec3f> other(n), sum(n);
    std::vector<float> shares(n);
    polylineShares(own, shares);
    for (const std::span<const Vec3f> curve : others) {
        resamplePolyline(curve, other);
        for (std::size_t i = 0; i < n; ++i) sum[i] += other[i] - curve.front();
    }
    // The means lie at even shares; the own points may not.
    const float share = 1.0f / float(others.size()), last = float(n - 1);
    for (std::size_t i = 0; i < n; ++i) {
        const float at = shares[i] * last;
        const std::size_t k = std::min(std::size_t(at), n - 1), next = std::min(k + 1, n - 1);
        const Vec3f shape = mix(sum[k], sum[next], at - float(k)) * share;
        out[i] = mix(own[i], own.front() + shape, amount);
    }
    out[0] = own[0];
}

}  // namespace corvelle
