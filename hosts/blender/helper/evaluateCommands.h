#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

Json evaluateCommand(const CommandContext& context);
Json statsCommand(const CommandContext& context);
/// Texts of the groom that did not read, for hosts.
Json dataErrorsJson(const GroomSession& groom);
Json nodeStatusCommand(const CommandContext& context);

}  // namespace corvelle
