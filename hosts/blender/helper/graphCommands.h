#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json operatorSpecsCommand(const CommandContext& context);
Json defaultGraphCommand(const CommandContext& context);
Json getGraphCommand(const CommandContext& context);
Json setGraphCommand(const CommandContext& context);
Json listNodesCommand(const CommandContext& context);
Json nodeSpecCommand(const CommandContext& context);
Json getParamCommand(const CommandContext& context);
Json setParamCommand(const CommandContext& context);
Json editGraphCommand(const CommandContext& context);

}  // namespace corvelle
