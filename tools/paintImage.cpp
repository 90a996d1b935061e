#include "tools/paintImage.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

#include "expr/image.h"
#include "expr/imageWriter.h"
#include "expr/searchPaths.h"
#include "model/fileReplace.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr int kSide = PixelTile::kSide;
constexpr int kLargestSide = 1 << 20;  ///< far above what a texture can be; keeps sizes in range

/// Cuts a picture into tiles: row(x, y, count, out) gives `count` pixels from (x, y) on.
template <class Row>
std::vector<PixelTilePtr> cutTiles(const TiledPixels& shape, Row&& row) {
    const std::size_t step = std::size_t(shape.channels);
    const std::size_t count = std::size_t(shape.columns()) * std::size_t(shape.rows());
    std::vector<PixelTilePtr> tiles(count);
    parallelRange(0, count, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const int x = int(t % std::size_t(shape.columns())) * kSide;
            const int y = int(t / std::size_t(shape.columns())) * kSide;
            const int width = std::min(kSide, shape.width - x);
            const int height = std::min(kSide, shape.height - y);
            std::vector<std::uint8_t> bytes(PixelTile::kPixels * step, 0);
            for (int j = 0; j < height; ++j)
                row(x, y + j, width, bytes.data() + std::size_t(j) * kSide * step);
            tiles[t] = std::make_shared<const PixelTile>(std::move(bytes));
        }
    });
    return tiles;
}

void checkSize(int width, int height, int channels) {
    if (width < 1 || height < 1 || width > kLargestSide || height > kLargestSide ||
        (channels != 1 && channels != 4))
        throw TextureError("textureFromPixels: size does not match its pixels");
}

/// Offset of the colour type in a PNG, behind signature, chunk head, size and depth; and its gray.
constexpr std::size_t kColorTypeAt = 25;
constexpr char kGrayType = 0;
constexpr char kPngSignature[] = "\x89PNG\r\n\x1a\n";

}  // namespace

PaintImage::PaintImage(int width, int height, int channels, std::vector<TilePtr> tiles)
    : pixels_{.width = width, .height = height, .channels = channels, .tiles = std::move(tiles)},
      texture_(Texture::fromTiles(pixels_)) {}

std::shared_ptr<const PaintImage> PaintImage::filled(int width, int height, int channels,
                                                     std::array<std::uint8_t, 4> color) {
    checkSize(width, height, channels);
    const std::size_t step = std::size_t(channels);
    std::vector<std::uint8_t> bytes(PixelTile::kPixels * step);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = color[i % step];
    const TiledPixels shape{.width = width, .height = height, .channels = channels};
    std::vector<TilePtr> tiles(std::size_t(shape.columns()) * std::size_t(shape.rows()),
                               std::make_shared<const Tile>(std::move(bytes)));
    return std::make_shared<const PaintImage>(width, height, channels, std::move(tiles));
}

std::shared_ptr<const PaintImage> PaintImage::fromPixels(int width, int height, int channels,
                                                         std::span<const std::uint8_t> pixels) {
    checkSize(width, height, channels);
    const std::size_t step = std::size_t(channels), stride = std::size_t(width) * step;
    if (pixels.size() != stride * std::size_t(height))
        throw TextureError("textureFromPixels: size does not match its pixels");
    const TiledPixels shape{.width = width, .height = height, .channels = channels};
    return std::make_shared<const PaintImage>(
        width, height, channels, cutTiles(shape, [&](int x, int y, int count, std::uint8_t* out) {
            std::memcpy(out, pixels.data() + std::size_t(y) * stride + std::size_t(x) * step,
                        std::size_t(count) * step);
        }));
}

void PaintImage::writePng(const std::string& path) const {
    const std::size_t step = std::size_t(channels());
    const auto row = [&](int y, std::span<std::uint8_t> out) {
        for (int x = 0; x < width(); x += kSide) {
            const int count = std::min(kSide, width() - x);
            std::memcpy(out.data() + std::size_t(x) * step, pixels_.pixel(x, y),
                        std::size_t(count) * step);
        }
    };
    writePictureFile(path, encodePngRows(row, width(), height(), channels()));
}

std::size_t PaintImage::bytesBeside(const PaintImage* other) const {
    const auto held = [](const PaintImage& image) {
        std::vector<const Tile*> list;
        for (const TilePtr& tile : image.tiles()) list.push_back(tile.get());
        std::ranges::sort(list, std::less<>());
        list.erase(std::unique(list.begin(), list.end()), list.end());
        return list;
    };
    const std::vector<const Tile*> theirs = other ? held(*other) : std::vector<const Tile*>();
    std::size_t bytes = 0;
    for (const Tile* tile : held(*this))
        if (!std::binary_search(theirs.begin(), theirs.end(), tile, std::less<>()))
            bytes += tile->bytes.size();
    return bytes;
}

std::shared_ptr<const PaintImage> readPaintImage(const std::string& path) {
    if (Texture::isUdim(path)) throw TextureError("a scalp map is one image over UVs 0-1");
    if (!pictureExists(path)) throw TextureError("cannot read '" + path + "': file not found");
    std::string file;
    try {
        file = readWholeFile(path);
    } catch (const FileError& error) {
        throw TextureError(error.what());
    }
    if (file.size() <= kColorTypeAt || !file.starts_with(kPngSignature))
        throw TextureError(path + " is not a PNG, and painting writes PNG");
    const int channels = file[kColorTypeAt] == kGrayType ? 1 : 4;
    const ImagePtr image =
        decodeImage({reinterpret_cast<const std::uint8_t*>(file.data()), file.size()}, path);
    const auto byteOf = [&](std::size_t value) {
        return image->eightBit() ? image->bytes[value]
                                 : std::uint8_t(std::lround(255.0f * image->floats[value]));
    };
    checkSize(image->width, image->height, channels);
    const TiledPixels shape{.width = image->width, .height = image->height, .channels = channels};
    const std::size_t step = std::size_t(channels);
    return std::make_shared<const PaintImage>(
        image->width, image->height, channels,
        cutTiles(shape, [&](int x, int y, int count, std::uint8_t* out) {
            const std::size_t from =
                (std::size_t(y) * std::size_t(image->width) + std::size_t(x)) * 4;
            for (std::size_t i = 0; i < std::size_t(count); ++i)
                for (std::size_t c = 0; c < step; ++c) out[i * step + c] = byteOf(from + 4 * i + c);
        }));
}

}  // namespace corvelle
