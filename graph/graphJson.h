#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "graph/graph.h"

namespace corvelle {

/// Throws GraphError or SchemaError; nothing is left behind.
Graph graphFromJson(const nlohmann::json& json);
nlohmann::json graphToJson(const Graph& graph);
nlohmann::json defaultGraphJson();
/// A text of only white space and braces is no graph at all.
bool blankGraphText(std::string_view text);

nlohmann::json paramToJson(const ParamValue& value, bool whole = false);
/// Throws GraphError with the param's name.
ParamValue paramFromJson(const std::string& param, const nlohmann::json& json);
/// The spec of one type as hosts see it; of all types, by name.
nlohmann::json operatorSpecJson(const Operator& op);
nlohmann::json operatorSpecsJson();
/// The description of one node: type, versions, ports, params with current values.
nlohmann::json nodeSpecJson(const Node& node);

}  // namespace corvelle
