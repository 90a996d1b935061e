#include "tools/screenOcclusion.h"

#include <algorithm>
#include <cmath>

#include "model/hash.h"

namespace corvelle {
namespace {

constexpr double kCellsPerDiagonal = 4096.0;
constexpr double kDiagonalsBelow = 64.0;  // from the scalp's box to where cells begin
constexpr float kBiasDiagonals = 0.002f;  // a scalp nearer than this hides nothing
constexpr std::int64_t kLastCell = (std::int64_t(1) << 21) - 1;

}  // namespace

ScreenOcclusionCache::ScreenOcclusionCache(const ToolView& view, ScalpPtr scalp)
    : scalp_(std::move(scalp)),
      eye_(view.cameraPosition),
      towardsEye_(-view.pickDirection),
      orthographic_(view.isOrthographic) {
    if (!scalp_ || scalp_->triangles().empty()) return;
    scalp_->prepareQueries();
    const Vec3f low = scalp_->boundsMin();
    const double diagonal = double(distance(low, scalp_->boundsMax()));
    if (!(diagonal > 0.0) || !std::isfinite(diagonal)) return;
    step_ = diagonal / kCellsPerDiagonal;
    for (int k = 0; k < 3; ++k)
        origin_[std::size_t(k)] = double(low[k]) - kDiagonalsBelow * diagonal;
    bias_ = kBiasDiagonals * float(diagonal);
}

bool ScreenOcclusionCache::rayHidden(Vec3f place) const {
    Vec3f direction = towardsEye_;
    float reach = ScalpMesh::kAnyDistance;
    if (!orthographic_) {
        const Vec3f way = eye_ - place;
        reach = length(way);
        if (!(reach > bias_)) return false;
        direction = way / reach;
        reach -= bias_;
    }
    SurfaceHit hit;
    return scalp_->rayIntersect(place + direction * bias_, direction, hit) && hit.distance < reach;
}

bool ScreenOcclusionCache::hidden(Vec3f place) const {
    if (step_ == 0.0 || !isFinite(place)) return false;
    std::array<std::uint64_t, 3> cell;
    Vec3f center;
    for (int k = 0; k < 3; ++k) {
        const double origin = origin_[std::size_t(k)];
        const double at = std::floor((double(place[k]) - origin) / step_);
        const double kept = std::clamp(at, 0.0, double(kLastCell));
        cell[std::size_t(k)] = std::uint64_t(kept);
        center[k] = float(origin + (kept + 0.5) * step_);
    }
    const std::uint64_t key = (cell[2] << 42) | (cell[1] << 21) | cell[0];
    Shard& shard = shards_[mix64(key) % kShards];
    {
        const std::lock_guard lock(shard.mutex);
        const auto found = shard.answers.find(key);
        if (found != shard.answers.end()) return found->second != 0;
    }
    const bool answer = rayHidden(center);
    const std::lock_guard lock(shard.mutex);
    shard.answers.emplace(key, std::uint8_t(answer));
    return answer;
}

void ScreenOcclusionCache::maskWeights(std::span<const Vec3f> places,
                                       std::span<float> weights) const {
    for (std::size_t i = 0; i < places.size(); ++i)
        if (weights[i] > 0.0f && hidden(places[i])) weights[i] = 0.0f;
}

}  // namespace corvelle
