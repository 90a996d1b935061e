#pragma once

#include "model/simd4.h"

namespace corvelle {

// Frames along strands over F: one strand (float) or several side by side (Float4), with the same
// bits a lane.

/// As Vec3f.
template <class F>
struct Wide3 {
    F x, y, z;
    friend Wide3 operator+(const Wide3& a, const Wide3& b) {
        return {a.x + b.x, a.y + b.y, a.z + b.z};
    }
    friend Wide3 operator-(const Wide3& a, const Wide3& b) {
        return {a.x - b.x, a.y - b.y, a.z - b.z};
    }
    friend Wide3 operator*(const Wide3& a, F s) { return {a.x * s, a.y * s, a.z * s}; }
    friend F dot(const Wide3& a, const Wide3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
    friend Wide3 cross(const Wide3& a, const Wide3& b) {
        return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
    }
};

inline constexpr float kTinyStepSquared =
    1e-24f;                                       ///< cm^2: shorter ones say nothing of a direction
inline constexpr float kTinySideSquared = 1e-8f;  ///< of what is left of a normal
/// What rounding adds up to is taken out of the normals at every such point, not at each, since
/// each has to wait for the one before it.
inline constexpr std::size_t kSettleEvery = 16;

/// The normal after one step of double reflection: mirrored in the plane half way along the step,
/// then in the one that makes the mirrored tangent the new one, `after`.
template <class F>
inline Wide3<F> reflectedNormal(const Wide3<F>& step, F stepSquared, const Wide3<F>& after,
                                const Wide3<F>& tangent, const Wide3<F>& normal) {
    const F first = F(2.0f) / stepSquared;
    const Wide3<F> mirrored = normal - step * (first * dot(step, normal));
    const Wide3<F> turn = after - (tangent - step * (first * dot(step, tangent)));
    const F turnSquared = dot(turn, turn);
    const auto turns = turnSquared > F(1e-12f);
    const Wide3<F> turned = mirrored - turn * (F(2.0f) / turnSquared * dot(turn, mirrored));
    return {select(turns, turned.x, mirrored.x), select(turns, turned.y, mirrored.y),
            select(turns, turned.z, mirrored.z)};
}

}  // namespace corvelle
