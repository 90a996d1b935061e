#pragma once

#include <string_view>

#include "tools/brushToolSettings.h"

namespace corvelle {

/// Throws std::invalid_argument "unknown brush mode '<word>'".
BrushMode brushModeFromWord(std::string_view word);
/// The mode's first word.
const char* brushModeWord(BrushMode mode);

}  // namespace corvelle
