#include "expr/mapCatalogJson.h"

#include <cmath>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "model/floatText.h"

namespace corvelle {

namespace {

[[noreturn]] void throwFor(const std::string& name, const std::string& what) {
    throw std::invalid_argument("scalpMaps: map '" + name + "' " + what);
}

/// A member's text; absent or null: `otherwise`.
std::string textOf(const std::string& map, const nlohmann::json& json, const char* key,
                   const std::string& otherwise) {
    const auto at = json.find(key);
    if (at == json.end() || at->is_null()) return otherwise;
    if (!at->is_string()) throwFor(map, std::string("needs text as its ") + key);
    return at->get<std::string>();
}

void readChannels(const std::string& name, const nlohmann::json& json, PaintedMap& map) {
    const auto at = json.find("channels");
    if (at == json.end() || at->is_null()) return;
    if (!at->is_number()) throwFor(name, "needs a number as its channels (1 or 4)");
    const double channels = at->get<double>();
    if (channels != 1.0 && channels != 4.0)
        throwFor(name, "has " + at->dump() + " channels (1 or 4)");
    map.channels = int(channels);
}

void readVertices(const std::string& name, const nlohmann::json& json, PaintedMap& map) {
    auto values = std::make_shared<std::vector<float>>();
    if (const auto at = json.find("values"); at != json.end() && !at->is_null()) {
        if (!at->is_array()) throwFor(name, "needs its values as a flat list of numbers");
        values->reserve(at->size());
        for (const nlohmann::json& value : *at) {
            if (!value.is_number()) throwFor(name, "needs its values as a flat list of numbers");
            const float number = float(value.get<double>());
            if (!std::isfinite(number)) throwFor(name, "holds a value that is not a finite number");
            values->push_back(number);
        }
    }
    const std::size_t channels = std::size_t(map.channels);
    if (values->size() % channels != 0)
        throwFor(name, "has " + std::to_string(values->size()) +
                           " values, give one per scalp vertex and channel");
    map.vertices = values->size() / channels;
    if (const auto at = json.find("vertices"); at != json.end() && !at->is_null()) {
        const bool count = at->is_number_unsigned();
        if (!count || (!values->empty() && at->get<std::uint64_t>() != map.vertices))
            throwFor(name, "has " + std::to_string(values->size()) + " values for " +
                               (at->is_number() ? at->dump() : std::string("no number of")) +
                               " vertices, give one per scalp vertex and channel");
        map.vertices = at->get<std::uint64_t>();
    }
    if (!values->empty()) map.values = std::move(values);
}

void appendText(std::string& out, const std::string& text) {
    out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// One map, keys ascending.
void appendMap(std::string& out, const PaintedMap& map) {
    const std::string channels = "\"channels\":" + std::to_string(map.channels);
    switch (map.kind) {
        case PaintedMap::Kind::Texture:
            out += '{' + channels + ",\"kind\":\"texture\",\"texture\":";
            appendText(out, map.file);
            break;
        case PaintedMap::Kind::Guides:
            out += "{\"kind\":\"guides\",\"layer\":";
            appendText(out, map.layer);
            break;
        case PaintedMap::Kind::Vertices:
            out += '{' + channels + ",\"kind\":\"vertices\",\"values\":[";
            if (map.values) {
                out.reserve(out.size() + 4 * map.values->size());
                for (const float value : *map.values) {
                    if (out.back() != '[') out += ',';
                    appendFloat32(out, value);
                }
            }
            out += "],\"vertices\":" + std::to_string(map.vertices);
            break;
    }
    out += '}';
}

}  // namespace

MapCatalogValue mapCatalogFromJson(const nlohmann::json& json) {
    MapCatalogValue catalog;
    if (json.is_null()) return catalog;
    if (!json.is_object()) throw std::invalid_argument("scalpMaps: expected an object of maps");
    for (const auto& [name, entry] : json.items()) {
        if (!entry.is_object()) throwFor(name, "is not an object");
        const std::string kind = textOf(name, entry, "kind", "vertices");
        PaintedMap map;
        readChannels(name, entry, map);
        if (kind == "vertices") {
            map.kind = PaintedMap::Kind::Vertices;
            readVertices(name, entry, map);
        } else if (kind == "texture") {
            map.kind = PaintedMap::Kind::Texture;
            map.file = textOf(name, entry, "texture", "");
        } else if (kind == "guides") {
            map.kind = PaintedMap::Kind::Guides;
            map.layer = textOf(name, entry, "layer", "");
        } else {
            throwFor(name, "has unknown kind '" + kind + "'");
        }
        catalog.maps.emplace(name, std::move(map));
    }
    return catalog;
}

MapCatalogValue readScalpMaps(std::string_view text) {
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) return {};
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        throw std::invalid_argument(std::string("scalpMaps: invalid JSON: ") + error.what());
    }
    return mapCatalogFromJson(json);
}

std::string scalpMapsJson(const MapCatalogValue& maps) {
    if (maps.maps.empty()) return {};
    std::string out = "{";
    for (const auto& [name, map] : maps.maps) {
        if (out.size() > 1) out += ',';
        appendText(out, name);
        out += ':';
        appendMap(out, map);
    }
    return out + '}';
}

}  // namespace corvelle
