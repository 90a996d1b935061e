#pragma once

#include <cmath>

namespace corvelle {

/// Calls pass(strength) so often, and each time with so much, that no pass has more than 1:
/// ceil(strength) times (up to 64) with an equal share. Returns whether any pass did something.
template <class Pass>
bool smoothPasses(float strength, Pass&& pass) {
    constexpr int kMostPasses = 64;
    const float whole = std::abs(strength);
    int passes = 1;
    while (passes < kMostPasses && float(passes) < whole) ++passes;
    bool changed = false;
    for (int p = 0; p < passes; ++p) changed = pass(whole / float(passes)) || changed;
    return changed;
}

}  // namespace corvelle
