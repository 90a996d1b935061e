#include "tools/guideStamp.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <unordered_map>

#include "model/guideFollow.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "tools/keepOffScalp.h"

namespace corvelle {
namespace {

constexpr std::size_t kGuideGrain = 8;
constexpr std::size_t kNeighbours = 4;  // whose values a layer is smoothed by

bool sameBits(std::span<const Vec3f> a, std::span<const Vec3f> b) {
    const auto bits = [](float v) { return std::bit_cast<std::uint32_t>(v); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](Vec3f p, Vec3f q) {
        return bits(p.x) == bits(q.x) && bits(p.y) == bits(q.y) && bits(p.z) == bits(q.z);
    });
}

float layerValue(const Guide& guide, const std::string& name) {
    const auto along = guide.pointAttributes.find(name);
    if (along != guide.pointAttributes.end() && !along->second.empty()) {
        float sum = 0.0f;
        for (const float v : along->second) sum += v;
        return sum / float(along->second.size());
    }
    const auto whole = guide.attributes.find(name);
    return whole != guide.attributes.end() ? whole->second : 0.0f;
}

}  // namespace

GuideStamper::GuideStamper(GuideHierarchy& hierarchy, std::vector<GuideCandidate> candidates,
                           const ScalpMesh* scalp, bool chained)
    : hierarchy_(hierarchy),
      candidates_(std::move(candidates)),
      scalp_(scalp && !scalp->triangles().empty() ? scalp : nullptr),
      chained_(chained) {
    if (scalp_) scalp_->prepareQueries();
    layOut();
}

void GuideStamper::layOut() {
    std::vector<GuideBox> boxes;
    boxes.reserve(candidates_.size());
    seen_.clear();
    for (const GuideCandidate& candidate : candidates_) {
        const GuidePtr& guide = hierarchy_.guides()[candidate.index];
        boxes.push_back(boxOf(guide->points));
        if (chained_) seen_.push_back(guide);
    }
    boxes_ = GuideBoxes(boxes);
}

const Guide& GuideStamper::guide(const GuideCandidate& candidate) const {
    return edit_ ? edit_->at(candidate.index) : *hierarchy_.guides()[candidate.index];
}

GuideEdit& GuideStamper::edit() {
    if (!edit_) edit_ = std::make_unique<GuideEdit>(hierarchy_, "brush");
    return *edit_;
}

void GuideStamper::work(const BrushToolSettings& settings, const BrushStamp& stamp, Vec3f drag) {
    boxes_.reached(stamp, reached_);
    guides_.clear();
    for (const std::uint32_t item : reached_) guides_.push_back(&guide(candidates_[item]));
    if (edits_.size() < reached_.size()) edits_.resize(reached_.size());
    const auto body = [&](std::size_t begin, std::size_t end) {
        BrushScratch scratch;
        for (std::size_t i = begin; i < end; ++i) {
            const Guide& guide = *guides_[i];
            brushEdit(guide, scalp_, settings, stamp, stamp.center, drag, scratch, edits_[i],
                      candidates_[reached_[i]].scale);
            if (settings.collide && scalp_ && edits_[i].movesOnly())
                keepOffScalp(edits_[i].points, *scalp_, settings.collideOffset,
                             guide.root.triangle);
        }
    };
    if (stamp.threadSafe())
        parallelRange(0, reached_.size(), kGuideGrain, body);
    else
        body(0, reached_.size());
}

bool GuideStamper::apply(const BrushToolSettings& settings, std::uint32_t item, BrushEdit& edit) {
    const std::uint32_t index = candidates_[item].index;
    bool changed = false;
    if (!edit.points.empty()) {
        const Guide& before = guide(candidates_[item]);
        const bool finite = allFinite(edit.points);
        if (finite && !sameBits(edit.points, before.points)) {
            const bool slides = settings.mode == BrushMode::Slide;
            SurfaceHit hit;
            Guide& guide = this->edit().shape(index, true, slides);
            if (slides && scalp_ &&
                scalp_->closestPointFrom(edit.points[0], ScalpMesh::kAnyDistance,
                                         guide.root.triangle, hit)) {
                const Vec3f normal = normalized(rootNormal(guide, scalp_));
                const Vec3f up = usableUp(guide.points, guide.frameUp);
                guide.root = hit.root();
                guide.frameUp =
                    Rotation::shortest(normal, normalized(scalp_->surfaceNormal(guide.root)))(up);
            }
            std::swap(guide.points, edit.points);
            boxes_.update(item, boxOf(guide.points));
            changed = true;
        }
    }
    if (!edit.tube.empty() && allFinite(edit.tube)) {
        this->edit().move(index).tubeRadius = edit.tube;  // followers stand in the tube
        changed = true;
    }
    if (std::isfinite(edit.attributeValue)) {
        const auto found = guide(candidates_[item]).attributes.find(settings.attribute);
        if (found == guide(candidates_[item]).attributes.end() ||
            found->second != edit.attributeValue) {
            this->edit().change(index).attributes[settings.attribute] = edit.attributeValue;
            changed = true;
        }
    }
    if (!edit.pointWeights.empty()) {
        Guide& guide = this->edit().change(index);
        std::vector<float>& values = guide.pointAttributes[settings.attribute];
        if (values.size() != guide.points.size()) {
            const auto whole = guide.attributes.find(settings.attribute);
            values.assign(guide.points.size(),
                          whole != guide.attributes.end() ? whole->second : 0.0f);
        }
        guide.attributes.erase(settings.attribute);  // one layer, one truth
        for (std::size_t i = 0; i < values.size(); ++i)
            values[i] += (settings.value - values[i]) * std::min(edit.pointWeights[i], 1.0f);
        changed = true;
    }
    if (changed) touched_.insert(candidates_[item].id);
    return changed;
}

