#include "model/guideEdit.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "model/guideFollow.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::size_t kParentGrain = 8;
constexpr std::size_t kFinishGrain = 64;

// Bit by bit, as documents are written: -0 is not 0.
bool same(float a, float b) {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}
bool same(const std::vector<float>& a, const std::vector<float>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](float x, float y) { return same(x, y); });
}
template <class Map>
bool sameEntries(const Map& a, const Map& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
        return x.first == y.first && same(x.second, y.second);
    });
}

bool describes(const GuideDetail& detail, const Guide& guide, std::int32_t level) {
    return detail.parent == guide.parent && detail.group == guide.group && detail.level == level &&
           same(detail.frameUp.x, guide.frameUp.x) && same(detail.frameUp.y, guide.frameUp.y) &&
           same(detail.frameUp.z, guide.frameUp.z) && same(detail.tubeRadius, guide.tubeRadius) &&
           same(detail.tubeTwist, guide.tubeTwist) &&
           sameEntries(detail.attributes, guide.attributes) &&
           sameEntries(detail.pointAttributes, guide.pointAttributes);
}

}  // namespace

void finishGuide(Guide& guide, std::int32_t level) {
    if (!guide.detail || !describes(*guide.detail, guide, level)) {
        auto detail = std::make_shared<GuideDetail>();
        detail->parent = guide.parent;
        detail->group = guide.group;
        detail->level = level;
        detail->frameUp = guide.frameUp;
        detail->tubeRadius = guide.tubeRadius;
        detail->tubeTwist = guide.tubeTwist;
        detail->attributes = guide.attributes;
        detail->pointAttributes = guide.pointAttributes;
        guide.detail = std::move(detail);
    }
    guide.viewHash = guideHash(guide.id, guide.root, guide.points, *guide.detail);
    std::uint64_t h = hashCombine(guide.viewHash, guide.locked);
    if (guide.follows()) {
        const Vec3f locals[] = {guide.rootLocal, guide.frameUpLocal};
        h = hashPointBits(hashPointBits(h, locals), guide.offsets);
    }
    guide.contentHash = h;
}

void checkGuidePoints(const std::string& operation, std::span<const Vec3f> points) {
    if (points.size() < 2)
        throw std::invalid_argument(operation + ": a guide needs at least 2 points");
    if (!allFinite(points))
        throw std::invalid_argument(operation + ": a point holds a NaN or an infinity");
}

struct GuideEdit::Task {
    std::uint32_t parent = 0;
    std::vector<std::uint32_t> children;  ///< entries
    std::uint64_t overflown = 0;          ///< the first follower whose numbers left the range
};

std::uint32_t GuideEdit::entryOf(std::uint32_t index) {
    const auto [at, isNew] = entryAt_.try_emplace(index, std::uint32_t(entries_.size()));
    if (isNew) entries_.push_back({.index = index});
    return at->second;
}

std::int32_t GuideEdit::levelOf(std::uint32_t index) const {
    const GuideIndex& tables = hierarchy_.index();
    return tables.depth[tables.groups.at(hierarchy_.guides_[index]->group)];
}

void GuideEdit::put(std::uint32_t entry, std::uint32_t index) {
    const auto level = std::size_t(levelOf(index));
    if (levels_.size() <= level) levels_.resize(level + 1);
    levels_[level].push_back(entry);
}

Guide& GuideEdit::own(Entry& entry) const {
    if (!entry.guide) entry.guide = std::make_shared<Guide>(*hierarchy_.guides_[entry.index]);
    return *entry.guide;
}

const Guide& GuideEdit::at(std::uint32_t index) const {
    const auto found = entryAt_.find(index);
    return found != entryAt_.end() && entries_[found->second].guide ? *entries_[found->second].guide
                                                                    : *hierarchy_.guides_[index];
}

Guide& GuideEdit::change(std::uint32_t index) { return own(entries_[entryOf(index)]); }

Guide& GuideEdit::move(std::uint32_t index) {
    const std::uint32_t entry = entryOf(index);
    if (!entries_[entry].moved && !entries_[entry].due) put(entry, index);
    entries_[entry].moved = true;
    return own(entries_[entry]);
}

Guide& GuideEdit::shape(std::uint32_t index, bool points, bool up) {
    Guide& guide = move(index);
    if (guide.follows()) {
        Entry& entry = entries_[entryOf(index)];
        entry.due = true;
        entry.capturePoints |= points;
        entry.captureUp |= up;
    }
    return guide;
}

