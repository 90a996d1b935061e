#include "model/guideHierarchy.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/hash.h"
#include "model/soleOwner.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(const std::string& operation, const std::string& text) {
    throw std::invalid_argument(operation + ": " + text);
}

std::string quoted(const std::string& name) { return "'" + name + "'"; }

void checkGroupName(const std::string& name) {
    if (name.empty()) throw std::invalid_argument("a guide group needs a name");
}

void checkFinite(const char* operation, float value) {
    if (!std::isfinite(value)) fail(operation, "the value is a NaN or an infinity");
}

void checkFinite(const char* operation, std::span<const float> values) {
    if (!allFinite(values)) fail(operation, "a value is a NaN or an infinity");
}

/// One value per point, read at the points of another count.
std::vector<float> resampledValues(const std::vector<float>& values, std::size_t count) {
    std::vector<float> out(count);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = tubeProfile(values, float(i) / float(count - 1));
    return out;
}

void givePoints(Guide& guide, std::vector<Vec3f> points) {
    if (points.size() != guide.points.size())
        for (auto& [name, values] : guide.pointAttributes)
            values = resampledValues(values, points.size());
    guide.points = std::move(points);
}

}  // namespace

// Look-up

const GuideIndex& GuideHierarchy::index() const {
    static const GuideIndex empty;
    return index_ ? *index_ : empty;
}

GuideIndex& GuideHierarchy::writableIndex() {
    if (!index_) {
        index_ = std::make_shared<GuideIndex>();
    } else if (!isSoleOwner(index_)) {
        index_ = std::make_shared<GuideIndex>(*index_);
    }
    return *index_;
}

void GuideHierarchy::reindex() {
    auto fresh = std::make_shared<GuideIndex>();
    fresh->groups.reserve(groups_.size());
    for (std::uint32_t g = 0; g < groups_.size(); ++g) fresh->groups.emplace(groups_[g].id, g);
    fresh->depth.assign(groups_.size(), -1);
    std::vector<std::uint32_t> path;
    for (std::uint32_t g = 0; g < groups_.size(); ++g) {
        path.clear();
        std::uint32_t at = g;
        while (fresh->depth[at] < 0) {
            path.push_back(at);
            if (groups_[at].parent == 0) break;
            at = fresh->groups.at(groups_[at].parent);
        }
        std::int32_t depth = fresh->depth[at];  // -1 where the path ended at a root group
        for (; !path.empty(); path.pop_back()) fresh->depth[path.back()] = ++depth;
    }
    fresh->guides.reserve(guides_.size());
    for (std::uint32_t i = 0; i < guides_.size(); ++i) fresh->guides.emplace(guides_[i]->id, i);
    fresh->children.resize(guides_.size());
    for (std::uint32_t i = 0; i < guides_.size(); ++i)
        if (guides_[i]->parent != 0)
            fresh->children[fresh->guides.at(guides_[i]->parent)].push_back(i);
    index_ = std::move(fresh);
}

std::uint32_t GuideHierarchy::at(std::uint64_t guide, const char* operation) const {
    const auto found = index().guides.find(guide);
    if (found == index().guides.end()) fail(operation, "unknown guide");
    return found->second;
}

std::uint32_t GuideHierarchy::groupAt(std::uint32_t group) const {
    const auto found = index().groups.find(group);
    return found != index().groups.end() ? found->second : std::uint32_t(groups_.size());
}

const GuideGroup* GuideHierarchy::group(std::uint32_t id) const {
    const std::uint32_t at = groupAt(id);
    return at < groups_.size() ? &groups_[at] : nullptr;
}

const GuideGroup* GuideHierarchy::groupNamed(std::string_view name) const {
    const auto found = std::find_if(groups_.begin(), groups_.end(),
                                    [&](const GuideGroup& group) { return group.name == name; });
    return found != groups_.end() ? &*found : nullptr;
}

int GuideHierarchy::depthOf(std::uint32_t group) const {
    const std::uint32_t at = groupAt(group);
    return at < groups_.size() ? index().depth[at] : 0;
}

