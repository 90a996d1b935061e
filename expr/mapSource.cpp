#include "expr/mapSource.h"

#include <array>

#include "model/hash.h"

namespace corvelle {

namespace {

constexpr std::array<const char*, 5> kKindKeys = {"texture", "colorSet", "attribute", "expression",
                                                  "guide"};
constexpr std::array<const char*, 5> kComponentWords = {"r", "g", "b", "a", "luminance"};

}  // namespace

std::uint64_t MapSource::hash() const {
    std::uint64_t h = hashOf(source);
    h = hashCombine(h, std::uint64_t(kind));
    h = hashCombine(h, std::uint64_t(component));
    h = hashCombine(h, low);
    return hashCombine(h, high);
}

const char* mapKindKey(MapKind kind) { return kKindKeys[std::size_t(kind)]; }
const char* mapComponentWord(MapComponent component) {
    return kComponentWords[std::size_t(component)];
}

}  // namespace corvelle
