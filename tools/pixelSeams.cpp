#include "tools/pixelSeams.h"

#include <algorithm>
#include <cmath>

#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr int kSide = PixelTile::kSide;
/// Pixels of one island lie at most so many of their own steps apart: a fold or a stretch between
/// them makes it more than one.
constexpr float kMostSteps = 2.0f;
constexpr float kOwnPixels = 1.5f;  ///< a crossing that ends nearer than this went nowhere

/// A coordinate within 0..1, as repeated UVs are read; 1 stays.
float repeated(float u) { return u >= 0.0f && u <= 1.0f ? u : u - (std::ceil(u) - 1.0f); }

float stepOf(const PixelOwners::Patch& patch, std::size_t side) {
    return length(side < 2 ? patch.perColumn : patch.perRow);
}

/// Calls visit(x, y, weight) for the four pixels about a place between pixel centres.
template <class Visit>
void forPixelsAbout(float x, float y, Visit&& visit) {
    const float x0 = std::floor(x), y0 = std::floor(y);
    for (int k = 0; k < 4; ++k) {
        const float dx = x - x0, dy = y - y0;
        visit(int(x0) + k % 2, int(y0) + k / 2,
              (k % 2 == 0 ? 1.0f - dx : dx) * (k / 2 == 0 ? 1.0f - dy : dy));
    }
}

}  // namespace

const PixelSeams::Landing* PixelSeams::Tile::landing(std::size_t place, std::size_t side) const {
    const auto key = std::uint32_t(kSides * place + side);
    const auto found = std::lower_bound(
        landings.begin(), landings.end(), key,
        [](const Landing& landing, std::uint32_t wanted) { return landing.key < wanted; });
    return found != landings.end() && found->key == key ? &*found : nullptr;
}

PixelSeams::PixelSeams(std::shared_ptr<PixelOwners> owners)
    : owners_(std::move(owners)),
      tiles_(std::size_t(owners_->columns()) * std::size_t(owners_->rows())) {
    owners_->scalp()->prepareQueries();
}

/// What lies on the scalp one step beyond a pixel at (x, y), whose step ends at `place`.
bool PixelSeams::cross(Vec3f place, float step, std::int32_t triangle, int x, int y,
                       Crossing& out) const {
    const ScalpMesh& scalp = *owners_->scalp();
    SurfaceHit hit;
    if (!scalp.closestPointFrom(place, step, triangle, hit)) return false;
    const Vec2f uv = scalp.surfaceUv(hit.root());
    if (!std::isfinite(uv.x) || !std::isfinite(uv.y)) return false;
    out.x = repeated(uv.x) * float(owners_->width()) - 0.5f;
    out.y = (1.0f - repeated(uv.y)) * float(owners_->height()) - 0.5f;
    out.place = hit.position;
    out.reach = kMostSteps * step;
    return std::abs(out.x - float(x)) > kOwnPixels || std::abs(out.y - float(y)) > kOwnPixels;
}

std::unique_ptr<PixelSeams::Tile> PixelSeams::findCuts(std::size_t tile,
                                                       std::vector<Crossing>& crossings) const {
    auto made = std::make_unique<Tile>();
    const PixelOwners::Tile& own = owners_->tile(tile);
    if (own.owner.empty()) return made;
    made->cuts.assign(PixelTile::kPixels, 0);
    const int left = int(tile) % owners_->columns() * kSide;
    const int top = int(tile) / owners_->columns() * kSide;
    for (std::size_t p = 0; p < own.owner.size(); ++p) {
        if (own.owner[p] == PixelOwners::kNone) continue;
        const PixelOwners::Patch& patch = own.patches[own.owner[p]];
        const int x = int(p) % kSide, y = int(p) / kSide;
        const Vec3f place = patch.at(x, y);
        for (std::size_t side = 0; side < kSides; ++side) {
            const int nx = x + kSteps[side][0], ny = y + kSteps[side][1];
            const float step = stepOf(patch, side);
            const PixelOwners::Shown beside = owners_->shown(left + nx, top + ny);
            if (beside.patch == &patch) continue;
            if (beside.patch && distance(place, beside.place) <=
                                    kMostSteps * std::max(step, stepOf(*beside.patch, side)))
                continue;
            made->cuts[p] |= std::uint8_t(1u << side);
            Crossing crossing{.key = std::uint32_t(kSides * p + side)};
            if (cross(patch.at(nx, ny), step, patch.triangle, left + x, top + y, crossing))
                crossings.push_back(crossing);
        }
    }
    return made;
}

void PixelSeams::land(const std::vector<Crossing>& crossings, Tile& tile) const {
    for (const Crossing& crossing : crossings) {
        Landing landing{.key = crossing.key};
        std::size_t count = 0;
        float whole = 0.0f;
        forPixelsAbout(crossing.x, crossing.y, [&](int x, int y, float weight) {
            const PixelOwners::Shown shown = owners_->shown(x, y);
            if (!(weight > 0.0f) || !shown.patch) return;
            const float step =
                std::max(length(shown.patch->perColumn), length(shown.patch->perRow));
            if (distance(shown.place, crossing.place) > std::max(crossing.reach, kMostSteps * step))
                return;
            landing.pixel[count] =
                std::uint32_t(y) * std::uint32_t(owners_->width()) + std::uint32_t(x);
            landing.share[count++] = weight;
            whole += weight;
        });
        if (!(whole > 0.0f)) continue;
        for (float& share : landing.share) share /= whole;
        tile.landings.push_back(landing);
    }
}

void PixelSeams::prepare(std::span<const std::size_t> tiles) {
    std::vector<std::size_t> missing;
    for (const std::size_t tile : tiles)
        if (!tiles_[tile]) missing.push_back(tile);
    std::ranges::sort(missing);
    missing.erase(std::unique(missing.begin(), missing.end()), missing.end());
    if (missing.empty()) return;
    const int columns = owners_->columns(), rows = owners_->rows();
    std::vector<std::size_t> asked = missing;
    for (const std::size_t tile : missing)
        for (const auto& [dx, dy] : kSteps) {
            const int x = int(tile) % columns + dx, y = int(tile) / columns + dy;
            if (x >= 0 && y >= 0 && x < columns && y < rows)
                asked.push_back(std::size_t(y) * std::size_t(columns) + std::size_t(x));
        }
    owners_->prepare(asked);

    std::vector<std::unique_ptr<Tile>> made(missing.size());
    std::vector<std::vector<Crossing>> crossings(missing.size());
    parallelRange(0, missing.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) made[i] = findCuts(missing[i], crossings[i]);
    });
    asked.clear();
    for (const std::vector<Crossing>& list : crossings)
        for (const Crossing& crossing : list)
            forPixelsAbout(crossing.x, crossing.y, [&](int x, int y, float) {
                if (owners_->holds(x, y)) asked.push_back(owners_->tileOf(x, y));
            });
    std::ranges::sort(asked);
    asked.erase(std::unique(asked.begin(), asked.end()), asked.end());
    owners_->prepare(asked);
    parallelRange(0, missing.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) land(crossings[i], *made[i]);
    });
    for (std::size_t i = 0; i < missing.size(); ++i) tiles_[missing[i]] = std::move(made[i]);
}

}  // namespace corvelle
