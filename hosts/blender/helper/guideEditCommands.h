#pragma once

#include <string>
#include <vector>

#include "hosts/blender/helper/command.h"
#include "model/guideHierarchy.h"

namespace corvelle {

Json guidesInfoCommand(const CommandContext& context);
Json guidesEditCommand(const CommandContext& context);

/// Guide IDs of a request's field. Throws RequestError (bad_request): "ids is a list of guide IDs",
/// "a guide ID is a positive integer".
std::vector<std::uint64_t> readGuideIds(const Json& value, std::string_view key);
/// Throws RequestError (not_found): "no group named '<name>'".
std::uint32_t groupNamed(const GuideHierarchy& hierarchy, const std::string& name);
/// Some guide carries the layer, or every new one would.
bool carriesLayer(const GuideHierarchy& hierarchy, const std::string& layer);
/// Throws RequestError (state): "no primary guides to carry the layer: place some first".
void requirePrimaryGuides(const GuideHierarchy& hierarchy);

}  // namespace corvelle
