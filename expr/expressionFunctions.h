#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "model/elementary.h"
#include "model/ramp.h"

namespace corvelle {

/// What a result that is not a number, or infinite, becomes: no value of an expression can trap.
/// Written so that loops of it are vectorised.
inline float finiteOrZero(float x) { return x - x == 0.0f ? x : 0.0f; }

/// What a function reads beside its arguments.
struct ExpressionCallContext {
    std::uint64_t id = 0;         ///< of the strand; 0 at a bare place
    const Ramp* curve = nullptr;  ///< the baked keys of this call
};
struct ExpressionBatchCallContext {
    const std::uint64_t* ids = nullptr;  ///< one per lane; null reads 0
    const Ramp* curve = nullptr;
};

/// How a function's arguments are read and checked.
enum class ExpressionFamily : std::uint8_t {
    Numbers,  ///< numbers, as many as told
    List,     ///< numbers, with a list of any length at the end
    Vectors,  ///< vectors, then numbers
    Point,    ///< a point (a vector), then numbers, which have defaults
    Curve,    ///< a number and keys (p0, v0, p1, v1, ...), baked at compile time
    Spline,   ///< a number and evenly spaced values, baked at compile time
    Map       ///< a map's name in quotes, and what its row says
};

/// One function. `single` and `batch` give the same bits and only finite results.
struct ExpressionFunction {
    std::string_view name;
    std::uint8_t least, most;  ///< arguments as written (a vector is one)
    ExpressionFamily family;
    std::uint8_t vectors;  ///< how many arguments, from the first, are vectors
    bool vectorResult;
    bool readsId;  ///< differs from strand to strand at equal arguments
    /// `slots` holds `count` argument floats; the result replaces the first 1 or 3.
    void (*single)(float* slots, std::size_t count, const ExpressionCallContext& context);
    /// The same for lanes 0 to `lanes`: argument k of lane i at slots[k * stride + i].
    void (*batch)(float* slots, std::size_t stride, std::size_t count, std::size_t lanes,
                  const ExpressionBatchCallContext& context);
};

/// The functions of the language: 57 names, `noise` with two rows. An operation names a row by its
/// place in the table. Calls of the family Map compile to an operation of their own, and have
/// neither `single` nor `batch`.
std::span<const ExpressionFunction> expressionFunctions();

/// `x` to the power `y`, as the operator and the function give it, but a square is one product.
inline float expressionPower(float x, float y) { return y == 2.0f ? x * x : math::pow(x, y); }

}  // namespace corvelle
