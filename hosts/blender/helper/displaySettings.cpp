#include "hosts/blender/helper/displaySettings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <variant>

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(std::string_view key, std::string_view rule) {
    failRequest("bad_request", std::string(key) + " " + std::string(rule));
}

// Readers by type; `key` is the name in messages.

void read(bool& to, const Json& value, std::string_view key) {
    if (!value.is_boolean()) fail(key, "is true or false");
    to = value.get<bool>();
}

void read(float& to, const Json& value, std::string_view key) {
    if (!value.is_number()) fail(key, "is a number");
    const float number = float(value.get<double>());
    if (!std::isfinite(number)) fail(key, "must be finite");
    to = number;
}

void read(std::int32_t& to, const Json& value, std::string_view key) {
    if (!value.is_number_integer()) fail(key, "is a whole number");
    constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
    to = std::int32_t(value.is_number_unsigned()
                          ? std::min<std::uint64_t>(value.get<std::uint64_t>(), kMost)
                          : std::max(value.get<std::int64_t>(), -kMost));
}

void read(std::string& to, const Json& value, std::string_view key) {
    if (!value.is_string()) fail(key, "is a string");
    to = value.get<std::string>();
}

bool readColor(Rgb& to, const Json& value) {
    if (!value.is_array() || value.size() != 3) return false;
    for (std::size_t i = 0; i < 3; ++i) {
        if (!value[i].is_number()) return false;
        to[i] = float(value[i].get<double>());
        if (!std::isfinite(to[i])) return false;
    }
    return true;
}

void read(Rgb& to, const Json& value, std::string_view key) {
    if (!readColor(to, value)) fail(key, "is [r, g, b]");
}

void read(std::vector<Rgb>& to, const Json& value, std::string_view key) {
    const auto bad = [&] { fail("theme." + std::string(key), "is a list of [r, g, b]"); };
    if (!value.is_array() || value.empty()) bad();
    std::vector<Rgb> colors(value.size());
    for (std::size_t i = 0; i < colors.size(); ++i)
        if (!readColor(colors[i], value[i])) bad();
    to = std::move(colors);
}

void read(std::set<std::string>& to, const Json& value, std::string_view key) {
    to = readGroupNames(value, key);
}

void read(std::map<std::string, Rgb>& to, const Json& value, std::string_view key) {
    if (!value.is_object()) fail(key, "is an object of group names to [r, g, b]");
    std::map<std::string, Rgb> colors;
    for (const auto& [name, color] : value.items())
        read(colors[name], color, std::string(key) + "." + name);
    to = std::move(colors);
}

template <class Record, class... Types>
struct Field {
    const char* key;
    std::variant<Types Record::*...> member;
    std::vector<std::string> words;  ///< of a text that is one of a few
    double least = -std::numeric_limits<double>::infinity();
};

using SettingField = Field<DisplaySettings, bool, float, std::int32_t, std::string, Rgb,
                           std::set<std::string>, std::map<std::string, Rgb>>;
using ThemeField = Field<DisplayTheme, float, Rgb, std::vector<Rgb>>;

const std::vector<SettingField>& settingFields() {
    using S = DisplaySettings;
    static const std::vector<SettingField> fields = {
        {"guides", &S::guides, {}},
        {"tubes", &S::tubes, {}},
        {"flow", &S::flow, {}},
        {"guideWidth", &S::guideWidth, {}, 0.0},
        {"guideColor", &S::guideColor, {}},
        {"themedGuideColors", &S::themedGuideColors, {}},
        {"guideColorMode", &S::guideColorMode, {"level", "layer", "group"}},
        {"guideColorLayer", &S::guideColorLayer, {}},
        {"displayLevel", &S::displayLevel, {}, -1.0},
        {"guidePoints", &S::guidePoints, {"off", "ends", "all"}},
        {"guideSmoothing", &S::guideSmoothing, {}},
        {"guideDisplaySegments", &S::guideDisplaySegments, {}, 0.0},
        {"hiddenGuideGroups", &S::hiddenGuideGroups, {}},
        {"guideGroupColors", &S::guideGroupColors, {}},
    };
    return fields;
}

