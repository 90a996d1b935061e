#include "model/correctiveApply.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

#include "model/guideFollow.h"
#include "model/polyline.h"

namespace corvelle {
namespace {

using Edit = std::pair<std::uint64_t, std::vector<Vec3f>>;

constexpr float kDropShare = 0.0001f;  ///< of a guide's length: offsets below leave no trace

/// Point `i` of `count`, read from a list of another length at the same share.
Vec3f atShare(std::span<const Vec3f> list, std::size_t i, std::size_t count) {
    if (list.size() == count) return list[i];
    if (list.size() == 1 || count < 2) return list.front();
    const double place = double(i) * double(list.size() - 1) / double(count - 1);
    const std::size_t low = std::min(std::size_t(place), list.size() - 2);
    return mix(list[low], list[low + 1], float(place - double(low)));
}

/// A guide's points with offsets times weights added.
std::vector<Vec3f> moved(const Guide& guide, const Correctives& correctives,
                         std::span<const float> weights, const ScalpMesh* scalp) {
    std::vector<Vec3f> points = guide.points;
    const CorrectiveFrame frame = correctiveFrame(scalp, guide.root);
    for (std::size_t l = 0; l < correctives.layers.size(); ++l) {
        if (weights[l] == 0.0f) continue;
        const auto found = correctives.layers[l].offsets.find(guide.id);
        if (found == correctives.layers[l].offsets.end() || found->second.empty()) continue;
        for (std::size_t i = 0; i < points.size(); ++i)
            points[i] += frame.direction(atShare(found->second, i, points.size())) * weights[l];
    }
    return points;
}

/// Ids by the depth of their guide, ascending in both; ids of no guide are left out.
std::map<int, std::vector<std::uint64_t>> byDepth(const GuideHierarchy& guides,
                                                  std::vector<std::uint64_t> ids) {
    std::ranges::sort(ids);
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    std::map<int, std::vector<std::uint64_t>> levels;
    for (const std::uint64_t id : ids)
        if (const GuidePtr guide = guides.guide(id))
            levels[guides.depthOf(guide->group)].push_back(id);
    return levels;
}

/// The guides that layers of a weight move.
std::vector<std::uint64_t> corrected(const Correctives& correctives,
                                     std::span<const float> weights) {
    std::vector<std::uint64_t> ids;
    for (std::size_t l = 0; l < correctives.layers.size(); ++l)
        if (weights[l] != 0.0f)
            for (const auto& [id, offsets] : correctives.layers[l].offsets) ids.push_back(id);
    return ids;
}

}  // namespace

CorrectiveFrame correctiveFrame(const ScalpMesh* scalp, const StrandRoot& root) {
    CorrectiveFrame frame;
    if (!scalp || !scalp->validRoot(root)) return frame;
    const Triangle& triangle = scalp->triangles()[std::size_t(root.triangle)];
    const auto corner = [&](int c) {
        return scalp->points()[std::size_t(triangle[std::size_t(c)])];
    };
    const Vec3f normal = scalp->faceNormal(root.triangle);
    const Vec3f edge = normalized(corner(1) - corner(0));
    if (normal == Vec3f{} || edge == Vec3f{}) return frame;
    return {edge, cross(normal, edge), normal};
}

std::vector<float> correctiveWeights(const Correctives& correctives, double frame) {
    std::vector<float> weights;
    weights.reserve(correctives.layers.size());
    for (const CorrectiveLayer& layer : correctives.layers) {
        const float weight = layer.offsets.empty() ? 0.0f : float(correctiveWeight(layer, frame));
        weights.push_back(std::isfinite(weight) ? weight : 0.0f);
    }
    return weights;
}

std::shared_ptr<const GuideHierarchy> applyCorrectives(
    const std::shared_ptr<const GuideHierarchy>& guides, const Correctives& correctives,
    std::span<const float> weights, const ScalpMesh* scalp) {
    const auto levels = byDepth(*guides, corrected(correctives, weights));
    if (levels.empty()) return guides;
    auto out = std::make_shared<GuideHierarchy>(*guides);
    std::vector<Edit> edits;
    for (const auto& [depth, ids] : levels) {
        edits.clear();
        for (const std::uint64_t id : ids) {
            const GuidePtr guide = out->guide(id);
            std::vector<Vec3f> points = moved(*guide, correctives, weights, scalp);
            if (allFinite(points) && points != guide->points)
                edits.emplace_back(id, std::move(points));
        }
        out->setPoints(edits);
    }
    return out;
}

void checkCorrectiveWeight(const CorrectiveLayer& layer, double frame) {
    if (correctiveWeight(layer, frame) < kLeastCorrectiveWeight)
        throw std::invalid_argument(
            "corrective layer '" + layer.name +
            "' has no weight on this frame: raise its weight (and key it) to "
            "sculpt here");
}

CorrectiveLayer correctedLayer(const Correctives& correctives, std::size_t layer, double frame,
                               const std::shared_ptr<const GuideHierarchy>& bare,
                               const GuideHierarchy& edited, std::span<const std::uint64_t> touched,
                               const ScalpMesh* scalp) {
    CorrectiveLayer result = correctives.layers.at(layer);
    checkCorrectiveWeight(result, frame);
    const std::vector<float> all = correctiveWeights(correctives, frame);
    std::vector<float> others = all;
    others[layer] = 0.0f;
    const float weight = float(correctiveWeight(result, frame));

    // Applied again, parents first, with touched guides put where the stroke left them: what then
    // lacks at a touched guide is its new offset.
    std::vector<std::uint64_t> ids = corrected(correctives, all);
    ids.insert(ids.end(), touched.begin(), touched.end());
    std::vector<std::uint64_t> hit(touched.begin(), touched.end());
    std::ranges::sort(hit);
    GuideHierarchy replay = *bare;
    std::vector<Edit> edits;
    for (const auto& [depth, level] : byDepth(*bare, std::move(ids))) {
        edits.clear();
        for (const std::uint64_t id : level) {
            const GuidePtr guide = replay.guide(id);
            const GuidePtr goal = std::ranges::binary_search(hit, id) ? edited.guide(id) : nullptr;
            if (!goal) {
                std::vector<Vec3f> points = moved(*guide, correctives, all, scalp);
                if (allFinite(points)) edits.emplace_back(id, std::move(points));
                continue;
            }
            const std::vector<Vec3f> without = moved(*guide, correctives, others, scalp);
            const CorrectiveFrame axes = correctiveFrame(scalp, guide->root);
            std::vector<Vec3f> points(without.size()), offsets(without.size());
            float longest = 0.0f;
            for (std::size_t i = 0; i < points.size(); ++i) {
                points[i] = atShare(goal->points, i, points.size());
                offsets[i] = axes.offset(points[i] - without[i]) / weight;
                longest = std::max(longest, lengthSquared(offsets[i]));
            }
            const float least = kDropShare * polylineLength(guide->points);
            if (!allFinite(offsets) || longest < least * least || longest == 0.0f)
                result.offsets.erase(id);
            else
                result.offsets[id] = std::move(offsets);
            if (allFinite(points)) edits.emplace_back(id, std::move(points));
        }
        replay.setPoints(edits);
    }
    return result;
}

}  // namespace corvelle
