#include "tools/paramBrush.h"

#include <algorithm>
#include <array>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "graph/graphEdit.h"
#include "graph/graphJson.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

struct ParamBrush {
    const char* name;
    const char* nodeType;
    const char* param;
};
constexpr std::array kParamBrushes = {
    ParamBrush{"width", "Width", "width"},
    ParamBrush{"density", "Scatter", "density"},
};

constexpr double kBesideNode = 200.0;  ///< how far left of its node a Map node is put, canvas units

[[noreturn]] void refuse(const std::string& text) { throw StrokeStateError(text); }

std::string textAt(const Json& object, const char* key) {
    if (!object.is_object()) return {};
    const auto at = object.find(key);
    return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
}

const Json* memberOf(const Json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    const auto at = object.find(key);
    return at == object.end() ? nullptr : &*at;
}

const Json& listAt(const Json& object, const char* key) {
    static const Json none = Json::array();
    const Json* list = memberOf(object, key);
    return list && list->is_array() ? *list : none;
}

const Json* nodeNamed(const Json& graph, const std::string& name) {
    for (const Json& node : listAt(graph, "nodes"))
        if (node.is_object() && textAt(node, "name") == name) return &node;
    return nullptr;
}

bool isShown(const Json& node) {
    const Json* bypass = memberOf(node, "bypass");
    return !(bypass && bypass->is_boolean() && bypass->get<bool>()) &&
           textAt(node, "evaluation") != "renderOnly";
}

/// The shown node of a type with the fewest connections to the output; ties by the order in which
/// connections stand.
const Json* nearestToOutput(const Json& graph, const std::string& type) {
    std::vector<std::string> reached = {textAt(graph, "output")};
    std::set<std::string> seen = {reached.front()};
    for (std::size_t i = 0; i < reached.size(); ++i) {
        const std::string name = reached[i];
        const Json* node = nodeNamed(graph, name);
        if (!node) continue;
        if (textAt(*node, "type") == type && isShown(*node)) return node;
        for (const Json& connection : listAt(graph, "connections")) {
            const std::string from = textAt(connection, "from");
            if (textAt(connection, "to") == name && seen.insert(from).second)
                reached.push_back(from);
        }
    }
    return nullptr;
}

/// What is wired to a node's param, in either form of `paramInputs`; empty: nothing.
std::string sourceOf(const Json& node, const std::string& param) {
    const Json* inputs = memberOf(node, "paramInputs");
    if (!inputs) return {};
    if (const Json* entry = memberOf(*inputs, param.c_str())) return textAt(*entry, "from");
    if (inputs->is_array())
        for (const Json& entry : *inputs)
            if (textAt(entry, "param") == param) return textAt(entry, "from");
    return {};
}

/// The x of an expression that is map("x") and nothing else; empty for any other.
std::string soleMapOf(const std::string& expression) {
    std::size_t at = 0;
    const auto skip = [&] {
        while (at < expression.size() &&
               std::string_view(" \t\r\n").find(expression[at]) != std::string_view::npos)
            ++at;
    };
    const auto take = [&](std::string_view word) {
        skip();
        if (expression.compare(at, word.size(), word) != 0) return false;
        at += word.size();
        return true;
    };
    if (!take("map") || !take("(") || !take("\"")) return {};
    const std::size_t end = expression.find('"', at);
    if (end == std::string::npos) return {};
    const std::string name = expression.substr(at, end - at);
    at = end + 1;
    if (!take(")")) return {};
    skip();
    return at == expression.size() ? name : std::string();
}

class Resolver {
public:
    Resolver(const ParamBrush& brush, const MapCatalogValue* maps) : brush_(brush), maps_(maps) {}

