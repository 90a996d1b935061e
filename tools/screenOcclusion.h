#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>

#include "model/scalpMesh.h"
#include "tools/toolView.h"

namespace corvelle {

/// What the scalp hides from the camera, for one stroke. Space is cut into cells of 1/4096 of the
/// scalp's diagonal; the answer is that of the cell's centre, so nearby places share it and it does
/// not depend on who asks first. Any thread may ask.
class ScreenOcclusionCache {
public:
    /// `scalp` null or without triangles: hides nothing.
    ScreenOcclusionCache(const ToolView& view, ScalpPtr scalp);
    bool hidden(Vec3f place) const;
    /// weights[i] = 0 where places[i] has a weight and is hidden.
    void maskWeights(std::span<const Vec3f> places, std::span<float> weights) const;

private:
    static constexpr std::size_t kShards = 64;
    struct alignas(64) Shard {
        std::mutex mutex;
        std::unordered_map<std::uint64_t, std::uint8_t> answers;
    };
    bool rayHidden(Vec3f place) const;

    ScalpPtr scalp_;
    Vec3f eye_, towardsEye_;
    bool orthographic_ = false;
    double step_ = 0.0;  ///< cm; 0 hides nothing
    std::array<double, 3> origin_{};
    float bias_ = 0.0f;  ///< cm
    mutable std::array<Shard, kShards> shards_;
};

}  // namespace corvelle
