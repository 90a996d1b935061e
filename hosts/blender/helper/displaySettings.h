#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hosts/blender/helper/request.h"

namespace corvelle {

using Rgb = std::array<float, 3>;  ///< linear

/// The colours and sizes of what is drawn, as the host's theme has them.
struct DisplayTheme {
    std::vector<Rgb> levels{
        {0.95f, 0.62f, 0.2f}, {0.35f, 0.75f, 0.95f}, {0.55f, 0.9f, 0.4f}, {0.9f, 0.45f, 0.8f}};
    float pointSize = 5.0f;  ///< pixels
    Rgb selected{1.0f, 1.0f, 1.0f};
    Rgb softSelected{1.0f, 0.85f, 0.5f};
    Rgb frozen{0.25f, 0.45f, 0.95f};
    Rgb parts{1.0f, 0.25f, 0.25f};
    Rgb flowField{0.3f, 0.9f, 0.9f};
    Rgb clumpCenters{1.0f, 0.9f, 0.2f};
    Rgb pathColor{1.0f, 1.0f, 0.3f};
    Rgb hoverColor{1.0f, 1.0f, 1.0f};
    Rgb selection{1.0f, 1.0f, 1.0f};       ///< tubes of selected guides
    Rgb activeWire{0.9f, 0.9f, 0.9f};      ///< wires of tubes on the tool's level
    Rgb dormantWire{0.35f, 0.35f, 0.4f};   ///< and off it
    Rgb dormantFilled{0.3f, 0.3f, 0.33f};  ///< what tubes are filled with
    friend bool operator==(const DisplayTheme&, const DisplayTheme&) = default;
};

/// What of a groom is drawn beside its strands, and how.
struct DisplaySettings {
    bool guides = true;
    bool tubes = false;
    bool flow = true;
    float guideWidth = 1.5f;  ///< pixels
    Rgb guideColor{0.95f, 0.62f, 0.2f};
    bool themedGuideColors = true;
    std::string guideColorMode = "level";  ///< or "layer", "group"
    std::string guideColorLayer;
    std::int32_t displayLevel = -1;    ///< -1: all
    std::string guidePoints = "ends";  ///< or "off", "all"
    bool guideSmoothing = true;        ///< a curve through the points, not straight between them
    std::int32_t guideDisplaySegments = 0;  ///< of each span of that curve; 0: 4
    std::set<std::string> hiddenGuideGroups;
    std::map<std::string, Rgb> guideGroupColors;
    DisplayTheme theme;
    friend bool operator==(const DisplaySettings&, const DisplaySettings&) = default;
};

/// Changes what the object names; all or nothing.
/// Throws RequestError (bad_request) with the text to show.
void applyDisplaySettings(DisplaySettings& settings, const Json& values);
/// All settings, the theme with them.
Json displaySettingsJson(const DisplaySettings& settings);

/// A list of group names. Throws RequestError (bad_request): "<key> is a list of group names".
std::set<std::string> readGroupNames(const Json& value, std::string_view key);

}  // namespace corvelle
