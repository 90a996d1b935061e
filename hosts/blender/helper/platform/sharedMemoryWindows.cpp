#if defined(_WIN32)
#include <cstring>
#include <stdexcept>

#include <windows.h>

#include "hosts/blender/helper/platform/sharedMemory.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(const std::string& what, DWORD error) {
    throw std::runtime_error(what + "Windows error " + std::to_string(error));
}

// Names are checked to be plain ASCII before they come here.
std::wstring systemName(const std::string& name) {
    const int size =
        MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), wide.data(), size);
    return wide;
}

HANDLE handleOf(const SharedMapping& mapping) { return reinterpret_cast<HANDLE>(mapping.handle); }

}  // namespace

std::string_view plainMappingName(std::string_view name) noexcept { return name; }

SharedMapping makeMapping(const std::string& name, std::uint64_t size) {
    const std::wstring wide = systemName(name);  // freed after GetLastError, which it might change
    const HANDLE object = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                             static_cast<DWORD>(size >> 32),
                                             static_cast<DWORD>(size & 0xffffffffu), wide.c_str());
    const DWORD error = GetLastError();
    if (!object) fail("cannot make shared memory '" + name + "': ", error);
    if (error == ERROR_ALREADY_EXISTS) {
        CloseHandle(object);
        throw std::runtime_error("shared memory '" + name + "' exists already");
    }
    void* base = MapViewOfFile(object, FILE_MAP_ALL_ACCESS, 0, 0, static_cast<SIZE_T>(size));
    if (!base) {
        const DWORD why = GetLastError();
        CloseHandle(object);
        fail("cannot map shared memory '" + name + "': ", why);
    }
    // One touch per page, so that the first answer does not pay for the page faults.
    for (std::uint64_t at = 0; at < size; at += 4096)
        static_cast<volatile std::byte*>(base)[at] = std::byte{0};
    return {.base = static_cast<std::byte*>(base),
            .size = size,
            .handle = reinterpret_cast<std::intptr_t>(object),
            .made = true};
}

SharedMapping openMapping(const std::string& name) {
    const std::wstring wide = systemName(name);
    const HANDLE object = OpenFileMappingW(FILE_MAP_READ, FALSE, wide.c_str());
    if (!object) {
        const DWORD error = GetLastError();
        throw std::runtime_error("no shared memory named '" + name + "' (Windows error " +
                                 std::to_string(error) + ")");
    }
    void* base = MapViewOfFile(object, FILE_MAP_READ, 0, 0, 0);
    MEMORY_BASIC_INFORMATION about{};
    const bool known = base && VirtualQuery(base, &about, sizeof about) != 0;
    // A mapping may be made with its pages only reserved (SEC_RESERVE): to read those is fatal.
    if (!known || about.State != MEM_COMMIT) {
        const DWORD error = known ? ERROR_INVALID_ADDRESS : GetLastError();
        if (base) UnmapViewOfFile(base);
        CloseHandle(object);
        fail("cannot map shared memory '" + name + "': ", error);
    }
    return {.base = static_cast<std::byte*>(base),
            .size = about.RegionSize,
            .handle = reinterpret_cast<std::intptr_t>(object)};
}

void readMapping(const SharedMapping& mapping, const std::string&, std::uint64_t offset,
                 std::size_t bytes, std::byte* out) {
    std::memcpy(out, mapping.base + offset, bytes);
}

void closeMapping(SharedMapping& mapping, const std::string&) noexcept {
    if (mapping.base) UnmapViewOfFile(mapping.base);
    if (mapping.handle != -1) CloseHandle(handleOf(mapping));
    mapping = {};
}

bool mappingIsDamaged(const SharedMapping&) noexcept { return false; }

void removeOwnMappings(std::chrono::milliseconds) noexcept {}

void sweepDeadMappings() noexcept {}

}  // namespace corvelle
#endif
