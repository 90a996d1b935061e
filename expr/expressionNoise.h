#pragma once

#include "model/vec3f.h"

namespace corvelle::expression {

// The procedural textures of the expression language. Pure; any argument is allowed, but results
// may be infinite or NaN where arguments are extreme (a gain of -1): callers make them finite.
// The seeds are frozen: grooms depend on the values.

float noise(Vec3f p);
/// Three noises from one lattice.
Vec3f vectorNoise(Vec3f p);
/// Octaves are truncated and count as 1 below 1, as 16 above 16. The frequency is multiplied by the
/// lacunarity, the amplitude by the gain, at each octave; the sum is over the sum of amplitudes.
float fbm(Vec3f p, float octaves, float lacunarity, float gain);
float turbulence(Vec3f p, float octaves, float lacunarity, float gain);
Vec3f vectorFbm(Vec3f p, float octaves, float lacunarity, float gain);
/// One value in [0, 1) per cell of the unit lattice.
float cellNoise(Vec3f p);
/// Distance to the nearest (mode 1) or second nearest (2) feature point, or the second less the
/// first (3), among the cells around (Worley, "A cellular texture basis function", SIGGRAPH 1996;
/// one point a cell, moved from its centre by up to half a cell times `jitter`, 0 to 1).
float voronoi(Vec3f p, float jitter, float mode);

}  // namespace corvelle::expression
