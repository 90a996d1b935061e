#include "tools/texturePaint.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr int kSide = PixelTile::kSide;
constexpr int kBlock = PixelOwners::kBlock;
constexpr int kBlocks = PixelOwners::kBlocks;
constexpr std::size_t kBlockPixels = std::size_t(kBlock) * kBlock;
constexpr float kByte = 255.0f;
constexpr int kRim = PixelOwners::kPadding;  ///< pixels of a tile that padding beside it reads
constexpr std::size_t kTableBytes = std::size_t(128) << 20;  ///< kept from stroke to stroke

std::uint8_t byteOf(float value) { return std::uint8_t(std::lround(value * kByte)); }

/// The owned pixels of a block: their numbers in the tile, and their places.
struct BlockPixels {
    std::array<std::uint16_t, kBlockPixels> place;
    std::array<Vec3f, kBlockPixels> position;
    std::array<float, kBlockPixels> weight;
    std::size_t count = 0;

    BlockPixels(const PixelOwners::Tile& tile, int block, const BrushStamp& stamp) {
        const int left = block % kBlocks * kBlock, top = block / kBlocks * kBlock;
        for (int y = top; y < top + kBlock; ++y)
            for (int x = left; x < left + kBlock; ++x) {
                const std::size_t p = std::size_t(y) * kSide + std::size_t(x);
                if (tile.owner[p] == PixelOwners::kNone) continue;
                place[count] = std::uint16_t(p);
                position[count++] = tile.patches[tile.owner[p]].at(x, y);
            }
        stamp.weights(std::span(position).first(count), std::span(weight).first(count));
    }
};

/// Runs body(task number) over tasks, in parallel where the stamp's weights allow it.
template <class Body>
void forEachTask(std::size_t count, bool parallel, Body&& body) {
    constexpr std::size_t kGrain = 4;
    const auto range = [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) body(i);
    };
    if (parallel)
        parallelRange(0, count, kGrain, range);
    else
        range(0, count);
}

}  // namespace

TexturePaint::TexturePaint(std::shared_ptr<const PaintImage> image)
    : image_(std::move(image)), start_(image_), work_(image_->tiles().size()) {}

void TexturePaint::setChannels(std::uint32_t mask) { mask_ = mask; }

void TexturePaint::beginEdit(const ScalpPtr& scalp) {
    if (!scalp || scalp->uvs().empty())
        throw std::invalid_argument("the scalp has no UVs to paint a texture map on");
    owners_ = PixelOwners::of(scalp, width(), height());
    seams_ = nullptr;
    start_ = image_;
    work_.clear();
    work_.resize(image_->tiles().size());
}

std::vector<TexturePaint::Task> TexturePaint::reached(const BrushStamp& stamp) {
    if (!owners_) throw std::logic_error("TexturePaint: a stamp before beginEdit");
    std::vector<std::size_t> near;
    for (std::size_t t = 0; t < work_.size(); ++t) {
        const PlaceBox& box = owners_->boxOf(t);
        if (!box.empty() && stamp.mayReachWithin(box.low, box.high)) near.push_back(t);
    }
    owners_->prepare(near);
    std::vector<Task> tasks;
    for (const std::size_t t : near) {
        const PixelOwners::Tile& tile = owners_->tile(t);
        for (std::size_t b = 0; b < tile.blocks.size(); ++b)
            if (!tile.blocks[b].empty() && stamp.reaches(tile.blocks[b].low, tile.blocks[b].high))
                tasks.push_back({std::uint32_t(t), std::uint16_t(b)});
    }
    return tasks;
}

void TexturePaint::open(const std::vector<Task>& tasks) {
    std::vector<std::size_t> missing;
    for (const Task& task : tasks)
        if (!work_[task.tile] && (missing.empty() || missing.back() != task.tile))
            missing.push_back(task.tile);  // tasks go tile by tile
    parallelRange(0, missing.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::vector<std::uint8_t>& bytes = image_->tiles()[missing[i]]->bytes;
            auto work = std::make_unique<Work>();
            work->values.resize(bytes.size());
            for (std::size_t b = 0; b < bytes.size(); ++b)
                work->values[b] = float(bytes[b]) / kByte;
            work_[missing[i]] = std::move(work);
        }
    });
}

