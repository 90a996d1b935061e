#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvelle {

/// Bytes as base64 (RFC 4648, with padding).
std::string base64FromBytes(std::string_view bytes);
/// None for a text that is no base64: other characters (line breaks too), or a wrong length.
std::optional<std::string> bytesFromBase64(std::string_view text);

}  // namespace corvelle
