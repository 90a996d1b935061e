#include <cmath>
#include <limits>
#include <random>

#include <gmock/gmock.h>

#include "expr/searchPaths.h"
#include "expr/testing/pictures.h"
#include "expr/texture.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

using testing::HasSubstr;

constexpr MapComponent kComponents[] = {MapComponent::R, MapComponent::G, MapComponent::B,
                                        MapComponent::A, MapComponent::Luminance};

std::string errorOf(const std::function<void()>& run) {
    try {
        run();
    } catch (const TextureError& error) {
        return error.what();
    }
    return "nothing was thrown";
}

std::string bigEndian(std::uint32_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) text += char((value >> shift) & 255);
    return text;
}

/// A gray 16-bit PNG of one row, uncompressed; its checksums, which readers may skip, are 0.
std::string deepPng(const std::vector<int>& row) {
    std::string pixels(1, '\0');  // no filter
    for (const int value : row) pixels += bigEndian(std::uint32_t(value), 2);
    const std::string size = {char(pixels.size() & 255), char(pixels.size() >> 8)};
    const std::string inverse = {char(~pixels.size() & 255), char((~pixels.size() >> 8) & 255)};
    const auto chunk = [](const std::string& type, const std::string& data) {
        return bigEndian(std::uint32_t(data.size()), 4) + type + data + bigEndian(0, 4);
    };
    return "\x89PNG\r\n\x1a\n" +
           chunk("IHDR", bigEndian(std::uint32_t(row.size()), 4) + bigEndian(1, 4) + "\x10" +
                             std::string(4, '\0')) +
           chunk("IDAT", "\x78\x01\x01" + size + inverse + pixels + bigEndian(0, 4)) +
           chunk("IEND", "");
}

class TextureTest : public testing::Test {
protected:
    const TempFolder folder;
    const PathResolver plain = searchPathResolver({}, {});

    /// One colour all over.
    std::string flat(const std::string& name, int r, int g, int b, int a = 255) {
        const std::string path = folder.file(name);
        const int color[] = {r, g, b, a};
        writePng(path, 2, 2, 4, makePixels(2, 2, 4, [&](int, int, int c) { return color[c]; }));
        return path;
    }
};

TEST_F(TextureTest, ReadsTexelCentresExactlyAndBlendsBetween) {
    const std::string path = folder.file("ramp.png");
    writePng(path, 4, 2, 3,
             makePixels(4, 2, 3, [](int x, int y, int c) { return 10 * x + 100 * y + c; }));
    const TexturePtr texture = Texture::load(path, plain);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x) {
            const float u = (float(x) + 0.5f) / 4.0f,
                        v = 1.0f - (float(y) + 0.5f) / 2.0f;  // row 0 on top
            EXPECT_EQ(texture->sample(u, v, MapComponent::R), float(10 * x + 100 * y) / 255.0f);
            EXPECT_EQ(texture->sample(u, v, MapComponent::A), 1.0f);
        }
    EXPECT_FLOAT_EQ(texture->sample(0.25f, 0.75f, MapComponent::R), 5.0f / 255.0f);
    EXPECT_FLOAT_EQ(texture->sample(0.125f, 0.5f, MapComponent::R), 50.0f / 255.0f);
    EXPECT_TRUE(texture->eightBit());
}

TEST_F(TextureTest, ClampsAtTheEdgeAndRepeatsOutside) {
    const std::string path = folder.file("two.png");
    writePng(path, 2, 1, 1, makePixels(2, 1, 1, [](int x, int, int) { return x * 255; }));
    const TexturePtr texture = Texture::load(path, plain);
    const auto at = [&](float u) { return texture->sample(u, 0.5f, MapComponent::Luminance); };
    EXPECT_FLOAT_EQ(at(0.0f), 0.0f);
    EXPECT_FLOAT_EQ(at(1.0f), 1.0f) << "1 is the last column, not the first again";
    EXPECT_EQ(at(1.25f), at(0.25f));
    EXPECT_EQ(at(-0.25f), at(0.75f));
    EXPECT_EQ(at(std::numeric_limits<float>::quiet_NaN()), 0.0f);
    EXPECT_EQ(at(std::numeric_limits<float>::infinity()), 0.0f);
    EXPECT_TRUE(std::isfinite(at(1e30f)));
}

