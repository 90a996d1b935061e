#if !defined(_WIN32)
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hosts/blender/helper/platform/processStart.h"
#include "hosts/blender/helper/platform/sharedMemory.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::runtime_error(what + "system error " + std::to_string(error));
}

std::string systemName(std::string_view name) {
    return "/" + std::string(plainMappingName(name));
}

std::uint64_t pageSize() {
    static const auto size = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// ---- The mappings made here --------------------------------------------------------------------

// Where they lie, for the signal handler: plain atomics, since it may take no lock. A mapping that
// finds no free slot works all the same, only without the guard.
struct OwnRange {
    std::atomic<std::uintptr_t> begin{0};
    std::atomic<std::uintptr_t> end{0};
    std::atomic<bool> damaged{false};
};
constexpr std::size_t kSlots = 4096;
constexpr std::size_t kNoSlot = kSlots;
std::array<OwnRange, kSlots> ownRanges;
std::uintptr_t guardPageBytes = 4096;

// Their names, for leaving. Never destroyed: the parent watch may ask while statics are torn down.
struct OwnNames {
    std::mutex mutex;
    std::vector<std::string> names;
};
OwnNames& ownNames() {
    static OwnNames& table = *new OwnNames;
    return table;
}

struct sigaction previousBusAction;

// A write behind the end of a truncated file. Puts private zero pages where the hole is, so that
// the write ends well and goes nowhere, and marks the mapping as damaged. Any other bus error goes
// where it went before. mmap is a plain system call: safe in a handler.
void onBusError(int, siginfo_t* info, void*) {
    const int error = errno;
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (OwnRange& range : ownRanges) {
        const std::uintptr_t begin = range.begin.load(std::memory_order_acquire);
        const std::uintptr_t end = range.end.load(std::memory_order_relaxed);
        if (begin == 0 || address < begin || address >= end) continue;
        range.damaged.store(true, std::memory_order_relaxed);
        const std::uintptr_t page = address / guardPageBytes * guardPageBytes;
        void* put = mmap(reinterpret_cast<void*>(page), end - page, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        errno = error;
        if (put != MAP_FAILED) return;
        break;
    }
    sigaction(SIGBUS, &previousBusAction, nullptr);  // the access comes again and is dealt with there
}

void guardOnce() {
    [[maybe_unused]] static const bool installed = [] {
        guardPageBytes = pageSize();
        struct sigaction action {};
        action.sa_sigaction = onBusError;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        return sigaction(SIGBUS, &action, &previousBusAction) == 0;
    }();
}

std::size_t enterRange(const std::byte* base, std::uint64_t size) {
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    const std::uint64_t page = pageSize();
    for (std::size_t slot = 0; slot < kSlots; ++slot) {
        OwnRange& range = ownRanges[slot];
        if (range.end.load() != 0) continue;
        range.damaged = false;
        range.end = begin + (size + page - 1) / page * page;
        range.begin = begin;
        return slot;
    }
    return kNoSlot;
}

void leaveRange(std::size_t slot) {
    if (slot >= kSlots) return;
    ownRanges[slot].begin = 0;
    ownRanges[slot].end = 0;
}

// Makes the file and enters its name under one lock: a process that leaves in between either sees
// the name or comes before the file.
int makeFile(const std::string& name, const std::string& path) {
    OwnNames& own = ownNames();
    std::string entry = path;
    const std::lock_guard lock(own.mutex);
    own.names.reserve(own.names.size() + 1);
    const int file = shm_open(path.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    const int error = errno;
    if (file < 0 && error == EEXIST)
        throw std::runtime_error("shared memory '" + name + "' exists already");
    if (file < 0) fail("cannot make shared memory '" + name + "': ", error);
    own.names.push_back(std::move(entry));
    return file;
}

void removeName(const std::string& path) noexcept {
    OwnNames& own = ownNames();
    const std::lock_guard lock(own.mutex);
    const auto found = std::find(own.names.begin(), own.names.end(), path);
    if (found == own.names.end()) return;
    shm_unlink(path.c_str());
    own.names.erase(found);
}

// posix_fallocate returns its error and may be interrupted.
int allocateFile(int file, std::uint64_t size) {
    if (size > static_cast<std::uint64_t>(INT64_MAX)) return EFBIG;
    int error = 0;
    do error = posix_fallocate(file, 0, static_cast<off_t>(size));
    while (error == EINTR);
    return error;
}

}  // namespace

std::string_view plainMappingName(std::string_view name) noexcept {
    if (name.starts_with('/')) name.remove_prefix(1);
    return name.find('/') == std::string_view::npos ? name : std::string_view();
}

SharedMapping makeMapping(const std::string& name, std::uint64_t size) {
    guardOnce();
    const std::string path = systemName(name);
    const int file = makeFile(name, path);
    // Not ftruncate alone: on a full mount the pages would be missing at the first write only.
    if (const int error = allocateFile(file, size); error != 0) {
        close(file);
        removeName(path);
        fail("cannot make shared memory '" + name + "': ", error);
    }
    int flags = MAP_SHARED;
#if defined(MAP_POPULATE)
    flags |= MAP_POPULATE;  // page tables too: the first answer then runs at full speed
#endif
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, file, 0);
    const int error = errno;
    close(file);
    if (base == MAP_FAILED) {
        removeName(path);
        fail("cannot map shared memory '" + name + "': ", error);
    }
    SharedMapping mapping{.base = static_cast<std::byte*>(base), .size = size, .made = true};
    mapping.slot = enterRange(mapping.base, size);
    return mapping;
}

SharedMapping openMapping(const std::string& name) {
    // O_NONBLOCK: a pipe of that name, which is no shared memory, must not make us wait.
    const int file = shm_open(systemName(name).c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (file < 0)
        throw std::runtime_error("no shared memory named '" + name + "' (system error " +
                                 std::to_string(errno) + ")");
    struct stat about {};
    int error = fstat(file, &about) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(about.st_mode)) error = ENODEV;  // as mmap would say
    if (error == 0 && about.st_size <= 0) error = EINVAL;
    if (error != 0) {
        close(file);
        fail("cannot map shared memory '" + name + "': ", error);
    }
    const std::uint64_t page = pageSize();
    const auto size = static_cast<std::uint64_t>(about.st_size);
    return {.size = (size + page - 1) / page * page, .handle = file};
}

void readMapping(const SharedMapping& mapping, const std::string& name, std::uint64_t offset,
                 std::size_t bytes, std::byte* out) {
    const int file = static_cast<int>(mapping.handle);
    while (bytes > 0) {
        const ssize_t got = pread(file, out, bytes, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("cannot map shared memory '" + name + "': ", errno);
        if (got == 0) break;
        out += got;
        offset += static_cast<std::uint64_t>(got);
        bytes -= static_cast<std::size_t>(got);
    }
    // What is missing may be the rest of the last page only; else the file is shorter than it was.
    if (bytes == 0) return;
    if (mapping.size - offset >= pageSize())
        throw std::runtime_error("shared memory '" + name + "' shrank while it was read");
    std::memset(out, 0, bytes);
}

void closeMapping(SharedMapping& mapping, const std::string& name) noexcept {
    if (mapping.made) leaveRange(mapping.slot);
    if (mapping.base) munmap(mapping.base, mapping.size);
    if (mapping.handle >= 0) close(static_cast<int>(mapping.handle));
    if (mapping.made) removeName(systemName(name));
    mapping = {};
}

bool mappingIsDamaged(const SharedMapping& mapping) noexcept {
    return mapping.made && mapping.slot < kSlots && ownRanges[mapping.slot].damaged;
}

void removeOwnMappings(std::chrono::milliseconds patience) noexcept {
    OwnNames& own = ownNames();
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!own.mutex.try_lock()) {
        if (std::chrono::steady_clock::now() >= end) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (const std::string& name : own.names) shm_unlink(name.c_str());
    own.mutex.unlock();
}

void sweepDeadMappings() noexcept {
    constexpr std::string_view kPrefix = "corvelle_";
    DIR* folder = opendir("/dev/shm");
    if (!folder) return;  // a system that does not list its shared memory
    while (const dirent* entry = readdir(folder)) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with(kPrefix)) continue;
        const std::string_view rest = name.substr(kPrefix.size());
        std::int64_t owner = 0;
        const auto [stop, error] = std::from_chars(rest.data(), rest.data() + rest.size(), owner);
        if (error != std::errc() || owner <= 0 || stop == rest.data() + rest.size() || *stop != '_')
            continue;
        struct stat about {};
        if (fstatat(dirfd(folder), entry->d_name, &about, AT_SYMLINK_NOFOLLOW) != 0 ||
            about.st_uid != geteuid() || !S_ISREG(about.st_mode))
            continue;
        if (owner == processNumber() || !processIsRunning(owner))
            unlinkat(dirfd(folder), entry->d_name, 0);
    }
    closedir(folder);
}

}  // namespace corvelle
#endif
