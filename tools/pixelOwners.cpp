#include "tools/pixelOwners.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <stdexcept>

#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr int kSide = PixelTile::kSide;
constexpr int kMargin = PixelOwners::kPadding;
constexpr int kRasterSide = kSide + 2 * kMargin;
/// Whole UVs that one triangle may run over and still be painted on: beyond, its pixels overlap so
/// often that they tell no place.
constexpr float kMostRepeats = 4.0f;
constexpr std::size_t kMostEntries = std::size_t(1) << 26;

using Corner = std::array<double, 2>;

/// On which side of the line a-b a point lies, as twice an area: the very same number with the sign
/// turned for b-a, so that two triangles with a common edge leave no pixel between them.
double sideOf(const Corner& a, const Corner& b, double x, double y) {
    const auto area = [&](const Corner& p, const Corner& q) {
        return (q[0] - p[0]) * (y - p[1]) - (q[1] - p[1]) * (x - p[0]);
    };
    return a < b ? area(a, b) : -area(b, a);
}

/// Steps to pixels within the padding, nearest first, ties by row, then column.
struct Step {
    int dx, dy;
};
constexpr auto kSteps = [] {
    constexpr int kAcross = 2 * PixelOwners::kPadding + 1;
    std::array<Step, std::size_t(kAcross) * kAcross - 1> steps{};
    std::size_t n = 0;
    for (int distance = 1; distance <= 2 * PixelOwners::kPadding * PixelOwners::kPadding;
         ++distance)
        for (int dy = -PixelOwners::kPadding; dy <= PixelOwners::kPadding; ++dy)
            for (int dx = -PixelOwners::kPadding; dx <= PixelOwners::kPadding; ++dx)
                if (dx * dx + dy * dy == distance) steps[n++] = {dx, dy};
    return steps;
}();

}  // namespace

std::shared_ptr<PixelOwners> PixelOwners::of(const ScalpPtr& scalp, int width, int height) {
    static std::mutex mutex;
    static auto* kept = new std::shared_ptr<PixelOwners>();  // never destroyed: used at exit
    const std::lock_guard lock(mutex);
    const std::shared_ptr<PixelOwners>& held = *kept;
    if (!held || held->scalp_ != scalp || held->shape_.width != width ||
        held->shape_.height != height || held.use_count() > 1)
        *kept = std::make_shared<PixelOwners>(scalp, width, height);
    return *kept;
}

std::array<Corner, 3> PixelOwners::cornersOf(const Entry& entry) const {
    std::array<Corner, 3> corners;
    for (std::size_t c = 0; c < 3; ++c) {
        const Vec2f uv = scalp_->uvs()[3 * std::size_t(entry.triangle) + c];
        corners[c] = {(double(uv.x) - entry.shiftU) * shape_.width - 0.5,
                      (1.0 - (double(uv.y) - entry.shiftV)) * shape_.height - 0.5};
    }
    return corners;
}

