#include "expr/expressionProgram.h"

#include <algorithm>

namespace corvelle {

namespace {

using enum ExpressionVariable;

constexpr std::array<std::string_view, kExpressionVariableCount> kVariableNames = {
    "u",    "v",    "x",          "y",      "z",       "nx",    "ny",
    "nz",   "rand", "index",      "length", "longest", "reach", "straightness",
    "lift", "tipx", "tipy",       "tipz",   "t",       "pt",    "px",
    "py",   "pz",   "pointIndex", "frame",  "time"};

struct VectorRow {
    std::string_view name;
    std::array<ExpressionVariable, 3> parts;
};
constexpr VectorRow kVectors[] = {{"P", {X, Y, Z}},
                                  {"N", {NormalX, NormalY, NormalZ}},
                                  {"tip", {TipX, TipY, TipZ}},
                                  {"pointP", {PointX, PointY, PointZ}}};

}  // namespace

std::string_view variableName(ExpressionVariable variable) {
    return kVariableNames[std::size_t(variable)];
}

std::optional<ExpressionVariable> variableNamed(std::string_view name) {
    const auto found = std::find(kVariableNames.begin(), kVariableNames.end(), name);
    if (found == kVariableNames.end()) return std::nullopt;
    return ExpressionVariable(found - kVariableNames.begin());
}

std::optional<std::array<ExpressionVariable, 3>> vectorVariablesNamed(std::string_view name) {
    for (const VectorRow& row : kVectors)
        if (row.name == name) return row.parts;
    return std::nullopt;
}

StackEffect stackEffect(const ExpressionOp& op) {
    switch (op.opcode) {
        case ExpressionOpcode::Const:
        case ExpressionOpcode::Var:
        case ExpressionOpcode::Channel:
            return {0, 1};
        case ExpressionOpcode::Neg:
            return {1, 1};
        case ExpressionOpcode::Binary:
            return {2, 1};
        case ExpressionOpcode::Call:
            return {op.b, 1};
        case ExpressionOpcode::Select:
            return {3, 1};
        case ExpressionOpcode::NegVector:
            return {3, 3};
        case ExpressionOpcode::BinaryVector:
            return {std::size_t((op.b & 1 ? 3 : 1) + (op.b & 2 ? 3 : 1)), 3};
        case ExpressionOpcode::SelectVector:
            return {7, 3};
        case ExpressionOpcode::CallVector:
            return {op.b, 3};
        case ExpressionOpcode::Component:
            return {3, 1};
        case ExpressionOpcode::Map:
            return {0, std::size_t(op.b ? 3 : 1)};
    }
    return {};
}

std::size_t stackDepth(std::span<const ExpressionOp> operations) {
    std::size_t depth = 0, deepest = 0;
    for (const ExpressionOp& op : operations) {
        const StackEffect effect = stackEffect(op);
        // A result may need more room than its operands had.
        depth = depth - effect.taken + effect.given;
        deepest = std::max(deepest, depth);
    }
    return deepest;
}

}  // namespace corvelle
