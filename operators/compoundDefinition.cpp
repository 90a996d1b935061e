#include "operators/compoundDefinition.h"

#include <algorithm>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "graph/rampText.h"
#include "model/hash.h"

namespace corvelle {

using nlohmann::json;

namespace {

constexpr std::string_view kOwnNames[] = {"affect", "definition", "repeat"};

/// Reading a definition reads the definitions inside it.
class Nesting {
public:
    Nesting() {
        if (depth_ >= kDeepestCompound)
            throw SchemaError("compounds are nested more than " + std::to_string(kDeepestCompound) +
                              " deep");
        ++depth_;
    }
    ~Nesting() { --depth_; }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;

private:
    static thread_local int depth_;
};
thread_local int Nesting::depth_ = 0;

std::string portName(const json& port, const char* what) {
    const auto name = port.is_object() ? port.find("name") : port.end();
    if (!port.is_object() || name == port.end() || !name->is_string() ||
        name->get_ref<const std::string&>().empty())
        throw SchemaError(std::string("the definition's ") + what + " each need a name");
    return name->get<std::string>();
}

PortType portType(const json& port, PortType fallback) {
    const auto type = port.find("type");
    if (type == port.end()) return fallback;
    try {
        return portTypeFromName(type->is_string() ? type->get<std::string>() : type->dump());
    } catch (const GraphError& error) {
        throw SchemaError(error.what());
    }
}

std::vector<PortSpec> readInputs(const json& definition) {
    std::vector<PortSpec> inputs;
    const auto list = definition.find("inputs");
    if (list == definition.end()) return inputs;
    if (!list->is_array()) throw SchemaError("the definition's inputs are not a list");
    for (const json& port : *list) {
        PortSpec input{portName(port, "inputs"), portType(port, PortType::Strands), false};
        if (const auto optional = port.find("optional"); optional != port.end()) {
            if (!optional->is_boolean())
                throw SchemaError("the definition's input '" + input.name +
                                  "': optional is true or false");
            input.optional = optional->get<bool>();
        }
        if (portIndex(inputs, input.name) < inputs.size())
            throw SchemaError("the definition's input '" + input.name + "' is there twice");
        inputs.push_back(std::move(input));
    }
    return inputs;
}

/// The inner output node's ports, under the names that the definition has for them.
std::vector<PortSpec> readOutputs(const json& definition, Graph& graph) {
    const auto one = definition.find("output"), many = definition.find("outputs");
    if (one != definition.end() && one->is_string()) {
        const std::string name = one->get<std::string>();
        const NodeId id = graph.find(name);
        if (id == 0) throw SchemaError("the definition's output: unknown node '" + name + "'");
        graph.setOutput(id);
    }
    const Node& node = graph.node(graph.output());
    std::vector<PortSpec> outputs = node.op->outputPorts();
    for (PortSpec& port : outputs) port.optional = false;
    const json* list = many != definition.end() ? &*many : nullptr;
    json single;
    if (!list && one != definition.end() && !one->is_string()) {
        single = json::array({*one});
        list = &single;
    }
    if (!list) return outputs;
    if (!list->is_array()) throw SchemaError("the definition's outputs are not a list");
    if (list->size() != outputs.size())
        throw SchemaError("the definition names " + std::to_string(list->size()) +
                          " outputs, but " + node.op->name + " has " +
                          std::to_string(outputs.size()));
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        outputs[i].name = portName((*list)[i], "outputs");
        const PortType wanted = portType((*list)[i], outputs[i].type);
        if (!portsFit(outputs[i].type, wanted))
            throw SchemaError(std::string("type mismatch: ") + portTypeName(outputs[i].type) +
                              " -> " + portTypeName(wanted));
        outputs[i].type = wanted;
    }
    return outputs;
}

/// What a condition on a param compares with.
std::string conditionText(const Operator& op, const std::string& param) {
    const ParamSpec* spec = op.paramSpec(param);
    if (!spec) return {};
    const json value = paramToJson(op.value(param), spec->whole);
    return value.is_string() ? value.get<std::string>() : value.dump();
}

ExposedParam exposedParam(const Node& node, const std::string& name, const std::string& param) {
    const ParamSpec* inner = node.op->paramSpec(param);
    if (!inner) throw SchemaError(node.op->name + " has no param '" + param + "' to expose");
    ExposedParam exposed{.node = node.op->name, .param = param, .spec = *inner};
    const auto& stored = node.op->storedParams();
    if (const auto at = stored.find(param); at != stored.end()) exposed.own = at->second;
    exposed.takesField = std::holds_alternative<double>(inner->defaultValue) && inner->isMappable();
    if (exposed.own && exposed.own->index() == inner->defaultValue.index())
        exposed.spec.defaultValue = *exposed.own;
    exposed.spec.name = name;
    exposed.spec.description += " (exposed " + node.op->name + "." + param + ")";
    return exposed;
}

/// Conditions on params of the inner node become conditions on their outer names; those on params
/// that stay inside are settled now.
void translateConditions(const Graph& graph, std::vector<ExposedParam>& all) {
    std::map<std::pair<std::string, std::string>, std::string> outer;
    for (const ExposedParam& e : all) outer[{e.node, e.param}] = e.spec.name;
    for (ExposedParam& e : all) {
        const Operator& op = *graph.node(graph.byName(e.node)).op;
        const auto translated = [&](std::vector<ParamCondition>& conditions, auto&& settle) {
            std::vector<ParamCondition> kept;
            for (ParamCondition& c : conditions) {
                const auto shown = outer.find({e.node, c.param});
                if (shown == outer.end()) {
                    settle(c);
                    continue;
                }
                c.param = shown->second;
                kept.push_back(std::move(c));
            }
            conditions = std::move(kept);
        };
        translated(e.spec.showWhen, [](const ParamCondition&) {});
        translated(e.spec.unitWhen, [&](const ParamCondition& c) {
            if (std::ranges::find(c.values, conditionText(op, c.param)) != c.values.end())
                e.spec.unit = c.unit;
        });
    }
}

std::vector<ExposedParam> readExposed(const json& definition, const Graph& graph,
                                      const std::vector<PortSpec>& inputs) {
    std::vector<ExposedParam> all;
    const auto list = definition.find("expose");
    if (list == definition.end()) return all;
    const auto wrongShape = [] {
        return SchemaError("the definition's expose is not an object of name: \"node.param\"");
    };
    if (!list->is_object()) throw wrongShape();
    std::set<std::string> targets;
    for (const auto& [name, value] : list->items()) {
        if (!value.is_string()) throw wrongShape();
        const std::string target = value.get<std::string>();
        const std::size_t dot = target.rfind('.');
        if (dot == std::string::npos)
            throw SchemaError("exposed param '" + name + "' must name node.param");
        if (std::ranges::find(kOwnNames, name) != std::end(kOwnNames))
            throw SchemaError("param '" + name + "' has the name of one of Compound's own");
        if (portIndex(inputs, name) < inputs.size())
            throw SchemaError("param '" + name + "' has the name of an input of Compound");
        if (!targets.insert(target).second) throw SchemaError("param '" + name + "' exposed twice");
        const std::string node = target.substr(0, dot);
        const NodeId id = graph.find(node);
        if (id == 0) throw SchemaError("exposed param '" + name + "': unknown node '" + node + "'");
        all.push_back(exposedParam(graph.node(id), name, target.substr(dot + 1)));
    }
    translateConditions(graph, all);
    return all;
}

}  // namespace

