#pragma once

#include <string_view>

namespace corvelle {

/// Whether a channel of this name holds ids or flags, of which no mix makes sense. Strands say it
/// of their channels themselves; for guides, which do not say it of their attributes, the name
/// does.
inline bool isDiscreteName(std::string_view name) {
    constexpr std::string_view kNames[] = {"barbIndex", "braidFlat", "braidId", "clumpId",
                                           "featherId", "groupId",   "isDown",  "isShaft",
                                           "region",    "side"};
    for (const std::string_view known : kNames)
        if (name == known) return true;
    return false;
}

}  // namespace corvelle
