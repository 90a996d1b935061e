#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

/// What a guide carries beside its curve. Shared between the guide sets that hold the guide
/// unchanged.
struct GuideDetail {
    std::uint64_t parent = 0;       ///< parent guide's id, 0 for a primary guide
    std::uint32_t group = 0;        ///< group id, 0 for a flat guide
    std::int32_t level = 0;         ///< depth of the group, 0 for a root group
    Vec3f frameUp;                  ///< zero: none
    std::vector<float> tubeRadius;  ///< profile root to tip; empty counts as 1
    float tubeTwist = 0.0f;         ///< radians
    std::map<std::string, float, std::less<>> attributes;
    std::map<std::string, std::vector<float>, std::less<>> pointAttributes;
    friend bool operator==(const GuideDetail&, const GuideDetail&) = default;
};

/// One curve for building a set.
struct GuideCurve {
    std::uint64_t id = 0;  ///< positive, unique in a set
    StrandRoot root;
    std::vector<Vec3f> points;                  ///< 2 or more, root first
    std::shared_ptr<const GuideDetail> detail;  ///< null: plain
};

/// One curve of a set, its points lying elsewhere.
struct GuideView {
    std::uint64_t id = 0;
    StrandRoot root;
    std::span<const Vec3f> points;
    std::shared_ptr<const GuideDetail> detail;  ///< null: plain
    std::uint64_t hash = 0;  ///< `guideHash` of the above where it is known, else 0
};

/// The hash of all that a curve of a set holds. Never 0.
std::uint64_t guideHash(std::uint64_t id, const StrandRoot& root, std::span<const Vec3f> points,
                        const GuideDetail& detail);

/// A hash of floats by their bits, four chains side by side: for content, not for drawing numbers.
std::uint64_t hashFloatBits(std::uint64_t h, const float* values, std::size_t count);
inline std::uint64_t hashPointBits(std::uint64_t h, std::span<const Vec3f> points) {
    return hashFloatBits(h, points.empty() ? nullptr : &points.front().x, 3 * points.size());
}

/// The guides as operators see them: an immutable, flat snapshot, shared by pointer to const.
/// Shapes: ids, roots [n]; offsets [n + 1]; points [offsets[n]]. Groom space. Any thread may read.
class GuideSet {
public:
    GuideSet() : GuideSet(std::span<const GuideView>()) {}
    /// Throws std::invalid_argument for an id of 0, a repeated id or fewer than 2 points.
    explicit GuideSet(const std::vector<GuideCurve>& curves);
    explicit GuideSet(std::span<const GuideView> curves);

    std::size_t size() const { return ids_.size(); }
    bool empty() const { return ids_.empty(); }
    std::span<const std::uint64_t> ids() const { return ids_; }
    std::span<const StrandRoot> roots() const { return roots_; }
    std::span<const std::uint64_t> offsets() const { return offsets_; }
    std::span<const Vec3f> points() const { return points_; }
    std::span<const Vec3f> pointsOf(std::size_t guide) const {
        return std::span(points_).subspan(std::size_t(offsets_[guide]),
                                          std::size_t(offsets_[guide + 1] - offsets_[guide]));
    }
    const GuideDetail& detail(std::size_t guide) const { return *details_[guide]; }

    /// One hash a guide over everything it holds: how changed guides are found.
    std::span<const std::uint64_t> hashes() const { return hashes_; }
    /// Over the ids, roots and first points alone: unchanged while a brush moves points.
    std::uint64_t rootsHash() const { return rootsHash_; }
    std::uint64_t contentHash() const { return contentHash_; }

    /// Index of an id, or size() for none.
    std::size_t indexOf(std::uint64_t id) const;
    /// All names that any guide carries, ascending.
    const std::vector<std::string>& attributeNames() const { return attributeNames_; }
    const std::vector<std::string>& pointAttributeNames() const { return pointAttributeNames_; }
    /// Of either kind.
    bool hasAttribute(std::string_view name) const;
    /// 0 where the guide has none.
    float attribute(std::size_t guide, std::string_view name) const;
    /// At a share 0..1 of the guide by point index, straight between points; 0 where it has none.
    float pointAttribute(std::size_t guide, std::string_view name, float share) const;

    std::vector<GuideCurve> curves() const;
    friend bool operator==(const GuideSet& a, const GuideSet& b) {
        return a.contentHash_ == b.contentHash_;
    }

private:
    std::vector<std::uint64_t> ids_;
    std::vector<StrandRoot> roots_;
    std::vector<std::uint64_t> offsets_{0};
    std::vector<Vec3f> points_;
    std::vector<std::shared_ptr<const GuideDetail>> details_;
    std::vector<std::uint64_t> hashes_;
    std::vector<std::uint32_t> slots_;  ///< open addressing by mixed id: guide + 1, 0 empty
    std::vector<std::string> attributeNames_, pointAttributeNames_;
    std::uint64_t rootsHash_ = 0;
    std::uint64_t contentHash_ = 0;
};
using GuidesPtr = std::shared_ptr<const GuideSet>;

}  // namespace corvelle
