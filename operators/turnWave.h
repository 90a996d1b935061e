#pragma once

#include <cmath>

namespace corvelle {

// Waves over turns: arguments are turns (1 is once round), of any size, so that no angle is reduced
// by a rounded pi. Polynomials on the quarter turn (Taylor), within 2e-7; plain arithmetic, so that
// loops over them run in lanes and have the same bits everywhere.

/// `turns` less the nearest whole number: -0.5 to 0.5.
inline float turnFraction(float turns) {
    // Rounds to the nearest by the last bit of a large float; beyond it floats are whole anyway.
    constexpr float kRound = 12582912.0f;  // 1.5 * 2^23
    const float whole = (turns + kRound) - kRound;
    return std::fabs(turns) < 4194304.0f ? turns - whole : 0.0f;
}

/// sin of a quarter turn or less either way, given in turns.
inline float quarterSine(float x) {
    const float q = x * x;
    float p = -15.0946426f;   // (2 pi)^11 / 11!, negative
    p = p * q + 42.0586939f;  // (2 pi)^9 / 9!
    p = p * q - 76.7058597f;  // (2 pi)^7 / 7!
    p = p * q + 81.6052493f;  // (2 pi)^5 / 5!
    p = p * q - 41.3417022f;  // (2 pi)^3 / 3!
    p = p * q + 6.28318531f;  // 2 pi
    return p * x;
}

/// sin(2 pi turns).
inline float sineOfTurns(float turns) {
    const float x = turnFraction(turns);
    const float folded = x > 0.25f ? 0.5f - x : x < -0.25f ? -0.5f - x : x;
    return quarterSine(folded);
}
/// cos(2 pi turns).
inline float cosineOfTurns(float turns) {
    const float x = turnFraction(turns);
    return quarterSine(0.25f - std::fabs(x));
}
/// Straight from peak to peak, with the peaks and zeros of the sine.
inline float triangleOfTurns(float turns) {
    const float x = turnFraction(turns);
    return 4.0f * (x > 0.25f ? 0.5f - x : x < -0.25f ? -0.5f - x : x);
}

}  // namespace corvelle
