#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json mapsListCommand(const CommandContext& context);
Json mapCreateCommand(const CommandContext& context);
Json mapRemoveCommand(const CommandContext& context);

}  // namespace corvelle
