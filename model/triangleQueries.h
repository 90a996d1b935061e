#pragma once

#include <cmath>

#include "model/simd4.h"
#include "model/vec3f.h"

namespace corvelle {

/// The closest point of a triangle (a, b, c): a + v (b - a) + w (c - a), with v, w >= 0 and
/// v + w <= 1 up to rounding.
template <class F>
struct TriangleClosest {
    F distanceSquared, v, w;
};

/// The closest point of a triangle to p, of one triangle (F float) or of four (F Float4), the same
/// bits either way. `a` to `p` in components: a, ab = b - a, ac = c - a, ap = p - a.
///
/// The Voronoi regions of Ericson, "Real-Time Collision Detection" (2005), 5.1.5, but without his
/// region tests, whose products cancel on slivers: the three edges are clamped and measured, the
/// face is a candidate where the projection lies inside, and the nearest candidate wins (face, ab,
/// ac, bc on ties). Each candidate is a point of the triangle, so a rounding error never gives a
/// distance below the true one, and a degenerate triangle is its longest edge or its point.
template <class F>
inline TriangleClosest<F> closestOnTriangle(F abx, F aby, F abz, F acx, F acy, F acz, F apx, F apy,
                                            F apz) {
    const F zero = F(0.0f), one = F(1.0f);
    const F abab = abx * abx + aby * aby + abz * abz;
    const F abac = abx * acx + aby * acy + abz * acz;
    const F acac = acx * acx + acy * acy + acz * acz;
    const F abap = abx * apx + aby * apy + abz * apz;
    const F acap = acx * apx + acy * apy + acz * apz;

    // Edges: the share along each, 0 where the edge has no length.
    const auto share = [&](F along, F squared) {
        const F t = lower(upper(along / squared, zero), one);
        return select(squared > zero, t, zero);
    };
    const auto squaredAt = [&](F v, F w) {
        const F dx = apx - (v * abx + w * acx);
        const F dy = apy - (v * aby + w * acy);
        const F dz = apz - (v * abz + w * acz);
        return dx * dx + dy * dy + dz * dz;
    };
    const F tab = share(abap, abab);
    const F tac = share(acap, acac);
    const F bcx = acx - abx, bcy = acy - aby, bcz = acz - abz;
    const F bpx = apx - abx, bpy = apy - aby, bpz = apz - abz;
    const F tbc = share(bcx * bpx + bcy * bpy + bcz * bpz, bcx * bcx + bcy * bcy + bcz * bcz);

    // Face: barycentrics by Cramer's rule over the Gram matrix.
    const F det = abab * acac - abac * abac;
    const F v = (acac * abap - abac * acap) / det;
    const F w = (abab * acap - abac * abap) / det;
    const auto inside = (det > zero) & (v >= zero) & (w >= zero) & (v + w <= one);

    TriangleClosest<F> best{squaredAt(tab, zero), tab, zero};
    const auto consider = [&](auto better, F d, F cv, F cw) {
        best.distanceSquared = select(better, d, best.distanceSquared);
        best.v = select(better, cv, best.v);
        best.w = select(better, cw, best.w);
    };
    const F dac = squaredAt(zero, tac);
    consider(dac < best.distanceSquared, dac, zero, tac);
    const F vbc = one - tbc;
    const F dbc = squaredAt(vbc, tbc);
    consider(dbc < best.distanceSquared, dbc, vbc, tbc);
    const F dface = squaredAt(v, w);
    consider(inside & (dface <= best.distanceSquared), dface, v, w);
    return best;
}

inline TriangleClosest<float> sharesOfClosest(Vec3f a, Vec3f b, Vec3f c, Vec3f p) {
    const Vec3f ab = b - a, ac = c - a, ap = p - a;
    return closestOnTriangle<float>(ab.x, ab.y, ab.z, ac.x, ac.y, ac.z, ap.x, ap.y, ap.z);
}

/// A ray made ready for `intersectTriangle`: the axis its direction is longest along becomes z, and
/// a shear takes the direction onto it.
struct ShearedRay {
    int kx = 0, ky = 1, kz = 2;
    float sx = 0.0f, sy = 0.0f, sz = 0.0f;
    Vec3f origin;
    ShearedRay(Vec3f from, Vec3f direction) : origin(from) {
        const float ax = std::fabs(direction.x), ay = std::fabs(direction.y),
                    az = std::fabs(direction.z);
        kz = ax > ay ? (ax > az ? 0 : 2) : (ay > az ? 1 : 2);
        kx = (kz + 1) % 3;
        ky = (kx + 1) % 3;
        sx = direction[kx] / direction[kz];
        sy = direction[ky] / direction[kz];
        sz = 1.0f / direction[kz];
    }
};

/// Whether the ray hits the triangle, from either side, at t > 0; the weights of a, b, c go to
/// `out`. Watertight: a ray through an edge or corner shared by triangles hits one of them. A
/// triangle seen edge-on is missed. Source: Woop, Benthin, Wald, "Watertight Ray/Triangle
/// Intersection", JCGT 2(1), 2013. We differ:
///         the edge functions are doubles from the start, exact for floats, in place of a second
///         try.
inline bool intersectTriangle(const ShearedRay& ray, Vec3f a, Vec3f b, Vec3f c, float& t, float& wa,
                              float& wb) {
    const Vec3f ra = a - ray.origin, rb = b - ray.origin, rc = c - ray.origin;
    const float ax = ra[ray.kx] - ray.sx * ra[ray.kz], ay = ra[ray.ky] - ray.sy * ra[ray.kz];
    const float bx = rb[ray.kx] - ray.sx * rb[ray.kz], by = rb[ray.ky] - ray.sy * rb[ray.kz];
    const float cx = rc[ray.kx] - ray.sx * rc[ray.kz], cy = rc[ray.ky] - ray.sy * rc[ray.kz];
    const double u = double(cx) * double(by) - double(cy) * double(bx);
    const double v = double(ax) * double(cy) - double(ay) * double(cx);
    const double w = double(bx) * double(ay) - double(by) * double(ax);
    if ((u < 0.0 || v < 0.0 || w < 0.0) && (u > 0.0 || v > 0.0 || w > 0.0)) return false;
    const double det = u + v + w;
    if (!(det != 0.0)) return false;  // also NaN
    const double scaled = u * double(ray.sz * ra[ray.kz]) + v * double(ray.sz * rb[ray.kz]) +
                          w * double(ray.sz * rc[ray.kz]);
    const float at = float(scaled / det);
    if (!(at > 0.0f) || !std::isfinite(at)) return false;
    t = at;
    wa = float(u / det);
    wb = float(v / det);
    return true;
}

}  // namespace corvelle
