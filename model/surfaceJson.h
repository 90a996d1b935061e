#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace corvelle {

// What the JSON readers of data drawn on a scalp share. All throw std::invalid_argument; `owner` is
// what the text starts with, as "part 'left'".

/// The text without the blanks, tabs and line ends round it: empty for a blank one.
std::string_view trimmedText(std::string_view text);
/// A document whose "version", where it has one, is 1. `what`: "part data" and the like. Throws
/// "<what> version is newer than this Corvelle supports" for one above.
void checkVersion(const nlohmann::json& document, const std::string& what);
/// "<owner>: '<key>' holds no 32-bit float".
float readFloat32(const nlohmann::json& value, const std::string& owner, const char* key);
/// "<owner>: <what> is a whole number from -1 to 2147483647".
std::int32_t readIndex(const nlohmann::json& value, const std::string& owner, const char* what);

}  // namespace corvelle
