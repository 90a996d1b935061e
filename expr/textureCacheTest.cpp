#include <gtest/gtest.h>

#include "expr/testing/pictures.h"
#include "expr/texture.h"
#include "expr/textureCache.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::size_t kMiB = std::size_t(1) << 20;

TEST(TextureCacheBudget, ReadsWholeMegabytes) {
    EXPECT_EQ(textureCacheBudget(nullptr), 1024 * kMiB);
    EXPECT_EQ(textureCacheBudget("0"), kMiB);
    EXPECT_EQ(textureCacheBudget("-7"), kMiB);
    EXPECT_EQ(textureCacheBudget(""), kMiB);
    EXPECT_EQ(textureCacheBudget("lots"), kMiB);
    EXPECT_EQ(textureCacheBudget("1"), kMiB);
    EXPECT_EQ(textureCacheBudget(" 64 MB"), 64 * kMiB);
    EXPECT_GT(textureCacheBudget("99999999999999999999999"), 1024 * kMiB)
        << "no overflow to little";
}

class TextureCacheTest : public testing::Test {
protected:
    const TempFolder folder;
    /// 64 x 64 pixels: 16 KiB decoded.
    std::string picture(int shade) {
        const std::string path = folder.file("p" + std::to_string(shade) + ".png");
        writePng(path, 64, 64, 1, makePixels(64, 64, 1, [&](int, int, int) { return shade; }));
        return path;
    }
    static constexpr std::size_t kBytes = 64 * 64 * 4;
};

TEST_F(TextureCacheTest, GivesOneImageWhileTheFileStays) {
    TextureCache cache(kMiB);
    const std::string path = picture(10);
    const ImagePtr first = cache.load(path);
    EXPECT_EQ(first->byteCount(), kBytes);
    EXPECT_EQ(cache.load(path), first);
    writePng(path, 8, 8, 1, makePixels(8, 8, 1, [](int, int, int) { return 77; }));
    const ImagePtr second = cache.load(path);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->bytes[0], 77);
    EXPECT_EQ(first->bytes[0], 10);
    EXPECT_EQ(cache.count(), 1u) << "the painted-over image is dropped";
    EXPECT_EQ(cache.usedBytes(), std::size_t(8 * 8 * 4));
}

TEST_F(TextureCacheTest, StaysWithinItsBudgetAndKeepsWhatWasUsedLast) {
    TextureCache cache(3 * kBytes);
    std::vector<std::string> paths;
    for (int i = 0; i < 8; ++i) paths.push_back(picture(i));
    const ImagePtr zero = cache.load(paths[0]);
    for (int i = 1; i < 8; ++i) {
        cache.load(paths[std::size_t(i)]);
        EXPECT_LE(cache.usedBytes(), 3 * kBytes);
        EXPECT_EQ(cache.load(paths[0]), zero) << "asked for again and again, so never the oldest";
    }
    EXPECT_EQ(cache.count(), 3u);
}

TEST_F(TextureCacheTest, KeepsOneImageLargerThanTheBudget) {
    TextureCache cache(kBytes / 2);
    const std::string path = picture(1);
    const ImagePtr image = cache.load(path);
    EXPECT_EQ(cache.load(path), image);
    EXPECT_EQ(cache.count(), 1u);
    cache.load(picture(2));
    EXPECT_EQ(cache.count(), 1u);
    EXPECT_EQ(cache.usedBytes(), kBytes);
}

TEST_F(TextureCacheTest, AFailureLeavesItAsItWas) {
    TextureCache cache(kMiB);
    cache.load(picture(1));
    EXPECT_THROW(cache.load(folder.file("none.png")), TextureError);
    writeBytes(folder.file("text.png"), "no picture");
    EXPECT_THROW(cache.load(folder.file("text.png")), TextureError);
    EXPECT_EQ(cache.count(), 1u);
    EXPECT_EQ(cache.usedBytes(), kBytes);
}

TEST_F(TextureCacheTest, ServesManyThreadsAtOnce) {
    TextureCache cache(2 * kBytes);
    std::vector<std::string> paths;
    for (int i = 0; i < 5; ++i) paths.push_back(picture(i));
    std::vector<int> shades(400, -1);
    runWithThreads(8, [&] {
        parallelRange(0, shades.size(), 1, [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) shades[i] = cache.load(paths[i % 5])->bytes[0];
        });
    });
    for (std::size_t i = 0; i < shades.size(); ++i) EXPECT_EQ(shades[i], int(i % 5));
    EXPECT_LE(cache.usedBytes(), 2 * kBytes);
}

TEST(Image, ChecksItsSize) {
    const auto errorOf = [](const Image& image) -> std::string {
        try {
            image.check();
        } catch (const TextureError& error) {
            return error.what();
        }
        return "";
    };
    Image image{.width = 2, .height = 2, .bytes = std::vector<std::uint8_t>(16), .floats = {}};
    EXPECT_EQ(errorOf(image), "");
    image.bytes.pop_back();
    EXPECT_EQ(errorOf(image), "Texture: size does not match its data");
    EXPECT_EQ(errorOf(Image{}), "Texture: size does not match its data");
}

}  // namespace
}  // namespace corvelle
