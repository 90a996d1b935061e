#include "graph/graphEdit.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <set>

#include "graph/graphJson.h"
#include "graph/rampText.h"

namespace corvelle {

using Json = nlohmann::json;

namespace {

std::string textAt(const Json& object, const char* key) {
    if (!object.is_object()) return {};
    const auto at = object.find(key);
    return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
}

Json& listAt(Json& graph, const char* key) {
    Json& list = graph[key];
    if (!list.is_array()) list = Json::array();
    return list;
}

/// Calls visit(param, entry) for the param inputs of a node, in either of their forms.
template <class Visit>
void forEachParamInput(const Json& node, Visit&& visit) {
    const auto inputs = node.is_object() ? node.find("paramInputs") : node.end();
    if (!node.is_object() || inputs == node.end()) return;
    if (inputs->is_object())
        for (const auto& [param, entry] : inputs->items()) visit(param, entry);
    else if (inputs->is_array())
        for (const Json& entry : *inputs) visit(textAt(entry, "param"), entry);
}

template <class Drop>
bool eraseParamInputs(Json& node, Drop&& drop) {
    const auto inputs = node.find("paramInputs");
    if (inputs == node.end()) return false;
    bool erased = false;
    for (auto it = inputs->begin(); it != inputs->end();) {
        const std::string param = inputs->is_object() ? it.key() : textAt(*it, "param");
        const bool gone = (inputs->is_object() || inputs->is_array()) && drop(param, *it);
        erased = erased || gone;
        it = gone ? inputs->erase(it) : std::next(it);
    }
    if (erased && inputs->empty()) node.erase("paramInputs");
    return erased;
}

/// A node's operator with what can be read of its params: its ports may stand in them.
OperatorPtr toolFor(const Json& node) {
    OperatorPtr op = operatorForNode(node);
    const auto params = node.find("params");
    if (params == node.end() || !params->is_object()) return op;
    for (const auto& [param, value] : params->items()) {
        if (!op->paramSpec(param)) continue;
        try {
            op->set(param, paramFromJson(param, value));
        } catch (const GraphError&) {
            continue;  // reading the whole graph says so
        }
    }
    return op;
}

double seedOf(const Json& node) {
    const auto params = node.find("params");
    if (params == node.end() || !params->is_object()) return 0.0;
    const auto seed = params->find("seed");
    return seed != params->end() && seed->is_number() ? seed->get<double>() : 0.0;
}

/// Types of which two with one seed look alike, and why.
const std::map<std::string, const char*>& seededTypes() {
    static const std::map<std::string, const char*> types = {
        {"Flyaway", "they pick the same strays"},
        {"Instance", "they pick the same strands"},
        {"Scales", "their scales vary alike"},
        {"Scatter", "their strands coincide (same roots and IDs)"},
    };
    return types;
}

}  // namespace

GraphEdit::GraphEdit(Json graph) : graph_(std::move(graph)) {
    if (!graph_.is_object()) throw GraphError("graph JSON must be an object");
    for (const char* key : {"nodes", "connections"})
        if (const auto at = graph_.find(key); at != graph_.end() && !at->is_array())
            throw GraphError(std::string("graph JSON: ") + key + " is a list");
}

namespace {

const Json* findNode(const Json& graph, const std::string& name) {
    const auto nodes = graph.find("nodes");
    if (nodes == graph.end()) return nullptr;
    for (const Json& node : *nodes)
        if (textAt(node, "name") == name && node.is_object() && node.contains("name")) return &node;
    return nullptr;
}

}  // namespace

bool GraphEdit::has(const std::string& name) const { return findNode(graph_, name) != nullptr; }

Json& GraphEdit::node(const std::string& name) {
    const Json* found = findNode(graph_, name);
    if (!found) throw GraphError("no node named " + name);
    return const_cast<Json&>(*found);
}

std::string GraphEdit::addNode(const std::string& type, const std::string& name, const Json& params,
                               const Json& position) {
    if (!params.is_null() && !params.is_object())
        throw GraphError("a node's params are a JSON object");
    Json made = {{"type", type}, {"params", params.is_null() ? Json::object() : params}};
    const OperatorPtr op = toolFor(made);
    std::string base = name;
    if (base.empty()) {
        base = type;
        base[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(base[0])));
    }
    std::set<std::string> taken;
    std::set<double> seeds;
    for (const Json& other : listAt(graph_, "nodes")) {
        taken.insert(textAt(other, "name"));
        if (textAt(other, "type") == type) seeds.insert(seedOf(other));
    }
    std::string unique = base;
    for (std::size_t n = 2; taken.contains(unique); ++n) unique = base + std::to_string(n);
    if (seededTypes().contains(type) && !made["params"].contains("seed")) {
        std::int64_t seed = 0;
        while (seeds.contains(static_cast<double>(seed))) ++seed;
        if (seed != 0) made["params"]["seed"] = seed;
    }
    made["name"] = unique;
    made["version"] = op->nodeVersion();
    if (!position.is_null()) made["position"] = position;
    listAt(graph_, "nodes").push_back(std::move(made));
    return unique;
}

