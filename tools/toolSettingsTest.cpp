#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "model/hash.h"
#include "tools/toolSettings.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

std::string refusal(const Json& values) {
    BrushToolSettings settings;
    const Json before = toolSettingsJson(settings);
    try {
        applyToolSettings(settings, values);
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(toolSettingsJson(settings), before) << "nothing half applied: " << values;
        return error.what();
    }
    return "taken";
}

Json after(const Json& values) {
    BrushToolSettings settings;
    applyToolSettings(settings, values);
    return toolSettingsJson(settings);
}

TEST(ToolCatalog, KeepsTheTextsThatHostsShow) {
    std::uint64_t hash = 0;
    const auto fold = [&](const std::string& text) { hash = hashCombine(hash, text + "\n"); };
    std::int32_t order = 0;
    for (const ToolEntry& tool : toolCatalog()) {
        EXPECT_EQ(tool.order, order++);
        EXPECT_EQ(tool.icon, tool.id);
        EXPECT_EQ(findTool(tool.id), &tool);
        for (const std::string& text : {tool.id, tool.label, tool.hint}) fold(text);
        fold(toolCategoryName(tool.category));
        fold(std::to_string(tool.defaultStrength) + (tool.isSigned ? "+-" : "+"));
        for (const std::string& setting : tool.settings) {
            fold(setting);
            EXPECT_NE(findToolSetting(setting), nullptr) << tool.id << " shows " << setting;
        }
    }
    for (const ToolSettingEntry& entry : toolSettingCatalog())
        for (const std::string& text : {entry.id, entry.label, entry.hint}) fold(text);
    EXPECT_EQ(toolCatalog().size(), 23u);
    EXPECT_EQ(toolSettingCatalog().size(), 23u);
    EXPECT_EQ(hash, 5694945935951546436u) << "texts changed";
    EXPECT_EQ(findTool("Comb"), nullptr);
    EXPECT_EQ(toolsInCategory(ToolCategory::Trim).size(), 3u);
    EXPECT_TRUE(toolHasSetting(*findTool("comb"), "stretch"));
    EXPECT_FALSE(toolHasSetting(*findTool("paint"), "collide"));
    EXPECT_STREQ(toolModeWord(*findTool("select")), "select");
    EXPECT_STREQ(toolModeWord(*findTool("width")), "paint");
    EXPECT_STREQ(toolModeWord(*findTool("flow")), "flow");
}

TEST(ToolSettings, RefuseWhatDoesNotFit) {
    EXPECT_EQ(refusal(Json::array()), "settings is an object");
    EXPECT_EQ(refusal({{"radius", 9}, {"size", 1}}), "no tool setting 'size'");
    EXPECT_EQ(refusal({{"radius", 9}, {"collide", 1}}), "setting collide is true or false");
    EXPECT_EQ(refusal({{"level", 1.5}}), "setting level is a whole number");
    EXPECT_EQ(refusal({{"level", "1"}}), "setting level is a whole number");
    EXPECT_EQ(refusal({{"strength", "1"}}), "setting strength is a number");
    EXPECT_EQ(refusal({{"strength", 1e300}}), "setting strength must be finite");
    EXPECT_EQ(refusal({{"group", nullptr}}), "setting group is a string");
    EXPECT_EQ(refusal({{"paintKind", "Guides"}}), "paintKind is guides, vertices or texture");
    for (const Json& color : {Json{1, 1}, Json("red"), Json{1, 1, "1"}, Json{1, 1, 1, 1, 1}})
        EXPECT_EQ(refusal({{"paintColor", color}}), "paintColor is [r, g, b] or [r, g, b, a]");
    EXPECT_EQ(refusal({{"paintChannels", "rgx"}}), "channels are letters of rgba, not 'rgx'");
    EXPECT_EQ(refusal({{"rgba", ""}}), "name at least one channel of rgba");
    for (const char* text : {"guides, hair", "", "guides,", "none,parts"})
        EXPECT_EQ(refusal({{"targets", text}}),
                  "-targets takes guides, parts, flow (comma separated) or none");
    EXPECT_EQ(refusal({{"symmetry", "X"}}), "-symmetry takes x, y, z, topology or none");
    EXPECT_EQ(refusal({{"falloffProfile", "{"}}), "ramp: malformed JSON");
    EXPECT_EQ(refusal({{"falloffProfile", Json::object()}}),
              "ramp: needs keys [[position, value], ...]");
    EXPECT_EQ(refusal({{"strengthProfile", 1}}), "setting strengthProfile is a string");
    EXPECT_EQ(refusal({{"tubeRadius", {0.1, -1}}}), "setting tubeRadius holds radii of 0 or more");
    EXPECT_EQ(refusal({{"tubeRadius", Json::array()}}),
              "setting tubeRadius is a number or a list of numbers");
    EXPECT_EQ(refusal({{"flowSink", "drain"}}),
              "flow sink: unknown kind 'drain' (whorl, whorlcw, converge, part)");
}

