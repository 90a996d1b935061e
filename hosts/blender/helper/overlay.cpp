#include "hosts/blender/helper/overlay.h"

#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/guideSet.h"
#include "model/hash.h"

namespace corvelle {
namespace {

constexpr int kRingSegments = 64;

Json list(Vec3f v) { return {v.x, v.y, v.z}; }

}  // namespace

void Overlay::begin(const BrushRing& ring, const std::array<float, 3>& ringColor) {
    ring_ = ring;
    ringColor_ = ringColor;
    points_.clear();
    colors_.clear();
    if (!ring.valid || !(ring.radius > 0.0f)) return;
    // Any two axes square to the normal and to each other.
    const Vec3f n = normalized(ring.normal);
    const Vec3f other = std::fabs(n.x) < 0.7f ? Vec3f{1, 0, 0} : Vec3f{0, 1, 0};
    const Vec3f a = normalized(cross(n, other)), b = cross(n, a);
    std::vector<Vec3f> pairs;
    const auto at = [&](int i) {
        const float angle =
            2.0f * std::numbers::pi_v<float> * float(i % kRingSegments) / kRingSegments;
        return ring.center + (a * math::cos(angle) + b * math::sin(angle)) * ring.radius;
    };
    for (int i = 0; i < kRingSegments; ++i) {
        pairs.push_back(at(i));
        pairs.push_back(at(i + 1));
    }
    addLines(pairs, ringColor);
}

void Overlay::addLines(std::span<const Vec3f> pairs, const std::array<float, 3>& color) {
    points_.insert(points_.end(), pairs.begin(), pairs.end());
    colors_.resize(points_.size(), Vec3f{color[0], color[1], color[2]});
}

Json Overlay::json(AnswerPool& pool, const SceneSpace& space) {
    std::vector<Vec3f> points(points_.size());
    for (std::size_t i = 0; i < points.size(); ++i) points[i] = space.pointToHost(points_[i]);
    const std::uint64_t hash = hashPointBits(hashPointBits(mix64(points.size()), points), colors_);
    if (hash != hash_ || version_ == 0) {
        ++version_;
        hash_ = hash;
        arrays_ = nullptr;
    }
    if (arrays_.is_null() && !points.empty()) {
        pool.prepare(2 * AnswerPool::bytesOf(points.size(), sizeof(Vec3f)));
        arrays_ = {{"positions", writePoints(pool, points, space, true)},
                   {"colors", writePoints(pool, colors_, space, true)}};
    }
    Json out{{"valid", ring_.valid},
             {"center", list(space.pointToHost(ring_.center))},
             {"radius", space.lengthToHost(ring_.radius)},
             {"normal", list(space.directionToHost(ring_.normal))},
             {"onScalp", ring_.onScalp},
             {"screenRadius", ring_.screenRadius},
             {"color", ringColor_},
             {"version", version_},
             {"vertexCount", points.size()}};
    if (!points.empty()) out["arrays"] = arrays_;
    return out;
}

}  // namespace corvelle