/// Calls visit(tile, entry) for every tile that holds the triangle in itself or its margin.
template <class Visit>
void PixelOwners::forEachTileOf(std::int32_t triangle, Visit&& visit) const {
    const std::span<const Vec2f> uvs = scalp_->uvs().subspan(3 * std::size_t(triangle), 3);
    Vec2f low = uvs[0], high = uvs[0];
    for (const Vec2f uv : uvs) {
        if (!std::isfinite(uv.x) || !std::isfinite(uv.y)) return;
        low = {std::min(low.x, uv.x), std::min(low.y, uv.y)};
        high = {std::max(high.x, uv.x), std::max(high.y, uv.y)};
    }
    constexpr float kFarthest = 1e6f;  // a float has no pixels left out there
    if (!(high.x - low.x <= kMostRepeats && high.y - low.y <= kMostRepeats) ||
        std::max({std::abs(low.x), std::abs(high.x), std::abs(low.y), std::abs(high.y)}) >
            kFarthest)
        return;
    // 1 is the last column, not the first of the next repeat.
    const auto firstShift = [](float a) { return std::int32_t(std::ceil(a)) - 1; };
    for (std::int32_t v = firstShift(low.y); v <= std::int32_t(std::floor(high.y)); ++v)
        for (std::int32_t u = firstShift(low.x); u <= std::int32_t(std::floor(high.x)); ++u) {
            const Entry entry{triangle, u, v};
            const auto corners = cornersOf(entry);
            const auto range = [&](std::size_t axis, int size, int& first, int& last) {
                const auto [a, b] =
                    std::minmax({corners[0][axis], corners[1][axis], corners[2][axis]});
                const double from = std::max(std::ceil(a) - kMargin, 0.0);
                const double to = std::min(std::floor(b) + kMargin, double(size - 1));
                if (!(std::ceil(a) <= std::floor(b)) || std::ceil(a) > size - 1 ||
                    std::floor(b) < 0.0)
                    return false;
                first = int(from) / kSide;
                last = int(to) / kSide;
                return true;
            };
            int x0, x1, y0, y1;
            if (!range(0, shape_.width, x0, x1) || !range(1, shape_.height, y0, y1)) continue;
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x)
                    visit(std::size_t(y) * std::size_t(columns()) + std::size_t(x), entry);
        }
}

PixelOwners::PixelOwners(ScalpPtr scalp, int width, int height)
    : scalp_(std::move(scalp)), shape_{.width = width, .height = height} {
    const std::size_t tiles = std::size_t(columns()) * std::size_t(rows());
    const std::int32_t triangles = std::int32_t(scalp_->triangles().size());
    boxes_.resize(tiles);
    tiles_.resize(tiles);
    offsets_.assign(tiles + 1, 0);
    std::size_t count = 0;
    for (std::int32_t t = 0; t < triangles; ++t) {
        forEachTileOf(t, [&](std::size_t tile, const Entry&) {
            ++offsets_[tile + 1];
            ++count;
        });
        if (count > kMostEntries)
            throw std::invalid_argument(
                "the scalp's UVs overlap too often to paint a texture map on");
    }
    for (std::size_t t = 0; t < tiles; ++t) offsets_[t + 1] += offsets_[t];
    entries_.resize(count);
    std::vector<std::size_t> next(offsets_.begin(), offsets_.end() - 1);
    for (std::int32_t t = 0; t < triangles; ++t)
        forEachTileOf(t, [&](std::size_t tile, const Entry& entry) {
            entries_[next[tile]++] = entry;
            for (const std::int32_t vertex : scalp_->triangles()[std::size_t(t)])
                boxes_[tile].add(scalp_->points()[std::size_t(vertex)]);
        });
}

void PixelOwners::prepare(std::span<const std::size_t> tiles) {
    std::vector<std::size_t> missing;
    for (const std::size_t tile : tiles)
        if (!tiles_[tile]) missing.push_back(tile);
    std::ranges::sort(missing);
    missing.erase(std::unique(missing.begin(), missing.end()), missing.end());
    parallelRange(0, missing.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) tiles_[missing[i]] = makeTile(missing[i]);
    });
}

void PixelOwners::trim(std::size_t kept) {
    std::size_t held = 0;
    for (const auto& tile : tiles_)
        if (tile)
            held += sizeof(Tile) + tile->owner.size() * sizeof(std::uint32_t) +
                    tile->patches.size() * sizeof(Patch) + tile->pads.size() * sizeof(Pad);
    if (held > kept)
        for (auto& tile : tiles_) tile.reset();
}