std::string fieldInputName(const std::string& exposed) { return "__field:" + exposed; }

CompoundDefinitionPtr readCompoundDefinition(const std::string& text) {
    const Nesting nesting;
    const json definition = parseJsonText(text, "definition");
    if (!definition.is_object()) throw SchemaError("the definition is not a JSON object");
    const auto inner = definition.find("graph");
    if (inner == definition.end() || !inner->is_object())
        throw SchemaError("the definition has no graph");
    auto out = std::make_shared<CompoundDefinition>();
    out->text = definition.dump();
    out->hash = hashOf(out->text);
    out->graph = graphFromJson(*inner);
    out->inputs = readInputs(definition);
    out->outputs = readOutputs(definition, out->graph);
    out->exposed = readExposed(definition, out->graph, out->inputs);
    for (const auto& [id, node] : out->graph.nodes())
        out->countsPasses =
            out->countsPasses || (node.op->type() == "Input" && node.op->text("type") == "Field" &&
                                  node.op->text("name") == kIterationInput);
    if (portIndex(out->inputs, kIterationInput) < out->inputs.size()) out->countsPasses = false;
    for (const ExposedParam& e : out->exposed) {
        if (!e.takesField) continue;
        OperatorPtr input = OperatorRegistry::instance().create("Input");
        input->name = fieldInputName(e.spec.name);
        input->set("name", input->name);
        input->set("type", std::string(portTypeName(PortType::Field)));
        out->graph.addNode(std::move(input));
    }
    return out;
}

}  // namespace corvelle
