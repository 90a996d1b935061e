#pragma once

#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace corvelle {

/// A file that cannot be read or written: "cannot write '<path>'". `cause` is the system's reason.
struct FileError : std::runtime_error {
    FileError(const std::string& text, std::error_code reason)
        : std::runtime_error(text), cause(reason) {}
    std::error_code cause;
};

/// Puts the bytes of `pieces`, one after the other, into the file at `path` (UTF-8), new or in the
/// place of the one that is there, all or nothing: whatever happens on the way, a crash of the
/// machine included, the path names the old file or the new one, whole.
///
/// How:     writes "<path>.tmp" beside it, flushes that to the disk, renames it over the path, and
///          flushes the folder (POSIX). What an earlier attempt left there is overwritten. A file
///          that is replaced passes its permissions on.
/// Throws:  FileError "cannot write '<path>'", or "cannot replace '<path>': <system message>" from
///          the rename, with the old file in place and the new one removed. When only the folder
///          does not flush, the new file is in place, and may still be lost with the machine's
///          power.
/// Threads: any, for paths that differ.
void replaceFile(const std::string& path, std::span<const std::string_view> pieces);
void replaceFile(const std::string& path, std::string_view bytes);

/// The whole file at `path` (UTF-8). Throws FileError "cannot read '<path>'".
std::string readWholeFile(const std::string& path);

/// The steps of a replacement, in order; Write comes once per megabyte or so.
enum class FileStep { Open, Write, Flush, Close, Rename, FlushFolder };
/// Asked before each step; an error in its answer stands for the step's own failure.
using FileFault = std::function<std::error_code(FileStep)>;
/// For tests: makes steps fail, in the whole process, while no replacement is under way. Empty:
/// none.
void setFileFault(FileFault fault);

}  // namespace corvelle
