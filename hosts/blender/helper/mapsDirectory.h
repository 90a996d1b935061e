#pragma once

#include <string>

namespace corvelle {

struct HelperSession;

/// A session's own folder for the images of painted maps, when its host has named none: under the
/// system's temporary folder, for this user alone, made on need and removed with this object.
class MapsDirectory {
public:
    MapsDirectory() = default;
    MapsDirectory(const MapsDirectory&) = delete;
    MapsDirectory& operator=(const MapsDirectory&) = delete;
    ~MapsDirectory();
    /// Throws RequestError (io), "cannot make '<path>'": also when somebody else has made it.
    void make(const std::string& path);

private:
    std::string made_;
};

/// The folder that images of the session's painted maps are written to, made if it is not there.
/// Throws RequestError (io), "cannot make '<path>'".
std::string ensureMapsDirectory(HelperSession& session);

/// Removes the folders of processes that are gone. Call at start.
void sweepMapsDirectories() noexcept;

}  // namespace corvelle
