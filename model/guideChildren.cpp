#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <unordered_set>

#include "model/elementary.h"
#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/guideHierarchy.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr int kMaxChildren = 1000;  // per parent
constexpr std::size_t kParentGrain = 8;

[[noreturn]] void fail(const std::string& text) {
    throw std::invalid_argument("generateChildren: " + text);
}

void checkSettings(const ChildSettings& settings) {
    if (settings.count < 0 || settings.count > kMaxChildren)
        fail("count is 0 to " + std::to_string(kMaxChildren));
    const float numbers[] = {settings.rootSpread, settings.tipSpread, settings.twist,
                             settings.jitter, settings.childTubeScale};
    if (!allFinite(numbers)) fail("a setting is a NaN or an infinity");
    if (settings.jitter < 0.0f || settings.jitter > 1.0f) fail("jitter is 0 to 1");
    if (settings.childTubeScale < 0.0f) fail("childTubeScale is a number from 0 up");
}

std::uint64_t childHash(std::uint64_t parent, std::uint64_t seed, std::uint64_t number) {
    return hashCombine(hashCombine(mix64(parent), seed), number);
}

/// The child's offsets: an even draw over the disc of the parent's tube, led from the root's spread
/// to the tip's.
std::vector<Vec3f> drawOffsets(std::uint64_t hash, const ChildSettings& settings,
                               std::size_t pointCount) {
    SplitMix random(hash);
    const double distance = std::sqrt(double(random.nextFloat()));
    const double angle = 2.0 * std::numbers::pi * random.nextFloat();
    const double jitterN = double(settings.jitter) * (2.0 * random.nextFloat() - 1.0);
    const double jitterB = double(settings.jitter) * (2.0 * random.nextFloat() - 1.0);
    std::vector<Vec3f> offsets(pointCount);
    for (std::size_t i = 0; i < pointCount; ++i) {
        const double t = double(i) / double(pointCount - 1);
        const double reach =
            distance *
            (settings.rootSpread + (double(settings.tipSpread) - double(settings.rootSpread)) * t);
        const double turned = angle + double(settings.twist) * t;
        offsets[i] = Vec3d(reach * math::cos(turned) + jitterN * t,
                           reach * math::sin(turned) + jitterB * t, 0.0)
                         .narrow();
    }
    return offsets;
}

/// Moves the follower's first point onto the scalp, the shift fading to the tip, and roots it
/// there.
void snapToScalp(Guide& child, const ParentFrames& frames, const ScalpMesh& scalp,
                 std::int32_t nearTriangle) {
    SurfaceHit hit;
    if (!scalp.closestPointFrom(child.points.front(), ScalpMesh::kAnyDistance, nearTriangle, hit))
        return;
    const std::size_t count = child.offsets.size();
    const Vec3d shift = Vec3d(hit.position) - frames.place(0, child.offsets.front());
    for (std::size_t i = 0; i < count; ++i) {
        const double share = 1.0 - double(i) / double(count - 1);
        child.offsets[i] =
            frames.offset(i, frames.place(i, child.offsets[i]) + shift * share).narrow();
    }
    child.root = hit.root();
    frames.rebuild(child);
}

/// Positions of the guides of a group, or of those chosen among them, once each.
std::vector<std::uint32_t> parentsIn(std::span<const GuidePtr> guides, const GuideIndex& index,
                                     std::uint32_t group,
                                     const std::vector<std::uint64_t>* chosen) {
    std::vector<std::uint32_t> parents;
    if (!chosen) {
        for (std::uint32_t i = 0; i < guides.size(); ++i)
            if (guides[i]->group == group) parents.push_back(i);
        return parents;
    }
    std::vector<bool> taken(guides.size(), false);
    for (const std::uint64_t id : *chosen) {
        const auto found = index.guides.find(id);
        if (found == index.guides.end() || guides[found->second]->group != group)
            fail("guide " + std::to_string(id) + " is not in the parent group");
        if (!taken[found->second]) parents.push_back(found->second);
        taken[found->second] = true;
    }
    return parents;
}

/// A child to be: what is drawn from, and the id that was free.
struct Draw {
    std::uint64_t hash = 0, id = 0;
};

/// Makes the children of one parent after another; parents may run in parallel.
struct ChildMaker {
    const ChildSettings& settings;
    const std::map<std::string, float>& declared;
    std::uint32_t group = 0;
    std::int32_t level = 0;
    const ScalpMesh* scalp = nullptr;  ///< ready for queries, or null

    void make(const Guide& parent, std::span<const Draw> draws,
              std::span<std::shared_ptr<Guide>> made) const {
        const ParentFrames frames(parent, parent.points.size());
        const std::int32_t near =
            scalp && scalp->validRoot(parent.root) ? parent.root.triangle : -1;
        for (std::size_t d = 0; d < draws.size(); ++d) {
            auto child = std::make_shared<Guide>();
            child->id = draws[d].id;
            child->group = group;
            child->parent = parent.id;
            child->attributes = parent.attributes;
            for (const auto& [name, value] : declared) child->attributes.try_emplace(name, value);
            child->pointAttributes = parent.pointAttributes;
            child->tubeRadius = parent.tubeRadius;
            if (child->tubeRadius.empty()) child->tubeRadius = {1.0f};
            for (float& radius : child->tubeRadius) radius *= settings.childTubeScale;
            child->offsets = drawOffsets(draws[d].hash, settings, parent.points.size());
            child->frameUpLocal = {1.0f, 0.0f, 0.0f};
            frames.rebuild(*child);
            if (scalp) snapToScalp(*child, frames, *scalp, near);
            frames.captureRoot(*child);
            finishGuide(*child, level);
            made[d] = std::move(child);
        }
    }
};

}  // namespace

