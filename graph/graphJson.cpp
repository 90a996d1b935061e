#include "graph/graphJson.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <set>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "graph/rampText.h"

namespace corvelle {

using nlohmann::json;

namespace {

/// The shortest decimal that reads back to the same float, as a double.
double shortest(float value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value);
    double wide = value;
    std::from_chars(text, end.ptr, wide);
    return wide;
}

constexpr MapKind kMapKinds[] = {MapKind::Texture, MapKind::ColorSet, MapKind::Attribute,
                                 MapKind::Expression, MapKind::GuideLayer};
constexpr MapComponent kComponents[] = {MapComponent::R, MapComponent::G, MapComponent::B,
                                        MapComponent::A, MapComponent::Luminance};

json numberJson(double value, bool whole) {
    constexpr double kExact = 9007199254740992.0;
    if (whole && std::abs(value) <= kExact && value == std::trunc(value))
        return static_cast<std::int64_t>(value);
    return value;
}

MapSource mapFromJson(const std::string& param, const json& value) {
    const std::string start = "map for param '" + param + "'";
    MapSource map;
    int sources = 0;
    for (const MapKind kind : kMapKinds) {
        const auto at = value.find(mapKindKey(kind));
        if (at == value.end()) continue;
        ++sources;
        map.kind = kind;
        if (!at->is_string())
            throw GraphError(start + ": " + mapKindKey(kind) + " must be a string");
        map.source = at->get<std::string>();
    }
    if (sources != 1)
        throw GraphError(start +
                         " needs exactly one of texture, colorSet, attribute, expression, guide");
    if (const auto at = value.find("component"); at != value.end()) {
        const std::string word = at->is_string() ? at->get<std::string>() : at->dump();
        const auto* found =
            std::find_if(std::begin(kComponents), std::end(kComponents),
                         [&](MapComponent c) { return word == mapComponentWord(c); });
        if (found == std::end(kComponents) || !at->is_string())
            throw GraphError(start + ": unknown component '" + word + "'");
        map.component = *found;
    }
    for (const auto& [key, target] :
         {std::pair<const char*, float*>{"low", &map.low}, {"high", &map.high}}) {
        const auto at = value.find(key);
        if (at == value.end()) continue;
        if (!at->is_number() || !std::isfinite(at->get<float>()))
            throw GraphError(start + ": " + key + " must be a number");
        *target = at->get<float>();
    }
    return map;
}

}  // namespace

json paramToJson(const ParamValue& value, bool whole) {
    struct Visitor {
        bool whole;
        json operator()(bool v) const { return v; }
        json operator()(double v) const { return numberJson(v, whole); }
        json operator()(const std::string& v) const { return v; }
        json operator()(Vec3f v) const {
            return json::array({shortest(v.x), shortest(v.y), shortest(v.z)});
        }
        json operator()(const Ramp& v) const {
            json keys = json::array();
            for (const auto& [position, level] : v.keys())
                keys.push_back(json::array({shortest(position), shortest(level)}));
            json ramp = {{"keys", std::move(keys)}};
            if (v.linear()) ramp["linear"] = true;
            return ramp;
        }
        json operator()(const MapSource& v) const {
            json map = {{mapKindKey(v.kind), v.source}};
            if (v.component != MapComponent::Luminance)
                map["component"] = mapComponentWord(v.component);
            if (v.low != 0.0f) map["low"] = shortest(v.low);
            if (v.high != 1.0f) map["high"] = shortest(v.high);
            return map;
        }
    };
    return std::visit(Visitor{whole}, value);
}

