#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace corvelle {

/// The system's side of one named piece of shared memory. `SharedRegion` owns and closes it; what a
/// name may look like is checked there.
struct SharedMapping {
    std::byte* base = nullptr;   ///< the writable view; null for one opened on POSIX
    std::uint64_t size = 0;      ///< usable bytes; of an opened one, rounded up to whole pages
    std::intptr_t handle = -1;   ///< the mapping object or file; -1 for none
    std::size_t slot = 0;        ///< made here, POSIX: its place in the table of own mappings
    bool made = false;           ///< made here, so its name goes when it closes
};

/// `name` as this system takes it, or empty if it cannot: POSIX names are one path component, and a
/// single leading "/" is dropped; Windows takes them as they are.
std::string_view plainMappingName(std::string_view name) noexcept;

/// Makes a zeroed mapping of `size` bytes (above 0) that did not exist, all its pages in place, so
/// that a full system fails here and not at a later write.
/// Throws: std::runtime_error with the texts a host sees ("cannot make shared memory '<name>': ...",
/// "shared memory '<name>' exists already", "cannot map shared memory '<name>': ...").
SharedMapping makeMapping(const std::string& name, std::uint64_t size);

/// Opens another process's mapping for reading.
/// Throws: std::runtime_error ("no shared memory named '<name>' (...)", "cannot map ...").
SharedMapping openMapping(const std::string& name);

/// Copies [offset, offset + bytes) of an opened mapping, which must lie within its size, to `out`.
///
/// POSIX: a view would be fatal to read once its owner truncates the file under it (SIGBUS), so
/// nothing is mapped; the bytes are read from the file instead, which costs a memcpy and no page
/// faults. Bytes past the file's end but within its last page are zeros, as in a view.
/// Throws: std::runtime_error "shared memory '<name>' shrank while it was read".
void readMapping(const SharedMapping& mapping, const std::string& name, std::uint64_t offset,
                 std::size_t bytes, std::byte* out);

/// Unmaps and closes; removes the name of one made here. Leaves `mapping` empty.
void closeMapping(SharedMapping& mapping, const std::string& name) noexcept;

/// POSIX: true once a peer truncated the file below a mapping made here and a write hit the hole.
/// Such a write goes nowhere instead of ending the process; the mapping is of no more use.
/// Always false on Windows, where a mapping cannot shrink.
bool mappingIsDamaged(const SharedMapping& mapping) noexcept;

/// Removes the names of all mappings this process made and still holds, so that nothing outlives a
/// process that leaves without its destructors. Safe from any thread: takes the table's lock for at
/// most `patience` and does nothing if it is held for longer. Windows: nothing to do.
void removeOwnMappings(std::chrono::milliseconds patience) noexcept;

/// Removes what killed helpers left behind: own-user mappings named "corvelle_<pid>_..." whose
/// process is gone, or has this process's number, which in a container is soon given out again.
/// Call before the first mapping is made. Windows: nothing to do, mappings die with their process.
void sweepDeadMappings() noexcept;

}  // namespace corvelle