int GuideHierarchy::deepestLevel() const {
    const std::vector<std::int32_t>& depth = index().depth;
    return depth.empty() ? 0 : *std::max_element(depth.begin(), depth.end());
}

GuidePtr GuideHierarchy::guide(std::uint64_t id) const {
    const auto found = index().guides.find(id);
    return found != index().guides.end() ? guides_[found->second] : nullptr;
}

void GuideHierarchy::setScalpTopology(std::uint64_t hash) { scalpTopology_ = hash; }

void GuideHierarchy::reserveIdsOf(const GuideHierarchy& other) {
    nextGuide_ = std::max(nextGuide_, other.nextGuide_);
    nextGroup_ = std::max(nextGroup_, other.nextGroup_);
}

// Groups

std::uint32_t GuideHierarchy::addGroup(const std::string& name, std::uint32_t parent) {
    checkGroupName(name);
    if (groupNamed(name)) fail("addGroup", "group " + quoted(name) + " exists");
    const std::uint32_t parentAt = groupAt(parent);
    if (parent != 0 && parentAt == groups_.size()) fail("addGroup", "unknown parent group");
    if (nextGroup_ == 0) fail("addGroup", "all group ids are used up");
    GuideIndex& tables = writableIndex();
    tables.depth.reserve(groups_.size() + 1);
    groups_.push_back({.id = nextGroup_, .name = name, .parent = parent});
    try {
        tables.groups.emplace(nextGroup_, std::uint32_t(groups_.size() - 1));
    } catch (...) {
        groups_.pop_back();
        throw;
    }
    tables.depth.push_back(parent != 0 ? tables.depth[parentAt] + 1 : 0);
    return nextGroup_++;
}

void GuideHierarchy::renameGroup(std::uint32_t group, const std::string& name) {
    const std::uint32_t at = groupAt(group);
    if (at == groups_.size()) throw std::invalid_argument("no such guide group");
    checkGroupName(name);
    const GuideGroup* other = groupNamed(name);
    if (other && other->id != group)
        throw std::invalid_argument("a guide group named " + quoted(name) + " exists");
    groups_[at].name = name;
}

std::vector<bool> GuideHierarchy::excluded(std::span<const std::uint32_t> groups) const {
    std::vector<bool> out(groups_.size(), false);
    for (const std::uint32_t group : groups) {
        const std::uint32_t at = groupAt(group);
        if (at < groups_.size()) out[at] = true;
    }
    // Parents before children: a group may stand before its parent after a demotion.
    std::vector<std::uint32_t> order(groups_.size());
    for (std::uint32_t g = 0; g < order.size(); ++g) order[g] = g;
    const std::vector<std::int32_t>& depth = index().depth;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return depth[a] < depth[b]; });
    for (const std::uint32_t g : order)
        if (groups_[g].parent != 0 && out[groupAt(groups_[g].parent)]) out[g] = true;
    return out;
}

void GuideHierarchy::removeGroup(std::uint32_t group) {
    if (groupAt(group) == groups_.size()) throw std::invalid_argument("no such guide group");
    const std::vector<bool> gone = excluded({&group, 1});
    GuideHierarchy next = *this;
    next.groups_.clear();
    for (std::size_t g = 0; g < groups_.size(); ++g)
        if (!gone[g]) next.groups_.push_back(groups_[g]);
    std::erase_if(next.guides_, [&](const GuidePtr& guide) { return gone[groupAt(guide->group)]; });
    next.reindex();
    *this = std::move(next);
}

void GuideHierarchy::promoteGroup(std::uint32_t group) {
    const std::uint32_t at = groupAt(group);
    if (at == groups_.size()) fail("promoteGroup", "unknown group");
    if (groups_[at].parent == 0)
        fail("promoteGroup", quoted(groups_[at].name) + " is already a root group");
    GuideHierarchy next = *this;
    next.groups_[at].parent = 0;
    const std::vector<bool> inside = excluded({&group, 1});
    std::vector<std::uint32_t> changed;
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (!inside[groupAt(guides_[i]->group)]) continue;
        changed.push_back(i);
        if (guides_[i]->group != group) continue;
        auto guide = std::make_shared<Guide>(*guides_[i]);
        guide->parent = 0;
        guide->locked = false;
        guide->offsets.clear();
        guide->rootLocal = guide->frameUpLocal = {};
        next.guides_[i] = std::move(guide);
    }
    next.reindex();
    GuideEdit edit(next, "promoteGroup");
    for (const std::uint32_t i : changed) edit.change(i);  // their levels rise
    edit.commit();
    *this = std::move(next);
}

