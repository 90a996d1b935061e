#pragma once

#include "hosts/blender/helper/command.h"
#include "model/vec3f.h"

namespace corvelle {

/// Points of a request, in groom space. Throws as readFloats does, also when the conversion
/// overflows.
std::vector<Vec3f> readPoints(const Json& value, std::string_view label, const SceneSpace& space,
                              OpenedRegions& regions);

/// Carries the host's rest guides, if it gave any, onto the scalp as it is now.
void applyHostGuides(GroomSession& groom);

Json setScalpCommand(const CommandContext& context);
Json updateScalpCommand(const CommandContext& context);
Json getScalpCommand(const CommandContext& context);

}  // namespace corvelle
