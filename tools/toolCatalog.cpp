#include "tools/toolCatalog.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

#include "tools/brushMode.h"

namespace corvelle {
namespace {

constexpr const char* kNone = "";
constexpr const char* kShaping =
    "radius strength falloff falloffProfile strengthProfile symmetry selectedOnly pressure collide "
    "frontFacingOnly ";
constexpr const char* kPlain =
    "radius strength falloff falloffProfile symmetry selectedOnly pressure collide "
    "frontFacingOnly ";
constexpr const char* kPainting =
    "radius strength falloff falloffProfile symmetry selectedOnly pressure frontFacingOnly ";

/// A tool as the table below holds it: lists of settings as words.
struct ToolRow {
    const char* id;
    const char* label;
    ToolCategory category;
    float strength = 1.0f;
    bool isSigned = false;
    ToolKind kind = ToolKind::Brush;
    BrushMode mode = BrushMode::Comb;
    const char* paramBrush = "";
    bool strokes = true;
    const char* base = kNone;  ///< settings shown first
    const char* more = "";     ///< and then
    const char* hint;
};

// In the order of the shelf.
constexpr ToolRow kTools[] = {
    {.id = "place",
     .label = "Place",
     .category = ToolCategory::Create,
     .strength = 1.0f,
     .kind = ToolKind::Place,
     .more = "symmetry collide newGuides spacing soloNewGuides",
     .hint = "Click the scalp for a guide; drag to place many, spaced. New guides copy "
             "their neighbors' shape. With a child group picked, places children by hand "
             "(each follows the nearest parent)."},
    {.id = "draw",
     .label = "Draw",
     .category = ToolCategory::Create,
     .strength = 1.0f,
     .kind = ToolKind::Draw,
     .more = "symmetry collide newGuides soloNewGuides",
     .hint = "Press on the scalp and draw a guide's shape."},
    {.id = "part",
     .label = "Part",
     .category = ToolCategory::Create,
     .strength = 1.0f,
     .kind = ToolKind::Part,
     .more = "symmetry parts",
     .hint = "Draw a part freehand on the scalp: hair does not mix across it, and the Part "
             "node opens it."},
    {.id = "flow",
     .label = "Flow",
     .category = ToolCategory::Create,
     .strength = 1.0f,
     .kind = ToolKind::Flow,
     .more = "radius strength falloff falloffProfile pressure frontFacingOnly flow",
     .hint = "Drag on the scalp to lay direction arrows; drag over arrows to comb them "
             "(Ctrl: erase); or place whorls and other sinks hair turns around. The Flow "
             "node lays short hair along them: vellus, fur, brows, no guides needed."},
    {.id = "comb",
     .label = "Comb",
     .category = ToolCategory::Shape,
     .strength = 1.0f,
     .base = kShaping,
     .more = "stretch targets",
     .hint = "Drag guides along the stroke, roots pinned (Stretch: they get longer or "
             "shorter as you pull)."},
    {.id = "slide",
     .label = "Slide",
     .category = ToolCategory::Shape,
     .strength = 1.0f,
     .mode = BrushMode::Slide,
     .base = kPlain,
     .hint = "Move roots along the scalp; guides keep their shape (fix a root without "
             "redrawing)."},
    {.id = "smooth",
     .label = "Smooth",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .mode = BrushMode::Smooth,
     .base = kShaping,
     .more = "targets",
     .hint = "Take kinks out, lengths kept."},
    {.id = "straighten",
     .label = "Straighten",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .mode = BrushMode::Straighten,
     .base = kShaping,
     .more = "targets",
     .hint = "Relax guides toward the straight line along their root direction."},
    {.id = "lift",
     .label = "Lift",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .isSigned = true,
     .mode = BrushMode::Lift,
     .base = kShaping,
     .hint = "Stand guides up toward their root normal (negative: lay them down)."},
    {.id = "twist",
     .label = "Twist",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .isSigned = true,
     .mode = BrushMode::Twist,
     .base = kShaping,
     .more = "targets",
     .hint = "Swing guides around their root (negative: the other way)."},
    {.id = "curl",
     .label = "Curl",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .isSigned = true,
     .mode = BrushMode::Curl,
     .base = kShaping,
     .hint = "Curl guides toward the tip (negative: the other way)."},
    {.id = "attract",
     .label = "Attract",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .isSigned = true,
     .mode = BrushMode::Attract,
     .base = kShaping,
     .more = "targets",
     .hint = "Pull tips together toward the brush center (negative: push apart)."},
    {.id = "direction",
     .label = "Direction",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .mode = BrushMode::Direction,
     .base = kShaping,
     .hint = "Turn guides about their roots toward the way you stroke, lengths kept (Ctrl: "
             "away from it)."},
    {.id = "noise",
     .label = "Noise",
     .category = ToolCategory::Shape,
     .strength = 0.5f,
     .isSigned = true,
     .mode = BrushMode::Noise,
     .base = kShaping,
     .hint = "Add smooth random jitter along guides, the same pattern each stroke builds up"
             " (negative or Ctrl: smooth it out)."},
    {.id = "tube",
     .label = "Tube",
     .category = ToolCategory::Shape,
     .strength = 1.0f,
     .isSigned = true,
     .mode = BrushMode::Tube,
     .base = kPlain,
     .hint = "Widen a guide's tube, where its children grow (negative: narrow)."},
    {.id = "cut",
     .label = "Cut",
     .category = ToolCategory::Trim,
     .strength = 1.0f,
     .mode = BrushMode::Cut,
     .base = kPlain,
     .more = "targets",
     .hint = "Trim guides where the brush touches them (Ctrl grows)."},
    {.id = "length",
     .label = "Length",
     .category = ToolCategory::Trim,
     .strength = 1.0f,
     .isSigned = true,
     .mode = BrushMode::Length,
     .base = kPlain,
     .more = "targets",
     .hint = "Grow guides evenly (negative: shorten)."},
    {.id = "erase",
     .label = "Erase",
     .category = ToolCategory::Trim,
     .strength = 1.0f,
     .mode = BrushMode::Erase,
     .base = kPlain,
     .more = "erases",
     .hint = "Remove what the brush touches: guides (with their children), parts and flow "
             "arrows (choose below)."},
    {.id = "paint",
     .label = "Paint",
     .category = ToolCategory::Paint,
     .strength = 0.5f,
     .mode = BrushMode::Paint,
     .base = kPainting,
     .more = "map smoothStrength",
     .hint = "Paint the map picked in the list toward the value, or a color map toward the "
             "color in the channels ticked (Ctrl: toward 1 - value or color; Shift+drag: "
             "smooth). Guide maps paint over the guides, scalp maps over the scalp."},
    {.id = "width",
     .label = "Width",
     .category = ToolCategory::Paint,
     .strength = 0.5f,
     .mode = BrushMode::Paint,
     .paramBrush = "width",
     .base = kPainting,
     .more = "paramMap smoothStrength",
     .hint = "Paint how thick the hair is: the map the Width node's width reads (made and "
             "wired on the first stroke). Paints toward the value, 1 the full width (Ctrl: "
             "thinner; Shift+drag: smooth)."},
    {.id = "density",
     .label = "Density",
     .category = ToolCategory::Paint,
     .strength = 0.5f,
     .mode = BrushMode::Paint,
     .paramBrush = "density",
     .base = kPainting,
     .more = "paramMap smoothStrength",
     .hint = "Paint where hair grows: the map the Scatter node's density reads (made and "
             "wired on the first stroke). Paints hair back in toward the value (Ctrl: "
             "removes hair; Shift+drag: smooth)."},
    {.id = "select",
     .label = "Select",
     .category = ToolCategory::Guides,
     .strength = 1.0f,
     .strokes = false,
     .more = "symmetry selection",
     .hint = "Lasso guides (Shift: toggle, Ctrl: deselect, Ctrl+Shift: add): the rest "
             "freeze, so brushes work on the selection; a pick of nothing unfreezes every "
             "guide. With symmetry, the mirror guides are picked too."},
    {.id = "freeze",
     .label = "Freeze",
     .category = ToolCategory::Guides,
     .strength = 1.0f,
     .mode = BrushMode::Paint,
     .base = kPainting,
     .more = "freezeMask",
     .hint = "Paint the freeze mask: brushes leave frozen guides alone (they draw blue). "
             "Ctrl: unfreeze."},
};

struct SettingRow {
    const char *id, *label, *hint;
};

constexpr SettingRow kSettings[] = {
    {"radius", "Radius", "The brush circle (middle-drag, or B held + drag, sets it)"},
    {"strength", "Strength",
     "How much each stamp does (Comb: the fraction of the drag); negative reverses the "
     "tools that work both ways (Shift+middle-drag, or M held + drag, sets it)"},
    {"falloff", "Falloff",
     "How the brush fades toward its edge: 0 not at all (hard to the edge), 1 from the "
     "center out (soft)"},
    {"falloffProfile", "Falloff curve",
     "The falloff drawn as a curve instead: the weight from the brush's center (left) "
     "to its edge (right); none: the Falloff slider's"},
    {"strengthProfile", "Root to tip",
     "How much of the strength each part of a guide gets, root (left) to tip (right): "
     "tips more than roots, or the reverse; flat: the whole guide alike"},
    {"symmetry", "Symmetry",
     "Mirror every stroke: across world X, or across the scalp's own topology (its left"
     " and right, whatever its pose; for heads turned or not quite symmetric)"},
    {"selectedOnly", "Selected only", "Only the selected guides, scaled by the soft selection"},
    {"pressure", "Pen pressure", "A tablet's pressure scales the strength"},
    {"collide", "Keep off scalp", "Guides never dip into the scalp"},
    {"frontFacingOnly", "Front facing only",
     "What the scalp hides from the camera gets no weight: a stroke never reaches "
     "guides, parts, flow arrows or paint on the far side of the head"},
    {"stretch", "Stretch",
     "On: guides get longer (or shorter) as you pull them. Off: they keep their length"},
    {"targets", "Acts on", "What the brush shapes: guides, part lines, flow arrows"},
    {"erases", "Erases", "What Erase removes: guides (with their children), parts, flow arrows"},
    {"newGuides", "New guides",
     "Match nearby guides' shape and maps, or the length and segments of a standing "
     "guide"},
    {"spacing", "Spacing", "The distance between the guides a drag places"},
    {"soloNewGuides", "Solo new guides",
     "New guides stay unfrozen and every other guide is frozen, so the brushes work on "
     "the new ones at once (Shift+click a guide to solo it, Unfreeze All to free them "
     "all)"},
    {"parts", "Parts", "The next part's name, and the parts drawn so far"},
    {"flow", "Flow",
     "What a click or drag lays: arrows, or a sink (brush-sized) hair turns around"},
    {"map", "Map", "The map painted, the value (or color and channels) it is painted toward"},
    {"paramMap", "Map",
     "The map that drives the param (made white and wired on the first stroke when none"
     " does), and the value it is painted toward: 1 the param's own value, 0 none "
     "(Ctrl: 1 - value)"},
    {"smoothStrength", "Smooth",
     "How much Shift+drag smooths a map per stamp (past 1: several passes)"},
    {"selection", "Selection",
     "How the lasso adds to or replaces the selection, and the soft radius"},
    {"freezeMask", "Freeze mask", "The frozen guides draw blue; Unfreeze All clears the mask"},
};

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::vector<ToolEntry> makeCatalog() {
    std::vector<ToolEntry> out;
    for (const ToolRow& row : kTools)
        out.push_back({.id = row.id,
                       .label = row.label,
                       .category = row.category,
                       .order = std::int32_t(out.size()),
                       .icon = row.id,
                       .defaultStrength = row.strength,
                       .isSigned = row.isSigned,
                       .hint = row.hint,
                       .settings = words(std::string(row.base) + row.more),
                       .kind = row.kind,
                       .mode = row.mode,
                       .strokes = row.strokes,
                       .paramBrush = row.paramBrush});
    return out;
}

std::vector<ToolSettingEntry> makeSettings() {
    std::vector<ToolSettingEntry> out;
    for (const SettingRow& row : kSettings) out.push_back({row.id, row.label, row.hint});
    return out;
}

template <class Row>
const Row* rowOf(const std::vector<Row>& rows, std::string_view id) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return row.id == id; });
    return found != rows.end() ? &*found : nullptr;
}

}  // namespace

