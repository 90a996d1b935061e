#pragma once

#include <algorithm>
#include <cmath>

namespace corvelle {

/// Three 32-bit floats without padding: 12 bytes, in arrays, in files and on the wire.
struct Vec3f {
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    constexpr float& operator[](int axis) { return axis == 0 ? x : axis == 1 ? y : z; }
    constexpr float operator[](int axis) const { return axis == 0 ? x : axis == 1 ? y : z; }

    constexpr Vec3f& operator+=(Vec3f o) {
        x += o.x;
        y += o.y;
        z += o.z;
        return *this;
    }
    constexpr Vec3f& operator-=(Vec3f o) {
        x -= o.x;
        y -= o.y;
        z -= o.z;
        return *this;
    }
    constexpr Vec3f& operator*=(float s) {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }

    friend constexpr Vec3f operator+(Vec3f a, Vec3f b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
    friend constexpr Vec3f operator-(Vec3f a, Vec3f b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
    friend constexpr Vec3f operator-(Vec3f a) { return {-a.x, -a.y, -a.z}; }
    friend constexpr Vec3f operator*(Vec3f a, float s) { return {a.x * s, a.y * s, a.z * s}; }
    friend constexpr Vec3f operator*(float s, Vec3f a) { return {a.x * s, a.y * s, a.z * s}; }
    friend constexpr Vec3f operator*(Vec3f a, Vec3f b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
    friend constexpr Vec3f operator/(Vec3f a, float s) { return {a.x / s, a.y / s, a.z / s}; }
    /// By value: -0 equals 0, NaN equals nothing.
    friend constexpr bool operator==(const Vec3f&, const Vec3f&) = default;
};
static_assert(sizeof(Vec3f) == 12);

constexpr float dot(Vec3f a, Vec3f b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
constexpr Vec3f cross(Vec3f a, Vec3f b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
constexpr float lengthSquared(Vec3f a) { return dot(a, a); }
inline float length(Vec3f a) { return std::sqrt(dot(a, a)); }
inline float distance(Vec3f a, Vec3f b) { return length(a - b); }
/// `a` over its length; zero stays zero.
inline Vec3f normalized(Vec3f a) {
    const float l = length(a);
    return l > 0.0f ? a / l : Vec3f{};
}
constexpr Vec3f mix(Vec3f a, Vec3f b, float t) { return a + (b - a) * t; }
constexpr float mix(float a, float b, float t) { return a + (b - a) * t; }
inline bool isFinite(Vec3f a) {
    return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z);
}
constexpr Vec3f componentMin(Vec3f a, Vec3f b) {
    return {std::min(a.x, b.x), std::min(a.y, b.y), std::min(a.z, b.z)};
}
constexpr Vec3f componentMax(Vec3f a, Vec3f b) {
    return {std::max(a.x, b.x), std::max(a.y, b.y), std::max(a.z, b.z)};
}

/// A unit vector square to `a`: the cross of `a` with the axis of its smallest |component|
/// (x before y before z on ties); (1, 0, 0) for a zero vector.
Vec3f anyPerpendicular(Vec3f a);

/// The shortest rotation that takes one direction to another, as a matrix of rows.
struct Rotation {
    Vec3f row0{1, 0, 0}, row1{0, 1, 0}, row2{0, 0, 1};
    Vec3f operator()(Vec3f p) const { return {dot(row0, p), dot(row1, p), dot(row2, p)}; }
    /// The rotation that applies `first`, then this.
    Rotation after(const Rotation& first) const;
    Rotation inverse() const;
    /// By `angleRadians` about the unit `axis`, right-handed (Rodrigues).
    static Rotation about(Vec3f axis, float angleRadians);
    /// From the unit `from` to the unit `to` by the shortest arc; antiparallel directions turn half
    /// a turn about `anyPerpendicular(from)`; zero vectors give the identity.
    static Rotation shortest(Vec3f from, Vec3f to);
};

/// A 2D value: texture coordinates.
struct Vec2f {
    float x = 0.0f;
    float y = 0.0f;
    friend constexpr bool operator==(const Vec2f&, const Vec2f&) = default;
};
static_assert(sizeof(Vec2f) == 8);

/// Linear red, green, blue and alpha.
struct Color4f {
    float r = 0.0f, g = 0.0f, b = 0.0f, a = 1.0f;
    friend constexpr bool operator==(const Color4f&, const Color4f&) = default;
};
static_assert(sizeof(Color4f) == 16);

/// Linear red, green and blue as a Vec3f reads them: Rec. 709 luminance.
constexpr float luminance(float r, float g, float b) {
    return 0.2126f * r + 0.7152f * g + 0.0722f * b;
}

}  // namespace corvelle
