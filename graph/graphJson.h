#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "graph/graph.h"

namespace corvelle {

/// The format version that graphs are written with.
inline constexpr int kGraphVersion = 1;

/// Throws GraphError; nothing is left behind. Keys that are not the graph's own (positions, backdrops,
/// a host's) are kept on the graph and its nodes and written back.
Graph graphFromJson(const nlohmann::json& json);
nlohmann::json graphToJson(const Graph& graph);
nlohmann::json defaultGraphJson();
/// A text of only white space and braces is no graph at all.
bool blankGraphText(std::string_view text);

/// Floats come out as the shortest decimal that reads back to the same float; whole numbers without
/// a fraction.
nlohmann::json paramToJson(const ParamValue& value, bool whole = false);
/// Throws GraphError with the param's name.
ParamValue paramFromJson(const std::string& param, const nlohmann::json& json);
/// The spec of one type as hosts see it; of all types, by name.
nlohmann::json operatorSpecJson(const Operator& op);
nlohmann::json operatorSpecsJson();
/// The description of one node: type, versions, ports, params with current values.
nlohmann::json nodeSpecJson(const Graph& graph, const Node& node);

/// Makes the operator of a node's JSON with its definition in place but no params set. Throws
/// GraphError.
OperatorPtr operatorForNode(const nlohmann::json& node);
/// A compound's definition as JSON from the node's params: an object, or text holding one.
nlohmann::json definitionJson(const nlohmann::json& params);
/// Where a port of a name stands; its count for none. "" is the first one.
std::size_t portIndex(const std::vector<PortSpec>& ports, std::string_view name);

}  // namespace corvelle
