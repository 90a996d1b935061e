#pragma once

#include <cstddef>
#include <cstdio>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "hosts/blender/helper/helperSession.h"

namespace corvelle {

/// A line nested deeper than this is not taken: what copies and writes JSON recurses.
inline constexpr std::size_t kDeepestNesting = 512;

/// The reply to one line (without its LF), as text that ends in LF; nothing for a blank line.
/// Never throws: a line that is no JSON, and a want of memory, have their replies too.
std::optional<std::string> answerLine(HelperState& state, std::string_view line) noexcept;

/// Answers lines from `in` on `replies`, one at a time and each flushed, until a line asks for the
/// shutdown or the input ends. A last line without LF is served. Writes are not checked: a host
/// that is gone reads nothing more, and the end of the input follows.
void runLineLoop(std::istream& in, std::FILE* replies, HelperState& state);

}  // namespace corvelle
