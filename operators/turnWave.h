#pragma once

#include "model/simd4.h"

namespace corvelle {

// Waves over turns: arguments are turns (1 is once round), of any size, so that no angle is reduced
// by a rounded pi. Polynomials on the quarter turn (Taylor), within 2e-7; plain arithmetic, so that
// loops over them run in lanes and have the same bits everywhere. F is float or Float4.

/// Without the sign.
template <class F>
inline F sizeOf(F a) {
    return upper(a, F(0.0f) - a);
}

/// `turns` less the nearest whole number: -0.5 to 0.5.
template <class F>
inline F turnFraction(F turns) {
    // Rounds to the nearest by the last bit of a large float; beyond it floats are whole anyway.
    const F round(12582912.0f);  // 1.5 * 2^23
    const F whole = (turns + round) - round;
    return select(sizeOf(turns) < F(4194304.0f), turns - whole, F(0.0f));
}

/// sin of a quarter turn or less either way, given in turns.
template <class F>
inline F quarterSine(F x) {
    const F q = x * x;
    F p(-15.0946426f);           // (2 pi)^11 / 11!, negative
    p = p * q + F(42.0586939f);  // (2 pi)^9 / 9!
    p = p * q - F(76.7058597f);  // (2 pi)^7 / 7!
    p = p * q + F(81.6052493f);  // (2 pi)^5 / 5!
    p = p * q - F(41.3417022f);  // (2 pi)^3 / 3!
    p = p * q + F(6.28318531f);  // 2 pi
    return p * x;
}

/// Turns of the same sine within a quarter either way.
template <class F>
inline F quarterTurns(F turns) {
    const F x = turnFraction(turns);
    const F below = select(x < F(-0.25f), F(-0.5f) - x, x);
    return select(x > F(0.25f), F(0.5f) - x, below);
}

/// sin(2 pi turns).
template <class F>
inline F sineOfTurns(F turns) {
    return quarterSine(quarterTurns(turns));
}
/// cos(2 pi turns).
template <class F>
inline F cosineOfTurns(F turns) {
    return quarterSine(F(0.25f) - sizeOf(turnFraction(turns)));
}
/// Straight from peak to peak, with the peaks and zeros of the sine.
template <class F>
inline F triangleOfTurns(F turns) {
    return F(4.0f) * quarterTurns(turns);
}

}  // namespace corvelle