const char* toolCategoryName(ToolCategory category) {
    constexpr std::array<const char*, kToolCategories> kNames = {"Create", "Shape", "Trim", "Paint",
                                                                 "Guides"};
    return kNames.at(std::size_t(category));
}

const std::vector<ToolEntry>& toolCatalog() {
    static const std::vector<ToolEntry> catalog = makeCatalog();
    return catalog;
}

const std::vector<ToolSettingEntry>& toolSettingCatalog() {
    static const std::vector<ToolSettingEntry> catalog = makeSettings();
    return catalog;
}

const ToolEntry* findTool(std::string_view id) { return rowOf(toolCatalog(), id); }
const ToolSettingEntry* findToolSetting(std::string_view id) {
    return rowOf(toolSettingCatalog(), id);
}

std::vector<const ToolEntry*> toolsInCategory(ToolCategory category) {
    std::vector<const ToolEntry*> out;
    for (const ToolEntry& tool : toolCatalog())
        if (tool.category == category) out.push_back(&tool);
    return out;
}

bool toolHasSetting(const ToolEntry& tool, std::string_view setting) {
    return std::find(tool.settings.begin(), tool.settings.end(), setting) != tool.settings.end();
}

const char* toolModeWord(const ToolEntry& tool) {
    return tool.strokes ? strokeModeWord(tool.kind, tool.mode) : "select";
}

}  // namespace corvelle
