#include <algorithm>
#include <stdexcept>
#include <string>

#include "model/elementary.h"
#include "model/guideFollow.h"
#include "model/polyline.h"

namespace corvelle {
namespace {

constexpr double kTinySquared = 1e-12;  // cm^2: segments and reflections below this are left out
constexpr double kTinyUp = 1e-6;        // what must remain of an up direction to count
constexpr float kTinyRadius = 1e-6f;    // tube radius below which offsets are not divided further

Vec3d normalizedOrZero(Vec3d v) {
    const double l = length(v);
    return l > 0.0 ? v * (1.0 / l) : Vec3d();
}

Vec3d perpendicularOf(Vec3d v) {
    const double x = std::abs(v.x), y = std::abs(v.y), z = std::abs(v.z);
    const Vec3d axis = x <= y && x <= z ? Vec3d(1, 0, 0) : y <= z ? Vec3d(0, 1, 0) : Vec3d(0, 0, 1);
    return normalizedOrZero(cross(v, axis));
}

Vec3d reflected(Vec3d x, Vec3d v, double squared) { return x - v * (2.0 / squared * dot(v, x)); }

/// The edge that gives the tangent at point i.
Vec3d edgeAt(std::span<const Vec3f> points, std::size_t i) {
    const std::size_t last = points.size() - 1;
    return Vec3d(points[i < last ? i + 1 : last]) - Vec3d(points[i > 0 ? i - 1 : 0]);
}

Vec3d firstDirection(std::span<const Vec3f> points) {
    for (std::size_t i = 0; i + 1 < points.size(); ++i) {
        const Vec3d edge = Vec3d(points[i + 1]) - Vec3d(points[i]);
        if (dot(edge, edge) > 0.0) return normalizedOrZero(edge);
    }
    return {0, 1, 0};
}

}  // namespace

Vec3f usableUp(std::span<const Vec3f> points, Vec3f up) {
    const Vec3d T = firstDirection(points);
    return length(Vec3d(up) - T * dot(T, Vec3d(up))) > kTinyUp ? up : perpendicularOf(T).narrow();
}

void guideFramesD(std::span<const Vec3f> points, Vec3f up, std::span<GuideFrameD> frames) {
    const Vec3d T = firstDirection(points);
    const Vec3d side = Vec3d(up) - T * dot(T, Vec3d(up));
    const double sideLength = length(side);
    const Vec3d N = sideLength > kTinyUp ? side * (1.0 / sideLength) : perpendicularOf(T);
    frames[0] = {T, N, cross(T, N)};

    for (std::size_t i = 1; i < points.size(); ++i) {
        const GuideFrameD& before = frames[i - 1];
        const Vec3d v1 = Vec3d(points[i]) - Vec3d(points[i - 1]);
        const double c1 = dot(v1, v1);
        const Vec3d edge = edgeAt(points, i);
        if (c1 < kTinySquared || !(dot(edge, edge) > 0.0)) {  // a dot, or a hairpin back on itself
            frames[i] = before;
            continue;
        }
        const Vec3d tangent = normalizedOrZero(edge);
        Vec3d normal = reflected(before.N, v1, c1);
        const Vec3d v2 = tangent - reflected(before.T, v1, c1);
        const double c2 = dot(v2, v2);
        if (c2 >= kTinySquared) normal = reflected(normal, v2, c2);
        normal = normalizedOrZero(normal - tangent * dot(tangent, normal));
        if (!(dot(normal, normal) > 0.0)) normal = perpendicularOf(tangent);
        frames[i] = {tangent, normal, cross(tangent, normal)};
    }
}

void guideFrames(std::span<const Vec3f> points, Vec3f up, std::span<GuideFrame> frames) {
    if (points.size() < 2) throw std::invalid_argument("frames: a guide needs at least 2 points");
    if (frames.size() != points.size())
        throw std::invalid_argument("frames: " + std::to_string(frames.size()) + " for " +
                                    std::to_string(points.size()) + " points, give one per point");
    std::vector<GuideFrameD> exact(points.size());
    guideFramesD(points, up, exact);
    for (std::size_t i = 0; i < exact.size(); ++i)
        frames[i] = {exact[i].T.narrow(), exact[i].N.narrow(), exact[i].B.narrow()};
}

float tubeProfile(std::span<const float> radius, float share) {
    if (radius.empty()) return 1.0f;
    if (radius.size() == 1) return radius.front();
    const float place = std::clamp(share, 0.0f, 1.0f) * float(radius.size() - 1);
    const std::size_t before = std::min(radius.size() - 2, std::size_t(place));
    return mix(radius[before], radius[before + 1], place - float(before));
}

ParentFrames::ParentFrames(const Guide& parent, std::size_t pointCount)
    : points_(pointCount), frames_(pointCount), tube_(pointCount) {
    std::span<const Vec3f> points = parent.points;
    std::vector<Vec3f> resampled;
    if (points.size() != pointCount) {
        resampled.resize(pointCount);
        resamplePolyline(points, resampled);
        points = resampled;
    }
    guideFramesD(points, parent.frameUp, frames_);
    for (std::size_t i = 0; i < pointCount; ++i) {
        const float share = float(i) / float(pointCount - 1);
        const double turn = double(parent.tubeTwist) * share;
        points_[i] = Vec3d(points[i]);
        tube_[i] = {tubeProfile(parent.tubeRadius, share), math::cos(turn), math::sin(turn)};
    }
}

Vec3d ParentFrames::place(std::size_t i, Vec3f offset) const {
    const auto [radius, cosine, sine] = tube_[i];
    const double x = double(offset.x) * cosine - double(offset.y) * sine;
    const double y = double(offset.x) * sine + double(offset.y) * cosine;
    return points_[i] + frames_[i].direction({x * radius, y * radius, offset.z});
}

Vec3d ParentFrames::offset(std::size_t i, Vec3d place) const {
    const auto [radius, cosine, sine] = tube_[i];
    const Vec3d parts = frames_[i].parts(place - points_[i]);
    const double scale = std::max(radius, double(kTinyRadius));
    const double x = parts.x / scale, y = parts.y / scale;
    return {x * cosine + y * sine, y * cosine - x * sine, parts.z};
}

void ParentFrames::rebuild(Guide& child) const {
    child.points.resize(points_.size());
    for (std::size_t i = 0; i < points_.size(); ++i)
        child.points[i] = place(i, child.offsets[i]).narrow();
    child.frameUp = first().direction(Vec3d(child.frameUpLocal)).narrow();
}

void ParentFrames::capturePoints(Guide& child) const {
    child.offsets.resize(points_.size());
    for (std::size_t i = 0; i < points_.size(); ++i)
        child.offsets[i] = offset(i, Vec3d(child.points[i])).narrow();
    captureRoot(child);
}

void ParentFrames::captureRoot(Guide& child) const {
    child.rootLocal = first().parts(Vec3d(child.points.front()) - points_.front()).narrow();
}

void ParentFrames::captureUp(Guide& child) const {
    child.frameUpLocal = first().parts(Vec3d(child.frameUp)).narrow();
}

bool allFinite(std::span<const Vec3f> points) {
    return std::all_of(points.begin(), points.end(), [](Vec3f p) { return isFinite(p); });
}

bool allFinite(std::span<const float> values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

}  // namespace corvelle
