#pragma once

#include <string>

#include "graph/nodeValue.h"

namespace corvelle {

/// Empty when an incremental result is the full one and states its changes against `previous` right
/// (null changes state nothing); else the reason, for a message.
std::string checkIncremental(const NodeValue& incremental, const NodeValue& full,
                             const NodeValue& previous, const StrandChangesPtr& changes);

}  // namespace corvelle
