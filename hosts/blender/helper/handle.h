#pragma once

#include <string_view>

#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/request.h"

namespace corvelle {

/// The reply to a request: {"id", "ok": true, "result"} or {"error": {"code", "message"}, "id",
/// "ok": false}. The one place where a failure becomes a reply; throws nothing a command throws.
/// (What it may throw is std::bad_alloc, when there is no memory even for the reply of a failure.)
Json handle(HelperState& state, const Json& request);

/// The reply of a failure.
Json failureReply(const Json& id, std::string_view code, std::string_view message);

}  // namespace corvelle
