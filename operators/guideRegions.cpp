#include "operators/guideRegions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <unordered_map>

#include "model/hash.h"

namespace corvelle {

namespace {

constexpr float kSame = GuideRegions::kSameColor;
constexpr float kSame2 = kSame * kSame;
constexpr float kMostColor = 1e6f;

/// Maps may hold what is no color: a component that is no number is 0, and none is past kMostColor.
Vec3f cleaned(Vec3f color) {
    for (int axis = 0; axis < 3; ++axis)
        color[axis] =
            std::isfinite(color[axis]) ? std::clamp(color[axis], -kMostColor, kMostColor) : 0.0f;
    return color;
}

/// Squared distance from p to the segment from a to b.
float toSegment(Vec3f p, Vec3f a, Vec3f b) {
    const Vec3f along = b - a;
    const float length2 = lengthSquared(along);
    const float t = length2 > 0.0f ? std::clamp(dot(p - a, along) / length2, 0.0f, 1.0f) : 0.0f;
    return lengthSquared(p - (a + along * t));
}

/// Colors by cells as wide as kSame: those near one lie in its cell or beside it. Followed by cell
/// only, never walked.
class ColorCells {
public:
    void add(Vec3f color, std::uint32_t index) { cells_[keyOf(cellOf(color))].push_back(index); }
    template <class Visit>
    void forEachNear(Vec3f color, Visit&& visit) const {
        const Cell at = cellOf(color);
        for (int n = 0; n < 27; ++n) {
            const auto found =
                cells_.find(keyOf({at[0] + n % 3 - 1, at[1] + n / 3 % 3 - 1, at[2] + n / 9 - 1}));
            if (found == cells_.end()) continue;
            for (const std::uint32_t index : found->second) visit(index);
        }
    }

private:
    static constexpr double kCell = 1.001 * kSame;  ///< rounding may part near ones a little more
    using Cell = std::array<std::int64_t, 3>;
    static Cell cellOf(Vec3f color) {
        Cell cell;
        for (int axis = 0; axis < 3; ++axis)
            cell[std::size_t(axis)] = std::int64_t(std::floor(double(color[axis]) / kCell));
        return cell;
    }
    static std::uint64_t keyOf(const Cell& cell) {
        std::uint64_t h = 0;
        for (const std::int64_t part : cell) h = hashCombine(h, std::uint64_t(part));
        return h;
    }
    std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> cells_;
};

}  // namespace

/// The directions in which regions lie from a color, by cells of the cube around all directions.
struct GuideRegions::Directions {
    static constexpr int kCellsAcross = 8;
    static constexpr std::size_t kCells = kCellsAcross * kCellsAcross * kCellsAcross;
    static int cellAt(float x) {
        return std::clamp(int((x + 1.0f) * (0.5f * kCellsAcross)), 0, kCellsAcross - 1);
    }
    static std::size_t cellOf(int x, int y, int z) {
        return std::size_t((z * kCellsAcross + y) * kCellsAcross + x);
    }
    std::vector<Vec3f> to;            ///< [regions] unit
    std::vector<float> reach;         ///< [regions] see `isMix`
    std::vector<std::uint32_t> cell;  ///< [regions]
    std::vector<std::uint32_t> list;  ///< [regions] by cell
    std::array<std::uint32_t, kCells + 1> first{};

