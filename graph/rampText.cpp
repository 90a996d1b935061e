#include "graph/rampText.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "graph/graphError.h"

namespace corvelle {

using nlohmann::json;

json parseJsonText(std::string_view text, std::string_view what) {
    constexpr int kDeepest = 512;
    bool deep = false;
    const json::parser_callback_t guard = [&](int depth, json::parse_event_t, json&) {
        deep = deep || depth > kDeepest;
        return !deep;
    };
    json parsed = json::parse(text.begin(), text.end(), guard, false);
    if (deep || parsed.is_discarded()) throw GraphError(std::string(what) + ": malformed JSON");
    return parsed;
}

bool readRamp(const json& value, Ramp& out) {
    if (!value.is_object()) return false;
    const auto keys = value.find("keys");
    if (keys == value.end() || !keys->is_array() || keys->empty()) return false;
    std::vector<Ramp::Key> read;
    read.reserve(keys->size());
    for (const json& key : *keys) {
        if (!key.is_array() || key.size() != 2 || !key[0].is_number() || !key[1].is_number())
            return false;
        const float position = key[0].get<float>(), level = key[1].get<float>();
        if (!std::isfinite(position) || !std::isfinite(level)) return false;
        read.emplace_back(position, level);
    }
    const auto linear = value.find("linear");
    if (linear != value.end() && !linear->is_boolean()) return false;
    out = Ramp(std::move(read), linear != value.end() && linear->get<bool>());
    return true;
}

Ramp rampFromText(std::string_view text) {
    Ramp ramp;
    if (!readRamp(parseJsonText(text, "ramp"), ramp))
        throw GraphError("ramp: needs keys [[position, value], ...]");
    return ramp;
}

}  // namespace corvelle
