#include "tools/mapConversion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <string>

#include "model/parallel.h"
#include "model/triangleQueries.h"
#include "tools/pixelOwners.h"

namespace corvelle {
namespace {

constexpr int kSide = PixelTile::kSide;
constexpr std::size_t kVertexGrain = 256;

[[noreturn]] void fail(const std::string& text) { throw std::invalid_argument(text); }

void checkValues(const char* operation, std::span<const float> values, int channels,
                 const ScalpMesh& scalp) {
    if ((channels != 1 && channels != 4) ||
        values.size() != scalp.points().size() * std::size_t(channels))
        fail(std::string(operation) + ": one value per scalp vertex and channel");
}

bool hasUvs(const ScalpPtr& scalp) { return scalp && !scalp->uvs().empty(); }

/// Mixes the values of a triangle's vertices at a root.
void mixVertices(std::span<const float> values, int channels, const ScalpMesh& scalp,
                 const StrandRoot& root, float* out) {
    const Triangle& triangle = scalp.triangles()[std::size_t(root.triangle)];
    const float w = 1.0f - root.u - root.v;
    for (int c = 0; c < channels; ++c) {
        const auto at = [&](int corner) {
            return values[std::size_t(triangle[std::size_t(corner)]) * std::size_t(channels) +
                          std::size_t(c)];
        };
        out[c] = root.u * at(0) + root.v * at(1) + w * at(2);
    }
}

std::array<float, 4> asArray(const Color4f& color) { return {color.r, color.g, color.b, color.a}; }

/// Paints every pixel that a scalp's triangles hold over the tiles of `image`: color(patch, place,
/// hint, out) gives its channels, `hint` being what it left at the pixel before.
template <class Color>
std::shared_ptr<const PaintImage> paintPixels(const PaintImage& image, const ScalpPtr& scalp,
                                              Color&& color) {
    const std::shared_ptr<PixelOwners> owners =
        std::make_shared<PixelOwners>(scalp, image.width(), image.height());
    std::vector<std::size_t> all(image.tiles().size());
    std::iota(all.begin(), all.end(), std::size_t(0));
    owners->prepare(all);
    const std::size_t step = std::size_t(image.channels());
    std::vector<std::vector<std::uint8_t>> painted(all.size());
    parallelRange(0, all.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const PixelOwners::Tile& tile = owners->tile(t);
            painted[t] = image.tiles()[t]->bytes;
            std::int32_t hint = -1;
            for (std::size_t p = 0; p < tile.owner.size(); ++p) {
                if (tile.owner[p] == PixelOwners::kNone) continue;
                std::array<float, 4> value{};
                const PixelOwners::Patch& patch = tile.patches[tile.owner[p]];
                color(patch, patch.at(int(p) % kSide, int(p) / kSide), hint, value.data());
                for (std::size_t c = 0; c < step; ++c)
                    painted[t][p * step + c] =
                        std::uint8_t(std::lround(255.0f * std::clamp(value[c], 0.0f, 1.0f)));
            }
        }
    });
    std::vector<PixelTilePtr> tiles(all.size());
    parallelRange(0, all.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            std::vector<std::uint8_t> bytes = painted[t];
            const int left = int(t) % owners->columns() * kSide;
            const int top = int(t) / owners->columns() * kSide;
            for (const PixelOwners::Pad& pad : owners->tile(t).pads) {
                const int x = left + int(pad.place) % kSide + pad.dx;
                const int y = top + int(pad.place) / kSide + pad.dy;
                const std::uint8_t* from =
                    painted[image.pixels().tileOf(x, y)].data() + TiledPixels::placeIn(x, y) * step;
                std::copy_n(from, step,
                            bytes.begin() + std::ptrdiff_t(std::size_t(pad.place) * step));
            }
            tiles[t] = bytes == image.tiles()[t]->bytes
                           ? image.tiles()[t]
                           : std::make_shared<const PixelTile>(std::move(bytes));
        }
    });
    return std::make_shared<const PaintImage>(image.width(), image.height(), image.channels(),
                                              std::move(tiles));
}

}  // namespace

std::shared_ptr<const PaintImage> projectTexture(const PaintImage& image, const ScalpPtr& oldScalp,
                                                 const ScalpPtr& newScalp) {
    if (!hasUvs(newScalp)) fail("the new scalp has no UVs to paint a texture map on");
    if (!oldScalp || oldScalp->triangles().empty()) fail("the old scalp has no faces");
    if (!hasUvs(oldScalp)) fail("the old scalp has no UVs to read the texture map at");
    oldScalp->prepareQueries();
    const Texture& texture = *image.texture();
    return paintPixels(
        image, newScalp,
        [&](const PixelOwners::Patch&, Vec3f place, std::int32_t& hint, float* out) {
            SurfaceHit hit;
            if (!oldScalp->closestPointFrom(place, ScalpMesh::kAnyDistance, hint, hit)) return;
            hint = hit.triangle;
            const Vec2f uv = oldScalp->surfaceUv(hit.root());
            std::ranges::copy(asArray(texture.sampleColor(uv.x, uv.y)), out);
        });
}

