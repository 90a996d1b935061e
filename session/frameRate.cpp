#include "session/frameRate.h"

#include <cmath>

namespace corvelle {

namespace {

bool isWhole(double rate) { return std::abs(rate - std::round(rate)) < 1e-9; }

/// The whole rate that `rate` is the NTSC form of, or 0.
double ntscBase(double rate) {
    if (isWhole(rate)) return 0.0;
    const double n = std::round(rate * 1.001);
    return n >= 1.0 && std::abs(rate * 1.001 - n) < n * 0.0001 ? n : 0.0;
}

}  // namespace

double effectiveRate(double rate) {
    if (!(rate > 0.0) || !std::isfinite(rate)) return 24.0;
    const double n = ntscBase(rate);
    return n > 0.0 ? n * 1000.0 / 1001.0 : rate;
}

double framesFromSeconds(double seconds, double rate) {
    const double n = ntscBase(rate);
    return n > 0.0 ? n * 1000.0 * seconds / 1001.0 : seconds * rate;
}

double secondsFromFrames(double frame, double rate) {
    const double n = ntscBase(rate);
    return n > 0.0 ? frame * 1001.0 / (n * 1000.0) : frame / rate;
}

}  // namespace corvelle
