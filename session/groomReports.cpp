// What a session tells of itself: the statistics panel and the look that a host builds its shader from.

#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "session/groomSession.h"

namespace corvelle {

namespace {

using nlohmann::json;

json paramsJson(const Operator& op) {
    json params = json::object();
    for (const ParamSpec& spec : op.params()) params[spec.name] = paramToJson(op.value(spec.name), spec.whole);
    return params;
}

double numberOr(const Operator* op, const char* param, double fallback) {
    return op && op->paramSpec(param) && !op->isMapped(param) ? op->number(param) : fallback;
}

/// The colour and shading nodes on the way to the output. "Last" is the one nearest the output.
struct LookNodes {
    const Operator* hairColor = nullptr;
    const Operator* renderData = nullptr;
    const Operator* feather = nullptr;
    std::vector<std::string> colorNodes;  ///< output first
    int hairColors = 0, renderDatas = 0, blends = 0;
    bool cards = false;
};

LookNodes lookNodes(const Graph& graph) {
    LookNodes found;
    graph.forEachActiveUpstream(graph.output(), false, [&](const Node& node) {
        const std::string type = node.op->type();
        if (type == "HairColor") {
            ++found.hairColors;
            if (!found.hairColor) found.hairColor = node.op.get();
        } else if (type == "RenderData") {
            ++found.renderDatas;
            if (!found.renderData) found.renderData = node.op.get();
        } else if (type == "FeatherColor") {
            if (!found.feather) found.feather = node.op.get();
        } else if (type == "Blend") {
            ++found.blends;
        } else if (type == "Cards") {
            found.cards = true;
        }
        if (type == "HairColor" || type == "FeatherColor" || type == "Bands")
            found.colorNodes.push_back(node.op->name);
        return true;
    });
    return found;
}

/// Whether a host shades the strands by their RGB or by the pigment.
bool colorsByRgb(const LookNodes& nodes) {
    const Operator* color = nodes.hairColor;
    if (!color) return nodes.feather != nullptr;
    const std::string& source = color->text("colorSource");
    if (source == "rgb") return true;
    if (source == "melanin") return false;
    if (source == "mix") return true;
    if (nodes.feather) return true;
    const bool tipped = color->isMapped("tipStrength") || color->number("tipStrength") > 0.0;
    return tipped || !color->text("map").empty() || color->number("hueRandom") > 0.0 ||
           color->number("saturationRandom") > 0.0 || color->number("hueShift") != 0.0 ||
           color->number("saturationScale") != 1.0 || color->number("valueScale") != 1.0;
}

}  // namespace

json GroomSession::hairLook() const {
    LookNodes nodes;
    if (graph_) nodes = lookNodes(*graph_);
    json look = json::object();
    const bool byRgb = colorsByRgb(nodes);
    look["colorsByRgb"] = byRgb;
    look["colorBlends"] = nodes.blends;
    look["bySource"] = nodes.hairColor ? nodes.hairColor->text("colorSource") : std::string("auto");
    look["iridescent"] = nodes.feather && numberOr(nodes.feather, "iridescence", 0.0) > 0.0;
    const Vec3f tint = nodes.feather && nodes.feather->paramSpec("iridescenceColor")
                           ? nodes.feather->vec3("iridescenceColor")
                           : Vec3f{1.0f, 1.0f, 1.0f};
    look["iridescenceColor"] = {tint.x, tint.y, tint.z};
    look["iridescenceShift"] = numberOr(nodes.feather, "iridescenceShift", 0.0);
    look["lobes"] = {{"specularTint", numberOr(nodes.renderData, "specular", 1.0)},
                     {"roughness", numberOr(nodes.renderData, "roughness", 0.2)},
                     {"azimuthalRoughness", numberOr(nodes.renderData, "azimuthalRoughness", 0.2)},
                     {"shift", numberOr(nodes.renderData, "shift", 3.0)}};
    look["hairColorParams"] = nodes.hairColor ? paramsJson(*nodes.hairColor) : json::object();
    look["renderDataParams"] = nodes.renderData ? paramsJson(*nodes.renderData) : json::object();
    look["colorNodes"] = nodes.colorNodes;
    return look;
}

json GroomSession::stats() {
    json out = json::object();
    const EvaluationResult& now = *result_;
    const Graph* graph = lastGraph();
    LookNodes nodes;
    if (graph_) nodes = lookNodes(*graph_);

    out["view"] = !now.viewNode.empty()                    ? now.viewNode
                  : graph && graph->output() != 0 ? graph->node(graph->output()).op->name
                                                           : std::string();
    out["strands"] = now.strands ? now.strands->strandCount() : 0;
    out["points"] = now.strands ? now.strands->pointCount() : 0;
    const std::size_t guides = document_.guides ? document_.guides->size() : activeHierarchy()->size();
    out["guides"] = guides;
    out["hasCardsNode"] = nodes.cards;
    out["hairColor"] = nodes.hairColors;
    out["renderData"] = nodes.renderDatas;
    out["colorNodes"] = nodes.colorNodes.size();
    out["colorBlends"] = nodes.blends;
    json times = json::object(), runs = json::object(), notes = json::object(),
         details = json::object();
    if (graph)
        for (const auto& [id, node] : graph->nodes()) {
            if (const auto time = graph->runTimings().find(id); time != graph->runTimings().end())
                times[node.op->name] = time->second;
            runs[node.op->name] = node.runs;
            if (const auto note = graph->warnings().find(id); note != graph->warnings().end())
                notes[node.op->name] = note->second;
            if (!node.runDetails.empty() && graph->status().contains(id))
                details[node.op->name] = node.runDetails;
        }
    out["times"] = std::move(times);
    out["runs"] = std::move(runs);
    out["notes"] = std::move(notes);
    out["details"] = std::move(details);
    json channels = json::array();
    if (now.strands)
        for (const std::string& name : now.strands->strandChannelNames())
            if (name != "_preview") channels.push_back(name);
    out["channels"] = std::move(channels);
    out["frames"] = evaluations_;
    out["scalpHistory"] = scalpHistory_->entries.size();
    out["restEvaluations"] = restEvaluations_;
    out["cacheBytes"] = graph_ ? graph_->cachedBytes() : 0;
    return out;
}

}  // namespace corvelle
