#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string_view>

#include "model/ramp.h"

namespace corvelle {

/// Reads {"keys": [[position, value], ...], "linear": bool} from text. Throws GraphError "ramp:
/// malformed JSON" or "ramp: needs keys [[position, value], ...]".
Ramp rampFromText(std::string_view text);
/// False when `json` is no ramp with at least one key of finite numbers.
bool readRamp(const nlohmann::json& json, Ramp& out);

/// Parses JSON text, refusing values nested deeper than 512: later walks over it recurse. Throws
/// GraphError "<what>: malformed JSON".
nlohmann::json parseJsonText(std::string_view text, std::string_view what);

}  // namespace corvelle
