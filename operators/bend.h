#pragma once

#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// Where along a strand a bend takes place, as shares of its arc length.
struct BendSpan {
    float start = 0.0f;
    float end = 1.0f;  ///< at or below `start`: a kink at `start`
};

/// The unit direction of a strand where its bend starts, which the turn counts from; zero for a
/// strand without a length. `shares` [n] are the points' shares of the arc length, points [n].
Vec3f bendDirection(std::span<const Vec3f> points, std::span<const float> shares, float start);

/// `angle` limited so that a direction `toNormal` away from the normal neither turns past the
/// normal nor sinks below the tangent plane. Radians, positive toward the normal.
float limitedToScalp(float angle, float toNormal);

/// A turn about a unit axis.
struct Bending {
    Vec3f axis;
    float angle = 0.0f;  ///< radians; 0: the strand stays
};
/// The bend of a strand from its unit direction by `angle` (-pi to pi) toward another; none when
/// either is zero. `limited`: toward the scalp's normal, see limitedToScalp.
Bending bendToward(Vec3f heading, Vec3f toward, float angle, bool limited);

/// What share of the turn a share of the length takes.
float sharesToTurn(BendSpan span);

/// Turns each segment about the unit `axis`, right-handed, by the share of `angle` (radians)
/// reached at its tip end: none up to the start, all of it from the end on. Segments keep their
/// lengths, and the points up to the start their places. `angle` -pi to pi. out [n].
void bendStrand(std::span<const Vec3f> points, std::span<const float> shares, BendSpan span,
                Vec3f axis, float angle, std::span<Vec3f> out);

}  // namespace corvelle
