#include "hosts/blender/helper/ownFolder.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "hosts/blender/helper/platform/processStart.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace fs = std::filesystem;

OwnFolder::~OwnFolder() {
    if (path_.empty()) return;
    std::error_code ignored;
    fs::remove_all(utf8Path(path_), ignored);
}

void sweepOwnFolders() noexcept {
    try {
        constexpr std::string_view kPrefix = "corvelle_";
        std::vector<fs::path> dead;
        for (const fs::directory_entry& entry : fs::directory_iterator(fs::temp_directory_path())) {
            const std::string name = utf8Text(entry.path().filename());
            if (!name.starts_with(kPrefix) || name.find("maps_") == std::string::npos) continue;
            std::int64_t owner = 0;
            const char* const end = name.data() + name.size();
            const auto [stop, error] = std::from_chars(name.data() + kPrefix.size(), end, owner);
            if (error != std::errc() || owner <= 0 || stop == end || *stop != '_') continue;
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
