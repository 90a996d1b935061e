#include "tools/selection.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include "model/elementary.h"
#include "model/guideEdit.h"
#include "model/pointIndex.h"
#include "model/scalpMirror.h"
#include "tools/brushWeight.h"
#include "tools/guideBoxes.h"
#include "tools/scalpSides.h"
#include "tools/screenOcclusion.h"

namespace corvelle {
namespace {

constexpr float kClickExtent = 3.0f;   // pixels, Manhattan
constexpr float kMirrorReach = 0.05f;  // of the scalp's diagonal
constexpr std::size_t kFirstNeighbours = 4;

struct PixelBox {
    double x0, y0, x1, y1;
};

/// Where a box is seen; empty when a corner lies behind the camera.
std::optional<PixelBox> seenBox(const ToolView& view, const GuideBox& box) {
    PixelBox out{1e300, 1e300, -1e300, -1e300};
    for (int corner = 0; corner < 8; ++corner) {
        double x = 0.0, y = 0.0;
        if (!view.project({corner & 1 ? box.high.x : box.low.x, corner & 2 ? box.high.y : box.low.y,
                           corner & 4 ? box.high.z : box.low.z},
                          x, y))
            return {};
        out = {std::min(out.x0, x), std::min(out.y0, y), std::max(out.x1, x), std::max(out.y1, y)};
    }
    return out;
}

bool inside(std::span<const Vec2f> polygon, float x, float y) {
    bool is = false;
    for (std::size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
        const Vec2f a = polygon[i], b = polygon[j];
        if ((a.y > y) != (b.y > y) && x < (b.x - a.x) * (y - a.y) / (b.y - a.y) + a.x) is = !is;
    }
    return is;
}

bool isClick(std::span<const Vec2f> polygon) {
    if (polygon.size() < 3) return true;
    const Vec2f first = polygon.front();
    return std::all_of(polygon.begin(), polygon.end(), [&](Vec2f p) {
        return std::abs(p.x - first.x) + std::abs(p.y - first.y) <= kClickExtent;
    });
}

/// The guides a pick may take, and what hides them.
class Picker {
public:
    Picker(StrokeHost& host, const ToolView& view, const BrushToolSettings& settings,
           const PickOptions& options)
        : view_(view), projector_(pixelProjector(view)), options_(options) {
        const std::shared_ptr<const GuideHierarchy> hierarchy = host.editHierarchy();
        if (!hierarchy) return;
        const std::set<std::string> hidden = host.hiddenGroups();
        const std::set<std::uint32_t> hiddenGroups = hiddenGroupIds(*hierarchy, hidden);
        const std::set<std::uint32_t> inPlay =
            groupsInPlay(*hierarchy, settings.level, settings.group, hidden);
        for (const GuidePtr& guide : hierarchy->guides())
            if (options.anyLevel ? !hiddenGroups.contains(guide->group)
                                 : inPlay.contains(guide->group))
                guides_.push_back(guide);
        if (settings.frontFacingOnly) occlusion_.emplace(view, host.scalp());
    }

    const std::vector<GuidePtr>& guides() const { return guides_; }

    GuideIds click(Vec2f at) const {
        const GuidePtr* best = nullptr;
        float nearest = options_.clickPixels;
        const double reach = double(options_.clickPixels) + 1.0;
        for (const GuidePtr& guide : guides_) {
            const std::span<const Vec3f> points = asked(*guide);
            const std::optional<PixelBox> box = seenBox(view_, boxOf(points));
            if (box && (box->x0 - reach > double(at.x) || box->x1 + reach < double(at.x) ||
                        box->y0 - reach > double(at.y) || box->y1 + reach < double(at.y)))
                continue;
            for (const Vec3f& p : points) {
                float x = 0.0f, y = 0.0f;
                if (!projector_(p, x, y)) continue;
                const float d = math::hypot(x - at.x, y - at.y);
                if (!(d < nearest) || isHidden(p)) continue;
                nearest = d;
                best = &guide;
            }
        }
        return best ? GuideIds{(*best)->id} : GuideIds{};
    }

