#pragma once

#include "hosts/blender/helper/command.h"

namespace corvelle {

// Hair out to Alembic and USD: a job that is fed frame by frame, or a whole run in one request.

Json exportOpenCommand(const CommandContext& context);
Json exportFrameCommand(const CommandContext& context);
Json exportCloseCommand(const CommandContext& context);
Json exportCommand(const CommandContext& context);

/// Gives the groom the guides of the session's guide cache at a time; without a cache nothing
/// happens. One that does not read leaves the guides as they are, and is told of as the groom's
/// `guidesError` until it reads again.
void playGuideCache(HelperSession& session, double seconds);

}  // namespace corvelle
