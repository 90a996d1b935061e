#pragma once

#include <memory>
#include <string>

#include "expr/expressionMap.h"
#include "expr/expressionProgram.h"

namespace corvelle {

/// Compiles a text; of `environment` only the variables are used, maps are found afterwards.
/// Grammar, from the loosest: lines `$name = value;` and the value; c ? a : b; comparisons;
/// + -; * /; ^ to the right; unary -, which binds tighter than ^; .x and [i]; primaries.
/// Throws ExpressionError.
std::shared_ptr<const ExpressionProgram> parseExpression(std::string text,
                                                         const ExpressionEnvironment& environment,
                                                         bool perPointAllowed,
                                                         ExpressionMap::Shape wanted);

}  // namespace corvelle
