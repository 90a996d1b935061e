#pragma once

#include <string_view>

#include "tools/brushToolSettings.h"

namespace corvelle {

/// Throws std::invalid_argument "unknown brush mode '<word>'".
BrushMode brushModeFromWord(std::string_view word);
/// The mode's first word.
const char* brushModeWord(BrushMode mode);
/// "place", "draw", "part", "flow", or the word of a brush's mode.
const char* strokeModeWord(ToolKind kind, BrushMode mode);

}  // namespace corvelle