ParamValue paramFromJson(const std::string& param, const json& value) {
    if (value.is_boolean()) return value.get<bool>();
    if (value.is_number()) return value.get<double>();
    if (value.is_string()) return value.get<std::string>();
    if (value.is_array() && value.size() == 3 &&
        std::all_of(value.begin(), value.end(), [](const json& v) { return v.is_number(); })) {
        const Vec3f v{value[0].get<float>(), value[1].get<float>(), value[2].get<float>()};
        if (!isFinite(v))
            throw GraphError("param '" + param + "': a vector takes three finite numbers");
        return v;
    }
    if (value.is_object() && value.contains("keys")) {
        Ramp ramp;
        if (!readRamp(value, ramp))
            throw GraphError("ramp for param '" + param + "' needs keys [[position, value], ...]");
        return ramp;
    }
    if (value.is_object()) return mapFromJson(param, value);
    throw GraphError("unsupported value for param '" + param + "'");
}

bool blankGraphText(std::string_view text) {
    return text.find_first_not_of(" \t\r\n{}") == std::string_view::npos;
}

json defaultGraphJson() {
    static const json graph = json::parse(R"({
        "version": 1,
        "nodes": [
            {"name": "scalp", "type": "Scalp", "version": 1, "params": {}},
            {"name": "guides", "type": "Guides", "version": 1, "params": {}},
            {"name": "scatter", "type": "Scatter", "version": 1, "params": {}},
            {"name": "interpolate", "type": "Interpolate", "version": 1, "params": {}},
            {"name": "length", "type": "Length", "version": 1,
             "params": {"fraction": 1.0, "trimMin": 0.0, "trimMax": 0.2}},
            {"name": "noise", "type": "Noise", "version": 1, "params": {}},
            {"name": "color", "type": "HairColor", "version": 1, "params": {}},
            {"name": "width", "type": "Width", "version": 1, "params": {}},
            {"name": "resample", "type": "Resample", "version": 1, "params": {}},
            {"name": "output", "type": "Output", "version": 1, "params": {}}],
        "connections": [
            {"from": "scalp", "to": "scatter", "input": "scalp"},
            {"from": "scatter", "to": "interpolate", "input": "strands"},
            {"from": "guides", "to": "interpolate", "input": "guides"},
            {"from": "scalp", "to": "interpolate", "input": "scalp"},
            {"from": "interpolate", "to": "length", "input": "strands"},
            {"from": "length", "to": "noise", "input": "strands"},
            {"from": "noise", "to": "color", "input": "strands"},
            {"from": "color", "to": "width", "input": "strands"},
            {"from": "width", "to": "resample", "input": "strands"},
            {"from": "resample", "to": "output", "input": "strands"}],
        "output": "output"})");
    return graph;
}

// ---- reading
// -------------------------------------------------------------------------------------

std::size_t portIndex(const std::vector<PortSpec>& ports, std::string_view name) {
    if (name.empty()) return 0;
    const auto at = std::find_if(ports.begin(), ports.end(),
                                 [&](const PortSpec& port) { return port.name == name; });
    return std::size_t(at - ports.begin());
}

json definitionJson(const json& params) {
    const auto at = params.is_object() ? params.find("definition") : params.end();
    if (!params.is_object() || at == params.end()) return nullptr;
    return at->is_string() ? parseJsonText(at->get_ref<const std::string&>(), "definition") : *at;
}

OperatorPtr operatorForNode(const json& node) {
    const auto type = node.find("type");
    if (type == node.end() || !type->is_string()) throw GraphError("a node needs a type");
    OperatorPtr op = OperatorRegistry::instance().create(type->get<std::string>());
    if (op->hasDefinition()) {
        const auto params = node.find("params");
        const json definition = params == node.end() ? json() : definitionJson(*params);
        if (!definition.is_null()) op->setDefinition(definition.dump());
    }
    return op;
}

namespace {

const std::set<std::string_view> kNodeKeys = {
    "name", "type", "version", "params", "paramInputs", "paramControls", "bypass", "evaluation"};
const std::set<std::string_view> kGraphKeys = {"version", "nodes", "connections", "output"};

std::shared_ptr<const json> otherKeys(const json& object, const std::set<std::string_view>& known) {
    json rest = json::object();
    for (const auto& [key, value] : object.items())
        if (!known.contains(key)) rest[key] = value;
    return rest.empty() ? nullptr : std::make_shared<const json>(std::move(rest));
}

/// Runs `step`, putting the node's name before what it throws.
template <class Step>
auto ofNode(const std::string& name, Step&& step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const SchemaError& error) {
        throw SchemaError("node '" + name + "': " + error.what());
    } catch (const std::exception& error) {
        throw GraphError("node '" + name + "': " + error.what());
    }
}