const std::vector<ThemeField>& themeFields() {
    using T = DisplayTheme;
    static const std::vector<ThemeField> fields = {
        {"levels", &T::levels, {}},           {"pointSize", &T::pointSize, {}, 0.0},
        {"selected", &T::selected, {}},       {"softSelected", &T::softSelected, {}},
        {"frozen", &T::frozen, {}},           {"parts", &T::parts, {}},
        {"flowField", &T::flowField, {}},     {"clumpCenters", &T::clumpCenters, {}},
        {"pathColor", &T::pathColor, {}},     {"hoverColor", &T::hoverColor, {}},
        {"dormantWire", &T::dormantWire, {}}, {"selection", &T::selection, {}},
        {"activeWire", &T::activeWire, {}},   {"dormantFilled", &T::dormantFilled, {}},
    };
    return fields;
}

/// What is read is checked against the row: a word of its list, a number not below its least.
void check(const std::string& text, const auto& field) {
    if (field.words.empty() || std::ranges::find(field.words, text) != field.words.end()) return;
    std::string words;
    for (std::size_t i = 0; i < field.words.size(); ++i)
        words += (i == 0 ? "" : i + 1 == field.words.size() ? " or " : ", ") + field.words[i];
    fail(field.key, "is " + words);
}

template <class Value, class Row>
void limit(Value& value, const Row& field) {
    if constexpr (std::is_same_v<Value, std::string>)
        check(value, field);
    else if constexpr (std::is_same_v<Value, float> || std::is_same_v<Value, std::int32_t>)
        if (double(value) < field.least) value = Value(field.least);
}

template <class Record, class Row>
void applyField(Record& record, const Row& field, const Json& value) {
    std::visit(
        [&](auto member) {
            // A word that is no text is none of the list.
            if constexpr (std::is_same_v<decltype(member), std::string Record::*>)
                if (!field.words.empty() && !value.is_string()) check({}, field);
            read(record.*member, value, field.key);
            limit(record.*member, field);
        },
        field.member);
}

template <class Record, class Rows>
Json recordJson(const Record& record, const Rows& fields) {
    Json out = Json::object();
    for (const auto& field : fields)
        std::visit([&](auto member) { out[field.key] = record.*member; }, field.member);
    return out;
}

template <class Record, class Rows>
void applyRecord(Record& record, const Rows& fields, const Json& values, std::string_view unknown) {
    for (const auto& entry : values.items()) {
        const std::string& key = entry.key();
        const Json& value = entry.value();
        const auto field =
            std::ranges::find_if(fields, [&](const auto& row) { return key == row.key; });
        if (field == fields.end())
            failRequest("bad_request", std::string(unknown) + " '" + key + "'");
        applyField(record, *field, value);
    }
}

}  // namespace

std::set<std::string> readGroupNames(const Json& value, std::string_view key) {
    if (!value.is_array()) fail(key, "is a list of group names");
    std::set<std::string> names;
    for (const Json& name : value) {
        if (!name.is_string()) fail(key, "is a list of group names");
        names.insert(name.get<std::string>());
    }
    return names;
}

void applyDisplaySettings(DisplaySettings& settings, const Json& values) {
    if (!values.is_object()) failRequest("bad_request", "settings is an object");
    DisplaySettings next = settings;
    Json own = values;
    if (const auto theme = own.find("theme"); theme != own.end()) {
        if (!theme->is_object()) failRequest("bad_request", "theme is an object");
        applyRecord(next.theme, themeFields(), *theme, "no theme color");
        own.erase(theme);
    }
    applyRecord(next, settingFields(), own, "no display setting");
    settings = std::move(next);
}

Json displaySettingsJson(const DisplaySettings& settings) {
    Json out = recordJson(settings, settingFields());
    out["theme"] = recordJson(settings.theme, themeFields());
    return out;
}

}  // namespace corvelle
