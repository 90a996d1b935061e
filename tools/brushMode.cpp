#include "tools/brushMode.h"

#include <array>
#include <stdexcept>
#include <string>
#include <utility>

namespace corvelle {
namespace {

// First words come first.
constexpr std::pair<const char*, BrushMode> kWords[] = {
    {"comb", BrushMode::Comb},
    {"smooth", BrushMode::Smooth},
    {"lift", BrushMode::Lift},
    {"length", BrushMode::Length},
    {"tube", BrushMode::Tube},
    {"paint", BrushMode::Paint},
    {"twist", BrushMode::Twist},
    {"curl", BrushMode::Curl},
    {"straighten", BrushMode::Straighten},
    {"attract", BrushMode::Attract},
    {"erase", BrushMode::Erase},
    {"cut", BrushMode::Cut},
    {"slide", BrushMode::Slide},
    {"direction", BrushMode::Direction},
    {"noise", BrushMode::Noise},
    {"attribute", BrushMode::Paint},
    {"clump", BrushMode::Paint},
    {"move", BrushMode::Slide},
};

}  // namespace

BrushMode brushModeFromWord(std::string_view word) {
    for (const auto& [name, mode] : kWords)
        if (word == name) return mode;
    throw std::invalid_argument("unknown brush mode '" + std::string(word) + "'");
}

const char* brushModeWord(BrushMode mode) {
    for (const auto& row : kWords)
        if (row.second == mode) return row.first;
    throw std::invalid_argument("unknown brush mode " + std::to_string(int(mode)));
}

const char* strokeModeWord(ToolKind kind, BrushMode mode) {
    constexpr std::array<const char*, 5> kKinds = {nullptr, "place", "draw", "part", "flow"};
    const char* word = kKinds.at(std::size_t(kind));
    return word ? word : brushModeWord(mode);
}

}  // namespace corvelle
