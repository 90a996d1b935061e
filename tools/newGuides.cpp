#include "tools/newGuides.h"

#include <algorithm>
#include <set>

#include "model/guideFollow.h"
#include "model/polyline.h"
#include "tools/brushEdit.h"
#include "tools/keepOffScalp.h"
#include "tools/strokeErrors.h"

namespace corvelle {
namespace {

constexpr std::size_t kNeighbours = 4;
constexpr std::size_t kTubeValues = 8;  // of a blend of tubes, the nearest having none

/// The layer along a guide; its one value, or 0, where it has none.
float layerAt(const Guide& guide, const std::string& name, float share) {
    const auto along = guide.pointAttributes.find(name);
    if (along != guide.pointAttributes.end() && !along->second.empty())
        return tubeProfile(along->second, share);
    const auto whole = guide.attributes.find(name);
    return whole != guide.attributes.end() ? whole->second : 0.0f;
}

PointIndex indexOf(const std::vector<GuidePtr>& guides) {
    std::vector<Vec3f> roots;
    for (const GuidePtr& guide : guides) roots.push_back(guide->points.front());
    return PointIndex(roots);
}

}  // namespace

NewGuides::NewGuides(const StrokeState& state) {
    const GuideHierarchy& hierarchy = state.hierarchy;
    const BrushToolSettings& settings = state.settings;
    const GuideGroup* group = nullptr;
    if (!settings.group.empty()) {
        group = hierarchy.groupNamed(settings.group);
        if (!group) throw StrokeNotFound("no group named '" + settings.group + "'");
    } else {
        for (const GuideGroup& each : hierarchy.groups())
            if (!group && hierarchy.depthOf(each.id) == settings.level) group = &each;
    }
    if (!group) {  // its name may be taken by a group of another level
        groupName_ = settings.newGuideGroup;
        group = hierarchy.groupNamed(groupName_);
        for (int n = 2; group && group->parent != 0; ++n) {
            groupName_ = settings.newGuideGroup + std::to_string(n);
            group = hierarchy.groupNamed(groupName_);
        }
        if (!group) return;
    }
    group_ = group->id;
    groupName_ = group->name;
    isChild_ = group->parent != 0;
    for (const GuidePtr& guide : hierarchy.guides()) {
        if (guide->group == group_) guides_.push_back(guide);
        if (isChild_ && guide->group == group->parent) parents_.push_back(guide);
    }
    if (isChild_ && parents_.empty())
        throw StrokeStateError("the group '" + groupName_ + "' has no parents to hang a guide on");
    roots_ = indexOf(guides_);
    parentRoots_ = indexOf(parents_);
}

std::vector<NewGuides::Share> NewGuides::neighbours(Vec3f place) const {
    std::array<Neighbor, kNeighbours> near;
    const std::size_t found = roots_.nearest(place, near);
    std::vector<Share> out;
    float whole = 0.0f;
    for (std::size_t k = 0; k < found; ++k) {
        const float weight = 1.0f / std::max(near[k].distanceSquared, 1e-12f);
        out.push_back({guides_[near[k].index].get(), weight});
        whole += weight;
    }
    for (Share& share : out) share.weight /= whole;
    return out;
}

NewGuides::Shape NewGuides::standing(const StrokeState& state, const SurfaceHit& root) const {
    const auto segments = std::size_t(std::max(state.settings.segments, 1));
    const Vec3f normal = state.scalp->surfaceNormal(root.root());
    Shape shape;
    for (std::size_t i = 0; i <= segments; ++i)
        shape.points.push_back(root.position +
                               normal * (state.settings.length * float(i) / float(segments)));
    shape.tubeRadius = state.settings.tubeRadius;
    return shape;
}

NewGuides::Shape NewGuides::matched(const StrokeState& state, const SurfaceHit& root) const {
    const std::vector<Share> near =
        state.settings.matchNeighbors ? neighbours(root.position) : std::vector<Share>();
    if (near.empty()) return standing(state, root);
    const ScalpMesh& scalp = *state.scalp;
    const Vec3f normal = scalp.surfaceNormal(root.root());
    const std::size_t count = near.front().guide->points.size();
    const std::size_t tubeCount =
        std::max(near.front().guide->tubeRadius.size(),
                 near.front().guide->tubeRadius.empty() ? kTubeValues : std::size_t(1));
    Shape shape;
    shape.points.assign(count, Vec3f{});
    std::vector<Vec3f> resampled(count);
    float meanLength = 0.0f;
    bool hasTube = false;
    std::set<std::string> names, pointNames;
    for (const auto& [guide, weight] : near) {
        resamplePolyline(guide->points, resampled);
        const float whole = polylineLength(resampled);
        meanLength += weight * polylineLength(guide->points);
        const Rotation turn = Rotation::shortest(rootNormal(*guide, &scalp), normal);
        const float scale = whole > 0.0f ? weight / whole : 0.0f;
        for (std::size_t i = 0; i < count; ++i)
            shape.points[i] += turn(resampled[i] - resampled[0]) * scale;
        hasTube = hasTube || !guide->tubeRadius.empty();
        shape.tubeTwist += weight * guide->tubeTwist;
        for (const auto& entry : guide->attributes) names.insert(entry.first);
        for (const auto& entry : guide->pointAttributes) pointNames.insert(entry.first);
    }
    const float whole = polylineLength(shape.points);
    if (!(whole > 0.0f)) return standing(state, root);
    for (Vec3f& p : shape.points) p = root.position + p * (meanLength / whole);

    const auto blend = [&](float share, const auto& read) {
        float sum = 0.0f;
        for (const auto& [guide, weight] : near) sum += weight * read(*guide, share);
        return sum;
    };
    const auto at = [](std::size_t i, std::size_t n) {
        return n > 1 ? float(i) / float(n - 1) : 0.0f;
    };
    for (std::size_t j = 0; hasTube && j < tubeCount; ++j)
        shape.tubeRadius.push_back(blend(at(j, tubeCount), [](const Guide& guide, float share) {
            return tubeProfile(guide.tubeRadius, share);
        }));
    names.erase(state.settings.freezeAttribute);
    pointNames.erase(state.settings.freezeAttribute);
    for (const std::string& name : pointNames) {
        names.erase(name);
        std::vector<float>& values = shape.pointAttributes[name];
        for (std::size_t i = 0; i < count; ++i)
            values.push_back(blend(at(i, count), [&](const Guide& guide, float share) {
                return layerAt(guide, name, share);
            }));
    }
    for (const std::string& name : names)
        shape.attributes[name] = blend(
            0.0f, [&](const Guide& guide, float share) { return layerAt(guide, name, share); });
    return shape;
}

NewGuides::Shape NewGuides::drawn(const StrokeState& state, const SurfaceHit& root,
                                  std::vector<Vec3f> points) const {
    Shape shape = matched(state, root);
    for (auto& [name, values] : shape.pointAttributes) {
        std::vector<float> resampled;
        for (std::size_t i = 0; i < points.size(); ++i)
            resampled.push_back(tubeProfile(values, float(i) / float(points.size() - 1)));
        values = std::move(resampled);
    }
    shape.points = std::move(points);
    return shape;
}

std::uint64_t NewGuides::addOne(StrokeState& state, const SurfaceHit& root, Shape shape,
                                const SideMap* flipped) const {
    GuideHierarchy& hierarchy = state.hierarchy;
    if (state.settings.collide)
        keepOffScalp(shape.points, *state.scalp, state.settings.collideOffset, root.triangle);
    std::uint32_t group = group_;
    if (group == 0) {
        const GuideGroup* made = hierarchy.groupNamed(groupName_);
        group = made ? made->id : hierarchy.addGroup(groupName_, 0);
        if (hierarchy.scalpTopology() == 0) hierarchy.setScalpTopology(state.scalp->topologyHash());
    }
    if (hierarchy.empty()) hierarchy.setScalpTopology(state.scalp->topologyHash());
    std::uint64_t id = 0;
    if (isChild_) {
        Neighbor parent;
        if (!parentRoots_.nearestOne(root.position, parent)) return 0;
        id = hierarchy.addChildGuide(group, parents_[parent.index]->id, std::move(shape.points), 0);
        hierarchy.setRoot(id, root.root());
    } else {
        id = hierarchy.addGuide(group, root.root(), std::move(shape.points), 0, state.scalp.get());
    }
    if (flipped) {
        const GuidePtr guide = hierarchy.guide(id);
        hierarchy.setFrameUp(id, flipped->direction(usableUp(guide->points, guide->frameUp)));
        shape.tubeTwist = -shape.tubeTwist;
    }
    if (!shape.tubeRadius.empty() || shape.tubeTwist != 0.0f)
        hierarchy.setTube(id, shape.tubeRadius, shape.tubeTwist);
    for (const auto& [name, value] : shape.attributes) hierarchy.setAttribute(id, name, value);
    for (const auto& [name, values] : shape.pointAttributes)
        hierarchy.setPointAttribute(id, name, values);
    state.newGuides.insert(id);
    state.edited = state.hierarchyStale = true;
    return id;
}

std::vector<std::uint64_t> NewGuides::add(StrokeState& state, const SurfaceHit& root,
                                          const Shape& shape) const {
    std::vector<std::uint64_t> out{addOne(state, root, shape, nullptr)};
    const std::optional<OtherSide> side = otherSide(state, root.position);
    SurfaceHit other;
    if (!side ||
        !state.scalp->closestPoint(side->toOther(root.position), ScalpMesh::kAnyDistance, other))
        return out;
    if (distance(other.position, root.position) <= 0.25f * state.settings.spacing) return out;
    Shape flipped = shape;
    const Vec3f start = side->toOther(shape.points.front());
    for (Vec3f& p : flipped.points) p = side->toOther(p) - start + other.position;
    out.push_back(addOne(state, other, std::move(flipped), &side->toOther));
    return out;
}

}  // namespace corvelle
