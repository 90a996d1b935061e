#pragma once

#include <span>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// One strand as a smooth curve through its points: centripetal Catmull-Rom (Yuksel, Schaefer,
/// Keyser, "On the parameterization of Catmull-Rom curves", SPM 2009), measured by arc length.
/// Holds scratch that is reused from strand to strand: one per batch, not shared between threads.
class StrandSpline {
public:
    /// Pieces that a span between two points is measured in.
    static constexpr int kPieces = 4;

    /// Takes a strand of 2 points or more; `points` must live while this is asked. A strand of length
    /// 0 is read by index.
    void build(std::span<const Vec3f> points);
    float length() const { return arc_.back(); }
    std::size_t pointCount() const { return points_.size(); }

    /// Params are point indices with a fraction: 2.25 is a quarter of the way from point 2 to point 3.
    /// Fills params of out.size() (>= 2) places evenly spaced by arc length, root and tip exact.
    void evenParams(std::span<float> params) const;
    /// The param at each arc length of an ascending list.
    void paramsAt(std::span<const float> lengths, std::span<float> params) const;
    Vec3f at(float param) const;
    /// Arc length at a param, at the resolution of the pieces.
    float lengthAt(float param) const;

private:
    std::span<const Vec3f> points_;
    std::vector<Vec3f> tangents_;  ///< two per span: leaving its start, reaching its end
    std::vector<float> arc_;       ///< arc length at each piece's end: [spans * kPieces + 1]
};

/// A per-point value at a param: between points, or for ids and flags that of the nearer point.
float valueAt(std::span<const float> values, float param, bool discrete);

}  // namespace corvelle
