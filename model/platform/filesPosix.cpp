#if !defined(_WIN32)
#include <cerrno>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "model/platform/files.h"

namespace corvelle::platform {
namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

/// Some file systems cannot flush; they have nothing to wait for.
std::error_code flush(int file) {
#if defined(__APPLE__)
    if (fcntl(file, F_FULLFSYNC) == 0) return {};  // fsync stops at the drive's own cache
#endif
    while (fsync(file) != 0) {
        if (errno == EINTR) continue;
        if (errno == EINVAL || errno == ENOSYS || errno == ENOTSUP) return {};
        return lastError();
    }
    return {};
}

}  // namespace

std::error_code createFile(const std::filesystem::path& path, const std::filesystem::path& like,
                           FileHandle& file) {
    const int opened = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (opened < 0) return lastError();
    file = opened;
    struct stat before {};
    // A file of somebody else may not take the mode over; its own is as good.
    if (stat(like.c_str(), &before) == 0 && S_ISREG(before.st_mode))
        (void)!fchmod(opened, before.st_mode & 0777);
    return {};
}

std::error_code writeFile(FileHandle file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(int(file), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return lastError();
        bytes.remove_prefix(std::size_t(written));
    }
    return {};
}

std::error_code flushFile(FileHandle file) { return flush(int(file)); }

std::error_code closeFile(FileHandle file) {
    return close(int(file)) == 0 || errno == EINTR ? std::error_code() : lastError();
}

std::error_code renameFile(const std::filesystem::path& from, const std::filesystem::path& to) {
    return rename(from.c_str(), to.c_str()) == 0 ? std::error_code() : lastError();
}

std::error_code flushFolder(const std::filesystem::path& folder) {
    const int opened =
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0)
        return errno == EACCES ? std::error_code() : lastError();  // may write, not read
    const std::error_code error = flush(opened);
    close(opened);
    return error;
}

std::error_code readFileStamp(const std::filesystem::path& path, FileStamp& stamp) {
    struct stat about {};
    if (stat(path.c_str(), &about) != 0) return lastError();
#if defined(__APPLE__)
    const timespec& time = about.st_mtimespec;
#else
    const timespec& time = about.st_mtim;
#endif
    stamp = {std::uint64_t(about.st_size),
             std::int64_t(time.tv_sec) * 1'000'000'000 + std::int64_t(time.tv_nsec)};
    return {};
}

}  // namespace corvelle::platform
#endif