TEST_F(TextureTest, ReadsEveryDepthInItsOwnRange) {
    const std::string deep = folder.file("deep.png");
    writeBytes(deep, deepPng({0x1234, 0xffff}));
    const TexturePtr sixteen = Texture::load(deep, plain);
    EXPECT_FALSE(sixteen->eightBit());
    EXPECT_EQ(sixteen->sample(0.25f, 0.5f, MapComponent::R), float(0x1234) / 65535.0f);
    EXPECT_EQ(sixteen->sample(0.75f, 0.5f, MapComponent::A), 1.0f);

    const std::string bright = folder.file("bright.hdr");
    writeHdr(bright, 1, 1, {4.0f, 0.5f, 0.25f});
    const TexturePtr hdr = Texture::load(bright, plain);
    EXPECT_FALSE(hdr->eightBit());
    EXPECT_NEAR(hdr->sample(0.5f, 0.5f, MapComponent::R), 4.0f, 0.05f) << "no clamp, no curve";
}

TEST_F(TextureTest, FindsTheTileOfAPlace) {
    flat("t.1001.png", 10, 0, 0);
    flat("t.1002.png", 20, 0, 0);
    flat("t.1011.png", 30, 0, 0);
    flat("t.1100.png", 40, 0, 0);
    for (const char* marker : {"<UDIM>", "<udim>", "%(UDIM)d"}) {
        const TexturePtr texture =
            Texture::load(folder.file(std::string("t.") + marker + ".png"), plain);
        const auto at = [&](float u, float v) {
            return std::lround(texture->sample(u, v, MapComponent::R) * 255.0f);
        };
        EXPECT_EQ(at(0.5f, 0.5f), 10);
        EXPECT_EQ(at(1.5f, 0.5f), 20);
        EXPECT_EQ(at(0.5f, 1.5f), 30);
        EXPECT_EQ(at(9.5f, 9.5f), 40);
        EXPECT_EQ(at(1.0f, 0.5f), 20) << "a border belongs to the upper tile where there is one";
        EXPECT_EQ(at(2.0f, 0.5f), 20) << "else to the lower one";
        EXPECT_EQ(at(1.0f, 1.5f), 30);
        EXPECT_EQ(at(1.0f, 2.0f), 30) << "two borders at once";
        EXPECT_EQ(at(10.0f, 10.0f), 40);
        EXPECT_EQ(at(1.5f, 1.5f), 0) << "a missing tile";
        EXPECT_EQ(at(-0.1f, 0.5f), 0);
        EXPECT_EQ(at(10.5f, 0.5f), 0);
        EXPECT_EQ(texture->sample(1.5f, 1.5f, MapComponent::A), 0.0f);
    }
}

TEST_F(TextureTest, BatchesGiveTheBitsOfSingleSamples) {
    flat("b.1002.png", 99, 98, 97, 96);
    writePng(folder.file("b.1001.png"), 17, 9, 4, makePixels(17, 9, 4, [](int x, int y, int c) {
                 return int(mix64(x + 31 * y + 7 * c) & 255);
             }));
    for (const std::string name : {"b.1001.png", "b.<UDIM>.png"}) {
        const TexturePtr texture = Texture::load(folder.file(name), plain);
        std::vector<Vec2f> uvs;
        SplitMix random(5);
        for (int i = 0; i < 3000; ++i) {
            const float u = random.nextRange(-1.0f, 3.0f);
            uvs.push_back({u, random.nextRange(-0.5f, 1.5f)});
        }
        std::vector<float> out(uvs.size());
        std::vector<Color4f> colors(uvs.size());
        texture->sampleColors(uvs, colors);
        for (const MapComponent c : kComponents) {
            texture->sample(uvs, c, out);
            float most = 0.0f;
            for (std::size_t i = 0; i < uvs.size(); ++i) {
                ASSERT_EQ(out[i], texture->sample(uvs[i].x, uvs[i].y, c));
                ASSERT_EQ(colors[i], texture->sampleColor(uvs[i].x, uvs[i].y));
                most = std::max(most, out[i]);
            }
            EXPECT_GT(most, 0.1f);
        }
        for (std::size_t i = 0; i < uvs.size(); ++i)
            EXPECT_EQ(out[i], luminance(colors[i].r, colors[i].g, colors[i].b));
    }
}

TEST_F(TextureTest, SignatureFollowsTheFileAndItsTiles) {
    EXPECT_EQ(Texture::signature(folder.file("none.png"), plain), 0u);
    const std::string path = flat("a.png", 1, 2, 3);
    const std::uint64_t before = Texture::signature(path, plain);
    EXPECT_NE(before, 0u);
    EXPECT_EQ(Texture::load(path, plain)->hash(), before);
    writePng(path, 9, 9, 1, makePixels(9, 9, 1, [](int x, int, int) { return x * 20; }));
    EXPECT_NE(Texture::signature(path, plain), before);

    const std::string pattern = folder.file("s.<UDIM>.png");
    EXPECT_EQ(Texture::signature(pattern, plain), 0u);
    const std::string first = flat("s.1001.png", 1, 1, 1);
    const std::uint64_t one = Texture::signature(pattern, plain);
    EXPECT_EQ(one, hashCombine(hashCombine(0, std::uint64_t(1001)), fileSignature(first)));
    flat("s.1005.png", 1, 1, 1);
    EXPECT_NE(Texture::signature(pattern, plain), one);
}

