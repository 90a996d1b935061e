#pragma once

#include <string>

#include "expr/expressionMap.h"
#include "expr/mapSource.h"
#include "graph/graphError.h"

namespace corvelle {

// What goes wrong with the values of params, in words that name the param.

/// Throws GraphError "param '<param>': <what>".
[[noreturn]] inline void failParam(const std::string& param, const std::string& what) {
    throw GraphError("param '" + param + "': " + what);
}

/// Throws GraphError "param '<param>': a vector takes an expression (a <kind> map gives one
/// number)".
[[noreturn]] inline void failVectorMap(const std::string& param, MapKind kind) {
    failParam(param, std::string("a vector takes an expression (a ") + mapKindKey(kind) +
                         " map gives one number)");
}

/// Throws GraphError "param '<param>': the expression reads '<x>', which is neither a variable nor
/// a channel of the strands" for a channel that `strands` (null: none yet) does not have.
inline void requireChannels(const ExpressionMap& expression, const StrandSet* strands,
                            const std::string& param) {
    for (const std::string& name : expression.channelNames())
        if (!strands || !(strands->strandChannel(name) || strands->pointChannel(name)))
            failParam(param, "the expression reads '" + name +
                                 "', which is neither a variable nor a channel of the strands");
}

}  // namespace corvelle
