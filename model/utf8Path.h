#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvelle {

// Text is UTF-8 everywhere; only here a path becomes the system's own form.

std::filesystem::path utf8Path(std::string_view text);
std::string utf8Text(const std::filesystem::path& path);

}  // namespace corvelle