/// Calls pixel(tile number, place, weight) for the pixels under a stamp, and notes the tiles in
/// which it answered true.
template <class Pixel>
bool TexturePaint::stampBlocks(const std::vector<Task>& tasks, const BrushStamp& stamp,
                               float strength, Pixel&& pixel) {
    std::vector<std::uint8_t> changed(tasks.size(), 0);
    forEachTask(tasks.size(), stamp.threadSafe(), [&](std::size_t i) {
        const BlockPixels pixels(owners_->tile(tasks[i].tile), tasks[i].block, stamp);
        for (std::size_t p = 0; p < pixels.count; ++p) {
            const float share = std::min(strength * pixels.weight[p], 1.0f);
            if (share > 0.0f && pixel(i, tasks[i].tile, pixels.place[p], share)) changed[i] = 1;
        }
    });
    bool any = false;
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        if (!changed[i]) continue;
        work_[tasks[i].tile]->stale = true;
        any = true;
    }
    return any;
}

bool TexturePaint::applyEdit(const BrushStamp& stamp, float strength,
                             const std::array<float, 4>& color) {
    if (!(strength > 0.0f)) return false;
    const std::size_t step = std::size_t(channels());
    const std::uint32_t mask = step == 1 ? 1u : mask_;
    if ((mask & 15u) == 0) return false;
    const std::vector<Task> tasks = reached(stamp);
    open(tasks);
    return stampBlocks(
        tasks, stamp, strength, [&](std::size_t, std::size_t tile, std::size_t place, float share) {
            float* values = work_[tile]->values.data() + place * step;
            bool changed = false;
            for (std::size_t c = 0; c < step; ++c) {
                if (!(mask >> c & 1u)) continue;
                const float old = values[c];
                const float now = std::clamp(old + (color[c] - old) * share, 0.0f, 1.0f);
                changed = changed || now != old;
                values[c] = now;
            }
            return changed;
        });
}

float TexturePaint::valueAt(int x, int y, std::size_t channel) const {
    const std::size_t tile = image_->pixels().tileOf(x, y);
    const std::size_t at = TiledPixels::placeIn(x, y) * std::size_t(channels()) + channel;
    return work_[tile] ? work_[tile]->values[at] : float(image_->tiles()[tile]->bytes[at]) / kByte;
}

std::optional<float> TexturePaint::meanAround(std::size_t tile, std::size_t place,
                                              std::size_t channel) const {
    const PixelSeams::Tile& seams = seams_->tile(tile);
    const int x = int(tile) % owners_->columns() * kSide + int(place % kSide);
    const int y = int(tile) / owners_->columns() * kSide + int(place / kSide);
    float sum = 0.0f;
    int count = 0;
    for (std::size_t side = 0; side < PixelSeams::kSides; ++side) {
        if (!seams.isCut(place, side)) {
            const auto& [dx, dy] = PixelSeams::kSteps[side];
            sum += valueAt(x + dx, y + dy, channel);
            ++count;
        } else if (const PixelSeams::Landing* landing = seams.landing(place, side)) {
            for (std::size_t k = 0; k < landing->pixel.size(); ++k)
                if (landing->share[k] > 0.0f)
                    sum += landing->share[k] * valueAt(int(landing->pixel[k]) % width(),
                                                       int(landing->pixel[k]) / width(), channel);
            ++count;
        }
    }
    return count > 0 ? std::optional(sum / float(count)) : std::nullopt;
}

bool TexturePaint::smoothEdit(const BrushStamp& stamp, float strength) {
    const float whole = std::abs(strength);
    const std::size_t step = std::size_t(channels());
    const std::uint32_t mask = step == 1 ? 1u : mask_;
    if (!(whole > 0.0f) || (mask & 15u) == 0) return false;
    const std::vector<Task> tasks = reached(stamp);
    open(tasks);
    if (!seams_) seams_ = std::make_unique<PixelSeams>(owners_);
    std::vector<std::size_t> tiles;
    for (const Task& task : tasks)
        if (tiles.empty() || tiles.back() != task.tile) tiles.push_back(task.tile);
    seams_->prepare(tiles);

    // All are read before any is written.
    struct NewValue {
        std::uint32_t at;  ///< of the tile's values
        float value;
    };
    std::vector<std::vector<NewValue>> made(tasks.size());
    const auto smooth = [&](std::size_t task, std::size_t tile, std::size_t place, float share) {
        bool changed = false;
        for (std::size_t c = 0; c < step; ++c) {
            if (!(mask >> c & 1u)) continue;
            const std::optional<float> mean = meanAround(tile, place, c);
            if (!mean) continue;
            const std::size_t at = place * step + c;
            const float old = work_[tile]->values[at];
            const float now = old + (*mean - old) * share;
            if (now == old) continue;
            made[task].push_back({std::uint32_t(at), now});
            changed = true;
        }
        return changed;
    };
    const bool any = stampBlocks(tasks, stamp, whole, smooth);
    for (std::size_t i = 0; i < tasks.size(); ++i)
        for (const NewValue& value : made[i]) work_[tasks[i].tile]->values[value.at] = value.value;
    return any;
}