std::size_t GuideStamper::stamp(const BrushToolSettings& settings, const BrushStamp& stamp,
                                Vec3f drag) {
    work(settings, stamp, drag);
    std::size_t count = 0;
    std::vector<std::uint64_t> erased;
    for (std::size_t i = 0; i < reached_.size(); ++i) {
        BrushEdit& edit = edits_[i];
        if (edit.erase)
            erased.push_back(candidates_[reached_[i]].id);
        else if (!edit.empty() && apply(settings, reached_[i], edit))
            ++count;
    }
    boxes_.refit();
    count += erased.size();
    if (!erased.empty()) erase(erased);
    if (chained_) commit();
    return count;
}

std::size_t GuideStamper::smoothLayer(const BrushToolSettings& settings, const BrushStamp& stamp,
                                      float strength) {
    boxes_.reached(stamp, reached_);
    if (reached_.empty()) return 0;
    // Among all candidates: what the brush does not reach pulls too.
    std::vector<Vec3f> roots;
    std::vector<float> values;
    for (const GuideCandidate& candidate : candidates_) {
        roots.push_back(guide(candidate).points.front());
        values.push_back(layerValue(guide(candidate), settings.attribute));
    }
    const PointIndex index(roots);
    std::vector<float> weights;
    std::size_t count = 0;
    for (const std::uint32_t item : reached_) {
        const Guide& before = guide(candidates_[item]);
        weights.resize(before.points.size());
        stamp.weights(before.points, weights);
        const float most = *std::max_element(weights.begin(), weights.end());
        const float a = std::min(most * candidates_[item].scale * std::abs(strength), 1.0f);
        if (!(a > 0.0f)) continue;
        std::array<Neighbor, kNeighbours + 1> near;
        const std::size_t found = index.nearest(roots[item], near);
        double sum = 0.0, whole = 0.0;
        for (std::size_t k = 0; k < found; ++k) {
            if (near[k].index == item) continue;
            const double w = 1.0 / std::max(double(near[k].distanceSquared), 1e-12);
            sum += w * double(values[near[k].index]);
            whole += w;
        }
        if (!(whole > 0.0)) continue;
        const float step = (float(sum / whole) - values[item]) * a;
        if (step == 0.0f) continue;
        Guide& guide = edit().change(candidates_[item].index);
        const auto along = guide.pointAttributes.find(settings.attribute);
        if (along != guide.pointAttributes.end())
            for (float& v : along->second) v += step;
        else
            guide.attributes[settings.attribute] = values[item] + step;
        touched_.insert(guide.id);
        ++count;
    }
    return count;
}

void GuideStamper::erase(const std::vector<std::uint64_t>& ids) {
    if (edit_) edit_->commit();
    edit_.reset();
    // A guide may go with its parent, which the same stamp erases.
    hierarchy_.removeGuides(ids);
    std::unordered_map<std::uint64_t, std::uint32_t> indexOf;
    for (std::uint32_t i = 0; i < hierarchy_.size(); ++i)
        indexOf.emplace(hierarchy_.guides()[i]->id, i);
    std::erase_if(candidates_, [&](GuideCandidate& candidate) {
        const auto found = indexOf.find(candidate.id);
        if (found == indexOf.end()) return true;
        candidate.index = found->second;
        return false;
    });
    std::erase_if(touched_, [&](std::uint64_t id) { return !indexOf.contains(id); });
    layOut();
}

void GuideStamper::commit() {
    if (!edit_) return;
    edit_->commit();
    edit_.reset();
    if (!chained_) return;
    for (std::uint32_t item = 0; item < candidates_.size(); ++item) {
        const GuidePtr& now = hierarchy_.guides()[candidates_[item].index];
        if (now == seen_[item]) continue;
        boxes_.update(item, boxOf(now->points));
        seen_[item] = now;
    }
    boxes_.refit();
}

}  // namespace corvelle
