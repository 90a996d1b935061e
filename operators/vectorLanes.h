#pragma once

#include "model/vec3f.h"
#include "operators/polynomialTrig.h"

// Vectors and turns over F, under the rules of splineLanes.h. Over a plain float they are the
// scalar forms.

namespace corvelle {

namespace {

/// As Vec3f. Copies are spelled out for the sake of their target.
template <class F>
struct Lanes3 {
    F x, y, z;
    Lanes3() = default;
    CORVELLE_LANES_TARGET inline Lanes3(F a, F b, F c) : x(a), y(b), z(c) {}
    CORVELLE_LANES_TARGET inline Lanes3(const Lanes3& o) : x(o.x), y(o.y), z(o.z) {}
    CORVELLE_LANES_TARGET inline Lanes3& operator=(const Lanes3& o) {
        x = o.x;
        y = o.y;
        z = o.z;
        return *this;
    }
    /// Three numbers side by side.
    CORVELLE_LANES_TARGET static inline Lanes3 at(const F* p) { return {p[0], p[1], p[2]}; }
    CORVELLE_LANES_TARGET static inline Lanes3 all(const float* p) {
        return {F(p[0]), F(p[1]), F(p[2])};
    }
    CORVELLE_LANES_TARGET friend inline Lanes3 operator+(const Lanes3& a, const Lanes3& b) {
        return {a.x + b.x, a.y + b.y, a.z + b.z};
    }
    CORVELLE_LANES_TARGET friend inline Lanes3 operator-(const Lanes3& a, const Lanes3& b) {
        return {a.x - b.x, a.y - b.y, a.z - b.z};
    }
    CORVELLE_LANES_TARGET friend inline Lanes3 operator*(const Lanes3& a, F s) {
        return {a.x * s, a.y * s, a.z * s};
    }
    CORVELLE_LANES_TARGET friend inline Lanes3 operator/(const Lanes3& a, F s) {
        return {a.x / s, a.y / s, a.z / s};
    }
    CORVELLE_LANES_TARGET friend inline F dot(const Lanes3& a, const Lanes3& b) {
        return a.x * b.x + a.y * b.y + a.z * b.z;
    }
    CORVELLE_LANES_TARGET friend inline Lanes3 cross(const Lanes3& a, const Lanes3& b) {
        return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
    }
};

inline Lanes3<float> lanes3(Vec3f v) { return {v.x, v.y, v.z}; }
inline Vec3f vec3(const Lanes3<float>& v) { return {v.x, v.y, v.z}; }

template <class F, class M>
CORVELLE_LANES_TARGET inline Lanes3<F> select3(M mask, const Lanes3<F>& a, const Lanes3<F>& b) {
    return {select(mask, a.x, b.x), select(mask, a.y, b.y), select(mask, a.z, b.z)};
}

/// A mask of what is in both.
inline bool both(bool a, bool b) { return a && b; }
template <class M>
CORVELLE_LANES_TARGET inline M both(M a, M b) {
    return a & b;
}

/// Of a unit vector or a zero one: which it is.
template <class F>
CORVELLE_LANES_TARGET inline auto isThere(const Lanes3<F>& v) {
    return dot(v, v) > F(0.0f);
}

/// See normalized.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> unitOf(const Lanes3<F>& v) {
    const F size = squareRoot(dot(v, v)), zero(0.0f);
    return select3(size > zero, v / size, Lanes3<F>(zero, zero, zero));
}

/// See laidOnto.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> laidAcross(const Lanes3<F>& v, const Lanes3<F>& normal) {
    const F zero(0.0f), parallel(1e-4f * 1e-4f);
    const Lanes3<F> unit = unitOf(v);
    const Lanes3<F> laid = unit - normal * dot(unit, normal);
    const Lanes3<F> once = unitOf(laid);
    return select3(dot(laid, laid) > parallel, unitOf(once - normal * dot(once, normal)),
                   Lanes3<F>(zero, zero, zero));
}

/// The direction of the first segment that has a length: see firstDirection. points [3 n].
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> firstAcross(const F* points, std::size_t n) {
    const F zero(0.0f), one(1.0f);
    Lanes3<F> found(zero, zero, zero);
    F open = one;
    for (std::size_t i = 1; i < n && laneBits(open > zero) != 0; ++i) {
        const Lanes3<F> way =
            unitOf(Lanes3<F>::at(points + 3 * i) - Lanes3<F>::at(points + 3 * (i - 1)));
        found = select3(open > zero, way, found);
        open = select(isThere(found), zero, one);
    }
    return found;
}

/// The root's normal: the scalp's, or the strand's first direction, or +Y. See rootNormal.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> normalAcross(const Lanes3<F>& scalps,
                                                    const Lanes3<F>& first) {
    const F zero(0.0f);
    const Lanes3<F> own = select3(isThere(first), first, Lanes3<F>(zero, F(1.0f), zero));
    return select3(isThere(scalps), scalps, own);
}

/// What the root's frame has along the surface: the scalp's U direction, or X or Z laid onto it.
/// See rootFrame.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> alongAcross(const Lanes3<F>& tangent,
                                                   const Lanes3<F>& normal) {
    const F zero(0.0f), one(1.0f);
    Lanes3<F> along = laidAcross(Lanes3<F>(one, zero, zero), normal);
    along = select3(isThere(along), along, laidAcross(Lanes3<F>(zero, zero, one), normal));
    return select3(isThere(tangent), tangent, along);
}

