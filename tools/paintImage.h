#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "expr/pixelTiles.h"
#include "expr/texture.h"

namespace corvelle {

/// The pixels of a painted map as a value: 8-bit tiles of 256 x 256, shared between copies, so that
/// an undo step holds only the tiles a stroke touched. Row 0 is v = 1. Immutable, any thread may
/// read.
class PaintImage {
public:
    static constexpr int kTile = PixelTile::kSide;
    using Tile = PixelTile;
    using TilePtr = PixelTilePtr;

    /// `channels` 1 or 4; `tiles` row after row of tiles, those at the border full tiles too.
    /// Throws TextureError when the sizes do not fit.
    PaintImage(int width, int height, int channels, std::vector<TilePtr> tiles);
    /// One colour all over; its tiles are one.
    static std::shared_ptr<const PaintImage> filled(int width, int height, int channels,
                                                    std::array<std::uint8_t, 4> color);
    /// From rows of `channels` bytes a pixel, the top one first.
    static std::shared_ptr<const PaintImage> fromPixels(int width, int height, int channels,
                                                        std::span<const std::uint8_t> pixels);

    int width() const { return pixels_.width; }
    int height() const { return pixels_.height; }
    int channels() const { return pixels_.channels; }                    ///< 1 or 4
    const std::vector<TilePtr>& tiles() const { return pixels_.tiles; }  ///< row after row of tiles
    const TiledPixels& pixels() const { return pixels_; }
    /// As evaluation reads it: over the same tiles.
    const TexturePtr& texture() const { return texture_; }
    /// Writes a PNG beside `path` and renames it there. Throws std::runtime_error "can't write
    /// <path>".
    void writePng(const std::string& path) const;
    /// Bytes of tiles that `other` (null: none) does not share, each counted once.
    std::size_t bytesBeside(const PaintImage* other) const;

private:
    TiledPixels pixels_;
    TexturePtr texture_;
};

/// Reads the image of a texture map from a PNG, `path` as it lies on the disk. A gray PNG gives one
/// channel, any other four; 16 bits become 8. Throws TextureError "a scalp map is one image over
/// UVs 0-1" for a tile pattern, "<path> is not a PNG, and painting writes PNG", and what reading
/// throws.
std::shared_ptr<const PaintImage> readPaintImage(const std::string& path);

}  // namespace corvelle
