#include "hosts/blender/helper/colorScales.h"

#include <algorithm>
#include <cmath>

namespace corvelle {

Vec3f hsvColor(float hueTurns, float saturation, float value) {
    const float hue = (hueTurns - std::floor(hueTurns)) * 6.0f;
    const auto part = [&](float shift) {
        const float k = std::fmod(shift + hue, 6.0f);
        return value - value * saturation * std::clamp(std::min(k, 4.0f - k), 0.0f, 1.0f);
    };
    return {part(5.0f), part(3.0f), part(1.0f)};
}

Vec3f heatColor(float share) {
    if (!(share > 0.0f)) return {0, 0, 1};
    constexpr Vec3f kStops[] = {{0, 0, 1}, {0, 1, 1}, {0, 1, 0}, {1, 1, 0}, {1, 0, 0}};
    const float at = std::min(share, 1.0f) * 4.0f;
    const int i = std::min(int(at), 3);
    return mix(kStops[i], kStops[i + 1], at - float(i));
}

}  // namespace corvelle
