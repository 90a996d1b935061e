#include "io/groomPaths.h"

#include "model/utf8Path.h"

namespace corvelle {

namespace {

std::string genericText(const std::filesystem::path& path) {
    const std::u8string text = path.generic_u8string();
    return std::string(text.begin(), text.end());
}

/// A text that can be no path: using it fails, and says so.
bool isNoPath(const std::string& path) {
    return path.empty() || path.find('\0') != std::string::npos;
}

bool holdsVariable(const std::string& path) {
    return path.find_first_of("$%") != std::string::npos;
}

/// Absolute on any system: Windows takes a path without a drive for no absolute one, but a groom
/// from elsewhere must come out of it with its paths as they were.
bool standsAlone(const std::string& path) { return utf8Path(path).has_root_directory(); }

}  // namespace

std::string resolveGroomPath(const std::string& path, const std::string& directory) {
    if (isNoPath(path) || directory.empty() || standsAlone(path)) return path;
    return genericText((utf8Path(directory) / utf8Path(path)).lexically_normal());
}

std::string resolveCachePath(const std::string& path, const std::string& directory) {
    return holdsVariable(path) ? path : resolveGroomPath(path, directory);
}

std::string rebaseGroomPath(const std::string& path, const std::string& from,
                            const std::string& to) {
    if (from.empty() || isNoPath(path) || holdsVariable(path) || standsAlone(path)) return path;
    const std::filesystem::path there = (utf8Path(from) / utf8Path(path)).lexically_normal();
    const std::filesystem::path relative =
        there.lexically_relative(utf8Path(to.empty() ? "." : to).lexically_normal());
    return genericText(relative.empty() ? there : relative);  // empty: on another drive
}

}  // namespace corvelle