void readVersion(const json& node, const std::string& name, Operator& op) {
    const auto at = node.find("version");
    if (at == node.end()) return;
    const double v = at->is_number() ? at->get<double>() : 0.0;
    if (!(v >= 1.0) || v != std::trunc(v))
        throw GraphError("node '" + name + "': version " + at->dump() +
                         " is not a whole number from 1");
    if (v > op.nodeVersion())
        throw GraphError("node '" + name + "' is a " + op.type() + " of version " +
                         numberJson(v, true).dump() + ", newer than this Corvelle's (" +
                         std::to_string(op.nodeVersion()) + "); update Corvelle to open it");
    op.version = static_cast<int>(v);
}

void readControls(const json& node, const std::string& name, Node& target) {
    const auto at = node.find("paramControls");
    if (at == node.end()) return;
    if (!at->is_object())
        throw GraphError("node '" + name + "': paramControls must map params to controls");
    for (const auto& [param, controls] : at->items()) {
        const ParamSpec* spec = target.op->paramSpec(param);
        if (!spec) throw GraphError("node '" + name + "': unknown parameter '" + param + "'");
        const bool vector = std::holds_alternative<Vec3f>(spec->defaultValue);
        const bool three = controls.is_array() && controls.size() == 3 &&
                           std::all_of(controls.begin(), controls.end(),
                                       [](const json& c) { return c.is_string(); });
        if (vector ? !three : !controls.is_string())
            throw GraphError("node '" + name + "': param '" + param +
                             "' must name its control (or three for a vector)");
        std::vector<std::string>& names = target.paramControls[param];
        if (three)
            for (const json& c : controls) names.push_back(c.get<std::string>());
        else
            names.push_back(controls.get<std::string>());
    }
}

/// One connection into a param, as read: names still to be looked up.
struct WantedParamInput {
    NodeId to = 0;
    std::string name, param, from, output;
    std::optional<float> scale;
};

void readParamInputs(const json& node, const std::string& name, NodeId id,
                     std::vector<WantedParamInput>& wanted) {
    const auto at = node.find("paramInputs");
    if (at == node.end()) return;
    const auto wrong = [&] {
        return GraphError(
            "node '" + name +
            "': paramInputs must map params to {\"from\": node, \"output\", \"scale\"}");
    };
    const auto read = [&](const std::string& param, const json& entry) {
        if (!entry.is_object() || !entry.contains("from") || !entry["from"].is_string())
            throw wrong();
        WantedParamInput input{id, name, param, entry["from"].get<std::string>(), {}, {}};
        if (const auto output = entry.find("output"); output != entry.end()) {
            if (!output->is_string()) throw wrong();
            input.output = output->get<std::string>();
        }
        if (const auto scale = entry.find("scale"); scale != entry.end()) {
            if (!scale->is_number() || !std::isfinite(scale->get<float>())) throw wrong();
            input.scale = scale->get<float>();
        }
        wanted.push_back(std::move(input));
    };
    if (at->is_object()) {
        for (const auto& [param, entry] : at->items()) read(param, entry);
    } else if (at->is_array()) {
        for (const json& entry : *at) {
            if (!entry.is_object() || !entry.contains("param") || !entry["param"].is_string())
                throw wrong();
            read(entry["param"].get<std::string>(), entry);
        }
    } else {
        throw wrong();
    }
}

using NodeNames = std::unordered_map<std::string, NodeId>;

NodeId nodeNamed(const NodeNames& names, const std::string& name) {
    const auto at = names.find(name);
    if (at == names.end()) throw GraphError("unknown node '" + name + "'");
    return at->second;
}

