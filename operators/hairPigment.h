#pragma once

#include "model/vec3f.h"

namespace corvelle {

inline constexpr float kDefaultMelanin = 0.35f;
inline constexpr float kDefaultRedness = 0.2f;
inline constexpr float kGreyMelanin = 0.02f;  ///< what is left in a grey strand, without redness

/// Pigment concentration of a melanin share: -ln(1 - melanin), melanin up to 0.9999.
float pigmentOfMelanin(float melanin);
float melaninOfPigment(float pigment);

/// The colour of hair under white light from its pigment, linear RGB: eumelanin and pheomelanin
/// absorption (d'Eon et al., "An Energy-Conserving Hair Reflectance Model", EGSR 2011), turned to a
/// reflected colour by the albedo inversion exp(-5.888 sqrt(sigma)) (after Chiang et al., "A Practical
/// and Controllable Hair and Fur Model for Production Path Tracing", EGSR 2016).
/// `melanin` 0 (white) to 1 (black), `redness` 0 (brown) to 1 (red).
Vec3f pigmentColor(float melanin, float redness);
/// The melanin whose pigment, at that redness, reflects this much green.
float melaninOfGreen(float green, float redness);

}  // namespace corvelle
