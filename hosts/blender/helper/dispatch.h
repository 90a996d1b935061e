#pragma once

#include <string_view>

#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/request.h"

namespace corvelle {

/// The session that a request names.
/// Throws: RequestError "missing \"session\"", "\"session\" must be a session's number"
/// (bad_request), "no session <n>" (no_session).
HelperSession& sessionOf(HelperState& state, const Json& request);

/// Runs the command `cmd` of `request` and returns its result, an object. The shared memory that
/// the request names stays open until then.
/// Throws: RequestError of code unknown_command or unsupported, and what the command throws.
Json dispatch(HelperState& state, std::string_view cmd, const Json& request);

}  // namespace corvelle
