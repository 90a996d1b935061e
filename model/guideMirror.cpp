#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/guideHierarchy.h"

namespace corvelle {
namespace {

constexpr float kOnPlane = 1e-4f;  // of the scalp's diagonal: roots this near the plane stay

Vec3f flipped(Vec3f v, int axis) {
    v[axis] = -v[axis];
    return v;
}

Vec3f rootPosition(const Guide& guide, const ScalpMesh* scalp) {
    return scalp && scalp->validRoot(guide.root) ? scalp->surfacePoint(guide.root)
                                                 : guide.points.front();
}

/// Of the scalp's box, or where there is none of the guides'.
float diagonal(std::span<const GuidePtr> guides, const ScalpMesh* scalp) {
    if (scalp) return distance(scalp->boundsMin(), scalp->boundsMax());
    if (guides.empty()) return 0.0f;
    Vec3f low = guides.front()->points.front(), high = low;
    for (const GuidePtr& guide : guides) {
        for (const Vec3f& point : guide->points) {
            low = componentMin(low, point);
            high = componentMax(high, point);
        }
    }
    return distance(low, high);
}

}  // namespace

void GuideHierarchy::mirrorAll(int axis, float plane, bool positiveSide, const ScalpMesh* scalp) {
    std::vector<bool> roots(groups_.size());
    for (std::size_t g = 0; g < groups_.size(); ++g) roots[g] = groups_[g].parent == 0;
    mirror(roots, axis, plane, positiveSide, true, scalp, "mirrorAll");
}

void GuideHierarchy::mirrorGroup(std::uint32_t group, int axis, float plane, bool positiveSide,
                                 const ScalpMesh* scalp) {
    const std::uint32_t at = groupAt(group);
    if (at == groups_.size()) throw std::invalid_argument("mirrorGroup: unknown group");
    if (groups_[at].parent != 0)
        throw std::invalid_argument("mirrorGroup: mirror root groups (then regenerate children)");
    std::vector<bool> only(groups_.size(), false);
    only[at] = true;
    mirror(only, axis, plane, positiveSide, false, scalp, "mirrorGroup");
}

void GuideHierarchy::mirror(const std::vector<bool>& groups, int axis, float plane,
                            bool positiveSide, bool withChildren, const ScalpMesh* scalp,
                            const char* operation) {
    const std::string name = operation;
    if (axis < 0 || axis > 2) throw std::invalid_argument(name + ": axis must be 0, 1 or 2");
    if (!std::isfinite(plane))
        throw std::invalid_argument(name + ": the plane's place is a NaN or an infinity");
    if (scalp && scalp->triangles().empty()) scalp = nullptr;
    if (scalp) scalp->prepareQueries();

    const float near = kOnPlane * diagonal(guides_, scalp);
    const float side = positiveSide ? 1.0f : -1.0f;
    std::vector<bool> gone(guides_.size(), false), source(guides_.size(), false);
    for (std::uint32_t i = 0; i < guides_.size(); ++i) {
        if (!groups[groupAt(guides_[i]->group)]) continue;
        const float place = (rootPosition(*guides_[i], scalp)[axis] - plane) * side;
        if (std::abs(place) <= near) continue;
        (place > 0.0f ? source : gone)[i] = true;
    }
    gone = withDescendants(std::move(gone));
    if (withChildren) source = withDescendants(std::move(source));

    GuideHierarchy next = *this;
    next.guides_.clear();
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (!gone[i]) next.guides_.push_back(guides_[i]);
    const std::size_t firstCopy = next.guides_.size();

    // Copies by level, so that a parent's new id is known before its children ask for it.
    std::vector<std::uint32_t> order;
    for (std::uint32_t i = 0; i < guides_.size(); ++i)
        if (source[i]) order.push_back(i);
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return depthOf(guides_[a]->group) < depthOf(guides_[b]->group);
    });
    std::vector<std::uint64_t> copyOf(guides_.size(), 0);
    for (const std::uint32_t i : order) {
        auto copy = std::make_shared<Guide>(*guides_[i]);
        copy->id = copyOf[i] = next.takeId(0, operation);
        next.nextGuide_ = copy->id + 1;
        if (copy->parent != 0) copy->parent = copyOf[index().guides.at(copy->parent)];
        copy->tubeTwist = -copy->tubeTwist;
        if (copy->follows()) {
            // A reflected parent keeps T and N and turns B about: so do the parts on them.
            for (Vec3f& offset : copy->offsets) offset = flipped(offset, 1);
            copy->rootLocal = flipped(copy->rootLocal, 1);
            copy->frameUpLocal = flipped(copy->frameUpLocal, 1);
        } else {
            copy->frameUp = flipped(usableUp(copy->points, copy->frameUp), axis);
            for (Vec3f& point : copy->points) point[axis] = 2.0f * plane - point[axis];
            SurfaceHit hit;
            if (scalp && scalp->closestPoint(copy->points.front(), ScalpMesh::kAnyDistance, hit)) {
                const Vec3f shift = hit.position - copy->points.front();
                for (Vec3f& point : copy->points) point += shift;
                copy->points.front() = hit.position;
                copy->root = hit.root();
            } else {
                copy->root = {};
            }
            if (!allFinite(copy->points))
                throw std::invalid_argument(name + ": the copy of guide " +
                                            std::to_string(guides_[i]->id) +
                                            " would leave the range of 32-bit floats");
        }
        next.guides_.push_back(std::move(copy));
    }
    next.reindex();
    GuideEdit edit(next, operation);
    for (auto i = std::uint32_t(firstCopy); i < next.guides_.size(); ++i) {
        if (!next.guides_[i]->follows()) {
            edit.change(i);
        } else {
            Guide& copy = edit.follow(i);
            if (!scalp) copy.root = {};
        }
    }
    edit.commit(scalp);
    *this = std::move(next);
}

}  // namespace corvelle
