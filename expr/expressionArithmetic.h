#pragma once

#include <cmath>

#include "expr/expressionFunctions.h"
#include "expr/expressionProgram.h"

namespace corvelle {

/// One operator on two numbers: the definition that the single and the batch evaluator share.
/// Comparisons give 1 or 0. The result is finite, so division by 0 gives 0.
template <ExpressionBinary Operation>
inline float binaryResult(float a, float b) {
    using enum ExpressionBinary;
    if constexpr (Operation == Add) return finiteOrZero(a + b);
    if constexpr (Operation == Subtract) return finiteOrZero(a - b);
    if constexpr (Operation == Multiply) return finiteOrZero(a * b);
    if constexpr (Operation == Divide) return finiteOrZero(a / b);
    if constexpr (Operation == Power) return finiteOrZero(expressionPower(a, b));
    if constexpr (Operation == Less) return a < b ? 1.0f : 0.0f;
    if constexpr (Operation == LessOrEqual) return a <= b ? 1.0f : 0.0f;
    if constexpr (Operation == Greater) return a > b ? 1.0f : 0.0f;
    if constexpr (Operation == GreaterOrEqual) return a >= b ? 1.0f : 0.0f;
    if constexpr (Operation == Equal) return a == b ? 1.0f : 0.0f;
    if constexpr (Operation == NotEqual) return a != b ? 1.0f : 0.0f;
}

/// Calls `body.template operator()<Operation>()` for an operation known at run time.
template <class Body>
inline decltype(auto) forBinary(ExpressionBinary operation, Body&& body) {
    using enum ExpressionBinary;
    switch (operation) {
        case Add:
            return body.template operator()<Add>();
        case Subtract:
            return body.template operator()<Subtract>();
        case Multiply:
            return body.template operator()<Multiply>();
        case Divide:
            return body.template operator()<Divide>();
        case Power:
            return body.template operator()<Power>();
        case Less:
            return body.template operator()<Less>();
        case LessOrEqual:
            return body.template operator()<LessOrEqual>();
        case Greater:
            return body.template operator()<Greater>();
        case GreaterOrEqual:
            return body.template operator()<GreaterOrEqual>();
        case Equal:
            return body.template operator()<Equal>();
        case NotEqual:
            break;
    }
    return body.template operator()<NotEqual>();
}

}  // namespace corvelle
