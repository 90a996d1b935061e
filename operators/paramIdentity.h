#pragma once

#include <cstdint>

#include "graph/operator.h"

namespace corvelle {

/// What a param reads, to tell whether it reads the same again. A field that drives it is
/// immutable, so that the very same one gives the same values; it is held so that no other takes
/// its place.
struct ParamIdentity {
    std::uint64_t hash = 0;
    FieldPtr driver;
    friend bool operator==(const ParamIdentity&, const ParamIdentity&) = default;
};

/// Of the value a run would read now: constant, map or driving field.
ParamIdentity identityOf(const Operator& op, const char* param, const EvalContext& context,
                         const GuidesPtr& guides = nullptr);

}  // namespace corvelle
