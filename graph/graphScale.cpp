#include <cmath>

#include "graph/graphEdit.h"
#include "graph/graphJson.h"
#include "graph/rampText.h"

namespace corvelle {

using nlohmann::json;

namespace {

/// As deep as compounds may nest.
constexpr int kDeepestDefinition = 16;

/// What a value of a unit is multiplied by when the groom grows by `factor`; 1 for none.
double unitScale(const std::string& unit, double factor) {
    if (unit == "length" || unit == "width") return factor;
    if (unit == "density") return 1.0 / (factor * factor);
    if (unit == "perLength") return 1.0 / factor;
    return 1.0;
}

/// The text a condition compares with: of a string itself, of others their JSON.
std::string conditionText(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

json currentValue(const Operator& op, const json& params, const std::string& name) {
    if (const auto at = params.find(name); at != params.end()) return *at;
    const ParamSpec* spec = op.paramSpec(name);
    return spec ? paramToJson(spec->defaultValue, spec->whole) : json();
}

std::string unitOf(const Operator& op, const json& params, const ParamSpec& spec) {
    for (const ParamCondition& c : spec.unitWhen) {
        const std::string held = conditionText(currentValue(op, params, c.param));
        for (const std::string& value : c.values)
            if (value == held) return c.unit;
    }
    return spec.unit;
}

json scaled(const json& value, double scale) {
    if (value.is_number()) return value.get<double>() * scale;
    if (value.is_array()) {  // a vector of lengths
        json out = value;
        for (json& part : out)
            if (part.is_number()) part = part.get<double>() * scale;
        return out;
    }
    if (value.is_object() && !value.contains("keys")) {  // a map spans low to high
        json out = value;
        const auto span = [&](const char* key, double fallback) {
            const auto at = value.find(key);
            const double held = at != value.end() && at->is_number() ? at->get<double>() : fallback;
            if (held != 0.0) out[key] = held * scale;
        };
        span("low", 0.0);
        span("high", 1.0);
        return out;
    }
    return value;
}

/// Calls visit(node) for the nodes of a graph and of the compounds in it, inner ones first; the
/// definitions that hold them become objects.
template <class Visit>
void forEachNode(json& graph, int depth, Visit&& visit) {
    const auto nodes = graph.is_object() ? graph.find("nodes") : graph.end();
    if (!graph.is_object() || nodes == graph.end() || !nodes->is_array()) return;
    for (json& node : *nodes) {
        if (!node.is_object()) continue;
        visit(node);
        const auto params = node.find("params");
        if (params == node.end() || !params->is_object() || !params->contains("definition") ||
            depth >= kDeepestDefinition)
            continue;
        json definition = definitionJson(*params);
        const auto inner = definition.is_object() ? definition.find("graph") : definition.end();
        if (!definition.is_object() || inner == definition.end()) continue;
        forEachNode(*inner, depth + 1, visit);
        (*params)["definition"] = std::move(definition);
    }
}

void scaleNode(json& node, double factor) {
    const OperatorPtr op = operatorForNode(node);
    json& params = node["params"];
    if (!params.is_object()) params = json::object();
    json changed = json::object();
    for (const ParamSpec& spec : op->params()) {
        const double scale = unitScale(unitOf(*op, params, spec), factor);
        if (scale == 1.0 || spec.whole) continue;
        const json before = currentValue(*op, params, spec.name);
        json after = scaled(before, scale);
        if (after != before) changed[spec.name] = std::move(after);
    }
    params.update(changed);
}

void normalizeOne(json& node) {
    const OperatorPtr op = operatorForNode(node);
    if (!node.contains("version")) node["version"] = op->nodeVersion();
    json& params = node["params"];
    if (!params.is_object()) params = json::object();
    for (const ParamSpec& spec : op->params())
        if (!params.contains(spec.name))
            params[spec.name] = paramToJson(spec.defaultValue, spec.whole);
}

}  // namespace

void scaleGraph(json& graph, double factor) {
    if (!std::isfinite(factor) || factor <= 0.0)
        throw GraphError("a graph is scaled by a number above 0");
    if (factor == 1.0) return;
    json copy = graph;
    forEachNode(copy, 0, [&](json& node) { scaleNode(node, factor); });
    graph = std::move(copy);
}

void normalizeNode(json& node) {
    json holder = {{"nodes", json::array({node})}};
    forEachNode(holder, 0, normalizeOne);
    node = std::move(holder["nodes"][0]);
}

}  // namespace corvelle
