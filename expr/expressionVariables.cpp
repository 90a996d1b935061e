#include <algorithm>
#include <cmath>
#include <optional>

#include <nlohmann/json.hpp>

#include "expr/expressionMap.h"
#include "expr/nameChars.h"

namespace corvelle {

namespace {

using Json = nlohmann::json;

bool isVariableName(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), isNameChar);
}

/// A number that a float holds.
std::optional<float> numberOf(const Json& value) {
    if (!value.is_number()) return std::nullopt;
    const float number = float(value.get<double>());
    if (!std::isfinite(number)) return std::nullopt;
    return number;
}

std::optional<std::variant<float, Vec3f>> variableOf(const Json& value) {
    if (const auto number = numberOf(value)) return *number;
    if (!value.is_array() || value.size() != 3) return std::nullopt;
    Vec3f vector;
    for (int k = 0; k < 3; ++k) {
        const auto part = numberOf(value[std::size_t(k)]);
        if (!part) return std::nullopt;
        vector[k] = *part;
    }
    return vector;
}

}  // namespace

std::map<std::string, std::variant<float, Vec3f>> expressionVariables(std::string_view json) {
    std::map<std::string, std::variant<float, Vec3f>> variables;
    if (json.find_first_not_of(" \t\r\n") == std::string_view::npos) return variables;
    const Json object = Json::parse(json, nullptr, false);
    if (!object.is_object())
        throw ExpressionError("variables are a JSON object of numbers and vectors");
    for (const auto& [name, value] : object.items()) {
        if (!isVariableName(name))
            throw ExpressionError("'" + name + "' is not a variable name (letters, digits and _)");
        const auto variable = variableOf(value);
        if (!variable) throw ExpressionError(name + " is neither a number nor a vector of three");
        variables[name] = *variable;
    }
    return variables;
}

}  // namespace corvelle