// Guides

std::uint64_t GuideHierarchy::takeId(std::uint64_t id, const char* operation) const {
    const GuideIndex& tables = index();
    if (id != 0) {
        if (tables.guides.contains(id)) fail(operation, "duplicate guide id");
        return id;
    }
    id = nextGuide_;
    while (id == 0 || tables.guides.contains(id)) ++id;
    return id;
}

void GuideHierarchy::append(std::shared_ptr<Guide> guide) {
    for (const auto& [name, value] : declared_) guide->attributes.try_emplace(name, value);
    finishGuide(*guide, depthOf(guide->group));
    const std::uint64_t id = guide->id, parent = guide->parent;
    const auto position = std::uint32_t(guides_.size());
    GuideIndex& tables = writableIndex();
    const auto grown = [](std::size_t size) { return std::max<std::size_t>(4, 2 * size); };
    const auto makeRoom = [&](auto& list) {
        if (list.size() == list.capacity()) list.reserve(grown(list.size()));
    };
    const std::uint32_t parentAt = parent != 0 ? tables.guides.at(parent) : 0;
    makeRoom(guides_);
    makeRoom(tables.children);
    if (parent != 0) makeRoom(tables.children[parentAt]);
    tables.guides.emplace(id, position);
    guides_.push_back(std::move(guide));  // from here on nothing allocates
    tables.children.emplace_back();
    if (parent != 0) tables.children[parentAt].push_back(position);
    if (id < kCountedIds) nextGuide_ = std::max(nextGuide_, id + 1);
}

std::uint64_t GuideHierarchy::addGuide(std::uint32_t group, StrandRoot root,
                                       std::vector<Vec3f> points, std::uint64_t id,
                                       const ScalpMesh* scalp) {
    const std::uint32_t at = groupAt(group);
    if (at == groups_.size()) fail("addGuide", "unknown group");
    if (groups_[at].parent != 0) fail("addGuide", "primary guides belong in root groups");
    checkGuidePoints("addGuide", points);
    id = takeId(id, "addGuide");

    auto guide = std::make_shared<Guide>();
    guide->id = id;
    guide->group = group;
    guide->root = root;
    guide->points = std::move(points);
    Vec3f up;
    if (scalp && scalp->validRoot(root)) {
        const Triangle& corners = scalp->triangles()[std::size_t(root.triangle)];
        up = scalp->points()[std::size_t(corners[1])] - scalp->points()[std::size_t(corners[0])];
    }
    // The first normal of the guide's frames is what is left of `up` across it.
    std::vector<GuideFrame> frames(guide->points.size());
    guideFrames(guide->points, up, frames);
    guide->frameUp = frames.front().N;
    append(std::move(guide));
    return id;
}

std::uint64_t GuideHierarchy::addChildGuide(std::uint32_t group, std::uint64_t parent,
                                            std::vector<Vec3f> points, std::uint64_t id) {
    const std::uint32_t at = groupAt(group);
    if (at == groups_.size() || groups_[at].parent == 0) fail("addChildGuide", "not a child group");
    const GuidePtr above = this->guide(parent);
    if (!above || above->group != groups_[at].parent)
        fail("addChildGuide", "the parent must be in the group's parent group");
    checkGuidePoints("addChildGuide", points);
    id = takeId(id, "addChildGuide");

    auto guide = std::make_shared<Guide>();
    guide->id = id;
    guide->group = group;
    guide->parent = parent;
    guide->points = std::move(points);
    const ParentFrames frames(*above, guide->points.size());
    guide->frameUp = frames.first().N.narrow();
    frames.capturePoints(*guide);
    frames.captureUp(*guide);
    frames.rebuild(*guide);
    if (!allFinite(guide->offsets) || !allFinite(guide->points))
        fail("addChildGuide", "the points are too far from the parent");
    append(std::move(guide));
    return id;
}

