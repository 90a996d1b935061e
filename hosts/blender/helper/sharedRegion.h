#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "hosts/blender/helper/platform/sharedMemory.h"

namespace corvelle {

/// One named piece of shared memory: made by this process, for answers, or opened, to read a
/// request's arrays. Closes with its last owner; the name of one made here goes with it.
///
/// Made regions are writable memory. Opened ones are read by copy only (`read`), since their owner
/// may shrink them at any moment. Not thread-safe, but different threads may write to different
/// parts of `bytes()`.
class SharedRegion {
public:
    SharedRegion() = default;
    SharedRegion(SharedRegion&& other) noexcept;
    SharedRegion& operator=(SharedRegion&& other) noexcept;
    ~SharedRegion();

    /// Makes a zeroed region; a `size` of 0 counts as 1.
    /// Throws: std::runtime_error "bad shared memory name '<name>'" and those of `makeMapping`.
    static SharedRegion create(const std::string& name, std::uint64_t size);
    /// Opens a region for reading. Its size is rounded up to whole pages.
    /// Throws: std::runtime_error "bad shared memory name '<name>'" and those of `openMapping`.
    static SharedRegion open(const std::string& name);

    explicit operator bool() const noexcept { return mapping_.size != 0; }
    const std::string& name() const noexcept { return name_; }
    std::uint64_t size() const noexcept { return mapping_.size; }
    bool owner() const noexcept { return mapping_.made; }
    /// True once a peer has shrunk a region made here: what is written to it may be lost.
    bool damaged() const noexcept { return mappingIsDamaged(mapping_); }

    /// The memory of a region made here; empty for an opened one.
    std::span<std::byte> bytes() const noexcept;
    /// Copies [offset, offset + out.size()) of an opened region, which must lie within `size()`.
    /// Throws: std::runtime_error if its owner has made it shorter meanwhile.
    void read(std::uint64_t offset, std::span<std::byte> out) const;

private:
    SharedRegion(std::string name, SharedMapping mapping) noexcept;

    std::string name_;
    SharedMapping mapping_;
};

/// 1 to 200 bytes of a-z, A-Z, 0-9, "-", ".", "/" and "_", as far as the system takes them.
bool isRegionName(std::string_view name) noexcept;

/// "corvelle_<pid>_<base>_<serial>": no two regions in a process's life, and no two processes, share
/// a name.
std::string regionName(std::string_view base, std::uint32_t serial);

}  // namespace corvelle
