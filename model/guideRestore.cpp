#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/guideHierarchy.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(const std::string& owner, const std::string& text) {
    throw std::invalid_argument(owner + ": " + text);
}

std::string nameOf(const GuideGroup& group) { return "guide group '" + group.name + "'"; }
std::string nameOf(const Guide& guide) { return "guide " + std::to_string(guide.id); }

/// Ids and names unlike, parents that exist, and no group above itself.
std::unordered_map<std::uint32_t, std::uint32_t> checkGroups(
    const std::vector<GuideGroup>& groups) {
    std::unordered_map<std::uint32_t, std::uint32_t> at;
    std::unordered_set<std::string> names;
    for (std::uint32_t g = 0; g < groups.size(); ++g) {
        if (groups[g].name.empty()) throw std::invalid_argument("a guide group needs a name");
        if (groups[g].id == 0) fail(nameOf(groups[g]), "'id' is a positive integer");
        if (!at.emplace(groups[g].id, g).second)
            fail(nameOf(groups[g]), "group id " + std::to_string(groups[g].id) + " is given twice");
        if (!names.insert(groups[g].name).second)
            throw std::invalid_argument("a guide group named '" + groups[g].name + "' exists");
    }
    for (const GuideGroup& group : groups)
        if (group.parent != 0 && !at.contains(group.parent))
            fail(nameOf(group), "its parent " + std::to_string(group.parent) + " is no group");
    // Walk up from each group until one that is known to end at a root group.
    std::vector<std::uint32_t> walk(groups.size(), 0);  // which walk came by, 0 for none
    std::vector<bool> sound(groups.size(), false);
    for (std::uint32_t g = 0; g < groups.size(); ++g) {
        std::uint32_t here = g;
        while (!sound[here] && groups[here].parent != 0) {
            if (walk[here] == g + 1) fail(nameOf(groups[here]), "it is its own ancestor");
            walk[here] = g + 1;
            here = at.at(groups[here].parent);
        }
        for (here = g; !sound[here]; here = at.at(groups[here].parent)) {
            sound[here] = true;
            if (groups[here].parent == 0) break;
        }
    }
    return at;
}

void checkGuide(const Guide& guide) {
    const std::string owner = nameOf(guide);
    const bool follows = guide.follows();
    const std::vector<Vec3f>& shape = follows ? guide.offsets : guide.points;
    const char* key = follows ? "offsets" : "points";
    if (shape.size() < 2) fail(owner, "'" + std::string(key) + "' needs at least 2 points");
    const float numbers[] = {guide.root.u, guide.root.v, guide.tubeTwist};
    bool finite = allFinite(shape) && allFinite(numbers) && allFinite(guide.tubeRadius) &&
                  isFinite(guide.frameUp) && isFinite(guide.rootLocal) &&
                  isFinite(guide.frameUpLocal);
    for (const auto& [name, value] : guide.attributes) finite = finite && std::isfinite(value);
    for (const auto& [name, values] : guide.pointAttributes) {
        finite = finite && allFinite(values);
        if (values.size() != shape.size())
            fail(owner, "'pointAttributes." + name + "' has " + std::to_string(values.size()) +
                            " values for " + std::to_string(shape.size()) +
                            " points, give one per point");
    }
    if (!finite) fail(owner, "it holds a NaN or an infinity");
}

}  // namespace

GuideHierarchy GuideHierarchy::restore(std::vector<GuideGroup> groups, std::vector<Guide> guides,
                                       std::uint64_t scalpTopology) {
    const auto groupAt = checkGroups(groups);
    std::unordered_map<std::uint64_t, std::uint32_t> guideAt;
    guideAt.reserve(guides.size());
    for (std::uint32_t i = 0; i < guides.size(); ++i) {
        if (guides[i].id == 0) throw std::invalid_argument("a guide ID is a positive integer");
        if (!guideAt.emplace(guides[i].id, i).second)
            fail(nameOf(guides[i]), "its ID is given twice");
    }
    GuideHierarchy out;
    out.scalpTopology_ = scalpTopology;
    for (const Guide& guide : guides) {
        checkGuide(guide);
        const auto found = groupAt.find(guide.group);
        if (found == groupAt.end())
            fail(nameOf(guide), "its group " + std::to_string(guide.group) + " does not exist");
        const GuideGroup& group = groups[found->second];
        if (group.parent == 0) {
            if (guide.parent != 0)
                fail(nameOf(guide), "it has a parent, but '" + group.name + "' is a root group");
        } else {
            const auto parent = guideAt.find(guide.parent);
            if (parent == guideAt.end())
                fail(nameOf(guide), "its parent " + std::to_string(guide.parent) +
                                        " does not exist, and '" + group.name +
                                        "' is a child group");
            if (guides[parent->second].group != group.parent)
                fail(nameOf(guide), "its parent " + std::to_string(guide.parent) +
                                        " is not in the parent group of '" + group.name + "'");
        }
        for (const auto& [name, value] : guide.attributes) out.declared_.try_emplace(name, 0.0f);
        if (guide.id < kCountedIds) out.nextGuide_ = std::max(out.nextGuide_, guide.id + 1);
    }
    for (const GuideGroup& group : groups) out.nextGroup_ = std::max(out.nextGroup_, group.id + 1);
    if (std::any_of(groups.begin(), groups.end(),
                    [](const GuideGroup& g) { return g.id + 1 == 0; }))
        out.nextGroup_ = 0;  // the last id is in use
    out.groups_ = std::move(groups);
    out.guides_.reserve(guides.size());
    for (Guide& guide : guides) {
        if (guide.follows()) {
            guide.points.clear();
        } else {
            guide.offsets.clear();
            guide.rootLocal = guide.frameUpLocal = {};
        }
        guide.detail.reset();
        out.guides_.push_back(std::make_shared<const Guide>(std::move(guide)));
    }
    out.reindex();
    GuideEdit edit(out, "guide data");
    for (std::uint32_t i = 0; i < out.guides_.size(); ++i) edit.follow(i);
    edit.commit();
    return out;
}

}  // namespace corvelle