void GraphEdit::removeNode(const std::string& name) {
    node(name);
    const auto touches = [&](const Json& c) {
        return textAt(c, "from") == name || textAt(c, "to") == name;
    };
    Json& connections = listAt(graph_, "connections");
    connections.erase(std::remove_if(connections.begin(), connections.end(), touches),
                      connections.end());
    Json& nodes = listAt(graph_, "nodes");
    nodes.erase(std::remove_if(nodes.begin(), nodes.end(),
                               [&](const Json& n) { return textAt(n, "name") == name; }),
                nodes.end());
    for (Json& other : nodes)
        if (other.is_object())
            eraseParamInputs(other, [&](const std::string&, const Json& entry) {
                return textAt(entry, "from") == name;
            });
    if (textAt(graph_, "output") == name) graph_.erase("output");
}

void GraphEdit::renameNode(const std::string& name, const std::string& newName) {
    Json& renamed = node(name);
    if (newName.empty()) throw GraphError("a node needs a name");
    if (newName == name) return;
    if (has(newName)) throw GraphError("a node named '" + newName + "' exists");
    renamed["name"] = newName;
    const auto follow = [&](Json& object, const char* key) {
        if (textAt(object, key) == name) object[key] = newName;
    };
    for (Json& connection : listAt(graph_, "connections")) {
        follow(connection, "from");
        follow(connection, "to");
    }
    for (Json& other : listAt(graph_, "nodes"))
        forEachParamInput(other, [&](const std::string&, const Json& entry) {
            follow(const_cast<Json&>(entry), "from");
        });
    follow(graph_, "output");
}

namespace {

/// True when `target` feeds `name`, over any number of connections, or is it.
bool feeds(const Json& graph, const std::string& target, const std::string& name) {
    std::multimap<std::string, std::string> sources;
    if (const auto list = graph.find("connections"); list != graph.end())
        for (const Json& c : *list) sources.emplace(textAt(c, "to"), textAt(c, "from"));
    for (const Json& n : graph.at("nodes"))
        forEachParamInput(n, [&](const std::string&, const Json& entry) {
            sources.emplace(textAt(n, "name"), textAt(entry, "from"));
        });
    std::set<std::string> seen{name};
    std::vector<std::string> stack{name};
    while (!stack.empty()) {
        const std::string at = std::move(stack.back());
        stack.pop_back();
        if (at == target) return true;
        const auto [begin, end] = sources.equal_range(at);
        for (auto it = begin; it != end; ++it)
            if (seen.insert(it->second).second) stack.push_back(it->second);
    }
    return false;
}

/// Makes a field or curve feed a param, in the form in which the node holds its param inputs.
void feedParam(Json& target, const ParamSpec& param, const std::string& from,
               const std::string& output) {
    Json entry = {{"from", from}};
    if (!output.empty()) entry["output"] = output;
    if (std::holds_alternative<double>(param.defaultValue)) {
        // A field drives as field x scale, by default the param's own number: 0 would mute it.
        const auto params = target.find("params");
        const bool held =
            params != target.end() && params->is_object() && params->contains(param.name);
        const Json own = held ? (*params)[param.name] : paramToJson(param.defaultValue);
        if (own.is_number() && own.get<double>() == 0.0) entry["scale"] = 1;
    }
    eraseParamInputs(target, [&](const std::string& p, const Json&) { return p == param.name; });
    Json& inputs = target["paramInputs"];
    if (inputs.is_array()) {
        entry["param"] = param.name;
        inputs.push_back(std::move(entry));
    } else {
        if (!inputs.is_object()) inputs = Json::object();
        inputs[param.name] = std::move(entry);
    }
}

/// Curves given to a Clump are meant as its centers, not to be picked from the strands.
void useCenters(Json& clump, const Operator& op) {
    Json& params = clump["params"];
    if (!params.is_object()) params = Json::object();
    const ParamSpec* spec = op.paramSpec("centersFrom");
    const std::string now = params.contains("centersFrom") ? textAt(params, "centersFrom")
                            : spec && std::holds_alternative<std::string>(spec->defaultValue)
                                ? std::get<std::string>(spec->defaultValue)
                                : "pick";
    if (now == "pick") params["centersFrom"] = "inputPoints";
}

}  // namespace

