#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/guideHierarchy.h"
#include "model/vec3f.h"
#include "tools/brushToolSettings.h"
#include "tools/strokeHost.h"
#include "tools/toolView.h"

namespace corvelle {

enum class SelectionMode : std::int32_t { Replace, Add, Toggle, Deselect };
/// Throws std::invalid_argument "a selection mode is replace, add, toggle or deselect, not <word>".
SelectionMode parseSelectionMode(std::string_view word);

using GuideIds = std::set<std::uint64_t>;
using GuideWeights = std::map<std::uint64_t, float>;

/// What a pick hit under the selection before it.
GuideIds combineSelection(const GuideIds& selection, const GuideIds& hit, SelectionMode mode);

struct PickOptions {
    float clickPixels = 10.0f;  ///< how near a click must be
    bool rootsOnly = false;     ///< asks first points alone
    bool anyLevel = false;      ///< asks the guides of all levels and groups
};

/// The guides a polygon of pixels picks, of the settings' `level` and `group`; hidden groups are
/// left out, and with `frontFacingOnly` what the scalp hides. Frozen guides are picked: else
/// nothing could be reached that the last pick froze.
///
/// Fewer than 3 points, or none more than 3 pixels (Manhattan) from the first, make a click at the
/// first: the guide with the nearest point below `clickPixels`, ties to the older guide. Else a
/// guide is hit when a point of it lies inside (even-odd). With symmetry (by a plane or by the
/// scalp's topology) the mirror guide of each is picked too: the one rooted nearest the mirrored
/// root, within 5 % of the scalp's diagonal, ties to the lower id.
GuideIds pickGuides(StrokeHost& host, const ToolView& view, std::span<const Vec2f> polygon,
                    const BrushToolSettings& settings, const PickOptions& options = {});

/// The new selection.
GuideIds selectLasso(StrokeHost& host, const ToolView& view, std::span<const Vec2f> polygon,
                     SelectionMode mode, const GuideIds& selection,
                     const BrushToolSettings& settings, const PickOptions& options = {});

/// The selected guides at weight 1 (those that are there no more left out), and with a radius above
/// 0 (cm) the others of their levels and groups by the distance of their root from the nearest
/// selected one. `level` and `group` as of the settings.
GuideWeights softSelection(const GuideHierarchy& hierarchy, const GuideIds& selection, float radius,
                           const BrushToolSettings& settings);

/// Every guide without a weight; none at all for no weights.
GuideIds frozenBySelection(const GuideHierarchy& hierarchy, const GuideWeights& weights);

/// Freezes every guide but the given ones by the freeze attribute (1, and 0 on theirs). Guides that
/// have that value already stay the very same.
void soloGuides(GuideHierarchy& hierarchy, const GuideIds& solo, const std::string& attribute);

/// The groups of `level`, limited to `group` (empty: all) and without `hidden`, by id.
std::set<std::uint32_t> groupsInPlay(const GuideHierarchy& hierarchy, int level,
                                     const std::string& group, const std::set<std::string>& hidden);
/// `hidden` and all groups below one of it, by id.
std::set<std::uint32_t> hiddenGroupIds(const GuideHierarchy& hierarchy,
                                       const std::set<std::string>& hidden);

}  // namespace corvelle