std::unique_ptr<const PixelOwners::Tile> PixelOwners::makeTile(std::size_t tile) const {
    auto made = std::make_unique<Tile>();
    if (offsets_[tile] == offsets_[tile + 1]) return made;
    const int left = int(tile % std::size_t(columns())) * kSide;
    const int top = int(tile / std::size_t(columns())) * kSide;
    const int right = std::min(left + kSide, shape_.width);  // ends of the picture's part of it
    const int bottom = std::min(top + kSide, shape_.height);

    // The tile and its margin, as far as the picture goes.
    std::vector<std::uint32_t> raster(std::size_t(kRasterSide) * kRasterSide, kNone);
    const auto rasterAt = [&](int x, int y) -> std::uint32_t& {
        return raster[std::size_t(y - top + kMargin) * kRasterSide +
                      std::size_t(x - left + kMargin)];
    };
    const int minX = std::max(left - kMargin, 0),
              maxX = std::min(left + kSide + kMargin, shape_.width) - 1;
    const int minY = std::max(top - kMargin, 0),
              maxY = std::min(top + kSide + kMargin, shape_.height) - 1;
    std::size_t free = std::size_t(maxX - minX + 1) * std::size_t(maxY - minY + 1);
    for (std::size_t e = offsets_[tile]; e < offsets_[tile + 1] && free > 0; ++e) {
        const Entry& entry = entries_[e];
        const auto c = cornersOf(entry);
        const double area = sideOf(c[0], c[1], c[2][0], c[2][1]);
        if (!(std::abs(area) > 0.0)) continue;
        const double turn = area > 0.0 ? 1.0 : -1.0;
        const auto clampTo = [](double value, int low, int high) {
            return int(std::clamp(value, double(low), double(high)));
        };
        const auto [lowX, highX] = std::minmax({c[0][0], c[1][0], c[2][0]});
        const auto [lowY, highY] = std::minmax({c[0][1], c[1][1], c[2][1]});
        const int x0 = clampTo(std::ceil(lowX), minX, maxX + 1),
                  x1 = clampTo(std::floor(highX), minX - 1, maxX);
        const int y0 = clampTo(std::ceil(lowY), minY, maxY + 1),
                  y1 = clampTo(std::floor(highY), minY - 1, maxY);
        const auto patch = std::uint32_t(made->patches.size());
        bool used = false;
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) {
                std::uint32_t& owner = rasterAt(x, y);
                if (owner != kNone) continue;
                if (turn * sideOf(c[0], c[1], x, y) < 0.0 ||
                    turn * sideOf(c[1], c[2], x, y) < 0.0 || turn * sideOf(c[2], c[0], x, y) < 0.0)
                    continue;
                owner = patch;
                used = true;
                --free;
            }
        if (!used) continue;
        // The affine map from pixels to places.
        const Triangle& triangle = scalp_->triangles()[std::size_t(entry.triangle)];
        const Vec3f p0 = scalp_->points()[std::size_t(triangle[0])];
        const Vec3f e1 = scalp_->points()[std::size_t(triangle[1])] - p0;
        const Vec3f e2 = scalp_->points()[std::size_t(triangle[2])] - p0;
        const double ax = c[1][0] - c[0][0], ay = c[1][1] - c[0][1];
        const double bx = c[2][0] - c[0][0], by = c[2][1] - c[0][1];
        const double one = 1.0 / (ax * by - ay * bx);
        made->patches.push_back({p0, e1 * float(by * one) + e2 * float(-ay * one),
                                 e1 * float(-bx * one) + e2 * float(ax * one),
                                 float(c[0][0] - left), float(c[0][1] - top), entry.triangle});
    }

    made->owner.assign(PixelTile::kPixels, kNone);
    for (int y = top; y < bottom; ++y)
        for (int x = left; x < right; ++x) {
            const std::size_t place = TiledPixels::placeIn(x, y);
            const std::uint32_t owner = rasterAt(x, y);
            made->owner[place] = owner;
            if (owner != kNone) {
                const int block = (y - top) / kBlock * kBlocks + (x - left) / kBlock;
                made->blocks[std::size_t(block)].add(made->patches[owner].at(x - left, y - top));
                continue;
            }
            for (const Step& step : kSteps) {
                const int nx = x + step.dx, ny = y + step.dy;
                if (nx < minX || nx > maxX || ny < minY || ny > maxY) continue;
                if (rasterAt(nx, ny) == kNone) continue;
                made->pads.push_back(
                    {std::uint16_t(place), std::int8_t(step.dx), std::int8_t(step.dy)});
                break;
            }
        }
    return made;
}

}  // namespace corvelle
