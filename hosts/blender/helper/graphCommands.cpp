#include "hosts/blender/helper/graphCommands.h"

#include <functional>

#include "graph/graphEdit.h"
#include "graph/graphJson.h"
#include "hosts/blender/helper/requestError.h"
#include "operators/registerOperators.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

/// The session's graph, the default one when it has none.
Json sessionGraph(const GroomSession& groom) {
    const std::string& text = groom.document().graph;
    if (blankGraphText(text)) return defaultGraphJson();
    Json graph = Json::parse(text);
    if (!graph.is_object()) failRequest("graph", "the session's graph is not a JSON object");
    return graph;
}

void requireNode(const GraphEdit& edit, const std::string& name) {
    if (!edit.has(name)) failRequest("not_found", "no node '" + name + "'");
}

/// The node as the engine holds it: of the session's graph, or of the default one.
class NodeView {
public:
    NodeView(const GroomSession& groom, const std::string& name) {
        graph_ = groom.graph();
        if (!graph_) graph_ = &own_.emplace(graphFromJson(sessionGraph(groom)));
        const NodeId id = graph_->find(name);
        if (id == 0) failRequest("not_found", "no node '" + name + "'");
        node_ = &graph_->node(id);
    }
    const Graph& graph() const { return *graph_; }
    const Node& operator*() const { return *node_; }
    const Node* operator->() const { return node_; }

private:
    std::optional<Graph> own_;
    const Graph* graph_ = nullptr;
    const Node* node_ = nullptr;
};

[[noreturn]] void failNoParam(const std::string& node, const std::string& param) {
    failRequest("not_found", "node '" + node + "' has no param '" + param + "'");
}

/// The word hosts know a param's kind by: whole numbers are "int".
std::string kindWord(const ParamSpec& spec) { return spec.whole ? "int" : spec.kind(); }

bool fits(const ParamSpec& spec, const Json& value) {
    if (value.is_object() && (spec.isMappable() || spec.vectorExpression)) return true;
    const std::string kind = kindWord(spec);
    if (kind == "bool") return value.is_boolean();
    if (kind == "int") return value.is_number_integer();
    if (kind == "float") return value.is_number();
    if (kind == "string") return value.is_string();
    if (kind == "vec3") return value.is_array() && value.size() == 3;
    return kind == "ramp";
}

// The ops of edit_graph. Each answers its own keys; those of the whole edit come behind.

using EditOp = Json (*)(GraphEdit&, const Json& request);

Json addNodeOp(GraphEdit& edit, const Json& request) {
    const Json* params = findField(request, "params");
    Json position;
    if (findField(request, "x") || findField(request, "y"))
        position = {optionalNumber(request, "x", 0.0), optionalNumber(request, "y", 0.0)};
    const std::string& type = requireString(request, "type");
    return {{"name", edit.addNode(type, optionalString(request, "name", ""),
                                  params ? *params : Json::object(), position)}};
}

Json removeNodeOp(GraphEdit& edit, const Json& request) {
    edit.removeNode(requireString(request, "name"));
    return Json::object();
}

Json renameNodeOp(GraphEdit& edit, const Json& request) {
    edit.renameNode(requireString(request, "name"), requireString(request, "newName"));
    return Json::object();
}

Json connectOp(GraphEdit& edit, const Json& request) {
    const std::string& from = requireString(request, "from");
    const std::string& to = requireString(request, "to");
    edit.connect(from, optionalString(request, "output", ""), to, requireString(request, "input"));
    return Json::object();
}

Json disconnectOp(GraphEdit& edit, const Json& request) {
    const std::string& to = requireString(request, "to");
    return {{"disconnected", edit.disconnect(to, requireString(request, "input"))}};
}

Json setOutputOp(GraphEdit& edit, const Json& request) {
    edit.setOutput(requireString(request, "name"));
    return Json::object();
}

Json upgradeNodeOp(GraphEdit& edit, const Json& request) {
    return {{"upgraded", edit.upgradeNode(requireString(request, "name"))}};
}

Json setPositionsOp(GraphEdit& edit, const Json& request) {
    const Json* positions = findField(request, "positions");
    if (!positions || !positions->is_object())
        failRequest("bad_request", "positions is {node: [x, y]}");
    for (const auto& [name, value] : positions->items()) {
        requireNode(edit, name);
        if (!value.is_array() || value.size() != 2 || !value[0].is_number() ||
            !value[1].is_number())
            failRequest("bad_request", "the position of '" + name + "' is [x, y]");
        edit.setPosition(name, value[0].get<double>(), value[1].get<double>());
    }
    return Json::object();
}

Json setBypassOp(GraphEdit& edit, const Json& request) {
    const std::string& name = requireString(request, "name");
    const bool bypass = optionalBool(request, "bypass", false);
    requireNode(edit, name);
    edit.setBypass(name, bypass);
    return Json::object();
}

Json setEvaluationOp(GraphEdit& edit, const Json& request) {
    const std::string& name = requireString(request, "name");
    const std::string& mode = requireString(request, "mode");
    requireNode(edit, name);
    edit.setEvaluation(name, mode);
    return Json::object();
}

