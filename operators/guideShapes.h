#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "model/guideSet.h"

namespace corvelle {

/// All guides of a set sampled at the same number of points, evenly by arc length, as strands of
/// that many points blend them: each guide's points relative to its root, an array a coordinate,
/// and turned by half a turn about the guide's normal. Two half turns about axes that lie half an
/// angle apart are one turn by the whole angle, so what is left to do for a strand is one half turn
/// about the middle of both normals: a symmetric matrix, cheap to make for every pair.
/// Shapes: stride = points rounded up to eights, the rest zeros; xyz [guides][3][stride];
///         lengths, normals, hashes [guides]; attributes [pointAttributeNames][guides][stride].
struct GuideShapes {
    std::size_t points = 0;
    std::size_t stride = 0;
    bool smooth = true;
    std::vector<float> xyz;
    std::vector<float> lengths;  ///< cm, of the curve that was sampled
    std::vector<float> attributes;
    std::vector<std::string> attributeNames;
    std::vector<Vec3f> normals;         ///< of the guides, unit, as they were turned
    std::vector<std::uint64_t> hashes;  ///< of the guides as they were sampled

    const float* of(std::size_t guide) const { return xyz.data() + guide * 3 * stride; }
    const float* attributesOf(std::size_t name, std::size_t guide) const {
        return attributes.data() + (name * lengths.size() + guide) * stride;
    }
};
using GuideShapesPtr = std::shared_ptr<const GuideShapes>;

/// The guide as it is followed: with `smooth` a centripetal Catmull-Rom curve through its points,
/// fine enough for `points` samples, else as it stands (also below 3 points). Samples it at equal
/// shares of arc length. `scratch` is the caller's, to be reused. Returns the curve's length, cm.
float sampleGuide(std::span<const Vec3f> guide, bool smooth, std::span<Vec3f> out,
                  std::vector<Vec3f>& scratch);

/// A half turn about the unit `axis`.
inline Vec3f halfTurn(Vec3f axis, Vec3f p) { return axis * (2.0f * dot(axis, p)) - p; }

/// The shapes made last, by point count. A guide of unchanged hash and normal is not sampled again.
/// Any thread may ask; the mutex is held only while entries are moved.
class GuideShapeCache {
public:
    /// One entry for each of `counts` (ascending, 1 or more each), in that order; others are
    /// dropped.
    std::vector<GuideShapesPtr> shapes(const GuideSet& guides, std::span<const Vec3f> normals,
                                       std::span<const std::size_t> counts, bool smooth);
    void copyFrom(const GuideShapeCache& other);

private:
    mutable std::mutex mutex_;
    std::map<std::size_t, std::shared_ptr<GuideShapes>> held_;
};

}  // namespace corvelle
