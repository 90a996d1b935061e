#pragma once

#include <filesystem>
#include <string>

namespace corvelle {

/// A folder of its own below the system's temporary one, gone with this object.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    /// The path of a file in it, UTF-8; folders on the way are made.
    std::string file(const std::string& name) const;
    std::string path() const;

private:
    std::filesystem::path folder_;
};

/// Throws std::runtime_error when the file cannot be written.
void writeBytes(const std::string& path, const std::string& bytes);

}  // namespace corvelle
