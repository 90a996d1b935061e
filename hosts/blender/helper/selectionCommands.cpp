#include "hosts/blender/helper/selectionCommands.h"

#include <algorithm>

#include "hosts/blender/helper/guideEditCommands.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/strokeCommands.h"
#include "hosts/blender/helper/toolState.h"
#include "hosts/blender/helper/viewReader.h"

namespace corvelle {
namespace {

constexpr float kPickPixels = 10.0f;
constexpr char kLassoText[] = "lasso holds a point (a click), two (a box) or more";

SelectionMode readMode(const Json& request) {
    return parseSelectionMode(optionalString(request, "mode", "replace"));
}

/// What the pick chose, and what follows from it: the rest freezes, all are drawn again.
std::size_t takeSelection(HelperSession& session, GuideIds ids) {
    ToolState& tools = toolsOf(session);
    tools.selection.set(std::move(ids));
    tools.solo.clear();
    const auto hierarchy = session.groom->activeHierarchy();
    const auto weights = tools.host->selectionWeights();
    GuideIds frozen = weights ? frozenBySelection(*hierarchy, *weights) : GuideIds{};
    const std::size_t froze = frozen.size();
    tools.selection.freeze(std::move(frozen));
    return froze;
}

void readRadius(HelperSession& session, const Json& request) {
    if (!findField(request, "softSelectRadius")) return;
    toolsOf(session).choice.setSoftSelectRadius(optionalFloat(request, "softSelectRadius", 0.0f));
}

std::int32_t readLevel(const Json& request, std::int32_t otherwise) {
    const Json* level = findField(request, "level");
    if (!level) return otherwise;
    if (!level->is_number_integer()) failRequest("bad_request", "\"level\" must be a whole number");
    return std::int32_t(std::clamp<std::int64_t>(level->get<std::int64_t>(), 0, 1 << 20));
}

Json hoveredJson(const HoverHit& hit) {
    switch (hit.kind) {
        case HoverHit::Kind::Guide:
            return {{"kind", "guide"}, {"id", hit.guide}};
        case HoverHit::Kind::Part:
            return {{"kind", "part"}, {"name", hit.part}};
        case HoverHit::Kind::Flow:
            return {{"kind", "flow"}, {"index", hit.index}};
        case HoverHit::Kind::None:
            break;
    }
    return nullptr;
}

}  // namespace

Json hoverCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    ToolState& tools = toolsOf(session);
    const float x = requirePixel(context.request, "x"), y = requirePixel(context.request, "y");
    requireScalp(session);
    const ToolView& view = requireView(context);
    if (!tools.brush.dragging()) {
        const BrushToolSettings settings = strokeSettings(session, tools);
        tools.ring = brushRing(*tools.host, view, x, y, settings);
        tools.hovered = tools.hover.at(*tools.host, view, x, y, settings, kPickPixels);
    }
    const std::size_t points = tools.hovered.line.size();
    return {{"lines", points > 1 ? points - 1 : 0},
            {"over", hoveredJson(tools.hovered)},
            {"view", viewJson(view)},
            {"overlay", overlayJson(session)}};
}

Json hoverClearCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    ToolState& tools = toolsOf(session);
    tools.hovered = {};
    tools.ring = {};
    Json overlay = overlayJson(session);
    return {{"version", tools.overlay.version()}, {"overlay", std::move(overlay)}};
}

