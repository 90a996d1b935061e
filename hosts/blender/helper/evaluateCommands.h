#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json evaluateCommand(const CommandContext& context);
Json statsCommand(const CommandContext& context);
Json nodeStatusCommand(const CommandContext& context);

}  // namespace corvelle
