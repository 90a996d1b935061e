#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "expr/pixelTiles.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// A box; min above max for an empty one.
struct PlaceBox {
    static constexpr float kFar = std::numeric_limits<float>::max();
    Vec3f low{kFar, kFar, kFar}, high{-kFar, -kFar, -kFar};
    bool empty() const { return low.x > high.x; }
    void add(Vec3f p) {
        low = componentMin(low, p);
        high = componentMax(high, p);
    }
    void add(const PlaceBox& other) {
        low = componentMin(low, other.low);
        high = componentMax(high, other.high);
    }
};

/// Which place of a scalp each pixel of an image over its UVs shows: that of the pixel's centre,
/// ((i + 0.5) / width, 1 - (j + 0.5) / height), in the lowest triangle whose UVs hold it. UVs
/// outside 0..1 repeat, as they are read. Tables are made tile by tile, when first asked for.
///
/// Used on one thread, but for `prepare`, which works in parallel inside. Triangles without an area
/// in UVs or with UVs that are not finite own nothing.
class PixelOwners {
public:
    static constexpr int kBlock = 16;  ///< pixels along a block's side
    static constexpr int kBlocks = PixelTile::kSide / kBlock;
    static constexpr std::uint32_t kNone = 0xffffffffu;
    static constexpr int kPadding = 2;  ///< pixels beyond the islands that take their colour

    /// A triangle's places as pixels see them.
    struct Patch {
        Vec3f origin, perColumn, perRow;
        float column = 0.0f, row = 0.0f;  ///< of `origin`, in the tile
        std::int32_t triangle = -1;
        Vec3f at(int x, int y) const {
            return origin + perColumn * (float(x) - column) + perRow * (float(y) - row);
        }
    };
    /// A pixel that no triangle holds, and the nearest one that a triangle does, from there.
    struct Pad {
        std::uint16_t place = 0;
        std::int8_t dx = 0, dy = 0;
    };
    struct Tile {
        std::vector<std::uint32_t> owner;  ///< [PixelTile::kPixels] patches, or kNone; empty: none
        std::vector<Patch> patches;
        std::vector<Pad> pads;
        std::array<PlaceBox, std::size_t(kBlocks) * kBlocks> blocks;  ///< of their pixels' places
    };

    /// The table of a scalp in a pose; the newest one is kept for the next stroke. Throws
    /// std::invalid_argument for UVs that overlap so often that a table would not fit.
    static std::shared_ptr<PixelOwners> of(const ScalpPtr& scalp, int width, int height);
    /// `scalp` has UVs.
    PixelOwners(ScalpPtr scalp, int width, int height);

    const ScalpPtr& scalp() const { return scalp_; }
    int width() const { return shape_.width; }
    int height() const { return shape_.height; }
    int columns() const { return shape_.columns(); }
    int rows() const { return shape_.rows(); }
    /// Holds every place that pixels of a tile show.
    const PlaceBox& boxOf(std::size_t tile) const { return boxes_[tile]; }
    /// Makes the tables of these tiles, where they lack.
    void prepare(std::span<const std::size_t> tiles);
    /// Lets go of the tables, when they hold more than `kept` bytes.
    void trim(std::size_t kept);
    /// Of a prepared tile.
    const Tile& tile(std::size_t tile) const { return *tiles_[tile]; }
    /// What a pixel shows; its tile is prepared. Null: no triangle holds it, or it is none of the
    /// picture's.
    struct Shown {
        const Patch* patch = nullptr;
        Vec3f place;
    };
    Shown shown(int x, int y) const {
        if (!holds(x, y)) return {};
        const Tile& held = *tiles_[tileOf(x, y)];
        const std::uint32_t owner =
            held.owner.empty() ? kNone : held.owner[TiledPixels::placeIn(x, y)];
        if (owner == kNone) return {};
        const Patch& patch = held.patches[owner];
        return {&patch, patch.at(x % PixelTile::kSide, y % PixelTile::kSide)};
    }
    bool holds(int x, int y) const {
        return x >= 0 && y >= 0 && x < shape_.width && y < shape_.height;
    }
    std::size_t tileOf(int x, int y) const { return shape_.tileOf(x, y); }

private:
    struct Entry {
        std::int32_t triangle;
        std::int32_t shiftU, shiftV;  ///< whole UVs taken off
    };
    /// Corners in pixels of the picture: x right, y down, pixel centres at whole numbers.
    std::array<std::array<double, 2>, 3> cornersOf(const Entry& entry) const;
    template <class Visit>
    void forEachTileOf(std::int32_t triangle, Visit&& visit) const;
    std::unique_ptr<const Tile> makeTile(std::size_t tile) const;

    ScalpPtr scalp_;
    TiledPixels shape_;  ///< sizes only
    std::vector<PlaceBox> boxes_;
    std::vector<std::size_t> offsets_;  ///< into entries_, one more than tiles
    std::vector<Entry> entries_;        ///< of each tile, triangles ascending
    std::vector<std::unique_ptr<const Tile>> tiles_;
};

}  // namespace corvelle
