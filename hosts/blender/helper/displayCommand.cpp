#include "hosts/blender/helper/displayCommand.h"

#include <map>
#include <optional>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/strandColors.h"
#include "hosts/blender/helper/toolState.h"
#include "tools/toolCatalog.h"

namespace corvelle {
namespace {

Json channelsJson(const EvaluationResult& result) {
    Json channels = Json::array();
    if (!result.strands) return channels;
    for (const std::string& name : result.strands->strandChannelNames())
        if (name != "_preview") channels.push_back({{"name", name}, {"scope", "strand"}});
    for (const std::string& name : result.strands->pointChannelNames())
        channels.push_back({{"name", name}, {"scope", "point"}});
    return channels;
}

/// The middle of each clump's roots, by the clumps' ascending numbers.
std::vector<Vec3f> middlesOf(const StrandSet& strands, std::span<const float> numbers) {
    struct Sum {
        double x = 0.0, y = 0.0, z = 0.0, count = 0.0;
    };
    std::map<float, Sum> clumps;
    for (std::size_t s = 0; s < strands.strandCount(); ++s) {
        if (!(numbers[s] >= 0.0f)) continue;
        const Vec3f root = strands.pointsOf(s).front();
        Sum& sum = clumps[numbers[s]];
        sum.x += root.x;
        sum.y += root.y;
        sum.z += root.z;
        sum.count += 1.0;
    }
    std::vector<Vec3f> middles;
    for (const auto& [number, sum] : clumps)
        middles.push_back(
            {float(sum.x / sum.count), float(sum.y / sum.count), float(sum.z / sum.count)});
    return middles;
}

/// Of a shown Clump node, null for another: the very object of the last call while its strands are.
std::shared_ptr<const std::vector<Vec3f>> clumpCenters(ToolState& tools,
                                                       const GroomSession& groom) {
    const EvaluationResult& result = groom.result();
    const Graph* graph = groom.lastGraph();
    const NodeId node = graph && !result.viewNode.empty() ? graph->find(result.viewNode) : 0;
    if (node == 0 || !result.strands || graph->node(node).op->type() != "Clump") return nullptr;
    const std::string channel = graph->node(node).op->text("clumpChannel");
    const auto* numbers = result.strands->strandChannel(channel);
    if (!numbers) return nullptr;
    auto& held = tools.clumps;
    if (held.strands != result.strands || held.channel != channel)
        held = {result.strands, channel,
                std::make_shared<const std::vector<Vec3f>>(middlesOf(*result.strands, *numbers))};
    return held.places;
}

DisplaySource sourceOf(HelperSession& session) {
    ToolState& tools = toolsOf(session);
    GroomSession& groom = *session.groom;
    return {.hierarchy = groom.shownHierarchy(),
            .scalp = groom.scalp(),
            .parts = groom.shownParts(),
            .flow = groom.shownFlow(),
            .selection = tools.host->selectionWeights(),
            .frozen = tools.selection.frozen(),
            .solo = tools.solo,
            .toolLevel = tools.choice.settings().level,
            .clumpCenters = clumpCenters(tools, groom),
            .space = session.space};
}

}  // namespace

Json displayCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    DisplaySettings settings = tools.display.settings();
    settings.hiddenGuideGroups = tools.hiddenGroups;
    const Json* wanted = findField(request, "settings");
    if (wanted) applyDisplaySettings(settings, *wanted);
    Json have = Json::object();
    if (const Json* held = findField(request, "have")) {
        if (!held->is_object()) failRequest("bad_request", "have is an object of versions");
        have = *held;
    }
    if (const Json* generation = findField(request, "generation");
        generation && !(*generation == tools.display.generation()))
        have = Json::object();
    std::optional<StrandColorRequest> colorRequest;
    if (const Json* colors = findField(request, "strandColors"))
        colorRequest = readStrandColors(*colors);
    std::vector<Vec3f> colors;
    if (colorRequest) colors = strandColors(*session.groom, *colorRequest);

    // All is read and checked.
    tools.hiddenGroups = settings.hiddenGuideGroups;
    tools.display.setSettings(std::move(settings));
    DisplayBuilder& display = tools.display;
    display.build(sourceOf(session));
    AnswerPool& pool = tools.displayPool;
    pool.prepare(display.bytes(have) + AnswerPool::bytesOf(colors.size(), sizeof(Vec3f)));

    Json selection = selectionJson(session);
    const auto weights = tools.host->selectionWeights();
    const std::size_t hard = selection["count"].get<std::size_t>();
    selection["soft"] = weights && weights->size() > hard ? weights->size() - hard : 0;
    Json overlay = overlayJson(session);
    Json answer{{"generation", display.generation()},
                {"items", display.itemsJson(pool, have)},
                {"dots", display.dotsJson(pool, have)},
                {"selection", std::move(selection)},
                {"brush",
                 {{"tool", tools.choice.tool().id},
                  {"mode", tools.brush.dragging() ? tools.brush.modeWord()
                                                  : toolModeWord(tools.choice.tool())},
                  {"stroking", tools.brush.dragging()},
                  {"version", tools.overlay.version()}}},
                {"overlay", std::move(overlay)},
                {"channels", channelsJson(session.groom->result())}};
    if (wanted) answer["settings"] = displaySettingsJson(display.settings());
    if (colorRequest)
        answer["strandColors"] = {{"mode", colorModeName(colorRequest->mode)},
                                  {"serial", session.groom->result().serial},
                                  {"perPoint", colorRequest->perPoint},
                                  {"colors", writePoints(pool, colors, session.space, true)}};
    return answer;
}

}  // namespace corvelle
