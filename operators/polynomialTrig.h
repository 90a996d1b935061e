#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>

namespace corvelle {

// Angles and their sines by polynomials, without branches and table look-ups: loops over them run
// in SIMD lanes and have the same bits on every platform, which a library's functions need not
// have.

/// acos for -1 to 1, within 1e-7 (Abramowitz, Stegun, "Handbook of Mathematical
/// Functions", 4.4.46).
inline float arcCosine(float c) {
    const float x = std::min(std::abs(c), 1.0f);
    float p = -0.0012624911f;
    p = p * x + 0.0066700901f;
    p = p * x - 0.0170881256f;
    p = p * x + 0.0308918810f;
    p = p * x - 0.0501743046f;
    p = p * x + 0.0889789874f;
    p = p * x - 0.2145988016f;
    p = p * x + 1.5707963050f;
    const float angle = std::sqrt(1.0f - x) * p;
    return c < 0.0f ? std::numbers::pi_v<float> - angle : angle;
}

/// sin(x) / x for -pi to pi, within 1e-6: the Taylor series.
inline float sineRatio(float x) {
    const float q = x * x;
    float p = -1.0f / 1307674368000.0f;
    p = p * q + 1.0f / 6227020800.0f;
    p = p * q - 1.0f / 39916800.0f;
    p = p * q + 1.0f / 362880.0f;
    p = p * q - 1.0f / 5040.0f;
    p = p * q + 1.0f / 120.0f;
    p = p * q - 1.0f / 6.0f;
    return p * q + 1.0f;
}

/// The sine and cosine of -pi to pi, within 1e-6.
inline float sineOf(float x) { return x * sineRatio(x); }
inline float cosineOf(float x) { return sineOf(0.5f * std::numbers::pi_v<float> - std::abs(x)); }

}  // namespace corvelle
