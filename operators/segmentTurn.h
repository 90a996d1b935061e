#pragma once

#include <span>

#include "model/ramp.h"
#include "model/vec3f.h"

namespace corvelle {

/// How far each segment of a strand goes: strength times the profile at its middle, held to 0..1.
/// out[i] is for the segment that ends at point i, out[0] without meaning. out [n].
void segmentShares(std::span<const Vec3f> points, const Ramp& profile, float strength,
                   std::span<float> out);

/// Turns each segment of a strand toward a direction by a share of the angle between them and puts
/// the strand together again from the root out: every segment keeps its length, the root its place.
/// `toward` need not be unit; zero copies the strand. shares [n] or [1], 0..1: shares[i] is for the
/// segment that ends at point i, shares[0] unused when there are n. Points before the first segment
/// that turns keep their bits. A segment that points straight away turns in a plane picked from its
/// own direction. out [n], apart from `points`. No allocation.
///
/// The turn is the spherical interpolation of Shoemake, "Animating rotation with quaternion curves"
/// (SIGGRAPH 1985), its angle and sines by polynomials (polynomialTrig.h): within 1e-5.
void turnSegments(std::span<const Vec3f> points, Vec3f toward, std::span<const float> shares,
                  std::span<Vec3f> out);

}  // namespace corvelle
