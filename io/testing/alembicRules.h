#pragma once

#include <string>
#include <vector>

namespace corvelle {

/// Checks a written archive against what its consumers ask of it, each by its own table of rules,
/// with the bare library and nothing of ours. Gives every fault as "<consumer>: <object>: <what>".
std::vector<std::string> alembicFaults(const std::string& path, bool groomLayout);

}  // namespace corvelle
