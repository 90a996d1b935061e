#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "model/hash.h"

namespace corvelle {

/// One square of a picture's pixels, 8 bits a channel. Immutable once shared.
struct PixelTile {
    static constexpr int kSide = 256;
    static constexpr std::size_t kPixels = std::size_t(kSide) * kSide;

    /// `pixels`: `channels` bytes a pixel, rows of kSide.
    explicit PixelTile(std::vector<std::uint8_t> pixels) : bytes(std::move(pixels)) {
        hash = mix64(bytes.size());
        for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
            std::uint64_t word = 0;
            for (std::size_t b = 0; b < 8; ++b) word |= std::uint64_t(bytes[i + b]) << (8 * b);
            hash = hashCombine(hash, word);
        }
    }
    std::vector<std::uint8_t> bytes;
    std::uint64_t hash = 0;  ///< of the bytes
};
using PixelTilePtr = std::shared_ptr<const PixelTile>;

/// A picture in square tiles, shared between its versions: a change copies the tiles it touches.
/// Row 0 is v = 1. Pixels of border tiles that lie outside the picture are not looked at.
struct TiledPixels {
    int width = 0, height = 0;
    int channels = 1;                 ///< 1 (gray) or 4
    std::vector<PixelTilePtr> tiles;  ///< [columns() * rows()], row after row

    int columns() const { return (width + PixelTile::kSide - 1) / PixelTile::kSide; }
    int rows() const { return (height + PixelTile::kSide - 1) / PixelTile::kSide; }
    /// The tile that holds a pixel of the picture, and the pixel's number in it.
    std::size_t tileOf(int x, int y) const {
        return std::size_t(y / PixelTile::kSide) * std::size_t(columns()) +
               std::size_t(x / PixelTile::kSide);
    }
    static std::size_t placeIn(int x, int y) {
        return std::size_t(y % PixelTile::kSide) * PixelTile::kSide +
               std::size_t(x % PixelTile::kSide);
    }
    /// The first byte of a pixel of the picture.
    const std::uint8_t* pixel(int x, int y) const {
        return tiles[tileOf(x, y)]->bytes.data() + placeIn(x, y) * std::size_t(channels);
    }
};

}  // namespace corvelle
