#include "expr/texture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <type_traits>

#include "expr/image.h"
#include "expr/searchPaths.h"
#include "expr/textureCache.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

struct Texture::Data {
    std::vector<ImagePtr> tiles;  ///< 1, or kTileCount by tile number, null for a missing one
    bool udim = false;
    TiledPixels grid;  ///< in place of `tiles` when it has any
    bool eightBit = false;
    std::uint64_t hash = 0;
};

namespace {

constexpr std::array<float, 256> kUnit = [] {
    std::array<float, 256> table{};
    for (int i = 0; i < 256; ++i) table[std::size_t(i)] = float(i) / 255.0f;
    return table;
}();

inline float texel(const std::uint8_t* p) { return kUnit[*p]; }
inline float texel(const float* p) { return *p; }

// The forms that pixels are held in: where pixel (x, y) starts, and how many channels it has.
template <class P>
struct FlatPixels {
    static constexpr int kChannels = 4;
    const P* pixels;
    int width, height;
    const P* at(int x, int y) const {
        return pixels + (std::size_t(y) * std::size_t(width) + std::size_t(x)) * 4;
    }
};
template <int channels>
struct GridPixels {
    static constexpr int kChannels = channels;
    explicit GridPixels(const TiledPixels& held)
        : grid(held), width(held.width), height(held.height), columns(held.columns()) {}
    const TiledPixels& grid;
    int width, height, columns;
    const std::uint8_t* at(int x, int y) const {
        const std::size_t tile = std::size_t(y / PixelTile::kSide) * std::size_t(columns) +
                                 std::size_t(x / PixelTile::kSide);
        return grid.tiles[tile]->bytes.data() + TiledPixels::placeIn(x, y) * std::size_t(channels);
    }
};

/// The four pixels round a place, and the shares between them.
template <class P>
struct Taps {
    const P *p00, *p10, *p01, *p11;
    float fx, fy;
};

/// One axis: the two neighbours, clamped at the edge, and the share between them.
inline void tapAxis(float place, int size, int& low, int& high, float& share) {
    const float at = place * float(size) - 0.5f;  // texel centres at half
    const float down = std::floor(at);
    share = at - down;
    low = std::clamp(int(down), 0, size - 1);
    high = std::clamp(int(down) + 1, 0, size - 1);
}

template <class Pixels>
inline auto tapsAt(const Pixels& pixels, float u, float v) {
    int x0, x1, y0, y1;
    float fx, fy;
    tapAxis(u, pixels.width, x0, x1, fx);
    tapAxis(1.0f - v, pixels.height, y0, y1, fy);  // row 0 is v = 1
    using Texel = std::remove_cvref_t<decltype(*pixels.at(0, 0))>;
    return Taps<Texel>{
        pixels.at(x0, y0), pixels.at(x1, y0), pixels.at(x0, y1), pixels.at(x1, y1), fx, fy};
}

template <class P>
inline float bilinear(const Taps<P>& t, int channel) {
    return mix(mix(texel(t.p00 + channel), texel(t.p10 + channel), t.fx),
               mix(texel(t.p01 + channel), texel(t.p11 + channel), t.fx), t.fy);
}

template <MapComponent C, class Pixels>
inline float component(const Pixels& pixels, float u, float v) {
    const auto t = tapsAt(pixels, u, v);
    if constexpr (Pixels::kChannels == 1) {
        if (C == MapComponent::A) return 1.0f;
        const float gray = bilinear(t, 0);
        return C == MapComponent::Luminance ? luminance(gray, gray, gray) : gray;
    } else if constexpr (C == MapComponent::Luminance) {
        return luminance(bilinear(t, 0), bilinear(t, 1), bilinear(t, 2));
    } else {
        return bilinear(t, int(C));
    }
}

template <class Pixels>
inline Color4f color(const Pixels& pixels, float u, float v) {
    const auto t = tapsAt(pixels, u, v);
    if constexpr (Pixels::kChannels == 1) {
        const float gray = bilinear(t, 0);
        return {gray, gray, gray, 1.0f};
    } else {
        return {bilinear(t, 0), bilinear(t, 1), bilinear(t, 2), bilinear(t, 3)};
    }
}

/// Repeats outside 0..1; 1 itself is the last column.
inline float wrapped(float x) { return x >= 0.0f && x <= 1.0f ? x : x - std::floor(x); }

/// The tile of a place and the place in it; null where there is none.
const Image* tileAt(const std::vector<ImagePtr>& tiles, float& u, float& v) {
    if (!(u >= 0.0f && u <= 10.0f && v >= 0.0f && v <= 10.0f)) return nullptr;
    const int column = int(u), row = int(v);
    const bool onColumn = column > 0 && u == float(column);
    const bool onRow = row > 0 && v == float(row);
    const auto tile = [&](int c, int r) -> const Image* {
        return c < 10 && r < 10 ? tiles[std::size_t(c + 10 * r)].get() : nullptr;
    };
    for (const auto& [dc, dr] : {std::pair{0, 0}, {1, 0}, {0, 1}, {1, 1}}) {
        if ((dc && !onColumn) || (dr && !onRow)) continue;
        if (const Image* image = tile(column - dc, row - dr)) {
            u -= float(column - dc);
            v -= float(row - dr);
            return image;
        }
    }
    return nullptr;
}

inline bool finite(Vec2f uv) { return std::isfinite(uv.x) && std::isfinite(uv.y); }

/// Calls read(i, pixels, u, v) for each place that has pixels, missing(i) for the others.
template <class Read, class Missing>
inline void forEachPlace(const std::vector<ImagePtr>& tiles, bool udim, std::span<const Vec2f> uvs,
                         Read&& read, Missing&& missing) {
    for (std::size_t i = 0; i < uvs.size(); ++i) {
        if (!finite(uvs[i])) {
            missing(i);
            continue;
        }
        float u = uvs[i].x, v = uvs[i].y;
        const Image* image = tiles[0].get();
        if (udim) {
            image = tileAt(tiles, u, v);
        } else {
            u = wrapped(u);
            v = wrapped(v);
        }
        if (!image)
            missing(i);
        else if (image->eightBit())
            read(i, FlatPixels<std::uint8_t>{image->bytes.data(), image->width, image->height}, u,
                 v);
        else
            read(i, FlatPixels<float>{image->floats.data(), image->width, image->height}, u, v);
    }
}

template <class Pixels, class Read, class Missing>
inline void forEachPlace(const Pixels& pixels, std::span<const Vec2f> uvs, Read&& read,
                         Missing&& missing) {
    for (std::size_t i = 0; i < uvs.size(); ++i) {
        if (finite(uvs[i]))
            read(i, pixels, wrapped(uvs[i].x), wrapped(uvs[i].y));
        else
            missing(i);
    }
}

/// The same over whatever a texture holds.
template <class Data, class Read, class Missing>
inline void forEachPlaceOf(const Data& data, std::span<const Vec2f> uvs, Read&& read,
                           Missing&& missing) {
    if (data.grid.tiles.empty())
        forEachPlace(data.tiles, data.udim, uvs, read, missing);
    else if (data.grid.channels == 1)
        forEachPlace(GridPixels<1>(data.grid), uvs, read, missing);
    else
        forEachPlace(GridPixels<4>(data.grid), uvs, read, missing);
}

template <MapComponent C, class Data>
void sampleComponent(const Data& data, std::span<const Vec2f> uvs, std::span<float> out) {
    forEachPlaceOf(
        data, uvs,
        [&](std::size_t i, const auto& pixels, float u, float v) {
            out[i] = component<C>(pixels, u, v);
        },
        [&](std::size_t i) { out[i] = 0.0f; });
}

std::uint64_t tilesSignature(const std::string& pattern) {
    std::uint64_t signature = 0;
    for (int tile = kFirstTile; tile < kFirstTile + kTileCount; ++tile) {
        const std::uint64_t file = fileSignature(tilePath(pattern, tile));
        if (file == 0) continue;
        signature = hashCombine(signature, std::uint64_t(tile));
        signature = hashCombine(signature, file);
    }
    return signature;
}

std::string resolved(const std::string& path, const PathResolver& resolver) {
    return resolver ? resolver(path) : path;
}

}  // namespace