Guide& GuideEdit::follow(std::uint32_t index) { return shape(index, false, false); }

void GuideEdit::rebuild(Task& task, const ScalpMesh* scalp) {
    const Guide& parent = at(task.parent);
    // Followers of one point count share the parent's frames.
    const auto countOf = [&](const Entry& entry) {
        const Guide& guide = entry.guide ? *entry.guide : *hierarchy_.guides_[entry.index];
        return entry.capturePoints ? guide.points.size() : guide.offsets.size();
    };
    std::stable_sort(task.children.begin(), task.children.end(),
                     [&](std::uint32_t a, std::uint32_t b) {
                         return countOf(entries_[a]) < countOf(entries_[b]);
                     });
    std::unique_ptr<ParentFrames> frames;
    for (const std::uint32_t child : task.children) {
        Entry& entry = entries_[child];
        const std::size_t count = countOf(entry);
        if (!frames || frames->pointCount() != count)
            frames = std::make_unique<ParentFrames>(parent, count);
        Guide& guide = own(entry);
        if (entry.capturePoints) frames->capturePoints(guide);
        if (entry.captureUp) frames->captureUp(guide);
        frames->rebuild(guide);
        bool finite = allFinite(guide.points) && allFinite(guide.offsets) &&
                      isFinite(guide.frameUp) && isFinite(guide.frameUpLocal);
        if (scalp && finite) {
            SurfaceHit hit;
            const std::int32_t near = scalp->validRoot(guide.root) ? guide.root.triangle : -1;
            if (scalp->closestPointFrom(guide.points.front(), ScalpMesh::kAnyDistance, near, hit)) {
                guide.root = hit.root();
                frames->captureRoot(guide);
            }
        }
        finite = finite && isFinite(guide.rootLocal);
        if (!finite && task.overflown == 0) task.overflown = guide.id;
    }
}

void GuideEdit::commit(const ScalpMesh* scalp) {
    const GuideIndex& tables = hierarchy_.index();
    if (scalp) scalp->prepareQueries();
    for (std::size_t level = 0; level < levels_.size(); ++level) {
        // One task a parent, in order of first mention.
        std::vector<Task> tasks;
        std::unordered_map<std::uint32_t, std::size_t> taskOf;
        for (const std::uint32_t entry : levels_[level]) {
            if (!entries_[entry].due) continue;
            const std::uint64_t parentId =
                (entries_[entry].guide ? *entries_[entry].guide
                                       : *hierarchy_.guides_[entries_[entry].index])
                    .parent;
            const std::uint32_t parent = tables.guides.at(parentId);
            const auto [at, isNew] = taskOf.try_emplace(parent, tasks.size());
            if (isNew) tasks.push_back({.parent = parent});
            tasks[at->second].children.push_back(entry);
        }
        parallelRange(0, tasks.size(), kParentGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t t = begin; t < end; ++t) rebuild(tasks[t], scalp);
        });
        for (const Task& task : tasks)
            if (task.overflown != 0)
                throw std::invalid_argument(
                    operation_ + ": guide " + std::to_string(task.overflown) +
                    " would leave the range of 32-bit floats as it follows its parent");

        // All that changed here moves what follows it, one level down.
        const std::vector<std::uint32_t> done = levels_[level];  // `put` may grow levels_
        for (const std::uint32_t entry : done) {
            for (const std::uint32_t child : tables.children[entries_[entry].index]) {
                if (!at(child).follows()) continue;
                const std::uint32_t childEntry = entryOf(child);
                Entry& follower = entries_[childEntry];
                if (!follower.due && !follower.moved) put(childEntry, child);
                follower.due = true;
            }
        }
    }

    std::vector<GuidePtr> finished(entries_.size());
    parallelRange(0, entries_.size(), kFinishGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t e = begin; e < end; ++e) {
            if (!entries_[e].guide) continue;
            finishGuide(*entries_[e].guide, levelOf(entries_[e].index));
            finished[e] = std::move(entries_[e].guide);
        }
    });
    for (std::size_t e = 0; e < finished.size(); ++e)
        if (finished[e]) hierarchy_.guides_[entries_[e].index] = std::move(finished[e]);
}

}  // namespace corvelle
