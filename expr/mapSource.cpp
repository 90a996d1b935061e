#include "expr/mapSource.h"

#include "model/hash.h"

namespace corvelle {

std::uint64_t MapSource::hash() const {
    std::uint64_t h = mix64(static_cast<std::uint64_t>(kind));
    h = hashCombine(h, std::uint64_t(source.size()));
    h = hashCombine(h, source);
    h = hashCombine(h, static_cast<std::uint64_t>(component));
    h = hashCombine(h, low);
    return hashCombine(h, high);
}

const char* mapKindKey(MapKind kind) {
    switch (kind) {
        case MapKind::Texture:
            return "texture";
        case MapKind::ColorSet:
            return "colorSet";
        case MapKind::Attribute:
            return "attribute";
        case MapKind::Expression:
            return "expression";
        case MapKind::GuideLayer:
            return "guide";
    }
    return "expression";
}

const char* mapComponentWord(MapComponent component) {
    switch (component) {
        case MapComponent::R:
            return "r";
        case MapComponent::G:
            return "g";
        case MapComponent::B:
            return "b";
        case MapComponent::A:
            return "a";
        case MapComponent::Luminance:
            return "luminance";
    }
    return "luminance";
}

}  // namespace corvelle
