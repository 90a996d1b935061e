#pragma once

#include <cmath>
#include <span>
#include <vector>

#include "model/guideHierarchy.h"

namespace corvelle {

// How a guide follows its parent. Worked in doubles: what is lost between a follower's points and
// its stored offsets is then the rounding of the offsets alone, also far from the origin.

struct Vec3d {
    double x = 0.0, y = 0.0, z = 0.0;
    Vec3d() = default;
    Vec3d(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}
    explicit Vec3d(Vec3f v) : x(v.x), y(v.y), z(v.z) {}
    Vec3f narrow() const { return {float(x), float(y), float(z)}; }
    friend Vec3d operator+(Vec3d a, Vec3d b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
    friend Vec3d operator-(Vec3d a, Vec3d b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
    friend Vec3d operator*(Vec3d a, double s) { return {a.x * s, a.y * s, a.z * s}; }
};
inline double dot(Vec3d a, Vec3d b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3d cross(Vec3d a, Vec3d b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double length(Vec3d a) { return std::sqrt(dot(a, a)); }

/// The frame of one point of a guide; see `guideFrames`.
struct GuideFrameD {
    Vec3d T, N, B;
    /// Parts of a direction on (N, B, T), and back.
    Vec3d parts(Vec3d d) const { return {dot(d, N), dot(d, B), dot(d, T)}; }
    Vec3d direction(Vec3d nbt) const { return N * nbt.x + B * nbt.y + T * nbt.z; }
};
void guideFramesD(std::span<const Vec3f> points, Vec3f up, std::span<GuideFrameD> frames);

/// `up` where it leaves a first frame, else the normal that stands in for it: what a rotation or a
/// reflection of the guide must turn for its followers to turn with it.
Vec3f usableUp(std::span<const Vec3f> points, Vec3f up);

/// A parent as followers of one point count read it. Immutable once made.
class ParentFrames {
public:
    /// `pointCount` >= 2. The parent's points are resampled where it has another count.
    ParentFrames(const Guide& parent, std::size_t pointCount);
    std::size_t pointCount() const { return points_.size(); }
    const GuideFrameD& first() const { return frames_.front(); }
    /// Where an offset of point i lies, and the offset of a place.
    Vec3d place(std::size_t i, Vec3f offset) const;
    Vec3d offset(std::size_t i, Vec3d place) const;

    /// `points` and `frameUp` from `offsets` and `frameUpLocal`.
    void rebuild(Guide& child) const;
    /// `offsets` and `rootLocal` from `points`; sizes must match.
    void capturePoints(Guide& child) const;
    void captureRoot(Guide& child) const;  ///< `rootLocal` from the first point
    void captureUp(Guide& child) const;    ///< `frameUpLocal` from `frameUp`

private:
    struct Tube {
        double radius, cosine, sine;
    };
    std::vector<Vec3d> points_;
    std::vector<GuideFrameD> frames_;
    std::vector<Tube> tube_;
};

bool allFinite(std::span<const Vec3f> points);
bool allFinite(std::span<const float> values);

}  // namespace corvelle
