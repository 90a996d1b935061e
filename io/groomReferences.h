#pragma once

#include <string>
#include <vector>

#include "io/groomFile.h"

namespace corvelle {

/// What a groom names by relative paths, and would no longer find from another folder: files of
/// node params (also inside compounds) and of texture maps, which are looked for in the groom's
/// folder and by its search paths. One line for each, for the user. Caches are not asked: their
/// names are turned to the new folder when a groom is saved there. `file` as it was opened,
/// `folder` absolute. Looks at the file system.
std::vector<std::string> filesLeftBehind(const GroomFile& file, const std::string& folder);

}  // namespace corvelle