void readNode(const json& json_, Graph& graph, NodeNames& names,
              std::vector<WantedParamInput>& wanted) {
    if (!json_.is_object()) throw GraphError("graph JSON: a node is an object");
    const auto nameAt = json_.find("name");
    if (nameAt == json_.end() || !nameAt->is_string() ||
        nameAt->get_ref<const std::string&>().empty())
        throw GraphError("a node needs a name");
    const std::string name = nameAt->get<std::string>();
    if (names.contains(name)) throw GraphError("duplicate node name '" + name + "'");
    const auto typeAt = json_.find("type");
    if (typeAt == json_.end() || !typeAt->is_string())
        throw GraphError("node '" + name + "': a node needs a type");
    if (!OperatorRegistry::instance().has(typeAt->get<std::string>()))
        throw GraphError("unknown operator type '" + typeAt->get<std::string>() + "'");
    OperatorPtr op = ofNode(name, [&] { return operatorForNode(json_); });
    op->name = name;
    readVersion(json_, name, *op);
    if (const auto params = json_.find("params"); params != json_.end()) {
        if (!params->is_object())
            throw GraphError("node '" + name + "': a node's params are a JSON object");
        ofNode(name, [&] {
            for (const auto& [param, value] : params->items())
                if (!(param == "definition" && op->hasDefinition()))
                    op->set(param, paramFromJson(param, value));
        });
    }
    const NodeId id = graph.addNode(std::move(op));
    names.emplace(name, id);
    Node& node = graph.node(id);
    readParamInputs(json_, name, id, wanted);
    readControls(json_, name, node);
    if (const auto bypass = json_.find("bypass"); bypass != json_.end()) {
        if (!bypass->is_boolean()) throw GraphError("node '" + name + "': bypass is true or false");
        node.bypass = bypass->get<bool>();
    }
    if (const auto mode = json_.find("evaluation"); mode != json_.end()) {
        try {
            node.evaluation =
                nodeEvaluationFromName(mode->is_string() ? mode->get<std::string>() : "");
        } catch (const GraphError&) {
            throw GraphError("node '" + name +
                             "': evaluation is always, viewportOnly or renderOnly");
        }
    }
    node.extra = otherKeys(json_, kNodeKeys);
}

std::size_t outputNamed(const Node& node, const std::string& port) {
    const std::size_t output = portIndex(node.op->outputPorts(), port);
    if (output >= node.op->outputPorts().size())
        throw GraphError("node '" + node.op->name + "' has no output '" + port + "'");
    return output;
}

void readConnection(const json& connection, Graph& graph, const NodeNames& names) {
    const auto text = [&](const char* key, bool required) -> std::string {
        const auto at = connection.is_object() ? connection.find(key) : connection.end();
        if (!connection.is_object() || (at == connection.end() ? required : !at->is_string()))
            throw GraphError(
                "graph JSON: a connection is an object of from, to, input and maybe output");
        return at == connection.end() ? std::string() : at->get<std::string>();
    };
    const NodeId from = nodeNamed(names, text("from", true));
    const NodeId to = nodeNamed(names, text("to", true));
    const std::string port = text("input", true), outPort = text("output", false);
    const std::string& target = graph.node(to).op->name;
    const auto& inputs = graph.node(to).op->inputPorts();
    const std::size_t input = port.empty() ? inputs.size() : portIndex(inputs, port);
    if (input >= inputs.size())
        throw GraphError("node '" + target + "' has no input '" + port + "'");
    const std::size_t output = outputNamed(graph.node(from), outPort);
    ofNode(target, [&] { graph.connect(from, output, to, input, true); });
}

const json* listOf(const json& graph, const char* key) {
    const auto at = graph.find(key);
    if (at == graph.end()) return nullptr;
    if (!at->is_array()) throw GraphError(std::string("graph JSON: ") + key + " is a list");
    return &*at;
}

}  // namespace

