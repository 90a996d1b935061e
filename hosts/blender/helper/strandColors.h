#pragma once

#include <string>
#include <vector>

#include "hosts/blender/helper/request.h"
#include "session/groomSession.h"

namespace corvelle {

enum class ColorMode { Solid, ColorSet, Attribute, Random, Clump, Density };

/// How a host wants the strands coloured.
struct StrandColorRequest {
    ColorMode mode = ColorMode::Solid;
    std::string channel;           ///< attribute: a channel of the strands
    std::string map;               ///< attribute: a map of the groom in place of a channel
    std::string name;              ///< colorSet: the set's
    float min = 0.0f, max = 1.0f;  ///< attribute: the values of the scale's ends
    bool perPoint = false;
    std::string clumpChannel = "clumpId";
};
/// Throws RequestError (bad_request), among others "colorMode is solid, colorSet, attribute,
/// random, clump or density" and "colorMode is 0-5".
StrandColorRequest readStrandColors(const Json& value);
const char* colorModeName(ColorMode mode);

/// Linear colours of the last evaluation's strands, one a strand, or one a point with `perPoint`.
/// Throws RequestError (not_found) for a channel, map or colour set that is not there.
std::vector<Vec3f> strandColors(GroomSession& groom, const StrandColorRequest& request);

}  // namespace corvelle
