// The encoders against readers of their own: a reader of PNG's layout written from its text with
// the plain bitwise sums, and the decoder that the engine reads pictures by.

#include <array>
#include <fstream>
#include <random>

#include <gmock/gmock.h>

#include "expr/image.h"
#include "expr/imageWriter.h"
#include "expr/testing/pictures.h"
#include "expr/textureCache.h"

namespace corvelle {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t plainCrc(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = ~0u;
    for (const std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (crc & 1u ? 0xedb88320u : 0u);
    }
    return ~crc;
}

std::uint32_t plainAdler(std::span<const std::uint8_t> bytes) {
    std::uint64_t a = 1, b = 0;
    for (const std::uint8_t byte : bytes) {
        a = (a + byte) % 65521;
        b = (b + a) % 65521;
    }
    return std::uint32_t(b << 16 | a);
}

std::uint32_t big32(std::span<const std::uint8_t> bytes, std::size_t at) {
    return std::uint32_t(bytes[at]) << 24 | std::uint32_t(bytes[at + 1]) << 16 |
           std::uint32_t(bytes[at + 2]) << 8 | bytes[at + 3];
}

struct PngLayout {
    std::vector<std::string> types;
    Bytes header, stream;
    std::vector<std::size_t> blocks;  ///< their lengths
};

/// Takes a PNG of stored blocks apart, checking every length and sum on the way.
PngLayout layoutOf(const Bytes& png) {
    PngLayout layout;
    const Bytes signature = {137, 80, 78, 71, 13, 10, 26, 10};
    EXPECT_TRUE(std::equal(signature.begin(), signature.end(), png.begin()));
    for (std::size_t at = 8; at < png.size();) {
        const std::size_t length = big32(png, at);
        const std::span<const std::uint8_t> body = std::span(png).subspan(at + 4, length + 4);
        layout.types.emplace_back(body.begin(), body.begin() + 4);
        EXPECT_EQ(big32(png, at + 8 + length), plainCrc(body)) << layout.types.back();
        const std::span<const std::uint8_t> data = body.subspan(4);
        if (layout.types.back() == "IHDR") layout.header.assign(data.begin(), data.end());
        if (layout.types.back() == "IDAT") {
            EXPECT_EQ(data[0], 0x78);
            EXPECT_EQ((data[0] * 256 + data[1]) % 31, 0) << "the check of the stream's first byte";
            bool last = false;
            std::size_t i = 2;
            while (!last) {
                last = data[i] == 1;
                EXPECT_LE(data[i], 1);
                const std::size_t size = data[i + 1] | std::size_t(data[i + 2]) << 8;
                EXPECT_EQ(size ^ 0xffffu, data[i + 3] | std::size_t(data[i + 4]) << 8);
                layout.blocks.push_back(size);
                const auto from = data.subspan(i + 5, size);
                layout.stream.insert(layout.stream.end(), from.begin(), from.end());
                i += 5 + size;
            }
            EXPECT_EQ(i + 4, data.size()) << "only the last block is marked as such";
            EXPECT_EQ(big32(data, i), plainAdler(layout.stream));
        }
        at += 12 + length;
    }
    return layout;
}

Bytes randomBytes(std::size_t count) {
    std::mt19937 random{unsigned(count)};
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) byte = std::uint8_t(random());
    return bytes;
}

/// What the decoder gives for the pixels of a picture of `channels`.
Bytes asFour(const Bytes& pixels, int channels) {
    Bytes four;
    for (std::size_t i = 0; i < pixels.size(); i += std::size_t(channels)) {
        const std::uint8_t* p = pixels.data() + i;
        if (channels == 1)
            four.insert(four.end(), {p[0], p[0], p[0], 255});
        else
            four.insert(four.end(), {p[0], p[1], p[2], channels == 4 ? p[3] : std::uint8_t(255)});
    }
    return four;
}

TEST(ImageWriter, PngReadsBackAsItWasAndIsWellFormed) {
    for (const int channels : {1, 3, 4})
        for (const auto& [width, height] :
             {std::pair{1, 1}, {7, 3}, {300, 257}, {65534, 1}, {1, 400}}) {
            const Bytes pixels = randomBytes(std::size_t(width * height * channels));
            const Bytes png = encodePng(pixels, width, height, channels);
            const PngLayout layout = layoutOf(png);
            EXPECT_THAT(layout.types, testing::ElementsAre("IHDR", "IDAT", "IEND"));
            const std::array<std::uint8_t, 5> rest = {8,
                                                      std::uint8_t(channels == 1   ? 0
                                                                   : channels == 3 ? 2
                                                                                   : 6),
                                                      0, 0, 0};
            EXPECT_TRUE(std::equal(rest.begin(), rest.end(), layout.header.begin() + 8));
            const std::size_t raw = std::size_t(height) * (std::size_t(width * channels) + 1);
            EXPECT_EQ(layout.stream.size(), raw);
            EXPECT_EQ(layout.blocks.size(), (raw + 65534) / 65535);
            for (std::size_t b = 0; b + 1 < layout.blocks.size(); ++b)
                EXPECT_EQ(layout.blocks[b], 65535u);
            const ImagePtr image = decodeImage(png, "made");
            EXPECT_EQ(image->width, width);
            EXPECT_EQ(image->height, height);
            EXPECT_TRUE(image->bytes == asFour(pixels, channels));
            const Bytes rows = encodePngRows(
                [&](int y, std::span<std::uint8_t> out) {
                    std::copy_n(pixels.begin() + std::ptrdiff_t(std::size_t(y) * out.size()),
                                out.size(), out.begin());
                },
                width, height, channels);
            EXPECT_TRUE(rows == png);
        }
}

