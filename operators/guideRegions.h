#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/pointIndex.h"
#include "model/vec3f.h"

namespace corvelle {

/// The regions of a scalp painted in colors, as the guides rooted on it name them.
///
/// Each distinct color that a guide is rooted on is a region; colors within kSameColor of each
/// other in linear RGB are one. Regions are numbered by ascending color (red, then green, then
/// blue), so the numbers do not depend on the order of guides. A component that is no number is 0.
/// Immutable, any thread may read.
class GuideRegions {
public:
    static constexpr float kSameColor = 0.1f;
    /// Colors as (r, g, b). Shapes: colors [guides].
    explicit GuideRegions(std::span<const Vec3f> colors);
    std::size_t count() const { return regions_.size(); }
    /// The region's color: of the lowest of its guides.
    Vec3f color(std::size_t region) const { return regions_[region]; }
    /// [guides], 0 and up.
    const std::vector<std::int32_t>& ofGuides() const { return ofGuides_; }
    /// The region of a place painted in `color`: the nearest in color, also in soft paint between
    /// two of them; -1 when the color is farther than kSameColor from every region's and from every
    /// straight mix of two.
    std::int32_t of(Vec3f color) const;
    /// Of many places. Shapes: colors [places], out [places].
    /// Cost:   about one look-up each; for a color far from all regions and from every mix with the
    ///         nearest, in proportion to their number.
    void of(std::span<const Vec3f> colors, std::span<std::int32_t> out) const;

private:
    struct Directions;
    bool isMix(Vec3f color, std::size_t nearest, Directions& directions) const;
    std::vector<Vec3f> regions_;
    std::vector<std::int32_t> ofGuides_;
    PointIndex index_;
    Vec3f low_, high_;  ///< the box of the regions' colors
};

}  // namespace corvelle