TEST_F(TextureTest, PaintingTheFileAgainIsSeen) {
    const std::string path = flat("paint.png", 50, 0, 0);
    const TexturePtr old = Texture::load(path, plain);
    writePng(path, 3, 3, 1, makePixels(3, 3, 1, [](int, int, int) { return 200; }));
    EXPECT_EQ(Texture::load(path, plain)->sample(0.5f, 0.5f, MapComponent::R), 200.0f / 255.0f);
    EXPECT_EQ(old->sample(0.5f, 0.5f, MapComponent::R), 50.0f / 255.0f) << "what was read stays";
}

TEST_F(TextureTest, PixelsInMemoryKeepTheirChannels) {
    const std::uint8_t pixels[] = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120};
    const auto first = [&](int channels) {
        return Texture::fromPixels(1, 1, channels, {pixels, std::size_t(channels)})
            ->sampleColor(0.5f, 0.5f);
    };
    const auto unit = [](int i) { return float(i) / 255.0f; };
    EXPECT_EQ(first(1), (Color4f{unit(10), unit(10), unit(10), 1.0f}));
    EXPECT_EQ(first(2), (Color4f{unit(10), unit(10), unit(10), unit(20)}));
    EXPECT_EQ(first(3), (Color4f{unit(10), unit(20), unit(30), 1.0f}));
    EXPECT_EQ(first(4), (Color4f{unit(10), unit(20), unit(30), unit(40)}));
    EXPECT_NE(Texture::fromPixels(2, 1, 1, {pixels, 2})->hash(),
              Texture::fromPixels(1, 2, 1, {pixels, 2})->hash());
    const char* kMisfit = "textureFromPixels: size does not match its pixels";
    EXPECT_EQ(errorOf([&] { Texture::fromPixels(2, 2, 4, pixels); }), kMisfit);
    EXPECT_EQ(errorOf([&] { Texture::fromPixels(0, 0, 4, {}); }), kMisfit);
    EXPECT_EQ(errorOf([&] { Texture::fromPixels(-1, -12, 1, pixels); }), kMisfit);
    EXPECT_EQ(errorOf([&] { Texture::fromPixels(12, 1, 5, pixels); }), kMisfit);
}

TEST_F(TextureTest, SaysWhatIsWrongWithAFile) {
    const std::string missing = folder.file("missing.png");
    EXPECT_EQ(errorOf([&] { Texture::load(missing, plain); }),
              "cannot read '" + missing + "': file not found");
    const std::string tiles = folder.file("missing.<UDIM>.png");
    EXPECT_EQ(errorOf([&] { Texture::load(tiles, plain); }),
              "cannot read '" + tiles + "': file not found");
    EXPECT_EQ(errorOf([&] { Texture::load("", plain); }), "cannot read '': file not found");
    EXPECT_EQ(errorOf([&] { Texture::loadUdim("a.png", plain); }),
              "Texture: a UDIM pattern needs <UDIM>");

    const std::string text = folder.file("text.png");
    writeBytes(text, "this is no picture");
    EXPECT_THAT(errorOf([&] { Texture::load(text, plain); }),
                HasSubstr("cannot read '" + text + "': "));
    const std::string empty = folder.file("empty.png");
    writeBytes(empty, "");
    EXPECT_THAT(errorOf([&] { Texture::load(empty, plain); }),
                HasSubstr("cannot read '" + empty + "': "));
    const std::string bad = folder.file("bad.1003.png");
    writeBytes(bad, "neither is this");
    flat("bad.1001.png", 1, 1, 1);
    EXPECT_THAT(errorOf([&] { Texture::load(folder.file("bad.<UDIM>.png"), plain); }),
                HasSubstr("cannot read '" + bad + "': "));
}

