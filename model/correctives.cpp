#include "model/correctives.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "model/floatText.h"
#include "model/ramp.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

constexpr double kHoldSlack = 1e-6;  ///< frames: a frame that was rounded still counts as held

[[noreturn]] void fail(const std::string& layer, const std::string& what) {
    throw std::invalid_argument("corrective layer '" + layer + "': " + what);
}

/// The numbers of a layer, by key, in the order of the document.
struct NumberKey {
    const char* key;
    double CorrectiveLayer::*member;
};
constexpr NumberKey kNumbers[] = {
    {"fadeIn", &CorrectiveLayer::fadeIn},       {"fadeOut", &CorrectiveLayer::fadeOut},
    {"holdAfter", &CorrectiveLayer::holdAfter}, {"holdBefore", &CorrectiveLayer::holdBefore},
    {"time", &CorrectiveLayer::time},           {"weight", &CorrectiveLayer::weight},
};

/// A member that is there and not null.
const Json* memberOf(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

float readFloat(const Json& value, const std::string& layer, const char* key) {
    const double number = value.is_number() ? value.get<double>() : 2e39;
    if (!(std::abs(number) < 0x1.ffffffp+127))
        fail(layer, std::string("'") + key + "' holds what is no 32-bit float");
    return float(number);
}

std::uint64_t readGuideId(const std::string& key) {
    std::uint64_t id = 0;
    const char* end = key.data() + key.size();
    const auto [stop, error] = std::from_chars(key.data(), end, id);
    if (error == std::errc::result_out_of_range)
        throw std::out_of_range("stoull argument out of range");
    if (error != std::errc() || stop != end) throw std::invalid_argument("invalid stoull argument");
    return id;
}

std::vector<Vec3f> readOffsets(const Json& value, const std::string& layer) {
    if (!value.is_array() || value.size() % 3 != 0)
        fail(layer, "'offsets' gives each guide a flat list of numbers, three a point");
    std::vector<Vec3f> offsets(value.size() / 3);
    for (std::size_t i = 0; i < value.size(); ++i)
        offsets[i / 3][int(i % 3)] = readFloat(value[i], layer, "offsets");
    return offsets;
}

CorrectiveLayer readLayer(const Json& value) {
    if (!value.is_object()) throw std::invalid_argument("correctives: a layer is an object");
    CorrectiveLayer layer;
    const Json* name = memberOf(value, "name");
    if (!name || !name->is_string())
        throw std::invalid_argument("correctives: a layer needs text as its name");
    layer.name = name->get<std::string>();
    for (const NumberKey& number : kNumbers) {
        const Json* given = memberOf(value, number.key);
        if (!given) continue;
        if (!given->is_number() || !std::isfinite(given->get<double>()))
            fail(layer.name, std::string("'") + number.key + "' is a number");
        layer.*number.member = given->get<double>();
    }
    if (const Json* enabled = memberOf(value, "enabled")) {
        if (!enabled->is_boolean()) fail(layer.name, "'enabled' is true or false");
        layer.enabled = enabled->get<bool>();
    }
    if (const Json* slot = memberOf(value, "slot")) {
        if (!slot->is_number_integer()) fail(layer.name, "'slot' is a whole number");
        layer.slot = slot->get<std::int64_t>();
    }
    if (const Json* curve = memberOf(value, "weightCurve")) {
        if (!curve->is_array()) fail(layer.name, "'weightCurve' is a list of [frame, weight]");
        for (const Json& key : *curve) {
            if (!key.is_array() || key.size() != 2)
                fail(layer.name, "'weightCurve' is a list of [frame, weight]");
            layer.weightCurve.emplace_back(readFloat(key[0], layer.name, "weightCurve"),
                                           readFloat(key[1], layer.name, "weightCurve"));
        }
    }
    if (const Json* offsets = memberOf(value, "offsets")) {
        if (!offsets->is_object())
            fail(layer.name, "'offsets' is an object of guide id to numbers");
        for (const auto& [id, numbers] : offsets->items())
            layer.offsets[readGuideId(id)] = readOffsets(numbers, layer.name);
    }
    return layer;
}

void appendFloats(std::string& out, std::span<const float> values) {
    out += '[';
    for (const float value : values) {
        if (out.back() != '[') out += ',';
        appendFloat32(out, value);
    }
    out += ']';
}

void appendLayer(std::string& out, const CorrectiveLayer& layer) {
    out += std::string("{\"enabled\":") + (layer.enabled ? "true" : "false");
    const auto number = [&](const char* key) {
        for (const NumberKey& row : kNumbers)
            if (std::string_view(row.key) == key)
                out += std::string(",\"") + key + "\":" + Json(layer.*row.member).dump();
    };
    for (const char* key : {"fadeIn", "fadeOut", "holdAfter", "holdBefore"}) number(key);
    out += ",\"name\":";
    out += Json(layer.name).dump(-1, ' ', false, Json::error_handler_t::replace);
    out += ",\"offsets\":{";
    std::map<std::string, const std::vector<Vec3f>*> byText;  // keys ascend as text
    for (const auto& [id, offsets] : layer.offsets) byText[std::to_string(id)] = &offsets;
    for (const auto& [id, offsets] : byText) {
        if (out.back() != '{') out += ',';
        out += '"' + id + "\":";
        appendFloats(out, {offsets->empty() ? nullptr : &offsets->front().x, 3 * offsets->size()});
    }
    out += "},\"slot\":" + std::to_string(layer.slot);
    number("time");
    number("weight");
    out += ",\"weightCurve\":[";
    for (const auto& [frame, weight] : layer.weightCurve) {
        if (out.back() != '[') out += ',';
        const float key[] = {frame, weight};
        appendFloats(out, key);
    }
    out += "]}";
}

}  // namespace

double correctiveWeight(const CorrectiveLayer& layer, double frame) {
    if (!layer.enabled || !std::isfinite(frame)) return 0.0;
    if (!layer.weightCurve.empty()) return double(Ramp(layer.weightCurve)(float(frame)));
    const bool before = frame < layer.time;
    const double hold = std::max(before ? layer.holdBefore : layer.holdAfter, 0.0);
    const double fade = std::max(before ? layer.fadeIn : layer.fadeOut, 0.0);
    const double away = std::abs(frame - layer.time);
    const double share = fade > 0.0 ? std::clamp(1.0 - (away - hold) / fade, 0.0, 1.0)
                                    : (away <= hold + kHoldSlack ? 1.0 : 0.0);
    return layer.weight * share * share * (3.0 - 2.0 * share);
}

Correctives readCorrectives(std::string_view text) {
    Correctives correctives;
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) return correctives;
    const Json json = Json::parse(text);
    if (!json.is_object())
        throw std::invalid_argument("correctives: expected an object with layers");
    const Json* layers = memberOf(json, "layers");
    if (!layers) return correctives;
    if (!layers->is_array()) throw std::invalid_argument("correctives: 'layers' is a list");
    for (const Json& layer : *layers) correctives.layers.push_back(readLayer(layer));
    return correctives;
}

std::string correctivesJson(const Correctives& correctives) {
    if (correctives.layers.empty()) return {};
    std::string out = "{\"layers\":[";
    for (const CorrectiveLayer& layer : correctives.layers) {
        if (out.back() != '[') out += ',';
        appendLayer(out, layer);
    }
    return out + "]}";
}

}  // namespace corvelle
