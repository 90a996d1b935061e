#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "model/carry.h"
#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/guideHierarchy.h"
#include "model/parallel.h"
#include "model/pointIndex.h"

namespace corvelle {
namespace {

constexpr std::size_t kGuideGrain = 64;

}  // namespace

void GuideHierarchy::demoteGroup(std::uint32_t group, std::uint32_t newParent) {
    const std::uint32_t at = groupAt(group), parentAt = groupAt(newParent);
    if (at == groups_.size()) throw std::invalid_argument("demoteGroup: unknown group");
    if (parentAt == groups_.size() || parentAt == at ||
        groups_[parentAt].parent != groups_[at].parent)
        throw std::invalid_argument("demoteGroup: the new parent group must be a sibling of '" +
                                    groups_[at].name + "'");
    std::vector<std::uint32_t> leaders;
    for (std::uint32_t i = 0; i < guides_.size(); ++i)
        if (guides_[i]->group == newParent) leaders.push_back(i);
    if (leaders.empty())
        throw std::invalid_argument("demoteGroup: '" + groups_[parentAt].name +
                                    "' has no guides to follow");
    // In order of id, so that of equally near roots the lower id wins.
    std::sort(leaders.begin(), leaders.end(),
              [&](std::uint32_t a, std::uint32_t b) { return guides_[a]->id < guides_[b]->id; });
    std::vector<Vec3f> roots;
    for (const std::uint32_t leader : leaders) roots.push_back(guides_[leader]->points.front());
    const PointIndex nearest(roots);

    GuideHierarchy next = *this;
    next.groups_[at].parent = newParent;
    const std::vector<bool> inside = excluded({&group, 1});
    std::vector<std::uint32_t> changed;
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (!inside[groupAt(guides_[i]->group)]) continue;
        changed.push_back(i);
        if (guides_[i]->group != group) continue;
        Neighbor found;  // index 0, the lowest id, where distances overflow
        nearest.nearestOne(guides_[i]->points.front(), found);
        auto guide = std::make_shared<Guide>(*guides_[i]);
        guide->parent = guides_[leaders[found.index]]->id;
        guide->locked = false;
        next.guides_[i] = std::move(guide);
    }
    next.reindex();
    GuideEdit edit(next, "demoteGroup");
    for (const std::uint32_t i : changed) {
        if (guides_[i]->group == group)
            edit.shape(i, true, true);
        else
            edit.change(i);  // its level sinks
    }
    edit.commit();
    *this = std::move(next);
}

void GuideHierarchy::transfer(const ScalpMesh* oldScalp, const ScalpMesh& newScalp,
                              const ScalpMapping& mapping) {
    if (newScalp.triangles().empty())
        throw std::invalid_argument("transfer: the new scalp has no faces");
    if (!isFinite(mapping.a) || !isFinite(mapping.b) || !std::isfinite(mapping.s))
        throw std::invalid_argument("transfer: the mapping holds a NaN or an infinity");
    if (!(mapping.s > 0.0f))
        throw std::invalid_argument("transfer: the mapping's scale is a number above 0");
    const bool sameTriangles = oldScalp && oldScalp->topologyHash() == newScalp.topologyHash();
    const bool plain = mapping.s == 1.0f && mapping.a == mapping.b;  // a mapping that moves nothing
    const auto mapped = [&](Vec3f p) { return plain ? p : mapping(p); };

    GuideHierarchy next = *this;
    next.scalpTopology_ = newScalp.topologyHash();
    newScalp.prepareQueries();
    GuideEdit edit(next, "transfer");
    std::vector<std::uint32_t> free;  // who does not follow
    std::vector<Guide*> moved;
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (mapping.s != 1.0f) {
            // A similarity: tubes scale, so the parts across the parent stay, those along scale.
            Guide& guide = edit.move(i);
            if (guide.tubeRadius.empty()) guide.tubeRadius = {1.0f};
            for (float& radius : guide.tubeRadius) radius *= mapping.s;
            for (Vec3f& offset : guide.offsets) offset.z *= mapping.s;
            guide.rootLocal *= mapping.s;
            if (!allFinite(guide.tubeRadius))
                throw std::invalid_argument("transfer: the tube of guide " +
                                            std::to_string(guide.id) +
                                            " would leave the range of 32-bit floats");
        }
        if (guides_[i]->follows()) {
            if (!sameTriangles) edit.follow(i);  // rooted again, moved or not
            continue;
        }
        if (sameTriangles && plain && newScalp.validRoot(guides_[i]->root) &&
            rootMotion(guides_[i]->root, *oldScalp, newScalp).identity)
            continue;
        free.push_back(i);
        moved.push_back(&edit.move(i));
    }
    parallelRange(0, free.size(), kGuideGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t m = begin; m < end; ++m) {
            Guide& guide = *moved[m];
            if (sameTriangles && newScalp.validRoot(guide.root)) {
                const RootMotion motion = rootMotion(guide.root, *oldScalp, newScalp);
                const Vec3f up = usableUp(guide.points, guide.frameUp);
                for (Vec3f& point : guide.points)
                    point = motion.to + motion.rotation((point - motion.from) * mapping.s);
                if (!motion.identity) guide.frameUp = motion.rotation(up);
                continue;
            }
            for (Vec3f& point : guide.points) point = mapped(point);
            SurfaceHit hit;
            const bool found =
                newScalp.closestPoint(guide.points.front(), ScalpMesh::kAnyDistance, hit);
            guide.root = found ? hit.root() : StrandRoot{};
        }
    });
    for (const Guide* guide : moved)
        if (!allFinite(guide->points))
            throw std::invalid_argument("transfer: guide " + std::to_string(guide->id) +
                                        " would leave the range of 32-bit floats");
    edit.commit(&newScalp);
    *this = std::move(next);
}

GuideHierarchy GuideHierarchy::deformed(const ScalpMesh& from, const ScalpMesh& to) const {
    if (from.topologyHash() != to.topologyHash())
        throw std::invalid_argument("deformed: the two poses of the scalp differ in triangles");
    GuideHierarchy next = *this;
    std::vector<RootMotion> motions(guides_.size());
    parallelRange(0, guides_.size(), kGuideGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            if (!guides_[i]->follows()) motions[i] = rootMotion(guides_[i]->root, from, to);
    });
    GuideEdit edit(next, "deformed");
    std::vector<std::uint32_t> free;
    std::vector<Guide*> moved;
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (motions[i].identity) continue;
        free.push_back(i);
        moved.push_back(&edit.move(i));
    }
    parallelRange(0, free.size(), kGuideGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t m = begin; m < end; ++m) {
            Guide& guide = *moved[m];
            const RootMotion& motion = motions[free[m]];
            guide.frameUp = motion.rotation(usableUp(guide.points, guide.frameUp));
            carry(guide.points, guide.root, from, to, guide.points);
        }
    });
    for (const Guide* guide : moved)
        if (!allFinite(guide->points))
            throw std::invalid_argument("deformed: guide " + std::to_string(guide->id) +
                                        " would leave the range of 32-bit floats");
    edit.commit();
    return next;
}

}  // namespace corvelle