std::string GuideHierarchy::childGroupName(std::uint32_t parentGroup) const {
    const GuideGroup* parent = group(parentGroup);
    if (!parent) fail("unknown parent group");
    const GuideGroup* only = nullptr;
    std::size_t count = 0;
    for (const GuideGroup& each : groups_) {
        if (each.parent != parentGroup) continue;
        only = &each;
        ++count;
    }
    return count == 1 ? only->name : parent->name + "_children";
}

std::uint32_t GuideHierarchy::generateChildren(std::uint32_t parentGroup,
                                               const std::string& childGroupName,
                                               const ChildSettings& settings,
                                               const std::vector<std::uint64_t>* parentGuides,
                                               const ScalpMesh* scalp) {
    if (!group(parentGroup)) fail("unknown parent group");
    checkSettings(settings);
    const std::vector<std::uint32_t> parents =
        parentsIn(guides(), index(), parentGroup, parentGuides);
    const GuideGroup* existing = groupNamed(childGroupName);
    if (existing && existing->parent != parentGroup)
        fail("group '" + childGroupName + "' belongs to another parent group");

    GuideHierarchy next = *this;
    const std::uint32_t childGroup =
        existing ? existing->id : next.addGroup(childGroupName, parentGroup);

    // What goes, and the ids that stay taken.
    std::vector<bool> gone(guides_.size(), false);
    for (const std::uint32_t parent : parents)
        for (const std::uint32_t child : index().children[parent])
            if (guides_[child]->group == childGroup && guides_[child]->follows())
                gone[child] = true;

    // Ids first, one after the other: each must be free.
    std::vector<Draw> draws;
    draws.reserve(parents.size() * std::size_t(settings.count));
    std::unordered_set<std::uint64_t> fresh;
    const auto taken = [&](std::uint64_t id) {
        const auto found = index().guides.find(id);
        return fresh.contains(id) || (found != index().guides.end() && !gone[found->second]);
    };
    for (const std::uint32_t parent : parents) {
        for (int k = 0; k < settings.count; ++k) {
            const std::uint64_t hash =
                childHash(guides_[parent]->id, settings.seed, std::uint64_t(k));
            std::uint64_t id = hash;
            while (id == 0 || taken(id)) id = mix64(id);
            fresh.insert(id);
            draws.push_back({.hash = hash, .id = id});
        }
    }

    // The children, parent by parent.
    std::vector<std::shared_ptr<Guide>> made(draws.size());
    if (scalp && scalp->triangles().empty()) scalp = nullptr;
    if (scalp) scalp->prepareQueries();
    const ChildMaker maker{.settings = settings,
                           .declared = declared_,
                           .group = childGroup,
                           .level = next.depthOf(childGroup),
                           .scalp = scalp};
    const auto perParent = std::size_t(settings.count);
    parallelRange(0, perParent > 0 ? parents.size() : 0, kParentGrain,
                  [&](std::size_t begin, std::size_t end) {
                      for (std::size_t p = begin; p < end; ++p)
                          maker.make(*guides_[parents[p]],
                                     std::span(draws).subspan(p * perParent, perParent),
                                     std::span(made).subspan(p * perParent, perParent));
                  });
    for (const std::shared_ptr<Guide>& child : made)
        if (!allFinite(child->points) || !allFinite(child->offsets) ||
            !allFinite(child->tubeRadius) || !isFinite(child->rootLocal))
            fail("a child of guide " + std::to_string(child->parent) +
                 " would leave the range of 32-bit floats");

    // What hangs off a child that comes back stays; the rest goes with it.
    std::vector<bool> lost(guides_.size(), false);
    for (std::size_t i = 0; i < guides_.size(); ++i)
        lost[i] = gone[i] && !fresh.contains(guides_[i]->id);
    lost = withDescendants(std::move(lost));
    next.guides_.clear();
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (!gone[i] && !lost[i]) next.guides_.push_back(guides_[i]);
    const std::size_t firstChild = next.guides_.size();
    for (std::shared_ptr<Guide>& child : made) {
        if (child->id < kCountedIds) next.nextGuide_ = std::max(next.nextGuide_, child->id + 1);
        next.guides_.push_back(std::move(child));
    }
    next.reindex();
    GuideEdit edit(next, "generateChildren");
    for (std::size_t i = firstChild; i < next.guides_.size(); ++i)
        for (const std::uint32_t below : next.index().children[i]) edit.follow(below);
    edit.commit(scalp);
    *this = std::move(next);
    return childGroup;
}

}  // namespace corvelle