TEST_F(TextureTest, BrokenFilesNeverDoMoreThanFail) {
    std::string whole;
    {
        const std::string path = flat("whole.png", 1, 2, 3);
        std::string bytes(4096, '\0');
        std::FILE* file = std::fopen(path.c_str(), "rb");
        ASSERT_NE(file, nullptr);
        bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
        std::fclose(file);
        whole = bytes;
    }
    const std::string path = folder.file("broken.png");
    int read = 0, refused = 0;
    SplitMix random(11);
    for (int i = 0; i < 200; ++i) {
        std::string bytes = whole.substr(0, i % 2 ? whole.size() : random.nextU64() % whole.size());
        if (i % 2) bytes[random.nextU64() % bytes.size()] ^= char(1 + random.nextU64() % 255);
        writeBytes(path, bytes);
        try {
            const TexturePtr texture = Texture::load(path, plain);
            EXPECT_TRUE(std::isfinite(texture->sample(0.3f, 0.3f, MapComponent::R)));
            ++read;
        } catch (const TextureError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 50);
    EXPECT_GT(read + refused, 199);
}

TEST_F(TextureTest, ReadsTheSameOnOneThreadAndOnMany) {
    for (int t = 0; t < 12; ++t)
        writePng(
            folder.file("m." + std::to_string(1001 + t) + ".png"), 8, 8, 3,
            makePixels(8, 8, 3, [&](int x, int y, int c) { return 3 * x + 5 * y + c + t * 13; }));
    const std::string pattern = folder.file("m.<UDIM>.png");
    std::vector<float> results[2];
    for (int many = 0; many < 2; ++many)
        runWithThreads(many ? 8 : 1, [&] {
            const TexturePtr texture = Texture::load(pattern, plain);
            results[many].resize(20000);
            parallelRange(0, results[many].size(), 64, [&](std::size_t b, std::size_t e) {
                for (std::size_t i = b; i < e; ++i)
                    results[many][i] = texture->sample(10.0f * unitHash(i), 2.0f * unitHash(~i),
                                                       MapComponent::Luminance);
            });
        });
    EXPECT_EQ(results[0], results[1]);
}

/// The tiles of a picture given row after row.
TiledPixels tiled(int width, int height, int channels, const std::vector<std::uint8_t>& pixels) {
    TiledPixels grid{.width = width, .height = height, .channels = channels};
    const std::size_t step = std::size_t(channels);
    std::vector<std::vector<std::uint8_t>> tiles(
        std::size_t(grid.columns() * grid.rows()),
        std::vector<std::uint8_t>(PixelTile::kPixels * step, 99));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (std::size_t c = 0; c < step; ++c)
                tiles[grid.tileOf(x, y)][TiledPixels::placeIn(x, y) * step + c] =
                    pixels[std::size_t(y * width + x) * step + c];
    for (auto& tile : tiles)
        grid.tiles.push_back(std::make_shared<const PixelTile>(std::move(tile)));
    return grid;
}

TEST_F(TextureTest, TilesReadAsTheirPixelsDo) {
    std::mt19937 random{3};
    for (const int channels : {1, 4})
        for (const auto& [width, height] : {std::pair{1, 1}, {256, 256}, {257, 300}, {700, 5}}) {
            std::vector<std::uint8_t> pixels(std::size_t(width * height * channels));
            for (std::uint8_t& p : pixels) p = std::uint8_t(random());
            const TexturePtr flat = Texture::fromPixels(width, height, channels, pixels);
            const TiledPixels grid = tiled(width, height, channels, pixels);
            const TexturePtr tiles = Texture::fromTiles(grid);
            EXPECT_TRUE(tiles->eightBit());
            std::vector<Vec2f> uvs = {{0, 0}, {1, 1}, {-0.25f, 2.75f}, {NAN, 0}, {0.5f, INFINITY}};
            for (int i = 0; i < 500; ++i)
                uvs.push_back({float(random()) * 0x1p-32f, float(random()) * 0x1p-32f});
            std::vector<float> a(uvs.size()), b(uvs.size());
            for (const MapComponent component : kComponents) {
                flat->sample(uvs, component, a);
                tiles->sample(uvs, component, b);
                EXPECT_EQ(a, b);
            }
            std::vector<Color4f> c(uvs.size()), d(uvs.size());
            flat->sampleColors(uvs, c);
            tiles->sampleColors(uvs, d);
            EXPECT_EQ(c, d);

            TiledPixels other = grid;
            EXPECT_EQ(Texture::fromTiles(other)->hash(), tiles->hash());
            std::vector<std::uint8_t> bytes = other.tiles.back()->bytes;
            bytes[0] ^= 1;
            other.tiles.back() = std::make_shared<const PixelTile>(bytes);
            EXPECT_NE(Texture::fromTiles(other)->hash(), tiles->hash());
            other.tiles.back() = nullptr;
            EXPECT_THROW(Texture::fromTiles(other), TextureError);
            other.tiles.pop_back();
            EXPECT_THROW(Texture::fromTiles(other), TextureError);
        }
}

}  // namespace
}  // namespace corvelle
