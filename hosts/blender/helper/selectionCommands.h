#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json hoverCommand(const CommandContext& context);
Json hoverClearCommand(const CommandContext& context);
Json selectCommand(const CommandContext& context);
Json selectionGetCommand(const CommandContext& context);
Json selectionSetCommand(const CommandContext& context);
Json pickLevelCommand(const CommandContext& context);
Json setHiddenGroupsCommand(const CommandContext& context);

}  // namespace corvelle
