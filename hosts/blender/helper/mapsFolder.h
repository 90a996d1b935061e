#pragma once

#include <string>

#include "hosts/blender/helper/helperSession.h"

namespace corvelle {

/// Where a session's painted maps go: as the host gave it, else a directory of the session's own
/// under the system's temporary one. UTF-8; not made here.
std::string effectiveMapsDir(const HelperSession& session);

/// The same, made if it is not there. The session's own is open to this user alone, and is emptied
/// when it is first used: an earlier process of the same number may have left it. It goes with the
/// session: lasting work wants a folder of the host's.
/// Fails with code io, "cannot write '<path>'".
std::string makeMapsDir(HelperSession& session);

/// "<name>.png" in a folder. Names become file names: one that could lead elsewhere (separators,
/// "..", a leading dot), or is empty or longer than 100 bytes, fails with code bad_request, "a
/// map's name cannot be a path".
std::string mapFile(const std::string& folder, const std::string& name);

}  // namespace corvelle
