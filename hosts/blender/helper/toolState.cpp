#include "hosts/blender/helper/toolState.h"

#include <algorithm>

#include "hosts/blender/helper/mapsFolder.h"
#include "hosts/blender/helper/requestError.h"
#include "tools/toolCatalog.h"

namespace corvelle {
namespace {

struct RingColor {
    ToolCategory category;
    std::array<float, 3> color;
};
constexpr RingColor kRingColors[] = {
    {ToolCategory::Create, {0.3f, 0.85f, 0.45f}}, {ToolCategory::Shape, {1.0f, 0.75f, 0.2f}},
    {ToolCategory::Trim, {0.95f, 0.35f, 0.3f}},   {ToolCategory::Paint, {0.45f, 0.65f, 1.0f}},
    {ToolCategory::Guides, {0.8f, 0.8f, 0.8f}},
};

std::array<float, 3> ringColor(ToolCategory category) {
    for (const RingColor& row : kRingColors)
        if (row.category == category) return row.color;
    return {1.0f, 1.0f, 1.0f};
}

std::vector<Vec3f> segmentsOf(std::span<const Vec3f> line) {
    std::vector<Vec3f> out;
    for (std::size_t i = 1; i < line.size(); ++i) {
        out.push_back(line[i - 1]);
        out.push_back(line[i]);
    }
    return out;
}

}  // namespace

void Selection::set(GuideIds ids) {
    if (ids == ids_) return;
    ids_ = std::move(ids);
    ++version_;
}

void Selection::freeze(GuideIds ids) {
    const GuideIds none;
    if (ids == (frozen_ ? *frozen_ : none)) return;
    frozen_ = ids.empty() ? nullptr : std::make_shared<const GuideIds>(std::move(ids));
    ++version_;
}

std::shared_ptr<const GuideWeights> Selection::weights(
    const std::shared_ptr<const GuideHierarchy>& hierarchy, const BrushToolSettings& settings) {
    auto& held = cache_;
    if (held.hierarchy == hierarchy && held.version == version_ &&
        held.radius == settings.softSelectRadius && held.level == settings.level &&
        held.group == settings.group)
        return held.weights;
    std::shared_ptr<const GuideWeights> weights;
    if (!ids_.empty())
        weights = std::make_shared<const GuideWeights>(
            softSelection(*hierarchy, ids_, settings.softSelectRadius, settings));
    held = {hierarchy,      version_,       settings.softSelectRadius,
            settings.level, settings.group, std::move(weights)};
    return held.weights;
}

HelperStrokeHost::HelperStrokeHost(HelperSession& session, ToolState& tools)
    : SessionStrokeHost(*session.groom), session_(session), tools_(tools) {}

std::shared_ptr<const std::map<std::uint64_t, float>> HelperStrokeHost::selectionWeights() {
    return tools_.selection.weights(groom().activeHierarchy(), tools_.choice.settings());
}

std::shared_ptr<const std::set<std::uint64_t>> HelperStrokeHost::frozenGuides() {
    return tools_.selection.frozen();
}

std::set<std::string> HelperStrokeHost::hiddenGroups() { return tools_.hiddenGroups; }

std::string HelperStrokeHost::newMapFile(const std::string& map) {
    return mapFile(makeMapsDir(session_), map);
}

void HelperStrokeHost::notify(const std::string& text) {
    groom().addMessage(text);
    warnings_.push_back(text);
}

void HelperStrokeHost::addWarning(const std::string& text) { warnings_.push_back(text); }

Json HelperStrokeHost::takeWarnings() {
    Json texts = Json::array();
    for (const std::string& text : warnings_) texts.push_back(text);
    warnings_.clear();
    return texts;
}

std::string HelperStrokeHost::mapsDir() { return effectiveMapsDir(session_); }

ToolState::ToolState(HelperSession& session)
    : displayPool("s" + std::to_string(session.number) + "display"),
      overlayPool("s" + std::to_string(session.number) + "overlay") {
    host.emplace(session, *this);
}

ToolState& toolsOf(HelperSession& session) {
    if (!session.tools) session.tools = std::make_shared<ToolState>(session);
    return *session.tools;
}

BrushToolSettings strokeSettings(const HelperSession& session, const ToolState& tools) {
    BrushToolSettings settings = tools.choice.forStroke();
    if (settings.symmetry < 0) return settings;
    // A plane of the host's space: its axis goes the way of a direction, its place that of a point.
    Vec3f along;
    along[settings.symmetry] = settings.symmetryCenter;
    const Vec3f place = session.space.pointToGroom(along);
    Vec3f axis;
    axis[settings.symmetry] = 1.0f;
    axis = session.space.directionToGroom(axis);
    settings.symmetry = axis.x != 0.0f ? 0 : axis.y != 0.0f ? 1 : 2;
    settings.symmetryCenter = place[settings.symmetry];
    return settings;
}

void finishStroke(HelperSession& session) {
    if (!session.tools || !session.tools->brush.dragging()) return;
    ToolState& tools = *session.tools;
    try {
        tools.brush.end(*tools.host, *tools.view);
    } catch (const std::exception& error) {
        tools.brush.cancel(*tools.host);
        tools.host->notify(error.what());
    }
}

bool cancelStroke(HelperSession& session) {
    if (!session.tools || !session.tools->brush.dragging()) return false;
    session.tools->brush.cancel(*session.tools->host);
    return true;
}

void rebindTools(HelperSession& session) {
    if (!session.tools) return;
    ToolState& tools = *session.tools;
    tools.brush = BrushTool();
    tools.host.emplace(session, tools);
    tools.selection.set({});
    tools.selection.freeze({});
    tools.hiddenGroups.clear();
    tools.solo.clear();
    tools.hover.clear();
    tools.hovered = {};
    tools.ring = {};
    tools.display.forget();
}

Json toolsJson(HelperSession& session) {
    ToolState& tools = toolsOf(session);
    Json ids = Json::array();
    for (const std::uint64_t id : tools.selection.ids()) ids.push_back(id);
    return {
        {"tool", tools.choice.tool().id},
        {"settings", toolSettingsJson(tools.choice.settings())},
        {"selection",
         {{"ids", std::move(ids)}, {"softSelectRadius", tools.choice.settings().softSelectRadius}}},
        {"hiddenGroups", tools.hiddenGroups}};
}

void restoreTools(HelperSession& session, const Json& json) {
    if (!json.is_object()) return;
    ToolState& tools = toolsOf(session);
    if (const Json* tool = findField(json, "tool"); tool && tool->is_string())
        if (const ToolEntry* entry = findTool(tool->get_ref<const std::string&>()))
            tools.choice.set(entry, nullptr);
    if (const Json* settings = findField(json, "settings"); settings && settings->is_object())
        for (const auto& [key, value] : settings->items()) {
            try {
                const Json one{{key, value}};
                tools.choice.set(nullptr, &one);
            } catch (const std::exception&) {
                // of another version of this program
            }
        }
    if (const Json* selection = findField(json, "selection")) {
        GuideIds ids;
        if (const Json* list = findField(*selection, "ids"); list && list->is_array())
            for (const Json& id : *list)
                if (id.is_number_unsigned() &&
                    session.groom->hierarchy()->guide(id.get<std::uint64_t>()))
                    ids.insert(id.get<std::uint64_t>());
        if (const Json* radius = findField(*selection, "softSelectRadius");
            radius && radius->is_number())
            tools.choice.setSoftSelectRadius(std::max(0.0f, float(radius->get<double>())));
        tools.selection.set(std::move(ids));
    }
    if (const Json* groups = findField(json, "hiddenGroups"); groups && groups->is_array())
        for (const Json& name : *groups)
            if (name.is_string()) tools.hiddenGroups.insert(name.get<std::string>());
}

Json toolJson(HelperSession& session) {
    ToolState& tools = toolsOf(session);
    const ToolEntry& tool = tools.choice.tool();
    const DisplayTheme& theme = tools.display.settings().theme;
    return {{"tool", tool.id},
            {"mode", toolModeWord(tool)},
            {"settings", toolSettingsJson(tools.choice.settings())},
            {"shows", tool.settings},
            {"ringColor", ringColor(tool.category)},
            {"pathColor", theme.pathColor},
            {"hoverColor", theme.hoverColor}};
}

Json selectionJson(HelperSession& session) {
    ToolState& tools = toolsOf(session);
    const auto hierarchy = session.groom->hierarchy();
    Json ids = Json::array();
    for (const std::uint64_t id : tools.selection.ids())
        if (hierarchy->guide(id)) ids.push_back(id);
    const std::size_t count = ids.size();
    const BrushToolSettings& settings = tools.choice.settings();
    return {{"ids", std::move(ids)},
            {"count", count},
            {"softSelectRadius", settings.softSelectRadius},
            {"group", settings.group},
            {"version", tools.selection.version()}};
}

Json undoJson(const GroomSession& groom) {
    const UndoStack& stack = groom.undoStack();
    const UndoStep* undo = stack.toUndo();
    const UndoStep* redo = stack.toRedo();
    return {{"canUndo", undo != nullptr},           {"canRedo", redo != nullptr},
            {"undoLabel", undo ? undo->label : ""}, {"redoLabel", redo ? redo->label : ""},
            {"undoDepth", stack.undoDepth()},       {"redoDepth", stack.redoDepth()}};
}

Json overlayJson(HelperSession& session) {
    ToolState& tools = toolsOf(session);
    const DisplayTheme& theme = tools.display.settings().theme;
    Overlay& overlay = tools.overlay;
    overlay.begin(tools.brush.dragging() ? tools.brush.ring() : tools.ring,
                  ringColor(tools.choice.tool().category));
    if (tools.brush.dragging())
        overlay.addLines(segmentsOf(tools.brush.path()), theme.pathColor);
    else
        overlay.addLines(segmentsOf(tools.hovered.line), theme.hoverColor);
    return overlay.json(tools.overlayPool, session.space);
}

void editGuides(HelperSession& session, GuideHierarchy next, const std::string& label) {
    finishStroke(session);
    DocumentState state;
    state.hierarchy = std::make_shared<const GuideHierarchy>(std::move(next));
    session.groom->edit(std::move(state), label, effectiveMapsDir(session));
}

void requireScalp(const HelperSession& session) {
    const ScalpPtr& scalp = session.groom->scalp();
    if (!scalp || scalp->triangles().empty())
        failRequest("state", "the session has no scalp: set_scalp first");
}

}  // namespace corvelle