Graph graphFromJson(const json& value) {
    if (!value.is_object()) throw GraphError("graph JSON must be an object");
    if (const auto version = value.find("version"); version != value.end()) {
        const double v = version->is_number() ? version->get<double>() : 0.5;
        const std::string start = "graph version " + version->dump();
        if (v != std::trunc(v)) throw SchemaError(start + " is not a whole number");
        if (v < 1.0) throw SchemaError(start + " is not valid");
        if (v > kGraphVersion)
            throw SchemaError(start + " is newer than this Corvelle supports (" +
                              std::to_string(kGraphVersion) + "); update Corvelle to open it");
    }
    Graph graph;
    NodeNames names;
    std::vector<WantedParamInput> wanted;
    if (const json* nodes = listOf(value, "nodes"))
        for (const json& node : *nodes) readNode(node, graph, names, wanted);
    if (const json* connections = listOf(value, "connections"))
        for (const json& connection : *connections) readConnection(connection, graph, names);
    for (const WantedParamInput& input : wanted)
        ofNode(input.name, [&] {
            const NodeId from = nodeNamed(names, input.from);
            graph.connectParam(from, outputNamed(graph.node(from), input.output), input.to,
                               input.param, input.scale, true);
        });
    if (const NodeId id = graph.nodeOnCycle(); id != 0)
        throw GraphError("node '" + graph.node(id).op->name + "': connection would create a cycle");
    const auto output = value.find("output");
    const NodeId id =
        output != value.end() && output->is_string() && names.contains(output->get<std::string>())
            ? names.at(output->get<std::string>())
            : 0;
    if (id == 0) throw GraphError("graph JSON has no 'output' node");
    graph.setOutput(id);
    graph.extra = otherKeys(value, kGraphKeys);
    return graph;
}

// ---- writing
// -------------------------------------------------------------------------------------

namespace {

json paramInputsJson(const Graph& graph, const Node& node) {
    json inputs = json::object();
    for (const auto& [param, input] : node.paramInputs) {
        const Node& from = graph.node(input.from);
        json entry = {{"from", from.op->name}};
        if (from.op->outputPorts().size() > 1)
            entry["output"] = from.op->outputPorts().at(input.output).name;
        if (input.scale) entry["scale"] = shortest(*input.scale);
        inputs[param] = std::move(entry);
    }
    return inputs;
}

json nodeJson(const Graph& graph, const Node& node) {
    const Operator& op = *node.op;
    json out = node.extra ? *node.extra : json::object();
    out["name"] = op.name;
    out["type"] = op.type();
    out["version"] = op.version < 1 ? op.nodeVersion() : op.version;
    json& params = out["params"] = json::object();
    if (op.hasDefinition() && !op.definition().empty())
        params["definition"] = parseJsonText(op.definition(), "definition");
    for (const auto& [param, value] : op.storedParams()) {
        const ParamSpec* spec = op.paramSpec(param);
        params[param] = paramToJson(value, spec && spec->whole);
    }
    if (!node.paramInputs.empty()) out["paramInputs"] = paramInputsJson(graph, node);
    if (!node.paramControls.empty()) {
        json& controls = out["paramControls"] = json::object();
        for (const auto& [param, names] : node.paramControls)
            controls[param] = names.size() == 1 ? json(names[0]) : json(names);
    }
    if (node.bypass) out["bypass"] = true;
    if (node.evaluation != NodeEvaluation::Always)
        out["evaluation"] = nodeEvaluationName(node.evaluation);
    return out;
}

json portJson(const PortSpec& port) {
    json out = {{"name", port.name}, {"type", portTypeName(port.type)}};
    if (port.optional) out["optional"] = true;
    return out;
}

void portsJson(const Operator& op, json& out) {
    json& inputs = out["inputs"] = json::array();
    for (const PortSpec& port : op.inputPorts()) inputs.push_back(portJson(port));
    const auto& outputs = op.outputPorts();
    if (outputs.size() == 1) {
        out["output"] = portJson(outputs[0]);
    } else {
        json& list = out["outputs"] = json::array();
        for (const PortSpec& port : outputs) list.push_back(portJson(port));
    }
}

json conditionsJson(const std::vector<ParamCondition>& conditions, bool unit) {
    json list = json::array();
    for (const ParamCondition& c : conditions) {
        json entry = {{"param", c.param}, {"values", c.values}};
        if (unit) entry["unit"] = c.unit;
        list.push_back(std::move(entry));
    }
    return list;
}

json paramSpecJson(const ParamSpec& spec) {
    json out = {{"name", spec.name},
                {"kind", spec.kind()},
                {"default", paramToJson(spec.defaultValue, spec.whole)},
                {"description", spec.description}};
    if (spec.isMappable()) out["mappable"] = true;
    if (!spec.unit.empty()) out["unit"] = spec.unit;
    if (!spec.choices.empty()) out["choices"] = spec.choices;
    if (spec.isAnimatable()) out["animatable"] = true;
    if (!spec.group.empty()) out["group"] = spec.group;
    if (spec.advanced) out["advanced"] = true;
    if (spec.worldDirection) out["worldDirection"] = true;
    if (spec.vectorExpression) out["vectorExpression"] = true;
    if (spec.whole) out["whole"] = true;
    for (const auto& [key, limit] : {std::pair{"softMin", spec.softMin},
                                     {"softMax", spec.softMax},
                                     {"min", spec.min},
                                     {"max", spec.max}})
        if (limit) out[key] = numberJson(*limit, spec.whole);
    if (!spec.showWhen.empty()) out["showWhen"] = conditionsJson(spec.showWhen, false);
    if (!spec.unitWhen.empty()) out["unitWhen"] = conditionsJson(spec.unitWhen, true);
    return out;
}

}  // namespace

