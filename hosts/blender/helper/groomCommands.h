#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

struct GroomFile;

Json loadGroomCommand(const CommandContext& context);
Json saveGroomCommand(const CommandContext& context);
Json groomInfoCommand(const CommandContext& context);
Json newGroomCommand(const CommandContext& context);

/// The answer of groom_info.
Json groomInfo(const HelperSession& session);

/// The document as it is saved, with the host's name as its source if it has none.
GroomFile hostDocument(const HelperSession& session);

}  // namespace corvelle
