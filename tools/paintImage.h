#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "expr/texture.h"

namespace corvelle {

/// The pixels of a painted map as a value: 8-bit tiles of 256 x 256, shared between copies, so that
/// an undo step holds only the tiles a stroke touched. Row 0 is v = 1. Immutable, any thread may
/// read.
class PaintImage {
public:
    static constexpr int kTile = 256;
    using Tile = std::array<std::uint8_t, std::size_t(kTile) * kTile *
                                              4>;  ///< `channels` bytes a pixel, rows of kTile
    using TilePtr = std::shared_ptr<const Tile>;

    PaintImage(int width, int height, int channels, std::vector<TilePtr> tiles);
    int width() const { return width_; }
    int height() const { return height_; }
    int channels() const { return channels_; }                    ///< 1 or 4
    const std::vector<TilePtr>& tiles() const { return tiles_; }  ///< row after row of tiles
    /// As evaluation reads it. Made once, at the first call.
    TexturePtr texture() const;
    /// Writes a PNG beside `path` and renames it there. Throws std::runtime_error naming the path.
    void writePng(const std::string& path) const;
    /// Bytes of tiles that `other` does not share.
    std::size_t bytesBeside(const PaintImage* other) const;

private:
    int width_, height_, channels_;
    std::vector<TilePtr> tiles_;
};

}  // namespace corvelle
