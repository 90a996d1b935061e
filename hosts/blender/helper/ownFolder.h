#pragma once

#include <string>

namespace corvelle {

/// A folder that goes with its owner: what a session writes for itself under the system's temporary
/// folder.
class OwnFolder {
public:
    OwnFolder() = default;
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;
    ~OwnFolder();
    void own(const std::string& path) { path_ = path; }

private:
    std::string path_;  ///< empty: none
};

/// Removes the folders of processes that are gone. Call at start.
void sweepOwnFolders() noexcept;

}  // namespace corvelle