    GuideIds lasso(std::span<const Vec2f> polygon) const {
        PixelBox range{1e300, 1e300, -1e300, -1e300};
        for (const Vec2f p : polygon)
            range = {std::min(range.x0, double(p.x)), std::min(range.y0, double(p.y)),
                     std::max(range.x1, double(p.x)), std::max(range.y1, double(p.y))};
        GuideIds out;
        for (const GuidePtr& guide : guides_) {
            const std::span<const Vec3f> points = asked(*guide);
            const std::optional<PixelBox> box = seenBox(view_, boxOf(points));
            // A pixel more: points are cut down to whole ones.
            if (box && (box->x0 - 1.0 > range.x1 || box->x1 + 1.0 < range.x0 ||
                        box->y0 - 1.0 > range.y1 || box->y1 + 1.0 < range.y0))
                continue;
            const bool hit = std::any_of(points.begin(), points.end(), [&](const Vec3f& p) {
                float x = 0.0f, y = 0.0f;
                return projector_(p, x, y) && inside(polygon, x, y) && !isHidden(p);
            });
            if (hit) out.insert(guide->id);
        }
        return out;
    }

private:
    std::span<const Vec3f> asked(const Guide& guide) const {
        const std::span<const Vec3f> points = guide.points;
        return options_.rootsOnly ? points.first(std::min<std::size_t>(points.size(), 1)) : points;
    }
    bool isHidden(Vec3f p) const { return occlusion_ && occlusion_->hidden(p); }

