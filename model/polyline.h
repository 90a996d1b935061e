#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

// Small measures and resamplers of one polyline, root first. No allocation: outputs are the
// caller's spans. Shapes: points [n].

float polylineLength(std::span<const Vec3f> points);

/// Arc length from the root at each point: out [n], out[0] = 0.
void polylineLengths(std::span<const Vec3f> points, std::span<float> out);

/// out[i] = share of the arc length at point i, 0 root to 1 tip; by index when the length is 0.
/// Returns the arc length.
float polylineShares(std::span<const Vec3f> points, std::span<float> out);

/// Resamples to out.size() points evenly spaced by arc length over the first `fraction` (0..1) of
/// the polyline, straight between the given points. The root is exact, and the tip at fraction 1;
/// a polyline of length 0 is read by index.
void resamplePolyline(std::span<const Vec3f> points, std::span<Vec3f> out, float fraction = 1.0f);

/// Centripetal Catmull-Rom (Yuksel, Schaefer, Keyser, "On the parameterization of Catmull-Rom
/// curves", SPM 2009) through `points`: `samplesPerSpan` (>= 1) samples a span, the last point
/// closing the list: out [(n - 1) * samplesPerSpan + 1]. Point i is exact at sample
/// i * samplesPerSpan. End tangents from mirrored end points; n < 3 is joined straight.
void catmullRom(std::span<const Vec3f> points, int samplesPerSpan, std::span<Vec3f> out);

}  // namespace corvelle
