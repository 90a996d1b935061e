#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/brushToolSettings.h"
#include "tools/toolCatalog.h"

namespace corvelle {

/// The names settings go by, in the order they are answered.
const std::vector<std::string>& toolSettingNames();

/// Changes the settings that the object names. Where two names of one setting are given, `hardness`
/// beats `falloff`, `frontFacingOnly` beats `maskByScalp`, `paintChannels` beats `rgba`, and
/// `topology` beats `symmetry`. Throws std::invalid_argument with the text to show, and then
/// changes nothing.
void applyToolSettings(BrushToolSettings& settings, const nlohmann::json& values);
/// All settings under all their names.
nlohmann::json toolSettingsJson(const BrushToolSettings& settings);

/// The tool picked and its settings, as an artist left them. `symmetry` and `symmetryCenter` are
/// stored as given, on the axes of whoever gave them.
class ToolChoice {
public:
    ToolChoice();  ///< "comb"
    const ToolEntry& tool() const { return *tool_; }
    const BrushToolSettings& settings() const { return settings_; }
    /// Sets of the program's own, such as the level of a pick.
    void setLevelAndGroup(std::int32_t level, const std::string& group);
    void setSoftSelectRadius(float radius);
    /// Picks a tool (null: stays), which brings its own strength back, then applies settings (null
    /// or an object). All or nothing; errors as `applyToolSettings`.
    void set(const ToolEntry* tool, const nlohmann::json* values);
    /// What a stroke of the tool works with: the settings with the tool's kind, mode, label and,
    /// for the brushes that paint one certain map, what they paint. The artist's own stay.
    BrushToolSettings forStroke() const;

private:
    const ToolEntry* tool_;
    BrushToolSettings settings_;
    std::map<std::string, float> strengths_;  ///< by tool id, of tools left behind
};

}  // namespace corvelle
