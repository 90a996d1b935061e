#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "model/guideHierarchy.h"
#include "tools/brushToolSettings.h"
#include "tools/strokeHost.h"

namespace corvelle {

/// A guide that a brush may work on, and how strongly.
struct GuideCandidate {
    std::uint64_t id = 0;
    float scale = 1.0f;       ///< above 0, up to 1 times the level's strength
    std::uint32_t index = 0;  ///< in `guides()` of the hierarchy
};

/// The guides in play: those of `level` and `group` in no hidden group, in the hierarchy's order;
/// with `propagate`, then what follows them, level by level, at their parents' scale. Left out are
/// the frozen set, what has no selection weight under `selectedOnly`, and what the freeze attribute
/// masks fully; it scales the rest, unless the brush paints that very attribute.
/// `levelStrength` empty: 1 for each.
std::vector<GuideCandidate> guideCandidates(const GuideHierarchy& hierarchy,
                                            const BrushToolSettings& settings,
                                            const std::set<std::string>& hidden,
                                            const std::function<float(int)>& levelStrength = {});
/// Of the host's guides as it shows them.
std::vector<GuideCandidate> guideCandidates(StrokeHost& host, const BrushToolSettings& settings);

}  // namespace corvelle
