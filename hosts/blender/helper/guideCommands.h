#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json getGuidesCommand(const CommandContext& context);
Json setGuidesCommand(const CommandContext& context);

}  // namespace corvelle
