#pragma once

#include <cstdint>
#include <string>

namespace corvelle {

/// Where a mapped param reads its numbers from.
enum class MapKind : std::uint8_t { Texture = 0, ColorSet = 1, Attribute = 2, Expression = 3, GuideLayer = 4 };
enum class MapComponent : std::uint8_t { R = 0, G = 1, B = 2, A = 3, Luminance = 4 };

/// The stored value of a mapped param: one source of numbers in 0..1, or an expression's own range,
/// spread over low..high.
struct MapSource {
    MapKind kind = MapKind::Expression;
    std::string source;  ///< a path, a name, or expression text, by kind
    MapComponent component = MapComponent::Luminance;  ///< for textures and colour sets
    float low = 0.0f;
    float high = 1.0f;
    std::uint64_t hash() const;
    friend bool operator==(const MapSource&, const MapSource&) = default;
};

/// The JSON key of a kind ("texture", "colorSet", "attribute", "expression", "guide") and the word
/// of a component ("r", "g", "b", "a", "luminance").
const char* mapKindKey(MapKind kind);
const char* mapComponentWord(MapComponent component);

}  // namespace corvelle