std::vector<bool> GuideHierarchy::withDescendants(std::vector<bool> chosen) const {
    std::vector<std::uint32_t> open;
    for (std::uint32_t i = 0; i < chosen.size(); ++i)
        if (chosen[i]) open.push_back(i);
    while (!open.empty()) {
        const std::uint32_t at = open.back();
        open.pop_back();
        for (const std::uint32_t child : index().children[at]) {
            if (chosen[child]) continue;
            chosen[child] = true;
            open.push_back(child);
        }
    }
    return chosen;
}

void GuideHierarchy::erase(const std::vector<bool>& gone) {
    std::vector<GuidePtr> kept;
    kept.reserve(guides_.size());
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (!gone[i]) kept.push_back(std::move(guides_[i]));
    guides_ = std::move(kept);
    reindex();
}

void GuideHierarchy::removeGuides(std::span<const std::uint64_t> ids) {
    std::vector<bool> gone(guides_.size(), false);
    for (const std::uint64_t id : ids) gone[at(id, "removeGuides")] = true;
    if (ids.empty()) return;
    GuideHierarchy next = *this;
    next.erase(withDescendants(std::move(gone)));
    *this = std::move(next);
}

void GuideHierarchy::reparent(std::uint64_t guide, std::uint64_t newParent) {
    reparent({&guide, 1}, newParent);
}

void GuideHierarchy::reparent(std::span<const std::uint64_t> guides, std::uint64_t newParent) {
    std::vector<std::uint32_t> positions;
    for (const std::uint64_t id : guides) positions.push_back(at(id, "reparent"));
    const GuidePtr parent = guide(newParent);
    if (!parent) fail("reparent", "unknown parent guide");
    for (const std::uint32_t i : positions)
        if (group(guides_[i]->group)->parent != parent->group)
            fail("reparent", "the new parent must be in the guide's parent group");
    std::erase_if(positions, [&](std::uint32_t i) { return guides_[i]->parent == newParent; });
    if (positions.empty()) return;

    GuideHierarchy next = *this;
    for (const std::uint32_t i : positions) {
        auto moved = std::make_shared<Guide>(*guides_[i]);
        moved->parent = newParent;
        next.guides_[i] = std::move(moved);
    }
    next.reindex();
    GuideEdit edit(next, "reparent");
    for (const std::uint32_t i : positions) edit.shape(i, true, true);
    edit.commit();
    *this = std::move(next);
}

void GuideHierarchy::setLocked(std::uint64_t guide, bool locked) {
    const std::uint32_t i = at(guide, "setLocked");
    if (guides_[i]->parent == 0 || guides_[i]->locked == locked) return;
    GuideEdit edit(*this, "setLocked");
    Guide& changed = edit.change(i);
    changed.locked = locked;
    if (locked) {
        changed.offsets.clear();
        changed.rootLocal = changed.frameUpLocal = {};
    } else {
        edit.shape(i, true, true);
    }
    edit.commit();
}

void GuideHierarchy::setPoints(std::uint64_t guide, std::vector<Vec3f> points) {
    const std::uint32_t i = at(guide, "setPoints");
    checkGuidePoints("setPoints", points);
    GuideEdit edit(*this, "setPoints");
    givePoints(edit.shape(i, true, false), std::move(points));
    edit.commit();
}

void GuideHierarchy::setPoints(
    std::span<const std::pair<std::uint64_t, std::vector<Vec3f>>> edits) {
    std::vector<std::uint32_t> positions;
    positions.reserve(edits.size());
    for (const auto& [id, points] : edits) {
        positions.push_back(at(id, "setPoints"));
        checkGuidePoints("setPoints", points);
    }
    std::vector<std::uint32_t> sorted = positions;
    std::sort(sorted.begin(), sorted.end());
    const auto twice = std::adjacent_find(sorted.begin(), sorted.end());
    if (twice != sorted.end())
        fail("setPoints", "guide " + std::to_string(guides_[*twice]->id) + " is given twice");
    GuideEdit edit(*this, "setPoints");
    for (std::size_t e = 0; e < edits.size(); ++e)
        givePoints(edit.shape(positions[e], true, false), edits[e].second);
    edit.commit();
}