void GraphEdit::connect(const std::string& from, const std::string& output, const std::string& to,
                        const std::string& input) {
    const OperatorPtr source = toolFor(node(from));
    Json& targetJson = node(to);
    const OperatorPtr target = toolFor(targetJson);
    const auto& outs = source->outputPorts();
    const std::size_t out = portIndex(outs, output);
    if (out >= outs.size()) throw GraphError("node '" + from + "' has no output '" + output + "'");
    const auto& ins = target->inputPorts();
    const std::size_t in = input.empty() ? ins.size() : portIndex(ins, input);
    const ParamSpec* param = in < ins.size() ? nullptr : target->paramSpec(input);
    const bool number =
        param && std::holds_alternative<double>(param->defaultValue) && param->isMappable();
    const bool ramp = param && std::holds_alternative<Ramp>(param->defaultValue);
    if (in >= ins.size() && !number && !ramp)
        throw GraphError("node '" + to + "' has no input '" + input + "'");
    const PortType wanted = in < ins.size() ? ins[in].type
                            : ramp          ? PortType::Curve
                                            : PortType::Field;
    if (!portsFit(outs[out].type, wanted))
        throw GraphError("cannot connect " + from + " (it gives " + portTypeName(outs[out].type) +
                         ") to " + to + " (it takes " + portTypeName(wanted) + ")");
    if (feeds(graph_, to, from))
        throw GraphError("connecting " + from + " to " + to + " would create a cycle");

    const std::string outName = outs.size() > 1 ? outs[out].name : std::string();
    if (in >= ins.size()) return feedParam(targetJson, *param, from, outName);
    disconnect(to, input);
    Json connection = {{"from", from}, {"to", to}, {"input", input}};
    if (!outName.empty()) connection["output"] = outName;
    listAt(graph_, "connections").push_back(std::move(connection));
    if (target->type() == "Clump" && input == "centers") useCenters(targetJson, *target);
}

bool GraphEdit::disconnect(const std::string& to, const std::string& input) {
    Json& target = node(to);
    Json& connections = listAt(graph_, "connections");
    const std::size_t before = connections.size();
    connections.erase(
        std::remove_if(
            connections.begin(), connections.end(),
            [&](const Json& c) { return textAt(c, "to") == to && textAt(c, "input") == input; }),
        connections.end());
    const bool param =
        eraseParamInputs(target, [&](const std::string& p, const Json&) { return p == input; });
    return param || connections.size() != before;
}

void GraphEdit::setOutput(const std::string& name) {
    node(name);
    graph_["output"] = name;
}

bool GraphEdit::upgradeNode(const std::string& name) {
    Json& upgraded = node(name);
    const int current = toolFor(upgraded)->nodeVersion();
    const auto at = upgraded.find("version");
    const bool rises = at != upgraded.end() && at->is_number() && at->get<double>() < current;
    upgraded["version"] = current;
    normalizeNode(upgraded);
    return rises;
}

void GraphEdit::setPosition(const std::string& name, double x, double y) {
    node(name)["position"] = Json::array({x, y});
}

void GraphEdit::setEvaluation(const std::string& name, const std::string& mode) {
    Json& changed = node(name);
    const NodeEvaluation evaluation = nodeEvaluationFromName(mode);
    if (evaluation == NodeEvaluation::Always)
        changed.erase("evaluation");
    else
        changed["evaluation"] = mode;
}

