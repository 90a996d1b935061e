#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "hosts/blender/helper/answerPool.h"
#include "tools/hover.h"

namespace corvelle {

/// What the brush draws over the scene: its ring, the path of the pen, the guide under the pointer.
/// Line pairs; the arrays are written again only when they differ from what lies in the pool.
class Overlay {
public:
    /// Starts anew with the brush's ring.
    void begin(const BrushRing& ring, const std::array<float, 3>& ringColor);
    /// Pairs of points, groom space.
    void addLines(std::span<const Vec3f> pairs, const std::array<float, 3>& color);
    /// Ends what `begin` began. `pool` must be this overlay's own. The answer is in host space.
    Json json(AnswerPool& pool, const SceneSpace& space);
    std::uint64_t version() const { return version_; }

private:
    BrushRing ring_;
    std::array<float, 3> ringColor_{};
    std::vector<Vec3f> points_, colors_;
    std::uint64_t version_ = 0, hash_ = 0;
    Json arrays_;  ///< references into the pool; null: none written
};

}  // namespace corvelle