    /// A map of the groom by its name, as a Map node or an expression gives it.
    ParamBrushMap named(const std::string& name) const {
        const PaintedMap* map = maps_ ? maps_->find(name) : nullptr;
        if (!map)
            refuse(std::string(brush_.param) + " reads " + name + ", which is no map of the groom");
        if (map->kind != PaintedMap::Kind::Guides) return {.kind = map->kind, .name = name};
        return {.kind = map->kind, .name = map->layer.empty() ? name : map->layer};
    }

    /// A texture by its file, else by the map's name.
    ParamBrushMap texture(const std::string& file) const {
        if (maps_)
            for (const auto& [name, map] : maps_->maps)
                if (map.kind == PaintedMap::Kind::Texture && map.file == file)
                    return {.kind = map.kind, .name = name};
        return named(file);
    }

    ParamBrushMap mapped(const Json& value) const {
        const std::string param = brush_.param;
        if (const Json* layer = memberOf(value, "guide"); layer && layer->is_string())
            return {.kind = PaintedMap::Kind::Guides, .name = layer->get<std::string>()};
        if (const Json* file = memberOf(value, "texture"); file && file->is_string())
            return texture(file->get<std::string>());
        if (const Json* set = memberOf(value, "colorSet"); set && set->is_string())
            refuse(param + " reads the color set " + set->get<std::string>());
        const std::string name = soleMapOf(textAt(value, "expression"));
        if (name.empty()) refuse(param + " is driven by an expression or a channel");
        return named(name);
    }

    /// `wired`: the node whose output drives the param.
    ParamBrushMap wired(const Json& graph, const std::string& source) const {
        const Json* node = nodeNamed(graph, source);
        if (!node || textAt(*node, "type") != "Map")
            refuse(std::string(brush_.param) + " is wired to " + source + ", not a painted map");
        const Json* params = memberOf(*node, "params");
        return named(params ? textAt(*params, "name") : std::string());
    }

    ParamBrushMap made(const Json& graph, const Json& node, PaintedMap::Kind kind) const {
        ParamBrushMap map{.kind = kind, .name = brush_.name, .made = true};
        for (int n = 2; maps_ && maps_->find(map.name); ++n)
            map.name = brush_.name + std::to_string(n);
        Json position;
        if (const Json* at = memberOf(node, "position");
            at && at->is_array() && at->size() == 2 && (*at)[0].is_number() && (*at)[1].is_number())
            position = Json::array({(*at)[0].get<double>() - kBesideNode, (*at)[1].get<double>()});
        GraphEdit edit(graph);
        const std::string source =
            edit.addNode("Map", map.name + "Map", Json{{"name", map.name}}, position);
        edit.connect(source, "luminance", textAt(node, "name"), brush_.param);
        map.graph = edit.json().dump();
        return map;
    }

private:
    const ParamBrush& brush_;
    const MapCatalogValue* maps_;
};

}  // namespace

ParamBrushMap paramBrushMap(const std::string& brush, const std::string& graph,
                            const MapCatalogValue* maps, const ScalpPtr& scalp,
                            PaintedMap::Kind kind) {
    const auto* row = std::ranges::find_if(
        kParamBrushes, [&](const ParamBrush& known) { return known.name == brush; });
    if (row == kParamBrushes.end()) throw std::invalid_argument("no param brush named " + brush);
    const Json json = blankGraphText(graph) ? Json::object() : Json::parse(graph);
    const Json* node = nearestToOutput(json, row->nodeType);
    if (!node)
        refuse(std::string("the graph has no ") + row->nodeType + " node to paint the " +
               row->param + " map on");
    if (!scalp || scalp->triangles().empty())
        refuse(std::string("no scalp to paint the ") + row->param + " map on");

    const Resolver resolver(*row, maps);
    if (const std::string source = sourceOf(*node, row->param); !source.empty())
        return resolver.wired(json, source);
    const Json* params = memberOf(*node, "params");
    const Json* value = params ? memberOf(*params, row->param) : nullptr;
    if (value && value->is_object()) return resolver.mapped(*value);
    return resolver.made(json, *node, kind);
}

}  // namespace corvelle