    void sort() {
        first.fill(0);
        cell.resize(to.size());
        list.resize(to.size());
        for (std::size_t r = 0; r < to.size(); ++r) {
            cell[r] = std::uint32_t(cellOf(cellAt(to[r].x), cellAt(to[r].y), cellAt(to[r].z)));
            ++first[cell[r]];
        }
        std::partial_sum(first.begin(), first.end(), first.begin());
        for (std::size_t r = to.size(); r-- > 0;) list[--first[cell[r]]] = std::uint32_t(r);
    }
    /// Whether any region lies within `reach` of a direction and `test` is true of it.
    template <class Test>
    bool anyNear(Vec3f direction, float within, Test&& test) const {
        const Vec3f by{within, within, within};
        const Vec3f low = direction - by, high = direction + by;
        for (int z = cellAt(low.z); z <= cellAt(high.z); ++z)
            for (int y = cellAt(low.y); y <= cellAt(high.y); ++y)
                for (std::size_t c = cellOf(cellAt(low.x), y, z); c <= cellOf(cellAt(high.x), y, z);
                     ++c)
                    for (std::uint32_t i = first[c]; i < first[c + 1]; ++i)
                        if (lengthSquared(to[list[i]] - direction) <= within * within &&
                            test(list[i]))
                            return true;
        return false;
    }
};

GuideRegions::GuideRegions(std::span<const Vec3f> given) : ofGuides_(given.size(), 0) {
    std::vector<Vec3f> colors(given.size());
    std::transform(given.begin(), given.end(), colors.begin(), cleaned);
    std::vector<std::uint32_t> order(colors.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        const Vec3f u = colors[a], v = colors[b];
        return u.x != v.x ? u.x < v.x : u.y != v.y ? u.y < v.y : u.z < v.z;
    });
    ColorCells cells;
    for (const std::uint32_t guide : order) {
        const Vec3f color = colors[guide];
        Neighbor nearest{std::uint32_t(regions_.size()), kSame2};
        cells.forEachNear(color, [&](std::uint32_t r) {
            nearest = std::min(nearest, Neighbor{r, lengthSquared(color - regions_[r])});
        });
        if (nearest.index == regions_.size()) {
            cells.add(color, nearest.index);
            regions_.push_back(color);
        }
        ofGuides_[guide] = std::int32_t(nearest.index);
    }
    index_ = PointIndex(regions_);
    low_ = high_ = regions_.empty() ? Vec3f{} : regions_.front();
    for (const Vec3f color : regions_) {
        low_ = componentMin(low_, color);
        high_ = componentMax(high_, color);
    }
}

/// A segment from a to b passes c at a distance h at most, its ends lying farther: then the lines
/// from c to its ends lean off the segment's by asin(h / |ac|) and asin(h / |bc|) at most. So seen
/// from c, b lies near the direction away from a: within a chord of 2 h / |ac| where a is the
/// nearer end.
bool GuideRegions::isMix(Vec3f color, std::size_t nearest, Directions& directions) const {
    for (int axis = 0; axis < 3; ++axis)
        if (color[axis] < low_[axis] - kSameColor || color[axis] > high_[axis] + kSameColor)
            return false;
    // Mostly a mix with the nearest one.
    for (const Vec3f other : regions_)
        if (toSegment(color, regions_[nearest], other) <= kSame2) return true;
    constexpr float kRounding = 1e-4f;
    directions.to.resize(regions_.size());
    directions.reach.resize(regions_.size());
    for (std::size_t r = 0; r < regions_.size(); ++r) {
        const Vec3f way = regions_[r] - color;
        const float far = length(way);
        directions.to[r] = way * (1.0f / far);
        directions.reach[r] = std::min(2.0f, 2.0f * kSameColor / far) + kRounding;
    }
    directions.sort();
    for (std::size_t a = 0; a < regions_.size(); ++a)
        if (directions.anyNear(-directions.to[a], directions.reach[a], [&](std::size_t b) {
                return toSegment(color, regions_[std::min(a, b)], regions_[std::max(a, b)]) <=
                       kSame2;
            }))
            return true;
    return false;
}

void GuideRegions::of(std::span<const Vec3f> colors, std::span<std::int32_t> out) const {
    Directions directions;
    for (std::size_t i = 0; i < colors.size(); ++i) {
        if (i > 0 && colors[i] == colors[i - 1]) {  // flat paint
            out[i] = out[i - 1];
            continue;
        }
        const Vec3f color = cleaned(colors[i]);
        Neighbor nearest;
        out[i] = index_.nearestOne(color, nearest) && (nearest.distanceSquared <= kSame2 ||
                                                       isMix(color, nearest.index, directions))
                     ? std::int32_t(nearest.index)
                     : -1;
    }
}

std::int32_t GuideRegions::of(Vec3f color) const {
    std::int32_t region = -1;
    of({&color, 1}, {&region, 1});
    return region;
}

}  // namespace corvelle
