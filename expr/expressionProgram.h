#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/ramp.h"

namespace corvelle {

// What an expression compiles to: operations of a stack machine over 32-bit floats. A vector takes
// three stack slots, x first.

enum class ExpressionOpcode : std::uint8_t {
    Const = 0,         ///< push `value`
    Var = 1,           ///< push built-in variable `a`
    Channel = 2,       ///< push channel `index`, 0 if it is missing
    Neg = 3,           ///< negate the top
    Binary = 4,        ///< `a`: an ExpressionBinary of the two topmost numbers
    Call = 5,          ///< function `a` over `b` stack values (curves: over curve `index`)
    Select = 6,        ///< condition, then, else: one of the two
    NegVector = 7,     ///< negate three slots
    BinaryVector = 8,  ///< as Binary, by component; `b` bit 0: left is a vector, bit 1: right is
    SelectVector = 9,  ///< as Select, over vectors
    CallVector = 10,   ///< a call that leaves three values
    Component = 11,    ///< three slots become the one `a` names
    Map = 12,          ///< push map `index`, channel `a`; `b` 1 pushes its r, g, b
};

enum class ExpressionBinary : std::uint8_t {
    Add,
    Subtract,
    Multiply,
    Divide,
    Power,
    Less,
    LessOrEqual,
    Greater,
    GreaterOrEqual,
    Equal,
    NotEqual
};

struct ExpressionOp {
    ExpressionOpcode opcode = ExpressionOpcode::Const;
    std::uint8_t a = 0;
    std::uint16_t b = 0;
    std::uint32_t index = 0;
    float value = 0.0f;
};
static_assert(sizeof(ExpressionOp) == 12);

/// The built-in numbers, in the order of `StrandRecord::variables`.
enum class ExpressionVariable : std::uint8_t {
    U,
    V,
    X,
    Y,
    Z,
    NormalX,
    NormalY,
    NormalZ,
    Rand,
    Index,
    Length,
    Longest,
    Reach,
    Straightness,
    Lift,
    TipX,
    TipY,
    TipZ,
    T,
    PointShare,
    PointX,
    PointY,
    PointZ,
    PointIndex,
    Frame,
    Time
};
inline constexpr std::size_t kExpressionVariableCount = 26;

/// A set of variables, one bit each.
using ExpressionVariables = std::uint32_t;
constexpr ExpressionVariables variableBit(ExpressionVariable v) {
    return ExpressionVariables(1) << unsigned(v);
}
template <class... V>
constexpr ExpressionVariables variableBits(V... v) {
    return (variableBit(v) | ...);
}

/// Those that vary along a strand.
inline constexpr ExpressionVariables kPointVariables = variableBits(
    ExpressionVariable::T, ExpressionVariable::PointShare, ExpressionVariable::PointX,
    ExpressionVariable::PointY, ExpressionVariable::PointZ, ExpressionVariable::PointIndex);
/// Those that a bare place on the scalp does not have.
inline constexpr ExpressionVariables kStrandVariables =
    kPointVariables | variableBits(ExpressionVariable::Rand, ExpressionVariable::Index,
                                   ExpressionVariable::Length, ExpressionVariable::Longest,
                                   ExpressionVariable::Reach, ExpressionVariable::Straightness,
                                   ExpressionVariable::Lift, ExpressionVariable::TipX,
                                   ExpressionVariable::TipY, ExpressionVariable::TipZ);
inline constexpr ExpressionVariables kTimeVariables =
    variableBits(ExpressionVariable::Frame, ExpressionVariable::Time);

std::string_view variableName(ExpressionVariable variable);
std::optional<ExpressionVariable> variableNamed(std::string_view name);
/// The three variables of `P`, `N`, `tip` and `pointP`.
std::optional<std::array<ExpressionVariable, 3>> vectorVariablesNamed(std::string_view name);

/// Limits of the language.
inline constexpr int kMaxExpressionLevels = 200;
inline constexpr std::size_t kMaxExpressionOperations = 0x100000;  ///< once `$` names are put in
inline constexpr std::size_t kMaxStoredOperations = 0x400000;      ///< of all `$` names together
inline constexpr std::size_t kMaxExpressionStack = 16384;          ///< floats
inline constexpr std::size_t kMaxExpressionCurves = 65534;

/// The number of floats an operation takes off the stack and puts there.
struct StackEffect {
    std::size_t taken = 0, given = 0;
};
StackEffect stackEffect(const ExpressionOp& op);
/// The deepest the stack gets, in floats.
std::size_t stackDepth(std::span<const ExpressionOp> operations);

/// A compiled text, independent of maps, scalps and strands; immutable.
struct ExpressionProgram {
    struct MapUse {
        std::string name;
        std::size_t offset = 0;  ///< of the name in the text, for messages
    };
    std::string text;
    std::vector<ExpressionOp> operations;
    std::vector<std::string> channels;  ///< in order of first use
    std::vector<Ramp> curves;
    std::vector<MapUse> maps;           ///< in order of first use
    ExpressionVariables variables = 0;  ///< all that are read
    bool vector = false;
    bool perPointAllowed = false;
    bool readsIds = false;  ///< calls rand(x)
    std::size_t stackDepth = 0;

    bool perPoint() const { return (variables & kPointVariables) != 0; }
};

}  // namespace corvelle
