#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

/// {"upAxis", "metersPerUnit", "centimetersPerUnit"}.
Json spaceJson(const SceneSpace& space);

/// Where a session's painted maps go: as the host gave it, else a directory of the session's own
/// under the system's temporary one. UTF-8; not made here.
std::string effectiveMapsDir(const HelperSession& session);

Json newSessionCommand(const CommandContext& context);
Json closeSessionCommand(const CommandContext& context);
Json setOptionsCommand(const CommandContext& context);
Json setSpaceCommand(const CommandContext& context);
Json setTimeCommand(const CommandContext& context);

}  // namespace corvelle
