#if defined(_WIN32)
#include <algorithm>

#include <windows.h>

#include "model/platform/files.h"

namespace corvelle::platform {
namespace {

std::error_code lastError() { return {int(GetLastError()), std::system_category()}; }
HANDLE handleOf(FileHandle file) { return reinterpret_cast<HANDLE>(file); }

}  // namespace

std::error_code createFile(const std::filesystem::path& path, const std::filesystem::path&,
                           FileHandle& file) {
    const HANDLE opened = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) return lastError();
    file = reinterpret_cast<FileHandle>(opened);
    return {};
}

std::error_code writeFile(FileHandle file, std::string_view bytes) {
    while (!bytes.empty()) {
        const DWORD wanted = DWORD(std::min<std::size_t>(bytes.size(), 1u << 30));
        DWORD written = 0;
        if (!WriteFile(handleOf(file), bytes.data(), wanted, &written, nullptr)) return lastError();
        bytes.remove_prefix(written);
    }
    return {};
}

std::error_code flushFile(FileHandle file) {
    return FlushFileBuffers(handleOf(file)) ? std::error_code() : lastError();
}

std::error_code closeFile(FileHandle file) {
    return CloseHandle(handleOf(file)) ? std::error_code() : lastError();
}

std::error_code renameFile(const std::filesystem::path& from, const std::filesystem::path& to) {
    constexpr DWORD kHow = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
    if (MoveFileExW(from.c_str(), to.c_str(), kHow)) return {};
    // Some network shares and drivers refuse to replace: they get the old file out of the way
    // first.
    const std::error_code error = lastError();
    if (!DeleteFileW(to.c_str())) return error;
    return MoveFileExW(from.c_str(), to.c_str(), kHow) ? std::error_code() : lastError();
}

std::error_code flushFolder(const std::filesystem::path&) { return {}; }  // the move wrote through

std::error_code readFileStamp(const std::filesystem::path& path, FileStamp& stamp) {
    const HANDLE file = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return lastError();
    BY_HANDLE_FILE_INFORMATION about{};
    const std::error_code error =
        GetFileInformationByHandle(file, &about) ? std::error_code() : lastError();
    CloseHandle(file);
    if (error) return error;
    const auto joined = [](DWORD high, DWORD low) { return std::uint64_t(high) << 32 | low; };
    stamp = {joined(about.nFileSizeHigh, about.nFileSizeLow),
             std::int64_t(joined(about.ftLastWriteTime.dwHighDateTime,
                                 about.ftLastWriteTime.dwLowDateTime))};
    return {};
}

}  // namespace corvelle::platform
#endif
