#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvelle {

// Text is UTF-8 everywhere; only here a path becomes the system's own form.

/// Throws std::invalid_argument "a path holds a NUL character": the system would cut it there and
/// take another file.
std::filesystem::path utf8Path(std::string_view text);
std::string utf8Text(const std::filesystem::path& path);

}  // namespace corvelle
