#include "tools/toolSettings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <variant>

#include <nlohmann/json.hpp>

#include "graph/graphError.h"
#include "graph/rampText.h"
#include "model/floatText.h"
#include "model/flowData.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;
using Settings = BrushToolSettings;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::size_t kMostTubeValues = 4096;

[[noreturn]] void fail(const std::string& text) { throw std::invalid_argument(text); }

// One value of each type

bool readBool(const Json& value, const std::string& key) {
    if (!value.is_boolean()) fail("setting " + key + " is true or false");
    return value.get<bool>();
}

double readFloat(const Json& value, const std::string& key) {
    if (!value.is_number()) fail("setting " + key + " is a number");
    const double number = value.get<double>();
    if (!std::isfinite(float(number))) fail("setting " + key + " must be finite");
    return number;
}

double readWhole(const Json& value, const std::string& key) {
    const double number = value.is_number() ? value.get<double>() : 0.5;
    if (!(std::floor(number) == number) || !std::isfinite(number))
        fail("setting " + key + " is a whole number");
    return std::clamp(number, double(std::numeric_limits<std::int32_t>::min()),
                      double(std::numeric_limits<std::int32_t>::max()));
}

std::string readText(const Json& value, const std::string& key) {
    if (!value.is_string()) fail("setting " + key + " is a string");
    return value.get<std::string>();
}

/// The double that prints as the float's shortest text.
Json number(float value) {
    std::string text;
    appendFloat32(text, value);
    return Json::parse(text, nullptr, false);
}

// Settings of their own form

float within(double value, double low, double high) { return float(std::clamp(value, low, high)); }

using ProfilePtr = std::shared_ptr<const Ramp>;

ProfilePtr readProfile(const Json& value, const std::string& key) {
    Ramp ramp;
    if (value.is_object()) {
        if (!readRamp(value, ramp)) fail("ramp: needs keys [[position, value], ...]");
    } else {
        const std::string text = readText(value, key);
        if (text.find_first_not_of(" \t\r\n") == std::string::npos) return nullptr;
        try {
            ramp = rampFromText(text);
        } catch (const GraphError& error) {
            fail(error.what());
        }
    }
    return std::make_shared<const Ramp>(std::move(ramp));
}

Json profileText(const ProfilePtr& profile) {
    if (!profile) return "";
    Json keys = Json::array();
    for (const auto& [position, level] : profile->keys())
        keys.push_back({number(position), number(level)});
    return Json{{"keys", std::move(keys)}, {"linear", profile->linear()}}.dump();
}

void readStrengthProfile(Settings& settings, const Json& value) {
    ProfilePtr profile = readProfile(value, "strengthProfile");
    const auto isOne = [](const Ramp::Key& key) { return key.second == 1.0f; };
    if (profile && std::all_of(profile->keys().begin(), profile->keys().end(), isOne))
        profile = nullptr;  // changes nothing, so it costs nothing
    settings.strengthProfile = std::move(profile);
}

constexpr const char* kAxes[] = {"x", "y", "z"};

void readSymmetry(Settings& settings, const Json& value) {
    const std::string word = readText(value, "symmetry");
    std::int32_t axis = -1;
    for (std::int32_t a = 0; a < 3; ++a)
        if (word == kAxes[a]) axis = a;
    if (axis < 0 && word != "none" && word != "topology")
        fail("-symmetry takes x, y, z, topology or none");
    settings.symmetry = axis;
    settings.topology = word == "topology";
}

Json symmetryWord(const Settings& settings) {
    if (settings.topology) return "topology";
    return settings.symmetry >= 0 ? kAxes[settings.symmetry] : "none";
}

void readTopology(Settings& settings, const Json& value) {
    settings.topology = readBool(value, "topology");
    if (settings.topology) settings.symmetry = -1;
}