TEST(ToolSettings, MoveNumbersIntoTheirRanges) {
    const auto reads = [](const char* key, const Json& given, const Json& back) {
        EXPECT_EQ(after({{key, given}})[key], back) << key << " " << given;
    };
    reads("paintResolution", 3, 4);
    reads("paintResolution", 20000, 16384);
    reads("segments", 0, 1);
    reads("segments", -1e18, 1);
    reads("radius", 0.5, 1.0);
    reads("level", -3, 0);
    reads("hardness", 7, 1.0);
    reads("strength", -3.5, -3.5);
    reads("spacing", 0, 0.001);
    reads("tubeRadius", 0.3, Json{0.3, 0.3});
    reads("paintColor", Json{-1, 0.5, 2}, Json{0.0, 0.5, 1.0, 1.0});
    reads("targets", " flow ,guides", "guides,flow");
    reads("targets", "none", "none");
    reads("paintChannels", "ar", "ra");
    reads("strengthProfile", R"({"keys": [[0, 1], [1, 1]]})", "");
    reads("falloffProfile", "  \n", "");
    const Json profile = after({{"strengthProfile", {{"keys", {{0, 0.25}, {1, 1}}}}}});
    EXPECT_EQ(after({{"strengthProfile", profile["strengthProfile"]}}), profile);
}

TEST(ToolSettings, AnswerUnderAllNamesAndTakeTheirOwnAnswer) {
    const Json all = after({{"falloff", 0.25}});
    EXPECT_EQ(all["hardness"], 0.75);
    EXPECT_EQ(all["falloff"], 0.25);
    EXPECT_EQ(all.size(), toolSettingNames().size());
    EXPECT_EQ(after(all), all);
    const Json defaults = after(Json::object());
    EXPECT_EQ(defaults["radius"], 60.0);
    EXPECT_EQ(defaults["spacing"], 0.1) << "floats in their shortest form";
    EXPECT_EQ(defaults["tubeRadius"], (Json{0.1, 0.1}));
    EXPECT_EQ(defaults["attribute"], "clump");
    EXPECT_EQ(defaults["paintChannels"], "rgba");
    EXPECT_EQ(defaults["symmetry"], "none");
}

TEST(ToolSettings, TheNewerNameWins) {
    EXPECT_EQ(after({{"falloff", 0.1}, {"hardness", 0.5}})["hardness"], 0.5);
    EXPECT_EQ(after({{"maskByScalp", true}, {"frontFacingOnly", false}})["maskByScalp"], false);
    EXPECT_EQ(after({{"rgba", "r"}, {"paintChannels", "g"}})["rgba"], "g");
    EXPECT_EQ(after({{"symmetry", "x"}, {"topology", true}})["symmetry"], "topology");
    EXPECT_EQ(after({{"symmetry", "y"}, {"topology", false}})["symmetry"], "y");
    BrushToolSettings settings;
    applyToolSettings(settings, {{"symmetry", "topology"}});
    EXPECT_TRUE(settings.topology);
    EXPECT_EQ(settings.symmetry, -1);
    applyToolSettings(settings, {{"symmetry", "z"}});
    EXPECT_FALSE(settings.topology);
    EXPECT_EQ(settings.symmetry, 2);
}

TEST(ToolChoice, RemembersStrengthsByTool) {
    ToolChoice choice;
    EXPECT_EQ(choice.tool().id, "comb");
    const Json strong{{"strength", 0.8}}, bad{{"strength", 0.3}, {"radius", "big"}};
    choice.set(nullptr, &strong);
    choice.set(findTool("lift"), nullptr);
    EXPECT_EQ(choice.settings().strength, 0.5f) << "its default";
    EXPECT_THROW(choice.set(findTool("twist"), &bad), std::invalid_argument);
    EXPECT_EQ(choice.tool().id, "lift") << "all or nothing";
    choice.set(findTool("comb"), nullptr);
    EXPECT_EQ(choice.settings().strength, 0.8f);
    choice.set(findTool("lift"), &strong);
    EXPECT_EQ(choice.settings().strength, 0.8f) << "what comes along wins";
}

TEST(ToolChoice, GivesAStrokeTheToolsOwnTerms) {
    ToolChoice choice;
    const Json mine{
        {"attribute", "curl"}, {"value", 0.3}, {"targets", "parts"}, {"paintKind", "texture"}};
    choice.set(findTool("freeze"), &mine);
    const BrushToolSettings freeze = choice.forStroke();
    EXPECT_EQ(freeze.attribute, "freeze");
    EXPECT_EQ(freeze.value, 1.0f);
    EXPECT_EQ(freeze.paintKind, "guides");
    EXPECT_EQ(freeze.label, "freeze");
    EXPECT_EQ(choice.settings().attribute, "curl") << "the artist's own stay";
    EXPECT_TRUE(freeze.targets.guides) << "the tool does not show targets";
    choice.set(findTool("comb"), nullptr);
    EXPECT_FALSE(choice.forStroke().targets.guides);
    choice.set(findTool("density"), nullptr);
    EXPECT_EQ(choice.forStroke().paramBrush, "density");
    EXPECT_EQ(choice.forStroke().mode, BrushMode::Paint);
    choice.set(findTool("place"), nullptr);
    EXPECT_EQ(choice.forStroke().kind, ToolKind::Place);
}

TEST(ToolSettings, HostileJsonIsRefusedOrTakenNeverHalf) {
    const std::vector<Json> values = {nullptr,
                                      true,
                                      -1,
                                      0,
                                      1e308,
                                      -1e308,
                                      4294967296.5,
                                      "",
                                      "{}",
                                      Json::array(),
                                      Json::object(),
                                      Json::array({Json::array()}),
                                      std::string(5000, '['),
                                      Json{{"keys", {{0, "a"}}}}};
    for (const std::string& name : toolSettingNames()) {
        for (const Json& value : values) {
            const std::string answer = refusal({{name, value}});
            if (answer == "taken") {
                EXPECT_EQ(after(after({{name, value}})), after({{name, value}})) << name << value;
            }
        }
    }
}

}  // namespace
}  // namespace corvelle
