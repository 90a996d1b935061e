#include "hosts/blender/helper/strokeCommands.h"

#include <cmath>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/toolState.h"
#include "hosts/blender/helper/viewReader.h"
#include "tools/toolCatalog.h"

namespace corvelle {
namespace {

constexpr char kPointsText[] = "points is a list of [x, y] or [x, y, pressure]";

float readPressure(const Json& request) { return optionalFloat(request, "pressure", 1.0f); }

void requireStroke(const ToolState& tools) {
    if (!tools.brush.dragging()) failRequest("state", "no stroke: stroke_begin first");
}

}  // namespace

float requirePixel(const Json& request, const char* key) {
    requireField(request, key);
    return optionalFloat(request, key, 0.0f);
}

std::vector<StrokePoint> readPixels(const Json& value, float pressure, const char* notList) {
    if (!value.is_array()) failRequest("bad_request", notList);
    std::vector<StrokePoint> points;
    points.reserve(value.size());
    for (const Json& entry : value) {
        if (!entry.is_array() || (entry.size() != 2 && entry.size() != 3))
            failRequest("bad_request", "a point is [x, y] or [x, y, pressure]");
        float numbers[] = {0.0f, 0.0f, pressure};
        for (std::size_t i = 0; i < entry.size(); ++i) {
            if (!entry[i].is_number()) failRequest("bad_request", "a point holds numbers");
            numbers[i] = float(entry[i].get<double>());
            if (!std::isfinite(numbers[i])) failRequest("bad_request", "a point holds numbers");
        }
        points.push_back({numbers[0], numbers[1], numbers[2]});
    }
    return points;
}

const ToolView& requireView(const CommandContext& context) {
    HelperSession& session = context.session();
    ToolState& tools = toolsOf(session);
    if (const Json* view = findField(context.request, "view"))
        tools.view = decodeView(*view, session.space);
    if (!tools.view)
        failRequest("state", "no view: give \"view\" (the region's matrices and size)");
    return *tools.view;
}

Json toolCatalogCommand(const CommandContext&) {
    static const Json catalog = [] {
        Json tools = Json::array(), settings = Json::array(), categories = Json::array();
        for (const ToolEntry& tool : toolCatalog())
            tools.push_back({{"id", tool.id},
                             {"label", tool.label},
                             {"category", toolCategoryName(tool.category)},
                             {"order", tool.order},
                             {"icon", tool.icon},
                             {"defaultStrength", tool.defaultStrength},
                             {"signed", tool.isSigned},
                             {"hint", tool.hint},
                             {"settings", tool.settings}});
        for (const ToolSettingEntry& setting : toolSettingCatalog())
            settings.push_back(
                {{"id", setting.id}, {"label", setting.label}, {"hint", setting.hint}});
        for (int i = 0; i < kToolCategories; ++i)
            categories.push_back(toolCategoryName(ToolCategory(i)));
        return Json{{"tools", std::move(tools)},
                    {"settings", std::move(settings)},
                    {"categories", std::move(categories)}};
    }();
    return catalog;
}

Json toolSetCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const ToolEntry* tool = nullptr;
    if (findField(context.request, "tool")) {
        const std::string& id = requireString(context.request, "tool");
        tool = findTool(id);
        if (!tool) failRequest("not_found", "no tool '" + id + "'");
    }
    const Json* settings = findField(context.request, "settings");
    if (settings && !settings->is_object()) failRequest("bad_request", "settings is an object");
    toolsOf(session).choice.set(tool, settings);
    return toolJson(session);
}

Json toolGetCommand(const CommandContext& context) { return toolJson(context.session()); }

Json strokeBeginCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    const float x = requirePixel(request, "x"), y = requirePixel(request, "y");
    const float pressure = readPressure(request);
    const bool shift = optionalBool(request, "shift", false),
               ctrl = optionalBool(request, "ctrl", false);
    if (!tools.choice.tool().strokes)
        failRequest("state", "the Select tool picks guides (select), it does not stroke");
    requireScalp(session);
    const std::optional<ToolView> before = tools.view;
    const ToolView view = requireView(context);
    if (tools.brush.dragging()) {  // commits as it was seen when it was drawn
        tools.view = before;
        finishStroke(session);
        tools.view = view;
    }
    const std::string graph = session.groom->document().graph;
    tools.host->takeWarnings();
    tools.hovered = {};
    tools.brush.settings = strokeSettings(session, tools);
    const bool press = tools.brush.begin(*tools.host, view, x, y, pressure, shift, ctrl);
    return {{"press", press},
            {"stroking", tools.brush.dragging()},
            {"mode", tools.brush.modeWord()},
            {"graphChanged", session.groom->document().graph != graph},
            {"view", viewJson(view)},
            {"overlay", overlayJson(session)},
            {"warnings", tools.host->takeWarnings()}};
}

Json strokeDragCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    requireStroke(tools);
    const float pressure = readPressure(request);
    std::vector<StrokePoint> points;
    if (const Json* given = findField(request, "points"))
        points = readPixels(*given, pressure, kPointsText);
    else
        points.push_back({requirePixel(request, "x"), requirePixel(request, "y"), pressure});
    const ToolView& view = requireView(context);
    const bool changed = !points.empty() && tools.brush.drag(*tools.host, view, points);
    return {{"drag", !points.empty()},
            {"changed", changed},
            {"stroking", tools.brush.dragging()},
            {"overlay", overlayJson(session)},
            {"warnings", tools.host->takeWarnings()}};
}

Json strokeEndCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    ToolState& tools = toolsOf(session);
    requireStroke(tools);
    const BrushRing ring = tools.brush.ring();
    const StrokeResult result = tools.brush.end(*tools.host, *tools.view);
    tools.ring = ring;
    Json slots = Json::array();
    for (const DocumentSlot slot : result.slots) slots.push_back(documentSlotName(slot));
    Json answer{{"released", true},
                {"release", true},
                {"stroke", std::move(slots)},
                {"committed", result.committed},
                {"graphChanged", result.graphChanged},
                {"shift_click", result.picked ? "pick" : "none"}};
    if (result.picked) {
        if (result.soloed)
            tools.solo = {result.guide};
        else
            tools.choice.setLevelAndGroup(result.level, result.group);
        answer["level"] = result.level;
        answer["group"] = result.group;
        answer["settings"] = toolSettingsJson(tools.choice.settings());
    }
    answer["undo"] = undoJson(*session.groom);
    answer["warnings"] = tools.host->takeWarnings();
    return answer;
}

Json strokeCancelCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const std::string graph = session.groom->document().graph;
    const bool cancelled = cancelStroke(session);
    return {{"cancelled", cancelled}, {"graphChanged", session.groom->document().graph != graph}};
}

Json undoCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    ToolState& tools = toolsOf(session);
    const std::string graph = groom.document().graph;
    finishStroke(session);
    const GroomSession::UndoOutcome outcome = context.name == "undo" ? groom.undo() : groom.redo();
    if (outcome.done) {
        tools.solo.clear();
        tools.hovered = {};
    }
    for (const std::string& text : writePaintImages(groom, outcome.images))
        tools.host->notify(text);
    Json answer = undoJson(groom);
    answer["done"] = outcome.done;
    answer["graphChanged"] = groom.document().graph != graph;
    answer["warnings"] = tools.host->takeWarnings();
    return answer;
}

Json undoStateCommand(const CommandContext& context) { return undoJson(*context.session().groom); }

}  // namespace corvelle
