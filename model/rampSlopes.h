#pragma once

#include <vector>

#include "model/ramp.h"

namespace corvelle {

/// The slope at each key of a smooth ramp, as Ramp::at reads it: for kernels that evaluate many
/// places side by side.
std::vector<float> rampSlopes(const std::vector<Ramp::Key>& keys);

}  // namespace corvelle