Json selectCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    std::vector<StrokePoint> lasso = readPixels(requireField(request, "lasso"), 1.0f, kLassoText);
    if (lasso.empty()) failRequest("bad_request", kLassoText);
    const SelectionMode mode = readMode(request);
    const PickOptions options{
        .clickPixels = std::max(optionalFloat(request, "clickPixels", kPickPixels), 0.0f),
        .rootsOnly = optionalBool(request, "rootsOnly", false)};
    const bool solo = optionalBool(request, "solo", false);
    requireScalp(session);
    const ToolView& view = requireView(context);
    finishStroke(session);

    std::vector<Vec2f> polygon;
    for (const StrokePoint& point : lasso) polygon.push_back({point.x, point.y});
    if (polygon.size() == 2) {
        const Vec2f a = polygon[0], b = polygon[1];
        polygon = {a, {b.x, a.y}, b, {a.x, b.y}};
    }
    const GuideIds hit =
        pickGuides(*tools.host, view, polygon, strokeSettings(session, tools), options);
    const std::size_t froze =
        takeSelection(session, combineSelection(tools.selection.ids(), hit, mode));
    if (solo && !hit.empty()) {
        GuideHierarchy next = *session.groom->hierarchy();
        soloGuides(next, hit, tools.choice.settings().freezeAttribute);
        editGuides(session, std::move(next), "solo selection");
        tools.solo = hit;
    }
    return {{"picked", hit.size()}, {"froze", froze}, {"selection", selectionJson(session)}};
}

Json selectionGetCommand(const CommandContext& context) {
    return {{"selection", selectionJson(context.session())}};
}

Json selectionSetCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    const auto hierarchy = session.groom->activeHierarchy();
    const SelectionMode mode = readMode(request);
    GuideIds hit;
    bool given = false;
    if (const Json* ids = findField(request, "ids")) {
        given = true;
        for (const std::uint64_t id : readGuideIds(*ids, "ids"))
            if (hierarchy->guide(id)) hit.insert(id);
    }
    const auto take = [&](const auto& wanted) {
        given = true;
        for (const GuidePtr& guide : hierarchy->guides())
            if (wanted(*guide)) hit.insert(guide->id);
    };
    if (findField(request, "group")) {
        const std::uint32_t group = groupNamed(*hierarchy, requireString(request, "group"));
        take([&](const Guide& guide) { return guide.group == group; });
    }
    if (findField(request, "level")) {
        const std::int32_t level = readLevel(request, 0);
        take([&](const Guide& guide) { return hierarchy->depthOf(guide.group) == level; });
    }
    readRadius(session, request);
    if (given) takeSelection(session, combineSelection(tools.selection.ids(), hit, mode));
    return {{"selection", selectionJson(session)}};
}

Json pickLevelCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json& request = context.request;
    ToolState& tools = toolsOf(session);
    const BrushToolSettings& settings = tools.choice.settings();
    std::int32_t level = settings.level;
    std::string group = settings.group;
    if (const Json* pick = findField(request, "pick")) {
        const std::vector<StrokePoint> point = readPixels(Json::array({*pick}), 1.0f, "");
        requireScalp(session);
        const ToolView& view = requireView(context);
        const Vec2f at[] = {{point[0].x, point[0].y}};
        BrushToolSettings plain = strokeSettings(session, tools);
        plain.symmetry = -1;  // the guide under the pointer alone
        plain.topology = false;
        const GuideIds hit = pickGuides(*tools.host, view, at, plain,
                                        {.clickPixels = kPickPixels, .anyLevel = true});
        const auto hierarchy = session.groom->activeHierarchy();
        if (const GuidePtr guide = hit.empty() ? nullptr : hierarchy->guide(*hit.begin())) {
            level = hierarchy->depthOf(guide->group);
            const GuideGroup* own = hierarchy->group(guide->group);
            group = own ? own->name : "";
        }
    } else {
        const auto hierarchy = session.groom->activeHierarchy();
        const bool named = findField(request, "group") != nullptr;
        const std::string name = named ? requireString(request, "group") : "";
        std::int32_t groupLevel = level;
        if (!name.empty()) groupLevel = hierarchy->depthOf(groupNamed(*hierarchy, name));
        if (findField(request, "level")) {
            level = readLevel(request, level);
            group = name;
        } else if (named) {
            level = groupLevel;
            group = name;
        }
    }
    tools.choice.setLevelAndGroup(level, group);
    return {{"level", level},
            {"group", group},
            {"settings", toolSettingsJson(tools.choice.settings())}};
}

Json setHiddenGroupsCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json* groups = findField(context.request, "groups");
    ToolState& tools = toolsOf(session);
    tools.hiddenGroups = readGroupNames(groups ? *groups : Json(), "groups");
    return {{"hiddenGroups", tools.hiddenGroups}};
}

}  // namespace corvelle
