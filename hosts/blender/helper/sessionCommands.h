#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

/// {"upAxis", "metersPerUnit", "centimetersPerUnit"}.
Json spaceJson(const SceneSpace& space);

Json newSessionCommand(const CommandContext& context);
Json closeSessionCommand(const CommandContext& context);
Json setOptionsCommand(const CommandContext& context);
Json setSpaceCommand(const CommandContext& context);
Json setTimeCommand(const CommandContext& context);

}  // namespace corvelle
