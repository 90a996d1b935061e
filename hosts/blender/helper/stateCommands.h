#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json getStateCommand(const CommandContext& context);
Json setStateCommand(const CommandContext& context);

}  // namespace corvelle
