#pragma once

#include <string>

namespace corvelle {

class Operator;

/// What a Clump node's last evaluation did that its name does not tell: how it parts strands with a
/// negative strength. Empty for nothing to tell, and for nodes of other types. Details of an
/// evaluation, not warnings.
std::string clumpDetails(const Operator& op);

}  // namespace corvelle
