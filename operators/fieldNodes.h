#pragma once

#include <map>
#include <string>

namespace corvelle {

// The nodes that give a field or a curve instead of strands: Curve, Control, Expression, FieldNoise,
// FieldRemap, FieldCombine and Map. registerFieldOperators() (operators/registerOperators.h) adds
// them to the registry.

/// The `variables` JSON of an Expression node with each {"value": v, "control": "name"} replaced by
/// the control's value, or by v where there is no such control. Text that is no JSON object comes
/// back as it is.
std::string variablesWithControls(const std::string& variables,
                                  const std::map<std::string, double>& controls);

}  // namespace corvelle