json graphToJson(const Graph& graph) {
    json out = graph.extra ? *graph.extra : json::object();
    if (const auto at = out.find("backdrops"); at != out.end() && at->empty()) out.erase(at);
    out["version"] = kGraphVersion;
    json& nodes = out["nodes"] = json::array();
    json& connections = out["connections"] = json::array();
    for (const auto& [id, node] : graph.nodes()) {
        nodes.push_back(nodeJson(graph, node));
        for (std::size_t slot = 0; slot < node.inputNodes.size(); ++slot) {
            if (node.inputNodes[slot] == 0) continue;
            const Operator& from = *graph.node(node.inputNodes[slot]).op;
            json connection = {{"from", from.name},
                               {"to", node.op->name},
                               {"input", node.op->inputPorts().at(slot).name}};
            if (from.outputPorts().size() > 1)
                connection["output"] = from.outputPorts().at(node.inputOutputs[slot]).name;
            connections.push_back(std::move(connection));
        }
    }
    if (graph.output() != 0) out["output"] = graph.node(graph.output()).op->name;
    return out;
}

json operatorSpecJson(const Operator& op) {
    json out = {{"type", op.type()},
                {"version", op.nodeVersion()},
                {"category", op.category()},
                {"description", op.description()}};
    portsJson(op, out);
    json& params = out["params"] = json::array();
    for (const ParamSpec& spec : op.params()) params.push_back(paramSpecJson(spec));
    return out;
}

json operatorSpecsJson() {
    json all = json::array();
    const OperatorRegistry& registry = OperatorRegistry::instance();
    for (const std::string& type : registry.types())
        all.push_back(operatorSpecJson(*registry.create(type)));
    return all;
}

json nodeSpecJson(const Graph& graph, const Node& node) {
    const Operator& op = *node.op;
    json out = operatorSpecJson(op);
    const int stored = op.version < 1 ? op.nodeVersion() : op.version;
    out["name"] = op.name;
    out["nodeVersion"] = op.nodeVersion();
    out["version"] = stored;
    out["outdated"] = stored < op.nodeVersion();
    for (json& param : out["params"]) {
        const std::string name = param["name"].get<std::string>();
        const auto held = op.storedParams().find(name);
        const ParamSpec& spec = *op.paramSpec(name);
        param["value"] = paramToJson(
            held == op.storedParams().end() ? spec.defaultValue : held->second, spec.whole);
    }
    out["paramInputs"] = paramInputsJson(graph, node);
    return out;
}

}  // namespace corvelle
