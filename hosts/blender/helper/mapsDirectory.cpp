#include "hosts/blender/helper/mapsDirectory.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/platform/processStart.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/sessionCommands.h"
#include "model/utf8Path.h"

namespace corvelle {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void failMaking(const std::string& path) { failRequest("io", "cannot make '" + path + "'"); }

}  // namespace

MapsDirectory::~MapsDirectory() {
    if (made_.empty()) return;
    std::error_code ignored;
    fs::remove_all(utf8Path(made_), ignored);
}

void MapsDirectory::make(const std::string& path) {
    std::error_code error;
    const fs::path folder = utf8Path(path);
    if (made_ == path && fs::is_directory(folder, error)) return;
    // The name can be guessed: a folder that is there already may be anybody's.
    if (!fs::create_directory(folder, error) || error) failMaking(path);
    made_ = path;
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace, error);
    if (error) failMaking(path);
}

std::string ensureMapsDirectory(HelperSession& session) {
    const std::string path = effectiveMapsDir(session);
    if (session.mapsDir.empty()) {
        session.ownMaps.make(path);
        return path;
    }
    std::error_code error;
    fs::create_directories(utf8Path(path), error);
    if (!fs::is_directory(utf8Path(path), error)) failMaking(path);
    return path;
}

void sweepMapsDirectories() noexcept {
    try {
        constexpr std::string_view kPrefix = "corvelle_";
        std::vector<fs::path> dead;
        for (const fs::directory_entry& entry : fs::directory_iterator(fs::temp_directory_path())) {
            const std::string name = utf8Text(entry.path().filename());
            if (!name.starts_with(kPrefix) || name.find("maps_") == std::string::npos) continue;
            std::int64_t owner = 0;
            const char* begin = name.data() + kPrefix.size();
            const auto [stop, error] = std::from_chars(begin, name.data() + name.size(), owner);
            if (error != std::errc() || owner <= 0 || *stop != '_') continue;
            if (!fs::is_directory(entry.symlink_status())) continue;
            if (owner == processNumber() || !processIsRunning(owner)) dead.push_back(entry.path());
        }
        for (const fs::path& folder : dead) {
            std::error_code ignored;  // another user's, most likely
            fs::remove_all(folder, ignored);
        }
    } catch (const std::exception&) {
        // A temporary folder that cannot be listed keeps what is in it.
    }
}

}  // namespace corvelle
