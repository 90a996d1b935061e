#pragma once

#include <memory>
#include <span>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// One strand as a smooth curve through its points: centripetal Catmull-Rom (Yuksel, Schaefer,
/// Keyser, "On the parameterization of Catmull-Rom curves", SPM 2009), measured by arc length. The
/// same curve, with the same measure, as SplineResampler's, for one strand and free places.
/// Holds scratch that is reused from strand to strand: one per batch, not shared between threads.
class StrandSpline {
public:
    StrandSpline();
    ~StrandSpline();
    /// Takes a strand of 2 points or more; `points` must live while this is asked. A strand of
    /// length 0 is read by index.
    void build(std::span<const Vec3f> points);
    std::size_t pointCount() const { return points_.size(); }

    /// Params are point indices with a fraction: 2.25 is a quarter of the way from point 2 to
    /// point 3. Fills params of out.size() (>= 2) places evenly spaced by arc length, root and tip
    /// exact.
    void evenParams(std::span<float> params) const;
    Vec3f at(float param) const;

private:
    struct Spans;
    std::span<const Vec3f> points_;
    std::unique_ptr<Spans> spans_;
};

/// A per-point value at a param: between points, or for ids and flags that of the nearer point.
float valueAt(std::span<const float> values, float param, bool discrete);

}  // namespace corvelle