    const ToolView& view_;
    std::function<bool(Vec3f, float&, float&)> projector_;
    PickOptions options_;
    std::vector<GuidePtr> guides_;
    std::optional<ScreenOcclusionCache> occlusion_;
};

/// The guide rooted nearest a place within reach, ties to the lower id.
const Guide* nearestRoot(const PointIndex& roots, const std::vector<GuidePtr>& guides, Vec3f place,
                         float reach) {
    for (std::size_t count = kFirstNeighbours;; count *= 4) {
        std::vector<Neighbor> near(std::min(count, guides.size()));
        near.resize(roots.nearest(place, near, reach));
        if (near.empty()) return nullptr;
        // Once a farther one is among them, all that tie for the nearest are.
        const float least = near.front().distanceSquared;
        if (near.back().distanceSquared == least && near.size() == count && count < guides.size())
            continue;
        const Guide* best = nullptr;
        for (const Neighbor& neighbor : near) {
            const Guide* guide = guides[neighbor.index].get();
            if (neighbor.distanceSquared == least && (!best || guide->id < best->id)) best = guide;
        }
        return best;
    }
}

void addMirrored(GuideIds& hit, const std::vector<GuidePtr>& guides, const ScalpPtr& scalp,
                 const BrushToolSettings& settings) {
    if (hit.empty() || !scalp || scalp->triangles().empty()) return;
    std::shared_ptr<const ScalpMirror> mirror;
    if (settings.topology) {
        mirror = ScalpMirror::of(scalp);
        if (!mirror->valid()) return;
    } else if (settings.symmetry < 0 || settings.symmetry > 2) {
        return;
    }
    const SideMap flip = mirror ? SideMap{} : planeMap(settings.symmetry, settings.symmetryCenter);
    std::vector<Vec3f> places;
    for (const GuidePtr& guide : guides) places.push_back(guide->points.front());
    const PointIndex roots(places);
    const float reach = kMirrorReach * distance(scalp->boundsMin(), scalp->boundsMax());
    GuideIds mirrored;
    for (const GuidePtr& guide : guides) {
        if (!hit.contains(guide->id)) continue;
        std::optional<Vec3f> place;
        if (mirror)
            place = mirror->mirroredPlace(*scalp, guide->root);
        else
            place = flip(guide->points.front());
        if (!place) continue;
        if (const Guide* other = nearestRoot(roots, guides, *place, reach))
            mirrored.insert(other->id);
    }
    hit.merge(mirrored);
}

}  // namespace

SelectionMode parseSelectionMode(std::string_view word) {
    constexpr std::array<std::string_view, 4> kWords = {"replace", "add", "toggle", "deselect"};
    const auto found = std::find(kWords.begin(), kWords.end(), word);
    if (found == kWords.end())
        throw std::invalid_argument("a selection mode is replace, add, toggle or deselect, not " +
                                    std::string(word));
    return SelectionMode(found - kWords.begin());
}

GuideIds combineSelection(const GuideIds& selection, const GuideIds& hit, SelectionMode mode) {
    if (mode == SelectionMode::Replace) return hit;
    GuideIds out = selection;
    for (const std::uint64_t id : hit) {
        const bool held = selection.contains(id);
        if (mode == SelectionMode::Add || (mode == SelectionMode::Toggle && !held))
            out.insert(id);
        else
            out.erase(id);
    }
    return out;
}

GuideIds pickGuides(StrokeHost& host, const ToolView& view, std::span<const Vec2f> polygon,
                    const BrushToolSettings& settings, const PickOptions& options) {
    if (polygon.empty()) return {};
    const Picker picker(host, view, settings, options);
    GuideIds hit = isClick(polygon) ? picker.click(polygon.front()) : picker.lasso(polygon);
    addMirrored(hit, picker.guides(), host.scalp(), settings);
    return hit;
}

GuideIds selectLasso(StrokeHost& host, const ToolView& view, std::span<const Vec2f> polygon,
                     SelectionMode mode, const GuideIds& selection,
                     const BrushToolSettings& settings, const PickOptions& options) {
    return combineSelection(selection, pickGuides(host, view, polygon, settings, options), mode);
}

GuideWeights softSelection(const GuideHierarchy& hierarchy, const GuideIds& selection, float radius,
                           const BrushToolSettings& settings) {
    GuideWeights out;
    std::vector<Vec3f> roots;
    for (const std::uint64_t id : selection) {
        const GuidePtr guide = hierarchy.guide(id);
        if (!guide) continue;
        out.emplace(id, 1.0f);
        roots.push_back(guide->points.front());
    }
    if (!(radius > 0.0f) || roots.empty()) return out;
    const PointIndex index(roots);
    const std::set<std::uint32_t> inPlay =
        groupsInPlay(hierarchy, settings.level, settings.group, {});
    for (const GuidePtr& guide : hierarchy.guides()) {
        Neighbor nearest;
        if (!inPlay.contains(guide->group) ||
            !index.nearestOne(guide->points.front(), nearest, radius))
            continue;
        const float weight =
            brushFalloff(std::sqrt(nearest.distanceSquared), radius, 0.0f, nullptr);
        if (weight > 0.0f) out.emplace(guide->id, weight);  // the selected keep their 1
    }
    return out;
}

GuideIds frozenBySelection(const GuideHierarchy& hierarchy, const GuideWeights& weights) {
    GuideIds out;
    if (weights.empty()) return out;
    for (const GuidePtr& guide : hierarchy.guides())
        if (!weights.contains(guide->id)) out.insert(guide->id);
    return out;
}

void soloGuides(GuideHierarchy& hierarchy, const GuideIds& solo, const std::string& attribute) {
    GuideEdit edit(hierarchy, "solo");
    const std::span<const GuidePtr> guides = hierarchy.guides();
    for (std::uint32_t i = 0; i < guides.size(); ++i) {
        const float wanted = solo.contains(guides[i]->id) ? 0.0f : 1.0f;
        const auto found = guides[i]->attributes.find(attribute);
        const float now = found != guides[i]->attributes.end() ? found->second : 0.0f;
        if (now != wanted) edit.change(i).attributes[attribute] = wanted;
    }
    edit.commit();
}

std::set<std::uint32_t> hiddenGroupIds(const GuideHierarchy& hierarchy,
                                       const std::set<std::string>& hidden) {
    std::set<std::uint32_t> out;
    if (hidden.empty()) return out;
    for (const GuideGroup& group : hierarchy.groups()) {
        const GuideGroup* above = &group;
        while (above && !hidden.contains(above->name))
            above = above->parent != 0 ? hierarchy.group(above->parent) : nullptr;
        if (above) out.insert(group.id);
    }
    return out;
}

std::set<std::uint32_t> groupsInPlay(const GuideHierarchy& hierarchy, int level,
                                     const std::string& group,
                                     const std::set<std::string>& hidden) {
    const std::set<std::uint32_t> left = hiddenGroupIds(hierarchy, hidden);
    std::set<std::uint32_t> out;
    for (const GuideGroup& each : hierarchy.groups())
        if (hierarchy.depthOf(each.id) == level && (group.empty() || each.name == group) &&
            !left.contains(each.id))
            out.insert(each.id);
    return out;
}

}  // namespace corvelle
