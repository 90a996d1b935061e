#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// A sculpt keyed in time: offsets of guide points that fade in and out around a frame.
struct CorrectiveLayer {
    std::string name;
    double time = 0.0;                                                      ///< frame
    double fadeIn = 0.0, fadeOut = 0.0, holdBefore = 0.0, holdAfter = 0.0;  ///< frames
    double weight = 1.0;
    bool enabled = true;
    std::int64_t slot = 0;
    std::vector<std::pair<float, float>>
        weightCurve;  ///< (frame, weight), replaces fade and weight
    /// By guide id: one offset a point, in the frame of the guide's root triangle (first edge,
    /// normal x edge, normal), or groom axes for a guide without one.
    std::map<std::uint64_t, std::vector<Vec3f>> offsets;
    friend bool operator==(const CorrectiveLayer&, const CorrectiveLayer&) = default;
};

struct Correctives {
    std::vector<CorrectiveLayer> layers;
    friend bool operator==(const Correctives&, const Correctives&) = default;
};

/// What the layer counts for at a frame; 0 when it is off. `weight` within the hold before or after
/// `time`, from there eased down to 0 over the fade of that side; or the value of `weightCurve` there,
/// its keys joined smoothly.
double correctiveWeight(const CorrectiveLayer& layer, double frame);

/// Blank text, or {"layers": [{"name": ..., ...}]}: every key of a layer but its name may be left out.
/// Throws std::invalid_argument naming the layer and what is wrong; "invalid stoull argument" for a
/// guide id in `offsets` that is no decimal number, std::out_of_range "stoull argument out of range"
/// for one above 64 bits; for text that is no JSON what the JSON library says.
Correctives readCorrectives(std::string_view text);
/// The text of all layers, keys ascending, offsets in their shortest form; empty for no layers.
std::string correctivesJson(const Correctives& correctives);

}  // namespace corvelle