std::shared_ptr<const PaintImage> TexturePaint::image() {
    std::vector<std::size_t> stale;
    for (std::size_t t = 0; t < work_.size(); ++t)
        if (work_[t] && work_[t]->stale) stale.push_back(t);
    if (stale.empty()) return image_;
    std::vector<PixelTilePtr> tiles = image_->tiles();
    parallelRange(0, stale.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            Work& work = *work_[stale[i]];
            std::vector<std::uint8_t> bytes(work.values.size());
            for (std::size_t b = 0; b < bytes.size(); ++b) bytes[b] = byteOf(work.values[b]);
            PixelTilePtr& tile = tiles[stale[i]];
            const PixelTilePtr& before = start_->tiles()[stale[i]];
            if (bytes == before->bytes)
                tile = before;
            else if (bytes != tile->bytes)
                tile = std::make_shared<const PixelTile>(std::move(bytes));
            work.stale = false;
        }
    });
    if (tiles == start_->tiles())
        image_ = start_;
    else if (tiles != image_->tiles())
        image_ =
            std::make_shared<const PaintImage>(width(), height(), channels(), std::move(tiles));
    return image_;
}

void TexturePaint::pad(std::vector<PixelTilePtr>& tiles) const {
    const std::size_t step = std::size_t(channels());
    const int columns = owners_->columns(), rows = owners_->rows();
    const auto& before = start_->tiles();
    const std::vector<PixelTilePtr> painted = tiles;
    const auto differs = [&](std::size_t tile, std::size_t place) {
        return painted[tile] != before[tile] &&
               !std::equal(painted[tile]->bytes.begin() + std::ptrdiff_t(place * step),
                           painted[tile]->bytes.begin() + std::ptrdiff_t((place + 1) * step),
                           before[tile]->bytes.begin() + std::ptrdiff_t(place * step));
    };
    // The rows or columns of a tile that padding in a neighbour may read: by the neighbour's step.
    const auto rim = [](int d) {
        return d < 0   ? std::pair{0, kRim}
               : d > 0 ? std::pair{kSide - kRim, kSide}
                       : std::pair{0, kSide};
    };
    std::set<std::size_t> wanted;
    for (std::size_t t = 0; t < tiles.size(); ++t) {
        if (painted[t] == before[t]) continue;
        const int column = int(t) % columns, row = int(t) / columns;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const int x = column + dx, y = row + dy;
                if (x < 0 || y < 0 || x >= columns || y >= rows) continue;
                const auto [x0, x1] = rim(dx);
                const auto [y0, y1] = rim(dy);
                bool touched = dx == 0 && dy == 0;
                for (int j = y0; j < y1 && !touched; ++j)
                    for (int i = x0; i < x1 && !touched; ++i)
                        touched = differs(t, std::size_t(j) * kSide + std::size_t(i));
                if (touched) wanted.insert(std::size_t(y) * std::size_t(columns) + std::size_t(x));
            }
    }
    const std::vector<std::size_t> list(wanted.begin(), wanted.end());
    owners_->prepare(list);
    parallelRange(0, list.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t l = begin; l < end; ++l) {
            const std::size_t t = list[l];
            const int left = int(t) % columns * kSide, top = int(t) / columns * kSide;
            std::vector<std::uint8_t> bytes;
            for (const PixelOwners::Pad& pad : owners_->tile(t).pads) {
                const int x = left + int(pad.place) % kSide + pad.dx;
                const int y = top + int(pad.place) / kSide + pad.dy;
                const std::size_t from = start_->pixels().tileOf(x, y);
                const std::size_t place = TiledPixels::placeIn(x, y);
                if (!differs(from, place)) continue;
                if (bytes.empty()) bytes = painted[t]->bytes;
                for (std::size_t c = 0; c < step; ++c)
                    bytes[std::size_t(pad.place) * step + c] =
                        painted[from]->bytes[place * step + c];
            }
            if (!bytes.empty() && bytes != painted[t]->bytes)
                tiles[t] = std::make_shared<const PixelTile>(std::move(bytes));
        }
    });
}

std::shared_ptr<const PaintImage> TexturePaint::endEdit() {
    image();
    if (owners_ && image_ != start_) {
        std::vector<PixelTilePtr> tiles = image_->tiles();
        pad(tiles);
        if (tiles != image_->tiles())
            image_ =
                std::make_shared<const PaintImage>(width(), height(), channels(), std::move(tiles));
    }
    start_ = image_;
    if (owners_) owners_->trim(kTableBytes);
    seams_ = nullptr;
    owners_ = nullptr;
    work_.clear();
    work_.resize(image_->tiles().size());
    return image_;
}

}  // namespace corvelle
