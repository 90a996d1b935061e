#pragma once

#include <vector>

#include "model/ramp.h"

namespace corvelle {

/// The slope at each key of a smooth ramp, as its evaluation uses it: for kernels that evaluate
/// many places side by side. A weighted harmonic mean of the slopes on both sides (Fritsch, Butland
/// 1984), 0 at peaks and flats.
std::vector<float> rampSlopes(const std::vector<Ramp::Key>& keys);

}  // namespace corvelle
