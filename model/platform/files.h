#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace corvelle::platform {

/// A file opened for writing; -1 for none.
using FileHandle = std::intptr_t;

// Each gives the system's error, or none.

/// Makes the file at `path`, or empties the one there. With a file at `like`, it gets the
/// permissions of that one.
std::error_code createFile(const std::filesystem::path& path, const std::filesystem::path& like,
                           FileHandle& file);
std::error_code writeFile(FileHandle file, std::string_view bytes);
/// Returns when the bytes are on the disk.
std::error_code flushFile(FileHandle file);
std::error_code closeFile(FileHandle file);
/// `to` may be there, and is replaced in one step where the system can do so.
std::error_code renameFile(const std::filesystem::path& from, const std::filesystem::path& to);
/// Returns when the names in the folder are on the disk, where a system has such a thing.
std::error_code flushFolder(const std::filesystem::path& folder);

/// Tells one content of a file from the one before. `time` is in the system's finest unit: the
/// standard library's has whole seconds where it stands on an old C library.
struct FileStamp {
    std::uint64_t size = 0;
    std::int64_t time = 0;
};
std::error_code readFileStamp(const std::filesystem::path& path, FileStamp& stamp);

}  // namespace corvelle::platform
