#include "expr/texture.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "expr/image.h"
#include "expr/searchPaths.h"
#include "expr/textureCache.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

struct Texture::Data {
    std::vector<ImagePtr> tiles;  ///< 1, or kTileCount by tile number, null for a missing one
    bool udim = false;
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

/// The four pixels round a place, as offsets of their first channel, and the shares between them.
struct Taps {
    std::size_t i00, i10, i01, i11;
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

inline Taps tapsAt(const Image& image, float u, float v) {
    int x0, x1, y0, y1;
    Taps t;
    tapAxis(u, image.width, x0, x1, t.fx);
    tapAxis(1.0f - v, image.height, y0, y1, t.fy);  // row 0 is v = 1
    const std::size_t row0 = std::size_t(y0) * std::size_t(image.width);
    const std::size_t row1 = std::size_t(y1) * std::size_t(image.width);
    t.i00 = (row0 + std::size_t(x0)) * 4;
    t.i10 = (row0 + std::size_t(x1)) * 4;
    t.i01 = (row1 + std::size_t(x0)) * 4;
    t.i11 = (row1 + std::size_t(x1)) * 4;
    return t;
}

template <class P>
inline float bilinear(const P* pixels, const Taps& t, int channel) {
    const P* p = pixels + channel;
    return mix(mix(texel(p + t.i00), texel(p + t.i10), t.fx),
               mix(texel(p + t.i01), texel(p + t.i11), t.fx), t.fy);
}

template <MapComponent C, class P>
inline float component(const P* pixels, const Taps& t) {
    if constexpr (C == MapComponent::Luminance)
        return luminance(bilinear(pixels, t, 0), bilinear(pixels, t, 1), bilinear(pixels, t, 2));
    else
        return bilinear(pixels, t, int(C));
}

template <class P>
inline Color4f color(const P* pixels, const Taps& t) {
    return {bilinear(pixels, t, 0), bilinear(pixels, t, 1), bilinear(pixels, t, 2),
            bilinear(pixels, t, 3)};
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

/// Calls read(i, image, taps) for each place that has pixels, missing(i) for the others.
template <class Read, class Missing>
inline void forEachPlace(const std::vector<ImagePtr>& tiles, bool udim, std::span<const Vec2f> uvs,
                         Read&& read, Missing&& missing) {
    for (std::size_t i = 0; i < uvs.size(); ++i) {
        float u = uvs[i].x, v = uvs[i].y;
        if (!(std::isfinite(u) && std::isfinite(v))) {
            missing(i);
            continue;
        }
        const Image* image = tiles[0].get();
        if (udim) {
            image = tileAt(tiles, u, v);
        } else {
            u = wrapped(u);
            v = wrapped(v);
        }
        if (image)
            read(i, *image, tapsAt(*image, u, v));
        else
            missing(i);
    }
}

template <MapComponent C>
void sampleComponent(const std::vector<ImagePtr>& tiles, bool udim, std::span<const Vec2f> uvs,
                     std::span<float> out) {
    forEachPlace(
        tiles, udim, uvs,
        [&](std::size_t i, const Image& image, const Taps& t) {
            out[i] = image.eightBit() ? component<C>(image.bytes.data(), t)
                                      : component<C>(image.floats.data(), t);
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
    if (std::none_of(data.tiles.begin(), data.tiles.end(), [](const ImagePtr& t) { return t != nullptr; }))
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
    const Data& d = *data_;
    switch (component) {
        case MapComponent::R: return sampleComponent<MapComponent::R>(d.tiles, d.udim, uvs, out);
        case MapComponent::G: return sampleComponent<MapComponent::G>(d.tiles, d.udim, uvs, out);
        case MapComponent::B: return sampleComponent<MapComponent::B>(d.tiles, d.udim, uvs, out);
        case MapComponent::A: return sampleComponent<MapComponent::A>(d.tiles, d.udim, uvs, out);
        case MapComponent::Luminance:
            return sampleComponent<MapComponent::Luminance>(d.tiles, d.udim, uvs, out);
    }
}

void Texture::sampleColors(std::span<const Vec2f> uvs, std::span<Color4f> out) const {
    forEachPlace(
        data_->tiles, data_->udim, uvs,
        [&](std::size_t i, const Image& image, const Taps& t) {
            out[i] = image.eightBit() ? color(image.bytes.data(), t) : color(image.floats.data(), t);
        },
        [&](std::size_t i) { out[i] = {0.0f, 0.0f, 0.0f, 0.0f}; });
}

bool Texture::eightBit() const { return data_->eightBit; }
std::uint64_t Texture::hash() const { return data_->hash; }

}  // namespace corvelle
