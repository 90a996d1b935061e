#include "operators/hairPigment.h"

#include <algorithm>
#include <cmath>

#include "model/elementary.h"

namespace corvelle {

namespace {

constexpr Vec3f kEumelanin{0.506f, 0.841f, 1.653f};    ///< absorption per unit of brown pigment
constexpr Vec3f kPheomelanin{0.343f, 0.733f, 1.924f};  ///< absorption per unit of red pigment
constexpr float kAlbedoScale = -5.888f;  ///< ln(reflected colour) per root of absorption
constexpr float kLeastLight = 1e-4f;

Vec3f absorption(float redness) { return kEumelanin * (1.0f - redness) + kPheomelanin * redness; }

}  // namespace

float pigmentOfMelanin(float melanin) { return -math::log(std::max(1.0f - melanin, kLeastLight)); }
float melaninOfPigment(float pigment) { return 1.0f - math::exp(-pigment); }

Vec3f pigmentColor(float melanin, float redness) {
    const Vec3f sigma = absorption(redness) * pigmentOfMelanin(melanin);
    const auto reflected = [](float s) {
        return math::exp(kAlbedoScale * std::sqrt(std::max(s, 0.0f)));
    };
    return {reflected(sigma.x), reflected(sigma.y), reflected(sigma.z)};
}

float melaninOfGreen(float green, float redness) {
    const float root = math::log(std::clamp(green, 1e-6f, 1.0f)) / kAlbedoScale;
    return melaninOfPigment(root * root / absorption(redness).y);
}

}  // namespace corvelle