/// The sine of -pi to pi and 1 less its cosine, by the series of half the angle, to within a
/// float's rounding; 0 gives 0 and 0.
template <class F>
CORVELLE_LANES_TARGET inline void sineAndRest(F angle, F& sine, F& rest) {
    const F one(1.0f), two(2.0f);
    const F h = F(0.5f) * angle, q = h * h;
    const F s =
        h *
        (one + q * (F(-1.0f / 6) +
                    q * (F(1.0f / 120) +
                         q * (F(-1.0f / 5040) + q * (F(1.0f / 362880) - q * F(1.0f / 39916800))))));
    const F c =
        one + q * (F(-0.5f) + q * (F(1.0f / 24) +
                                   q * (F(-1.0f / 720) +
                                        q * (F(1.0f / 40320) +
                                             q * (F(-1.0f / 3628800) + q * F(1.0f / 479001600))))));
    sine = two * s * c;
    rest = two * s * s;
}

/// A turn as the rows of its matrix.
template <class F>
struct LanesTurn {
    Lanes3<F> x, y, z;
    LanesTurn() = default;
    CORVELLE_LANES_TARGET inline LanesTurn(const Lanes3<F>& a, const Lanes3<F>& b,
                                           const Lanes3<F>& c)
        : x(a), y(b), z(c) {}
    CORVELLE_LANES_TARGET inline LanesTurn(const LanesTurn& o) : x(o.x), y(o.y), z(o.z) {}
    CORVELLE_LANES_TARGET inline LanesTurn& operator=(const LanesTurn& o) {
        x = o.x;
        y = o.y;
        z = o.z;
        return *this;
    }
    CORVELLE_LANES_TARGET inline Lanes3<F> operator()(const Lanes3<F>& v) const {
        return {dot(x, v), dot(y, v), dot(z, v)};
    }
    CORVELLE_LANES_TARGET friend inline LanesTurn operator*(const LanesTurn& t, F s) {
        return {t.x * s, t.y * s, t.z * s};
    }
    /// The turn that applies `first`, then this.
    CORVELLE_LANES_TARGET inline LanesTurn after(const LanesTurn& first) const {
        return {first.x * x.x + first.y * x.y + first.z * x.z,
                first.x * y.x + first.y * y.y + first.z * y.z,
                first.x * z.x + first.y * z.y + first.z * z.z};
    }
    /// About a unit axis, by an angle of this sine and 1 less this cosine (Rodrigues).
    CORVELLE_LANES_TARGET static inline LanesTurn about(const Lanes3<F>& a, F sine, F rest) {
        const F c = F(1.0f) - rest;
        const Lanes3<F> s = a * sine;
        return {{c + a.x * a.x * rest, a.x * a.y * rest - s.z, a.x * a.z * rest + s.y},
                {a.y * a.x * rest + s.z, c + a.y * a.y * rest, a.y * a.z * rest - s.x},
                {a.z * a.x * rest - s.y, a.z * a.y * rest + s.x, c + a.z * a.z * rest}};
    }
    /// By radians, -pi to pi.
    CORVELLE_LANES_TARGET static inline LanesTurn about(const Lanes3<F>& axis, F angle) {
        F sine, rest;
        sineAndRest(angle, sine, rest);
        return about(axis, sine, rest);
    }
};

inline Rotation rotation(const LanesTurn<float>& t) { return {vec3(t.x), vec3(t.y), vec3(t.z)}; }

/// A unit vector square to the unit `a`, by the axis it has the least of: see anyPerpendicular.
template <class F>
CORVELLE_LANES_TARGET inline Lanes3<F> perpendicularTo(const Lanes3<F>& a) {
    const F zero(0.0f);
    const F ax = upper(a.x, zero - a.x), ay = upper(a.y, zero - a.y), az = upper(a.z, zero - a.z);
    Lanes3<F> across(zero, a.z, zero - a.y);
    across = select3(ay < ax, Lanes3<F>(zero - a.z, zero, a.x), across);
    across = select3(az < lower(ax, ay), Lanes3<F>(a.y, zero - a.x, zero), across);
    return unitOf(across);
}

/// The shortest turn from the unit `from` to the unit `to`: a unit axis, the angle (0 to pi), its
/// sine and 1 less its cosine. Parallel and opposite ones turn about perpendicularTo(from).
template <class F>
struct LanesArc {
    Lanes3<F> axis;
    F angle, sine, rest;
};
template <class F>
CORVELLE_LANES_TARGET inline void arcBetween(const Lanes3<F>& from, const Lanes3<F>& to,
                                             LanesArc<F>& arc) {
    const F zero(0.0f), one(1.0f), half(0.5f);
    const F cosine = dot(from, to);
    const auto back = cosine < zero;
    // The cross of `from` with `to` is that with their difference, or sum, too; where the two are
    // all but parallel, or opposite, that has no rounding left to lose the cross product in.
    const Lanes3<F> step = select3(back, to + from, to - from);
    const Lanes3<F> across = cross(from, step);
    arc.sine = squareRoot(dot(across, across));
    arc.axis = select3(arc.sine > F(1e-6f), across / arc.sine, perpendicularTo(from));
    // Of the acute angle: 1 less the cosine, from which follows the angle.
    const F rest = half * dot(step, step);
    const F acute =
        squareRoot(rest) * arcCosineRatio(lower(one, select(back, zero - cosine, cosine)));
    arc.angle = select(back, F(std::numbers::pi_v<float>) - acute, acute);
    arc.rest = select(back, F(2.0f) - rest, rest);
}

}  // namespace

}  // namespace corvelle
