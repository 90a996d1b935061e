#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/brushToolSettings.h"

namespace corvelle {

enum class ToolCategory : std::int32_t { Create, Shape, Trim, Paint, Guides };
constexpr int kToolCategories = 5;
/// "Create", "Shape", "Trim", "Paint", "Guides".
const char* toolCategoryName(ToolCategory category);

/// One tool of the shelf, as a host shows it.
struct ToolEntry {
    std::string id, label;
    ToolCategory category = ToolCategory::Create;
    std::int32_t order = 0;  ///< its row in the catalogue
    std::string icon;        ///< names an icon of the host
    float defaultStrength = 1.0f;
    bool isSigned = false;  ///< a negative strength works the other way
    std::string hint;
    std::vector<std::string> settings;  ///< ids of what it shows, in order

    // What the tool does.
    ToolKind kind = ToolKind::Brush;
    BrushMode mode = BrushMode::Comb;
    bool strokes = true;     ///< false for `select`
    std::string paramBrush;  ///< "width" or "density"
};

/// One setting, or one group of settings, as a panel shows it.
struct ToolSettingEntry {
    std::string id, label, hint;
};

/// The tables, in the order to show; built by the first call.
const std::vector<ToolEntry>& toolCatalog();
const std::vector<ToolSettingEntry>& toolSettingCatalog();
const ToolEntry* findTool(std::string_view id);  ///< null: no such tool
const ToolSettingEntry* findToolSetting(std::string_view id);
std::vector<const ToolEntry*> toolsInCategory(ToolCategory category);
bool toolHasSetting(const ToolEntry& tool, std::string_view setting);
/// "place", "draw", "part", "flow", "select", else the brush mode's word.
const char* toolModeWord(const ToolEntry& tool);

}  // namespace corvelle
