#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>

namespace corvelle {

// Angles and their sines by polynomials, without branches and table look-ups: loops over them run
// in SIMD lanes and have the same bits on every platform, which a library's functions need not
// have.

/// acos for -1 to 1, within 1.2e-6: sqrt(1 - x) times a polynomial (Abramowitz, Stegun, "Handbook
/// of Mathematical Functions", 4.4.45), its coefficients fitted for the least greatest error.
inline float arcCosine(float c) {
    const float x = std::min(std::abs(c), 1.0f);
    float p = -0.004337170221f;
    p = p * x + 0.01934826519f;
    p = p * x - 0.04495723878f;
    p = p * x + 0.08787565108f;
    p = p * x - 0.2145122717f;
    p = p * x + 1.570795206f;
    const float angle = std::sqrt(1.0f - x) * p;
    return c < 0.0f ? std::numbers::pi_v<float> - angle : angle;
}

/// sin(x) / x for -pi to pi, within 2e-7: fitted likewise.
inline float sineRatio(float x) {
    const float q = x * x;
    float p = -2.070215948e-8f;
    p = p * q + 2.70893044e-6f;
    p = p * q - 1.98177167e-4f;
    p = p * q + 8.332794522e-3f;
    p = p * q - 0.1666662148f;
    return p * q + 0.9999999386f;
}

/// The sine and cosine of -pi to pi, within 1e-6.
inline float sineOf(float x) { return x * sineRatio(x); }
inline float cosineOf(float x) { return sineOf(0.5f * std::numbers::pi_v<float> - std::abs(x)); }

}  // namespace corvelle