void readTargets(Settings& settings, const Json& value) {
    std::string text = readText(value, "targets");
    std::erase_if(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    BrushTargets targets{.guides = false};
    for (std::size_t begin = 0; text != "none" && begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (word == "guides")
            targets.guides = true;
        else if (word == "parts")
            targets.parts = true;
        else if (word == "flow")
            targets.flow = true;
        else
            fail("-targets takes guides, parts, flow (comma separated) or none");
        begin = end + 1;
    }
    settings.targets = targets;
}

Json targetsText(const Settings& settings) {
    std::string out;
    const auto add = [&](bool is, const char* word) {
        if (is) out += (out.empty() ? "" : ",") + std::string(word);
    };
    add(settings.targets.guides, "guides");
    add(settings.targets.parts, "parts");
    add(settings.targets.flow, "flow");
    return out.empty() ? "none" : out;
}

void readPaintKind(Settings& settings, const Json& value) {
    const std::string word = readText(value, "paintKind");
    if (word != "guides" && word != "vertices" && word != "texture")
        fail("paintKind is guides, vertices or texture");
    settings.paintKind = word;
}

void readPaintColor(Settings& settings, const Json& value) {
    constexpr const char* kWrong = "paintColor is [r, g, b] or [r, g, b, a]";
    if (!value.is_array() || (value.size() != 3 && value.size() != 4)) fail(kWrong);
    std::array<float, 4> color{1, 1, 1, 1};
    for (std::size_t k = 0; k < value.size(); ++k) {
        if (!value[k].is_number()) fail(kWrong);
        color[k] = within(readFloat(value[k], "paintColor"), 0.0, 1.0);
    }
    settings.paintColor = color;
}

Json paintColorJson(const Settings& settings) {
    Json out = Json::array();
    for (const float c : settings.paintColor) out.push_back(number(c));
    return out;
}

constexpr std::string_view kChannels = "rgba";

template <bool Alias>
void readChannels(Settings& settings, const Json& value) {
    const std::string text = readText(value, Alias ? "rgba" : "paintChannels");
    if (text.empty()) fail("name at least one channel of rgba");
    std::uint32_t channels = 0;
    for (const char letter : text) {
        const std::size_t at = kChannels.find(letter);
        if (at == std::string_view::npos) fail("channels are letters of rgba, not '" + text + "'");
        channels |= 1u << at;
    }
    settings.paintChannels = channels;
}

Json channelsText(const Settings& settings) {
    std::string out;
    for (std::size_t k = 0; k < kChannels.size(); ++k)
        if (settings.paintChannels >> k & 1u) out += kChannels[k];
    return out;
}

void readTubeRadius(Settings& settings, const Json& value) {
    const auto read = [](const Json& entry) {
        const double radius = readFloat(entry, "tubeRadius");
        if (radius < 0.0) fail("setting tubeRadius holds radii of 0 or more");
        return float(radius);
    };
    std::vector<float> radii;
    if (value.is_array()) {
        if (value.empty() || value.size() > kMostTubeValues)
            fail("setting tubeRadius is a number or a list of numbers");
        for (const Json& entry : value) radii.push_back(read(entry));
    } else {
        radii.assign(2, read(value));
    }
    settings.tubeRadius = std::move(radii);
}

Json tubeRadiusJson(const Settings& settings) {
    Json out = Json::array();
    for (const float r : settings.tubeRadius) out.push_back(number(r));
    return out;
}

void readFlowSink(Settings& settings, const Json& value) {
    const std::string word = readText(value, "flowSink");
    if (!word.empty()) flowSinkAngle(word);  // throws for a word of no sink
    settings.flowSink = word;
}

void readFalloff(Settings& settings, const Json& value) {
    settings.hardness = 1.0f - within(readFloat(value, "falloff"), 0.0, 1.0);
}
Json falloffJson(const Settings& settings) { return number(1.0f - settings.hardness); }

void readFalloffProfile(Settings& settings, const Json& value) {
    settings.falloffProfile = readProfile(value, "falloffProfile");
}
Json falloffProfileText(const Settings& settings) { return profileText(settings.falloffProfile); }
Json strengthProfileText(const Settings& settings) { return profileText(settings.strengthProfile); }
Json topologyJson(const Settings& settings) { return settings.topology; }
Json paintKindJson(const Settings& settings) { return settings.paintKind; }
Json flowSinkJson(const Settings& settings) { return settings.flowSink; }

// The table

struct Own {
    void (*read)(Settings& settings, const Json& value);
    Json (*write)(const Settings& settings);
};
using Field = std::variant<bool Settings::*, std::int32_t Settings::*, float Settings::*,
                           std::string Settings::*, Own>;
struct Row {
    const char* name;
    Field field;
    double least = -kInfinity, most = kInfinity;  ///< numbers outside are moved in
};

// In the order they are applied: of two names for one setting, the later one wins.
const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        {"radius", &Settings::radius, 1.0},
        {"strength", &Settings::strength},
        {"falloff", Own{readFalloff, falloffJson}},
        {"hardness", &Settings::hardness, 0.0, 1.0},
        {"falloffProfile", Own{readFalloffProfile, falloffProfileText}},
        {"strengthProfile", Own{readStrengthProfile, strengthProfileText}},
        {"level", &Settings::level, 0.0},
        {"group", &Settings::group},
        {"propagate", &Settings::propagate},
        {"length", &Settings::length, 0.001},
        {"segments", &Settings::segments, 1.0, 4096.0},
        {"tubeRadius", Own{readTubeRadius, tubeRadiusJson}},
        {"spacing", &Settings::spacing, 0.001},
        {"matchNeighbors", &Settings::matchNeighbors},
        {"soloNewGuides", &Settings::soloNewGuides},
        {"selectedOnly", &Settings::selectedOnly},
        {"softSelectRadius", &Settings::softSelectRadius, 0.0},
        {"symmetry", Own{readSymmetry, symmetryWord}},
        {"topology", Own{readTopology, topologyJson}},
        {"symmetryCenter", &Settings::symmetryCenter},
        {"attribute", &Settings::attribute},
        {"value", &Settings::value},
        {"pointwise", &Settings::pointwise},
        {"collide", &Settings::collide},
        {"maskByScalp", &Settings::frontFacingOnly},
        {"frontFacingOnly", &Settings::frontFacingOnly},
        {"stretch", &Settings::stretch},
        {"pressure", &Settings::pressure},
        {"partName", &Settings::partName},
        {"flowSink", Own{readFlowSink, flowSinkJson}},
        {"targets", Own{readTargets, targetsText}},
        {"eraseGuides", &Settings::eraseGuides},
        {"eraseParts", &Settings::eraseParts},
        {"eraseFlow", &Settings::eraseFlow},
        {"paintKind", Own{readPaintKind, paintKindJson}},
        {"paintTexture", &Settings::paintTexture},
        {"paintResolution", &Settings::paintResolution, 4.0, 16384.0},
        {"paintColor", Own{readPaintColor, paintColorJson}},
        {"rgba", Own{readChannels<true>, channelsText}},
        {"paintChannels", Own{readChannels<false>, channelsText}},
        {"smoothStrength", &Settings::smoothStrength, 0.0},
    };
    return table;
}