void GuideHierarchy::setRoot(std::uint64_t guide, StrandRoot root) {
    const std::uint32_t i = at(guide, "setRoot");
    if (!std::isfinite(root.u) || !std::isfinite(root.v))
        fail("setRoot", "the root holds a NaN or an infinity");
    GuideEdit edit(*this, "setRoot");
    edit.change(i).root = root;
    edit.commit();
}

void GuideHierarchy::refreshRoots(std::span<const std::uint64_t> moved, const ScalpMesh& scalp) {
    if (scalp.triangles().empty()) return;
    GuideEdit edit(*this, "refreshRoots");
    for (const std::uint64_t id : moved)
        for (const std::uint32_t child : index().children[at(id, "refreshRoots")])
            edit.follow(child);
    edit.commit(&scalp);
}

void GuideHierarchy::setTube(std::uint64_t guide, std::vector<float> radius, float twist) {
    const std::uint32_t i = at(guide, "setTube");
    checkFinite("setTube", radius);
    checkFinite("setTube", twist);
    if (std::any_of(radius.begin(), radius.end(), [](float r) { return r < 0.0f; }))
        fail("setTube", "a radius is a number from 0 up");
    GuideEdit edit(*this, "setTube");
    Guide& changed = edit.move(i);
    changed.tubeRadius = std::move(radius);
    changed.tubeTwist = twist;
    edit.commit();
}

void GuideHierarchy::setFrameUp(std::uint64_t guide, Vec3f up) {
    const std::uint32_t i = at(guide, "setFrameUp");
    if (!isFinite(up)) fail("setFrameUp", "the direction holds a NaN or an infinity");
    GuideEdit edit(*this, "setFrameUp");
    edit.shape(i, false, true).frameUp = up;
    edit.commit();
}

// Attributes

void GuideHierarchy::setAttribute(std::uint64_t guide, const std::string& name, float value) {
    const std::uint32_t i = at(guide, "setAttribute");
    if (name.empty()) throw std::invalid_argument("a guide attribute needs a name");
    checkFinite("setAttribute", value);
    std::map<std::string, float> declared = declared_;
    declared.try_emplace(name, 0.0f);
    GuideEdit edit(*this, "setAttribute");
    edit.change(i).attributes.insert_or_assign(name, value);
    edit.commit();
    declared_ = std::move(declared);
}

void GuideHierarchy::setPointAttribute(std::uint64_t guide, const std::string& name,
                                       std::vector<float> values) {
    const std::uint32_t i = at(guide, "setPointAttribute");
    if (name.empty()) throw std::invalid_argument("a guide attribute needs a name");
    if (values.size() != guides_[i]->points.size())
        fail("setPointAttribute", std::to_string(values.size()) + " values for " +
                                      std::to_string(guides_[i]->points.size()) +
                                      " points, give one per point");
    checkFinite("setPointAttribute", values);
    GuideEdit edit(*this, "setPointAttribute");
    edit.change(i).pointAttributes.insert_or_assign(name, std::move(values));
    edit.commit();
}

void GuideHierarchy::addAttribute(const std::string& name, float defaultValue) {
    if (name.empty()) throw std::invalid_argument("a guide attribute needs a name");
    if (declared_.contains(name))
        throw std::invalid_argument("a guide attribute named " + quoted(name) + " already exists");
    checkFinite("addAttribute", defaultValue);
    std::map<std::string, float> declared = declared_;
    declared.emplace(name, defaultValue);
    GuideEdit edit(*this, "addAttribute");
    for (std::uint32_t i = 0; i < guides_.size(); ++i)
        edit.change(i).attributes.insert_or_assign(name, defaultValue);
    edit.commit();
    declared_ = std::move(declared);
}