void GraphEdit::setBypass(const std::string& name, bool bypass) {
    Json& changed = node(name);
    if (bypass)
        changed["bypass"] = true;
    else
        changed.erase("bypass");
}

// ---- seeds
// ---------------------------------------------------------------------------------------

namespace {

using Names = std::set<std::string>;

/// Where a node's strands come from: for a Scatter what feeds it, else the nodes upstream that make
/// strands (and with them ids). Equal seeds collide where these meet.
class StrandSources {
public:
    explicit StrandSources(const Json& graph) {
        const auto nodes = graph.find("nodes");
        if (nodes != graph.end() && nodes->is_array())
            for (const Json& node : *nodes) types_[textAt(node, "name")] = textAt(node, "type");
        const auto list = graph.find("connections");
        if (list == graph.end() || !list->is_array()) return;
        for (const Json& c : *list)
            if (sideInputs().count(textAt(c, "input")) == 0)
                feeds_[textAt(c, "to")].push_back(textAt(c, "from"));
    }

    Names of(const std::string& name) {
        Names sources;
        if (const auto feeds = feeds_.find(name); feeds != feeds_.end())
            for (const std::string& from : feeds->second) sources.merge(Names(ends(from)));
        return sources;
    }

private:
    static const Names& makers() {
        static const Names types = {"Scatter",   "Propagate", "ImportCurves",
                                    "Reference", "ToStrands", "Input"};
        return types;
    }
    /// Inputs that shape strands but give them no ids.
    static const Names& sideInputs() {
        static const Names names = {"guides", "collider", "water",     "centers",
                                    "braids", "axes",     "reference", "mesh"};
        return names;
    }
    bool isEnd(const std::string& name) const {
        const auto type = types_.find(name);
        return !feeds_.contains(name) || (type != types_.end() && makers().contains(type->second));
    }

    /// The node itself where the way up ends, else what those that feed it give. Worked out once a
    /// node, feeders first; what lies on a cycle gives nothing.
    const Names& ends(const std::string& name) {
        std::vector<std::string> stack{name};
        while (!stack.empty()) {
            const std::string at = stack.back();
            const auto [entry, isNew] = ends_.try_emplace(at);
            if (isEnd(at)) {
                entry->second = {at};
                stack.pop_back();
            } else if (isNew) {
                for (const std::string& from : feeds_.at(at))
                    if (!ends_.contains(from)) stack.push_back(from);
            } else {
                for (const std::string& from : feeds_.at(at))
                    if (from != at) entry->second.merge(Names(ends_.at(from)));
                stack.pop_back();
            }
        }
        return ends_.at(name);
    }

    std::map<std::string, std::string> types_;
    std::map<std::string, std::vector<std::string>> feeds_;
    std::map<std::string, Names> ends_;
};

/// A graph of thousands of alike nodes has millions of pairs: so many are told.
constexpr std::size_t kMostCollisions = 100;

}  // namespace

std::vector<std::string> seedCollisions(const Json& graph) {
    std::vector<std::string> warnings;
    const auto nodes = graph.is_object() ? graph.find("nodes") : graph.end();
    if (!graph.is_object() || nodes == graph.end() || !nodes->is_array()) return warnings;
    struct Alike {  // nodes of one type and seed
        std::vector<std::string> names;
        std::map<std::string, std::vector<std::size_t>> bySource;
    };
    StrandSources sources(graph);
    std::map<std::pair<std::string, double>, Alike> groups;
    for (const Json& node : *nodes) {
        const std::string type = textAt(node, "type");
        const auto seeded = seededTypes().find(type);
        if (seeded == seededTypes().end()) continue;
        const std::string name = textAt(node, "name");
        Alike& alike = groups[{type, seedOf(node)}];
        std::set<std::size_t> others;
        for (const std::string& source : sources.of(name)) {
            std::vector<std::size_t>& known = alike.bySource[source];
            others.insert(known.begin(), known.end());
            known.push_back(alike.names.size());
        }
        alike.names.push_back(name);
        for (const std::size_t other : others) {
            if (warnings.size() == kMostCollisions) {
                warnings.emplace_back("more nodes have the same seed; give each its own");
                return warnings;
            }
            warnings.push_back(alike.names[other] + " and " + name + ": " + seeded->second +
                               "; give each its own seed");
        }
    }
    return warnings;
}

}  // namespace corvelle
