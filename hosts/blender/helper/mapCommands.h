#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json mapsListCommand(const CommandContext& context);
Json mapCreateCommand(const CommandContext& context);
Json mapRemoveCommand(const CommandContext& context);

/// A map's name is part of its image's: throws RequestError (bad_request) "a map's name cannot be a
/// path" for what is empty, longer than 100 bytes, begins with a dot or holds a separator or "..".
void checkMapName(const std::string& name);

}  // namespace corvelle
