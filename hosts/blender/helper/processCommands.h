#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

inline constexpr int kProtocol = 1;
inline constexpr int kVersionNumbers[3] = {0, 2, 1};
inline constexpr char kVersion[] = "0.2.1";

/// Each side checks the other: the host's protocol must be ours; the answer tells what this process
/// is and what it offers.
Json helloCommand(const CommandContext& context);
Json pingCommand(const CommandContext& context);
/// Lets the line loop end after this answer.
Json shutdownCommand(const CommandContext& context);

}  // namespace corvelle