struct EditRow {
    std::string_view op;
    EditOp apply;
};
constexpr EditRow kEdits[] = {
    {"add_node", addNodeOp},         {"remove_node", removeNodeOp},
    {"rename_node", renameNodeOp},   {"connect", connectOp},
    {"disconnect", disconnectOp},    {"set_output", setOutputOp},
    {"upgrade_node", upgradeNodeOp}, {"set_positions", setPositionsOp},
    {"set_bypass", setBypassOp},     {"set_evaluation", setEvaluationOp},
};

EditOp editOp(const std::string& op) {
    std::string names;
    for (const EditRow& row : kEdits) {
        if (row.op == op) return row.apply;
        if (!names.empty()) names += &row == std::end(kEdits) - 1 ? " or " : ", ";
        names += row.op;
    }
    failRequest("bad_request", "op is " + names);
}

}  // namespace

Json operatorSpecsCommand(const CommandContext&) {
    registerOperators();
    static const Json specs = operatorSpecsJson();
    return {{"operators", specs}};
}

Json defaultGraphCommand(const CommandContext&) { return {{"graph", defaultGraphJson()}}; }

Json getGraphCommand(const CommandContext& context) {
    return {{"graph", sessionGraph(*context.session().groom)}};
}

Json setGraphCommand(const CommandContext& context) {
    GroomSession& groom = *context.session().groom;
    const Json& graph = requireField(context.request, "graph");
    groom.setGraphJson(graph.is_string() ? graph.get<std::string>() : graph.dump());
    return {{"nodes", groom.graph() ? groom.graph()->nodes().size() : 0}};
}

Json listNodesCommand(const CommandContext& context) {
    const Json graph = sessionGraph(*context.session().groom);
    Json nodes = Json::array();
    for (const Json& node : graph.value("nodes", Json::array())) {
        Json row{{"name", node.at("name")}, {"type", node.at("type")}};
        row["version"] =
            node.contains("version")
                ? node.at("version")
                : Json(OperatorRegistry::instance().create(node.at("type"))->nodeVersion());
        nodes.push_back(std::move(row));
    }
    return {{"nodes", std::move(nodes)}, {"output", graph.value("output", "")}};
}

Json nodeSpecCommand(const CommandContext& context) {
    const std::string& name = requireString(context.request, "node");
    const NodeView node(*context.session().groom, name);
    return {{"spec", nodeSpecJson(node.graph(), *node)}};
}

Json getParamCommand(const CommandContext& context) {
    const GroomSession& groom = *context.session().groom;
    const std::string& name = requireString(context.request, "node");
    const std::string& param = requireString(context.request, "param");
    GraphEdit graph(sessionGraph(groom));
    requireNode(graph, name);
    const Json& json = graph.node(name);
    if (const auto params = json.find("params"); params != json.end() && params->contains(param))
        return {{"param", param}, {"value", params->at(param)}};
    const NodeView node(groom, name);
    const ParamSpec* spec = node->op->paramSpec(param);
    if (!spec) failNoParam(name, param);
    return {{"param", param},
            {"value", paramToJson(spec->defaultValue, spec->whole)},
            {"default", true}};
}

Json setParamCommand(const CommandContext& context) {
    GroomSession& groom = *context.session().groom;
    const std::string& name = requireString(context.request, "node");
    const std::string& param = requireString(context.request, "param");
    const Json& value = requireField(context.request, "value");
    GraphEdit graph(sessionGraph(groom));
    requireNode(graph, name);
    Json& json = graph.node(name);
    {
        const NodeView node(groom, name);
        const ParamSpec* spec = node->op->paramSpec(param);
        const bool definition = param == "definition" && node->op->hasDefinition();
        if (!spec && !definition) failNoParam(name, param);
        if (spec && !fits(*spec, value))
            failRequest("type_mismatch", name + "." + param + " takes a " + kindWord(*spec) +
                                             (spec->isMappable() ? " or a map" : "") + ", not " +
                                             value.dump());
    }
    if (!json["params"].is_object()) json["params"] = Json::object();
    json["params"][param] = value;
    groom.setGraphJson(graph.json().dump());
    return {{"param", param}, {"value", value}};
}

Json editGraphCommand(const CommandContext& context) {
    GroomSession& groom = *context.session().groom;
    const std::string& op = requireString(context.request, "op");
    const EditOp apply = editOp(op);
    GraphEdit edit(sessionGraph(groom));
    Json answer = apply(edit, context.request);
    std::map<std::string, std::string> renamed;
    if (op == "rename_node")
        renamed[context.request.at("name").get<std::string>()] =
            context.request.at("newName").get<std::string>();
    groom.setGraphJson(edit.json().dump(), renamed);
    answer["graphError"] = groom.graphError();
    if (const std::vector<std::string> warnings = seedCollisions(edit.json()); !warnings.empty())
        answer["warnings"] = warnings;
    return answer;
}

}  // namespace corvelle
