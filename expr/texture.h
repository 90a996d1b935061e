#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "expr/mapSource.h"
#include "expr/pixelTiles.h"
#include "model/vec3f.h"

namespace corvelle {

struct TextureError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// From a path as written to the file to read.
using PathResolver = std::function<std::string(const std::string&)>;

/// Expands $NAME, ${NAME} and %NAME% (not "%(UDIM)d"); absolute paths as they are; else `directory`
/// (the groom's), then each search path, joined path before bare name; the first that exists, else
/// the path unchanged. UDIM patterns exist when any tile does. A relative search path lies in
/// `directory`. The resolver looks at the file system at each call, and is safe from any thread.
PathResolver searchPathResolver(std::string directory, std::vector<std::string> searchPaths);

/// An image, or a UDIM tile set, read through the process-wide cache of decoded images (bounded by
/// CORVELLE_TEXTURE_CACHE_MB, default 1024). Sampling takes no lock: a texture pins its tiles.
/// Row 0 is v = 1; bilinear, texel centres at half, clamped at the edge.
class Texture {
public:
    /// Loads what is there. Throws TextureError "cannot read '<path>': file not found" and the like.
    static std::shared_ptr<const Texture> load(const std::string& path, const PathResolver& resolver);
    /// For a pattern that must be one. Throws TextureError "Texture: a UDIM pattern needs <UDIM>".
    static std::shared_ptr<const Texture> loadUdim(const std::string& pattern, const PathResolver& resolver);
    /// From rows of 1 (gray), 2 (gray, alpha), 3 or 4 bytes a pixel. Throws TextureError
    /// "textureFromPixels: size does not match its pixels".
    static std::shared_ptr<const Texture> fromPixels(int width, int height, int channels,
                                                     std::span<const std::uint8_t> pixels);
    /// From tiles, which are shared: nothing is copied. Gray pixels read as three like channels and
    /// alpha 1. Throws as fromPixels does.
    static std::shared_ptr<const Texture> fromTiles(TiledPixels pixels);
    static bool isUdim(const std::string& path);
    /// Changes when the file (or any tile) changes: resolved path, size, modification time; 0: no file.
    static std::uint64_t signature(const std::string& path, const PathResolver& resolver);
    ~Texture();

    /// u and v in 0..1 are read as they are; outside, a single image repeats and a tile set has
    /// further tiles: 1001 + floor(u) + 10 floor(v), the lower tile on a border whose own is missing.
    /// A missing tile reads 0 on all components; so does a coordinate that is not finite.
    Color4f sampleColor(float u, float v) const;
    float sample(float u, float v, MapComponent component) const;
    /// The same for many: out[i] at uvs[i], with the bits of the single forms.
    void sample(std::span<const Vec2f> uvs, MapComponent component, std::span<float> out) const;
    void sampleColors(std::span<const Vec2f> uvs, std::span<Color4f> out) const;
    bool eightBit() const;  ///< decoded from 8-bit pixels
    std::uint64_t hash() const;

private:
    struct Data;
    explicit Texture(std::unique_ptr<const Data> data);
    static std::shared_ptr<const Texture> make(Data data);
    std::unique_ptr<const Data> data_;
};
using TexturePtr = std::shared_ptr<const Texture>;

}  // namespace corvelle