std::vector<float> projectVertexMap(std::span<const float> values, int channels,
                                    const ScalpMesh& oldScalp, const ScalpMesh& newScalp) {
    if (channels != 1 && channels != 4) fail("projectVertexMap: a map has 1 or 4 channels");
    const std::size_t step = std::size_t(channels);
    if (values.size() != oldScalp.points().size() * step)
        fail("the map has " + std::to_string(values.size() / step) +
             " vertices' values and the old scalp " + std::to_string(oldScalp.points().size()) +
             " vertices");
    if (oldScalp.triangles().empty()) fail("the old scalp has no faces");
    oldScalp.prepareQueries();
    const std::span<const Vec3f> points = newScalp.points();
    std::vector<float> out(points.size() * step, 0.0f);
    parallelRange(0, points.size(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        std::int32_t hint = -1;
        for (std::size_t v = begin; v < end; ++v) {
            SurfaceHit hit;
            if (!oldScalp.closestPointFrom(points[v], ScalpMesh::kAnyDistance, hint, hit)) continue;
            hint = hit.triangle;
            mixVertices(values, channels, oldScalp, hit.root(), out.data() + v * step);
        }
    });
    return out;
}

std::vector<Color4f> cornerColorsFromVertexMap(std::span<const float> values, int channels,
                                               const ScalpMesh& scalp) {
    checkValues("cornerColorsFromVertexMap", values, channels, scalp);
    std::vector<Color4f> colors;
    colors.reserve(3 * scalp.triangles().size());
    for (const Triangle& triangle : scalp.triangles())
        for (const std::int32_t vertex : triangle) {
            const float* v = values.data() + std::size_t(vertex) * std::size_t(channels);
            colors.push_back(channels == 1 ? Color4f{v[0], v[0], v[0], 1.0f}
                                           : Color4f{v[0], v[1], v[2], v[3]});
        }
    return colors;
}

std::shared_ptr<const PaintImage> textureFromVertexMap(std::span<const float> values, int channels,
                                                       const ScalpPtr& scalp, int resolution) {
    if (!hasUvs(scalp)) fail("the scalp has no UVs to paint a texture map on");
    checkValues("textureFromVertexMap", values, channels, *scalp);
    const auto blank = PaintImage::filled(resolution, resolution, channels, {0, 0, 0, 0});
    const auto color = [&](const PixelOwners::Patch& patch, Vec3f place, std::int32_t&,
                           float* out) {
        const Triangle& triangle = scalp->triangles()[std::size_t(patch.triangle)];
        const auto corner = [&](std::size_t c) {
            return scalp->points()[std::size_t(triangle[c])];
        };
        const auto at = sharesOfClosest(corner(0), corner(1), corner(2), place);
        mixVertices(values, channels, *scalp, {patch.triangle, 1.0f - at.v - at.w, at.v}, out);
    };
    return paintPixels(*blank, scalp, color);
}

std::vector<float> vertexMapFromTexture(const Texture& texture, int channels,
                                        const ScalpMesh& scalp) {
    if (scalp.uvs().empty()) fail("the scalp has no UVs to read a texture map at");
    if (channels != 1 && channels != 4) fail("vertexMapFromTexture: a map has 1 or 4 channels");
    const std::size_t step = std::size_t(channels);
    std::vector<float> values(scalp.points().size() * step, 0.0f);
    std::vector<std::uint32_t> corners(scalp.points().size(), 0);
    const std::span<const Vec2f> uvs = scalp.uvs();
    std::vector<Color4f> colors(uvs.size());
    parallelRange(0, uvs.size(), 4096, [&](std::size_t begin, std::size_t end) {
        texture.sampleColors(uvs.subspan(begin, end - begin),
                             std::span(colors).subspan(begin, end - begin));
    });
    for (std::size_t c = 0; c < uvs.size(); ++c) {
        const std::size_t vertex = std::size_t(scalp.triangles()[c / 3][c % 3]);
        const Color4f& color = colors[c];
        const std::array<float, 4> all = asArray(color);
        ++corners[vertex];
        if (step == 1)
            values[vertex] += luminance(color.r, color.g, color.b);
        else
            for (std::size_t k = 0; k < step; ++k) values[vertex * step + k] += all[k];
    }
    for (std::size_t v = 0; v < corners.size(); ++v)
        for (std::size_t k = 0; k < step && corners[v] > 1; ++k)
            values[v * step + k] /= float(corners[v]);
    return values;
}

}  // namespace corvelle
