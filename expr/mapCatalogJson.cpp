#include "expr/mapCatalogJson.h"

#include <cmath>

#include <nlohmann/json.hpp>
#include <stdexcept>

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

void readVertices(const std::string& name, const nlohmann::json& json, PaintedMap& map) {
    if (const auto at = json.find("channels"); at != json.end() && !at->is_null()) {
        if (!at->is_number()) throwFor(name, "needs a number as its channels (1 or 4)");
        const double channels = at->get<double>();
        if (channels != 1.0 && channels != 4.0) throwFor(name, "has " + at->dump() + " channels (1 or 4)");
        map.channels = int(channels);
    }
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
        if (!at->is_number_unsigned() || at->get<std::uint64_t>() != map.vertices)
            throwFor(name, "has " + std::to_string(values->size()) + " values for " + at->dump() +
                               " vertices, give one per scalp vertex and channel");
    }
    map.values = std::move(values);
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

}  // namespace corvelle
