#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/vec3f.h"
#include "operators/rootFrame.h"

namespace corvelle {

/// Which way a flat clump lies.
enum class FlattenMode { None, Surface, Random, Direction };

/// What the axes of clumps carry beside their points.
struct AxisSettings {
    bool extend = false;  ///< past its tip an axis goes on straight, else it ends
    bool frames = false;  ///< for locks
    FlattenMode flatten = FlattenMode::None;
    Vec3f flattenDirection{1.0f, 0.0f, 0.0f};  ///< unit, for Direction
};

/// A center curve and where it stands.
struct AxisCurve {
    std::span<const Vec3f> points;  ///< 1 or more, root first
    RootFrame frame;                ///< at its root
    float turn = 0.0f;              ///< radians that a ribbon is turned by, for Random
};

/// The axes of clumps as strands read them, in flat arrays.
class ClumpAxes {
public:
    /// A point of an axis, and how the axis goes on from it by arc length.
    struct Point {
        Vec3f place;
        float arc = 0.0f;     ///< cm from the root
        Vec3f step;           ///< per cm
        float perArc = 0.0f;  ///< 1 / the segment's length; 0 at the tip
        Vec3f at(float s) const { return place + step * (s - arc); }
    };
    /// Directions at a point: of the lock's disc, and square to the ribbon.
    struct Frame {
        Vec3f x, z;    ///< as the root frame's x and z, carried along
        Vec3f across;  ///< the way a ribbon is thin; zero: none
    };

    ClumpAxes(std::span<const AxisCurve> curves, const AxisSettings& settings);
    std::size_t size() const { return offsets_.size() - 1; }
    /// One more may be read behind the last, of an arc that nothing is at or past (NaN).
    std::span<const Point> pointsOf(std::size_t axis) const {
        return std::span(points_).subspan(offsets_[axis], pointCountOf(axis));
    }
    /// Empty unless locks or ribbons were asked for.
    std::span<const Frame> framesOf(std::size_t axis) const {
        if (frames_.empty()) return {};
        return std::span(frames_).subspan(offsets_[axis], pointCountOf(axis));
    }
    float lengthOf(std::size_t axis) const { return points_[offsets_[axis + 1] - 2].arc; }

    /// For kernels: 8 floats a point, as Point holds them, where each axis begins, and how many
    /// points the longest has.
    const float* flat() const { return points_.empty() ? nullptr : &points_[0].place.x; }
    std::span<const std::size_t> offsets() const { return offsets_; }
    std::size_t mostPoints() const { return mostPoints_; }

private:
    std::size_t pointCountOf(std::size_t axis) const {
        return offsets_[axis + 1] - offsets_[axis] - 1;
    }
    std::vector<std::size_t> offsets_;
    std::size_t mostPoints_ = 0;
    std::vector<Point> points_;
    std::vector<Frame> frames_;
};

/// Takes on a share of the mean shape of other curves, each from its root, at equal shares of the
/// length: out [points] of `own`.
void copyShapes(std::span<const Vec3f> own, std::span<const std::span<const Vec3f>> others,
                float amount, std::span<Vec3f> out);

}  // namespace corvelle
