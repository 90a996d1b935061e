#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json displayCommand(const CommandContext& context);

}  // namespace corvelle
