#pragma once

#include <numbers>

#include "model/simd4.h"

// As in splineLanes.h: a source compiled for other instruction sets defines it first.
#ifndef CORVELLE_LANES_TARGET
#define CORVELLE_LANES_TARGET
#endif

namespace corvelle {

namespace {  // a copy of its own for every source: each has its own target

// Angles and their sines by polynomials, without branches and table look-ups: over a float or over
// several side by side they have the same bits on every platform, which a library's functions need
// not have.

/// acos(x) / sqrt(1 - x) for 0 to 1, within 1.2e-6: a polynomial (Abramowitz, Stegun, "Handbook of
/// Mathematical Functions", 4.4.45), its coefficients fitted for the least greatest error.
template <class F>
CORVELLE_LANES_TARGET inline F arcCosineRatio(F x) {
    F p(-0.004337170221f);
    p = p * x + F(0.01934826519f);
    p = p * x - F(0.04495723878f);
    p = p * x + F(0.08787565108f);
    p = p * x - F(0.2145122717f);
    return p * x + F(1.570795206f);
}
/// acos for -1 to 1, likewise.
template <class F>
CORVELLE_LANES_TARGET inline F arcCosine(F c) {
    const F zero(0.0f), one(1.0f);
    const F x = lower(one, upper(c, zero - c));
    const F angle = squareRoot(one - x) * arcCosineRatio(x);
    return select(c < zero, F(std::numbers::pi_v<float>) - angle, angle);
}

/// sin(x) / x for -pi to pi, within 2e-7: fitted likewise.
template <class F>
CORVELLE_LANES_TARGET inline F sineRatio(F x) {
    const F q = x * x;
    F p(-2.070215948e-8f);
    p = p * q + F(2.70893044e-6f);
    p = p * q - F(1.98177167e-4f);
    p = p * q + F(8.332794522e-3f);
    p = p * q - F(0.1666662148f);
    return p * q + F(0.9999999386f);
}

/// The sine and cosine of -pi to pi, within 1e-6.
template <class F>
CORVELLE_LANES_TARGET inline F sineOf(F x) {
    return x * sineRatio(x);
}
template <class F>
CORVELLE_LANES_TARGET inline F cosineOf(F x) {
    return sineOf(F(0.5f * std::numbers::pi_v<float>) - upper(x, F(0.0f) - x));
}

}  // namespace

}  // namespace corvelle