TEST(ImageWriter, SixteenBitsReadBackAsTheyWere) {
    for (const int channels : {1, 3, 4}) {
        std::vector<std::uint16_t> pixels;
        for (int i = 0; i < 40 * 30 * channels; ++i) pixels.push_back(std::uint16_t(i * 977));
        const Bytes png = encodePng16(pixels, 40, 30, channels);
        EXPECT_EQ(layoutOf(png).header[8], 16);
        const ImagePtr image = decodeImage(png, "made");
        ASSERT_FALSE(image->eightBit());
        for (std::size_t p = 0; p < 40 * 30; ++p)
            for (std::size_t c = 0; c < 3; ++c)
                ASSERT_EQ(
                    image->floats[4 * p + c],
                    float(pixels[p * std::size_t(channels) + (channels == 1 ? 0 : c)]) / 65535.0f);
    }
}

TEST(ImageWriter, TgaReadsBackAsItWas) {
    for (const int channels : {1, 3, 4}) {
        const Bytes pixels = randomBytes(std::size_t(33 * 21 * channels));
        const Bytes tga = encodeTga(pixels, 33, 21, channels);
        EXPECT_EQ(tga[2], channels == 1 ? 3 : 2);
        EXPECT_EQ(tga[17], channels == 4 ? 0x28 : 0x20);
        const ImagePtr image = decodeImage(tga, "made");
        EXPECT_EQ(image->width, 33);
        EXPECT_TRUE(image->bytes == asFour(pixels, channels)) << channels;
    }
}

TEST(ImageWriter, RefusesSizesThatDoNotFit) {
    const auto textOf = [](auto&& call) -> std::string {
        try {
            call();
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "nothing was thrown";
    };
    const Bytes four(4);
    const std::vector<std::uint16_t> wide(4);
    struct Case {
        int width, height, channels;
        const char* text;
    };
    const Case kCases[] = {
        {0, 2, 1, ": bad size or channels"},
        {2, -1, 1, ": bad size or channels"},
        {2, 1, 2, ": bad size or channels"},
        {1, 1, 5, ": bad size or channels"},
        {2, 1, 1, ": pixel count does not match the size"},
        {2147483647, 2147483647, 4, ": bad size or channels"},
    };
    for (const Case& c : kCases) {
        const auto [w, h, n] = std::array{c.width, c.height, c.channels};
        EXPECT_EQ(textOf([&, w = w, h = h, n = n] { encodePng(four, w, h, n); }),
                  std::string("encodePng") + c.text);
        EXPECT_EQ(textOf([&, w = w, h = h, n = n] { encodePng16(wide, w, h, n); }),
                  std::string("encodePng16") + c.text);
        EXPECT_EQ(textOf([&, w = w, h = h, n = n] { encodeTga(four, w, h, n); }),
                  std::string("encodeTga") + c.text);
        EXPECT_EQ(textOf([&, w = w, h = h, n = n] { writePng("never", four, w, h, n); }),
                  std::string("writePng") + c.text);
    }
    EXPECT_EQ(textOf([&] { encodeTga(Bytes(65536), 65536, 1, 1); }),
              "encodeTga: bad size or channels");
}

TEST(ImageWriter, WritesOverAFileAndItsCachedPixels) {
    const TempFolder folder;
    const std::string path = folder.file("gr\xc3\xbc\xc3\x9f/map.png");
    TextureCache& cache = TextureCache::instance();
    for (const std::uint8_t gray : {std::uint8_t(10), std::uint8_t(200)}) {  // of one size
        writePng(path, Bytes(12, gray), 4, 3, 1);
        EXPECT_EQ(cache.load(path)->bytes[0], gray);
    }
    const std::string nowhere = folder.file("a") + "/b/map.png";
    try {
        writePng(nowhere, Bytes(1), 1, 1, 1);
        ADD_FAILURE() << "wrote into a folder that is not there";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "can't write " + nowhere);
    }
}

}  // namespace
}  // namespace corvelle