void read(const Row& row, Settings& settings, const Json& value) {
    const auto take = [&](const auto& field) {
        using Kind = std::decay_t<decltype(field)>;
        if constexpr (std::is_same_v<Kind, Own>)
            field.read(settings, value);
        else if constexpr (std::is_same_v<Kind, bool Settings::*>)
            settings.*field = readBool(value, row.name);
        else if constexpr (std::is_same_v<Kind, std::string Settings::*>)
            settings.*field = readText(value, row.name);
        else if constexpr (std::is_same_v<Kind, float Settings::*>)
            settings.*field = within(readFloat(value, row.name), row.least, row.most);
        else
            settings.*field =
                std::int32_t(std::clamp(readWhole(value, row.name), row.least, row.most));
    };
    std::visit(take, row.field);
}

Json write(const Row& row, const Settings& settings) {
    return std::visit(
        [&](const auto& field) -> Json {
            using Kind = std::decay_t<decltype(field)>;
            if constexpr (std::is_same_v<Kind, Own>)
                return field.write(settings);
            else if constexpr (std::is_same_v<Kind, float Settings::*>)
                return number(settings.*field);
            else
                return settings.*field;
        },
        row.field);
}

}  // namespace

const std::vector<std::string>& toolSettingNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const Row& row : rows()) out.emplace_back(row.name);
        return out;
    }();
    return names;
}

void applyToolSettings(BrushToolSettings& settings, const Json& values) {
    if (!values.is_object()) fail("settings is an object");
    const std::vector<std::string>& names = toolSettingNames();
    for (const auto& [key, value] : values.items())
        if (std::find(names.begin(), names.end(), key) == names.end())
            fail("no tool setting '" + key + "'");
    BrushToolSettings next = settings;
    for (const Row& row : rows()) {
        const auto found = values.find(row.name);
        if (found != values.end()) read(row, next, *found);
    }
    settings = std::move(next);
}

Json toolSettingsJson(const BrushToolSettings& settings) {
    Json out = Json::object();
    for (const Row& row : rows()) out[row.name] = write(row, settings);
    return out;
}

ToolChoice::ToolChoice() : tool_(findTool("comb")) { settings_.strength = tool_->defaultStrength; }

void ToolChoice::setLevelAndGroup(std::int32_t level, const std::string& group) {
    settings_.level = std::max(level, 0);
    settings_.group = group;
}

void ToolChoice::setSoftSelectRadius(float radius) {
    settings_.softSelectRadius = std::max(radius, 0.0f);
}

void ToolChoice::set(const ToolEntry* tool, const Json* values) {
    BrushToolSettings next = settings_;
    if (tool && tool != tool_) {
        const auto left = strengths_.find(tool->id);
        next.strength = left != strengths_.end() ? left->second : tool->defaultStrength;
    }
    if (values) applyToolSettings(next, *values);
    if (tool && tool != tool_) {
        strengths_[tool_->id] = settings_.strength;
        tool_ = tool;
    }
    settings_ = std::move(next);
}

BrushToolSettings ToolChoice::forStroke() const {
    BrushToolSettings out = settings_;
    out.kind = tool_->kind;
    out.mode = tool_->mode;
    out.paramBrush = tool_->paramBrush;
    out.label = tool_->label;
    std::transform(out.label.begin(), out.label.end(), out.label.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; });
    if (tool_->id == "freeze") {
        out.attribute = out.freezeAttribute;
        out.value = 1.0f;
        out.pointwise = false;
        out.paintKind = "guides";
    }
    // A tool works by what it shows: a setting left from another tool does not count.
    if (!toolHasSetting(*tool_, "targets")) out.targets = BrushTargets{};
    if (!toolHasSetting(*tool_, "strengthProfile")) out.strengthProfile = nullptr;
    if (!toolHasSetting(*tool_, "symmetry")) {
        out.symmetry = -1;
        out.topology = false;
    }
    return out;
}

}  // namespace corvelle