Texture::Texture(std::unique_ptr<const Data> data) : data_(std::move(data)) {}
Texture::~Texture() = default;

std::shared_ptr<const Texture> Texture::make(Data data) {
    data.eightBit = true;
    for (const ImagePtr& tile : data.tiles)
        if (tile && !tile->eightBit()) data.eightBit = false;
    return std::shared_ptr<const Texture>(
        new Texture(std::make_unique<const Data>(std::move(data))));
}

std::shared_ptr<const Texture> Texture::load(const std::string& path,
                                             const PathResolver& resolver) {
    if (isUdim(path)) return loadUdim(path, resolver);
    const std::string file = resolved(path, resolver);
    Data data;
    data.hash = fileSignature(file);
    if (data.hash == 0 && !pictureExists(file))
        throw TextureError("cannot read '" + path + "': file not found");
    data.tiles.push_back(TextureCache::instance().load(file));
    return make(std::move(data));
}

std::shared_ptr<const Texture> Texture::loadUdim(const std::string& pattern,
                                                 const PathResolver& resolver) {
    if (!isUdim(pattern)) throw TextureError("Texture: a UDIM pattern needs <UDIM>");
    const std::string files = resolved(pattern, resolver);
    Data data;
    data.udim = true;
    data.hash = tilesSignature(files);
    data.tiles.resize(std::size_t(kTileCount));
    std::vector<std::string> errors(data.tiles.size());
    parallelRange(0, data.tiles.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const std::string file = tilePath(files, kFirstTile + int(t));
            if (!pictureExists(file)) continue;
            try {
                data.tiles[t] = TextureCache::instance().load(file);
            } catch (const TextureError& error) {
                errors[t] = error.what();
            }
        }
    });
    for (const std::string& error : errors)
        if (!error.empty()) throw TextureError(error);
    if (std::none_of(data.tiles.begin(), data.tiles.end(),
                     [](const ImagePtr& t) { return t != nullptr; }))
        throw TextureError("cannot read '" + pattern + "': file not found");
    return make(std::move(data));
}