void GuideHierarchy::removeAttribute(const std::string& name) {
    std::map<std::string, float> declared = declared_;
    bool found = declared.erase(name) > 0;
    GuideEdit edit(*this, "removeAttribute");
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (!guides_[i]->attributes.contains(name) && !guides_[i]->pointAttributes.contains(name))
            continue;
        found = true;
        Guide& guide = edit.change(i);
        guide.attributes.erase(name);
        guide.pointAttributes.erase(name);
    }
    if (!found) throw std::invalid_argument("no guide attribute named " + quoted(name));
    edit.commit();
    declared_ = std::move(declared);
}

// Views

GuidesPtr GuideHierarchy::select(const std::vector<bool>& chosenGroups) const {
    const GuideIndex& tables = index();
    std::vector<std::vector<std::uint32_t>> byGroup(groups_.size());
    std::size_t count = 0;
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        const std::uint32_t group = tables.groups.at(guides_[i]->group);
        if (!chosenGroups[group]) continue;
        byGroup[group].push_back(i);
        ++count;
    }
    std::vector<std::uint32_t> order(groups_.size());
    for (std::uint32_t g = 0; g < order.size(); ++g) order[g] = g;
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return tables.depth[a] < tables.depth[b];
    });
    std::vector<GuideView> views;
    views.reserve(count);
    for (const std::uint32_t g : order) {
        for (const std::uint32_t i : byGroup[g]) {
            const Guide& guide = *guides_[i];
            views.push_back({.id = guide.id,
                             .root = guide.root,
                             .points = guide.points,
                             .detail = guide.detail,
                             .hash = guide.viewHash});
        }
    }
    return std::make_shared<const GuideSet>(std::span<const GuideView>(views));
}

GuidesPtr GuideHierarchy::flatten(int level, std::span<const std::uint32_t> exclude) const {
    const GuideIndex& tables = index();
    std::vector<bool> populated(groups_.size(), false), parent(groups_.size(), false);
    for (const GuidePtr& guide : guides_) populated[tables.groups.at(guide->group)] = true;
    for (std::size_t g = 0; g < groups_.size(); ++g)
        if (populated[g] && groups_[g].parent != 0) parent[groupAt(groups_[g].parent)] = true;
    const std::vector<bool> out = excluded(exclude);
    std::vector<bool> chosen(groups_.size(), false);
    for (std::size_t g = 0; g < groups_.size(); ++g) {
        const bool leaf = !parent[g];
        chosen[g] =
            !out[g] &&
            (level < 0 ? leaf : tables.depth[g] == level || (tables.depth[g] < level && leaf));
    }
    return select(chosen);
}

GuidesPtr GuideHierarchy::flattenGroups(std::span<const std::uint32_t> groups,
                                        std::span<const std::uint32_t> exclude) const {
    const std::vector<bool> out = excluded(exclude);
    std::vector<bool> chosen(groups_.size(), false);
    for (const std::uint32_t group : groups) {
        const std::uint32_t at = groupAt(group);
        if (at == groups_.size()) fail("flatten", "unknown group");
        chosen[at] = !out[at];
    }
    return select(chosen);
}

GuidesPtr GuideHierarchy::all() const { return select(std::vector<bool>(groups_.size(), true)); }

std::uint64_t GuideHierarchy::contentHash() const {
    const auto text = [](std::uint64_t h, const std::string& value) {
        return hashCombine(hashCombine(h, std::uint64_t(value.size())), value);
    };
    std::uint64_t h = hashCombine(hashOf("guideHierarchy"), scalpTopology_);
    h = hashCombine(h, std::uint64_t(groups_.size()));
    for (const GuideGroup& group : groups_)
        h = hashCombine(hashCombine(text(h, group.name), group.id), group.parent);
    h = hashCombine(h, std::uint64_t(declared_.size()));
    for (const auto& [name, value] : declared_) h = hashCombine(text(h, name), value);
    h = hashCombine(h, std::uint64_t(guides_.size()));
    for (const GuidePtr& guide : guides_) h = hashCombine(h, guide->contentHash);
    return h;
}

}  // namespace corvelle
