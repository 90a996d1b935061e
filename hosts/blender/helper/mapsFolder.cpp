#include "hosts/blender/helper/mapsFolder.h"

#include <filesystem>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/sharedRegion.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace fs = std::filesystem;

std::string effectiveMapsDir(const HelperSession& session) {
    if (!session.mapsDir.empty()) return session.mapsDir;
    const std::string name = regionName("s" + std::to_string(session.number) + "maps", 0);
    const std::u8string path = (fs::temp_directory_path() / name).generic_u8string();
    return std::string(path.begin(), path.end());
}

std::string makeMapsDir(HelperSession& session) {
    const std::string text = effectiveMapsDir(session);
    const fs::path path = utf8Path(text);
    std::error_code error;
    if (!session.mapsDir.empty()) {
        fs::create_directories(path, error);
    } else if (!session.mapsFolderMade || !fs::is_directory(fs::symlink_status(path, error))) {
        fs::remove_all(path, error);
        // Whoever made one in between could read it, so that is a failure.
        const bool made = !error && fs::create_directory(path, error) && !error;
        if (made) fs::permissions(path, fs::perms::owner_all, error);
        session.mapsFolderMade = made && !error;
        if (session.mapsFolderMade) session.ownMaps.own(text);
        if (!session.mapsFolderMade) failRequest("io", "cannot write '" + text + "'");
    }
    if (error || !fs::is_directory(path, error)) failRequest("io", "cannot write '" + text + "'");
    return text;
}

std::string mapFile(const std::string& folder, const std::string& name) {
    constexpr std::size_t kLongest = 100;
    const bool leads = name.empty() || name.size() > kLongest || name.front() == '.' ||
                       name.find_first_of("/\\:") != std::string::npos ||
                       name.find("..") != std::string::npos || name.find('\0') != std::string::npos;
    if (leads) failRequest("bad_request", "a map's name cannot be a path");
    const std::u8string path = (utf8Path(folder) / utf8Path(name + ".png")).generic_u8string();
    return std::string(path.begin(), path.end());
}

}  // namespace corvelle
