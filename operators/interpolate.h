#pragma once

#include <string>

namespace corvelle {

class Operator;

/// How an Interpolate node's keepClearance went in its last evaluation: "it does not keep
/// clearance", "its scalp has no size", "its scalp is too big for the clearance field's grid", "it
/// keeps clearance over a deformed scalp", or empty when it simply does (or never ran, or is of
/// another type). Details of an evaluation, not warnings.
std::string interpolateDetails(const Operator& op);

}  // namespace corvelle
