#pragma once

#include "model/vec3f.h"

namespace corvelle {

/// Linear RGB of a hue in turns, with saturation and value 0 to 1.
Vec3f hsvColor(float hueTurns, float saturation, float value);
/// 0 to 1 (clamped; what is no number counts as 0): blue, cyan, green, yellow, red.
Vec3f heatColor(float share);

}  // namespace corvelle
