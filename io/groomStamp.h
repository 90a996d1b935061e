#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvelle {

/// A 64-bit number as sixteen lowercase hexadecimal digits: JSON readers would round it.
std::string stampText(std::uint64_t value);
/// Of 1 to 16 hexadecimal digits of either case; any other text is 0, which means not known.
std::uint64_t stampFromText(std::string_view text);

}  // namespace corvelle