std::shared_ptr<const Texture> Texture::fromPixels(int width, int height, int channels,
                                                   std::span<const std::uint8_t> pixels) {
    if (width <= 0 || height <= 0 || channels < 1 || channels > 4 ||
        pixels.size() / std::size_t(channels) / std::size_t(width) != std::size_t(height) ||
        pixels.size() != std::size_t(width) * std::size_t(height) * std::size_t(channels))
        throw TextureError("textureFromPixels: size does not match its pixels");
    auto image = std::make_shared<Image>();
    image->width = width;
    image->height = height;
    image->bytes.resize(std::size_t(width) * std::size_t(height) * 4);
    const std::size_t step = std::size_t(channels);
    std::uint64_t hash = hashCombine(hashCombine(mix64(std::uint64_t(width)), height), channels);
    for (std::size_t i = 0; i < image->bytes.size() / 4; ++i) {
        const std::uint8_t* from = pixels.data() + i * step;
        std::uint8_t* to = image->bytes.data() + i * 4;
        const bool gray = channels < 3;
        to[0] = from[0];
        to[1] = gray ? from[0] : from[1];
        to[2] = gray ? from[0] : from[2];
        to[3] = channels == 2 ? from[1] : channels == 4 ? from[3] : std::uint8_t(255);
        hash = hashCombine(hash, (std::uint32_t(to[0]) << 24) | (std::uint32_t(to[1]) << 16) |
                                     (std::uint32_t(to[2]) << 8) | std::uint32_t(to[3]));
    }
    Data data;
    data.hash = hash;
    data.tiles.push_back(std::move(image));
    return make(std::move(data));
}

std::shared_ptr<const Texture> Texture::fromTiles(TiledPixels pixels) {
    const bool sized =
        pixels.width > 0 && pixels.height > 0 && (pixels.channels == 1 || pixels.channels == 4) &&
        pixels.tiles.size() == std::size_t(pixels.columns()) * std::size_t(pixels.rows());
    const std::size_t bytes = PixelTile::kPixels * std::size_t(pixels.channels);
    if (!sized || !std::ranges::all_of(pixels.tiles, [&](const PixelTilePtr& tile) {
            return tile && tile->bytes.size() == bytes;
        }))
        throw TextureError("textureFromPixels: size does not match its pixels");
    Data data;
    data.hash = hashCombine(hashCombine(hashCombine(hashOf("tiles"), pixels.width), pixels.height),
                            pixels.channels);
    for (const PixelTilePtr& tile : pixels.tiles) data.hash = hashCombine(data.hash, tile->hash);
    data.grid = std::move(pixels);
    return make(std::move(data));
}

bool Texture::isUdim(const std::string& path) { return hasUdimMarker(path); }

std::uint64_t Texture::signature(const std::string& path, const PathResolver& resolver) {
    const std::string files = resolved(path, resolver);
    return isUdim(files) ? tilesSignature(files) : fileSignature(files);
}

Color4f Texture::sampleColor(float u, float v) const {
    const Vec2f uv{u, v};
    Color4f out;
    sampleColors({&uv, 1}, {&out, 1});
    return out;
}

float Texture::sample(float u, float v, MapComponent component) const {
    const Vec2f uv{u, v};
    float out = 0.0f;
    sample({&uv, 1}, component, {&out, 1});
    return out;
}

void Texture::sample(std::span<const Vec2f> uvs, MapComponent component,
                     std::span<float> out) const {
    switch (component) {
        case MapComponent::R:
            return sampleComponent<MapComponent::R>(*data_, uvs, out);
        case MapComponent::G:
            return sampleComponent<MapComponent::G>(*data_, uvs, out);
        case MapComponent::B:
            return sampleComponent<MapComponent::B>(*data_, uvs, out);
        case MapComponent::A:
            return sampleComponent<MapComponent::A>(*data_, uvs, out);
        case MapComponent::Luminance:
            return sampleComponent<MapComponent::Luminance>(*data_, uvs, out);
    }
}

void Texture::sampleColors(std::span<const Vec2f> uvs, std::span<Color4f> out) const {
    forEachPlaceOf(
        *data_, uvs,
        [&](std::size_t i, const auto& pixels, float u, float v) { out[i] = color(pixels, u, v); },
        [&](std::size_t i) {
            out[i] = {0.0f, 0.0f, 0.0f, 0.0f};
        });
}

bool Texture::eightBit() const { return data_->eightBit; }
std::uint64_t Texture::hash() const { return data_->hash; }

}  // namespace corvelle
