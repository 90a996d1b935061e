#pragma once

#include <string>

namespace corvelle {

/// The directory of the running program, UTF-8, without a trailing separator; empty if the system
/// does not tell. Presets are looked for beside it.
std::string executableDirectory();

}  // namespace corvelle
