#include <cmath>
#include <limits>
#include <random>

#include <gmock/gmock.h>

#include "expr/testing/pictures.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "tools/smoothPasses.h"
#include "tools/texturePaint.h"

namespace corvelle {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// A plane of 10 cm whose UVs fill 0..1, moved and scaled to start at `from` and be `size` wide.
ScalpPtr planeOver(Vec2f from, float size, int quads = 6) {
    ScalpMesh mesh = makePlane(quads, quads, 10.0f);
    std::vector<Vec2f> uvs(mesh.uvs().begin(), mesh.uvs().end());
    for (Vec2f& uv : uvs) uv = {from.x + uv.x * size, from.y + uv.y * size};
    mesh.setUvs(uvs);
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

/// Where a pixel's centre lies on that plane.
Vec3f placeOf(int x, int y, int width, int height, Vec2f from, float size) {
    const float u = ((float(x) + 0.5f) / float(width) - from.x) / size;
    const float v = (1.0f - (float(y) + 0.5f) / float(height) - from.y) / size;
    return {(u - 0.5f) * 10.0f, 0.0f, (0.5f - v) * 10.0f};
}

BrushStamp sphereAt(Vec3f center, float radius, float hardness = 0.0f) {
    return {.center = center, .radius = radius, .hardness = hardness};
}

std::array<std::uint8_t, 4> pixelOf(const PaintImage& image, int x, int y) {
    std::array<std::uint8_t, 4> out{};
    std::copy_n(image.pixels().pixel(x, y), image.channels(), out.begin());
    return out;
}

constexpr std::array<float, 4> kWhite = {1, 1, 1, 1};

TEST(TexturePaint, MovesEachPixelUnderTheBrushByItsWeightAndNoOther) {
    const int width = 300, height = 270;
    const ScalpPtr scalp = planeOver({0, 0}, 1.0f);
    TexturePaint paint(PaintImage::filled(width, height, 1, {51}));
    paint.beginEdit(scalp);
    const BrushStamp stamp = sphereAt({1.0f, 0.0f, -2.0f}, 3.0f);
    EXPECT_TRUE(paint.applyEdit(stamp, 0.7f, kWhite));
    const auto image = paint.endEdit();
    std::size_t moved = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float w = stamp.weight(placeOf(x, y, width, height, {0, 0}, 1.0f));
            const float wanted = 255.0f * (0.2f + 0.8f * std::min(0.7f * w, 1.0f));
            ASSERT_NEAR(float(pixelOf(*image, x, y)[0]), wanted, 0.51f) << x << " " << y;
            moved += pixelOf(*image, x, y)[0] != 51;
        }
    EXPECT_GT(moved, 1000u);
    EXPECT_LT(moved, 40000u);
}

TEST(TexturePaint, NoPixelBetweenTrianglesIsLeftOut) {
    std::mt19937 random{5};
    for (const int side : {257, 333, 512}) {
        ScalpMesh mesh = makePlane(9, 7, 10.0f);
        // Shaken within, so that edges run at every angle; equal corners stay equal.
        std::vector<Vec2f> uvs(mesh.uvs().begin(), mesh.uvs().end());
        for (Vec2f& uv : uvs) {
            const auto key = std::uint32_t(uv.x * 1000.0f) * 7919u + std::uint32_t(uv.y * 1000.0f);
            std::mt19937 own{key};
            const auto shake = [&](float v) {
                return v > 0.001f && v < 0.999f ? v + (float(own() % 1000) - 500.0f) * 6e-5f : v;
            };
            uv = {shake(uv.x), shake(uv.y)};
        }
        mesh.setUvs(uvs);
        TexturePaint paint(PaintImage::filled(side, side, 1, {0}));
        paint.beginEdit(std::make_shared<const ScalpMesh>(std::move(mesh)));
        EXPECT_TRUE(paint.applyEdit(sphereAt({0, 0, 0}, 100.0f, 1.0f), 1.0f, kWhite));
        const auto image = paint.image();
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x)
                ASSERT_EQ(pixelOf(*image, x, y)[0], 255) << x << " " << y;
    }
}

TEST(TexturePaint, TilesThatKeepTheirBytesStayTheVeryTiles) {
    const ScalpPtr scalp = planeOver({0, 0}, 1.0f);
    const auto start = PaintImage::filled(1024, 1024, 4, {10, 20, 30, 40});
    EXPECT_EQ(start->bytesBeside(nullptr), PixelTile::kPixels * 4) << "one tile, shared";
    TexturePaint paint(start);
    paint.beginEdit(scalp);
    EXPECT_TRUE(paint.applyEdit(sphereAt({-4.0f, 0.0f, -4.0f}, 0.5f), 1.0f, kWhite));
    const auto first = paint.image();
    EXPECT_EQ(paint.image(), first) << "nothing changed since";
    EXPECT_NE(first->tiles()[0], start->tiles()[0]);
    for (std::size_t t = 1; t < first->tiles().size(); ++t)
        EXPECT_EQ(first->tiles()[t], start->tiles()[t]);
    EXPECT_EQ(first->bytesBeside(start.get()), PixelTile::kPixels * 4);
    EXPECT_EQ(start->bytesBeside(start.get()), 0u);
    EXPECT_NE(first->texture()->hash(), start->texture()->hash());
    // Painted back, the image is the one it was.
    EXPECT_TRUE(paint.applyEdit(sphereAt({0, 0, 0}, 100.0f, 1.0f), 1.0f,
                                {10 / 255.0f, 20 / 255.0f, 30 / 255.0f, 40 / 255.0f}));
    EXPECT_EQ(paint.endEdit(), start);
}

TEST(TexturePaint, WeakStampsAddUp) {
    TexturePaint paint(PaintImage::filled(64, 64, 1, {0}));
    paint.beginEdit(planeOver({0, 0}, 1.0f));
    for (int i = 0; i < 500; ++i)
        paint.applyEdit(sphereAt({0, 0, 0}, 100.0f, 1.0f), 0.001f, kWhite);
    EXPECT_NEAR(float(pixelOf(*paint.endEdit(), 32, 32)[0]),
                255.0f * (1.0f - std::pow(0.999f, 500.0f)), 1.0f);
}

TEST(TexturePaint, OnlyTheTickedChannelsMoveAndNothingIsNoChange) {
    const auto start = PaintImage::filled(64, 64, 4, {0, 0, 0, 0});
    TexturePaint paint(start);
    paint.beginEdit(planeOver({0, 0}, 1.0f));
    const BrushStamp all = sphereAt({0, 0, 0}, 100.0f, 1.0f);
    EXPECT_FALSE(paint.applyEdit(all, 0.0f, kWhite));
    EXPECT_FALSE(paint.applyEdit(all, -1.0f, kWhite));
    EXPECT_FALSE(paint.applyEdit(sphereAt({50, 0, 0}, 1.0f), 1.0f, kWhite));
    paint.setChannels(0);
    EXPECT_FALSE(paint.applyEdit(all, 1.0f, kWhite));
    EXPECT_FALSE(paint.smoothEdit(all, 1.0f));
    paint.setChannels(2 | 8);
    EXPECT_FALSE(paint.applyEdit(all, 1.0f, {1, 0, 1, 0}));
    EXPECT_EQ(paint.image(), start);
    EXPECT_TRUE(paint.applyEdit(all, 1.0f, {1, 0.4f, 1, 7.0f}));
    EXPECT_THAT(pixelOf(*paint.endEdit(), 9, 9), testing::ElementsAre(0, 102, 0, 255));
}

TEST(TexturePaint, IslandsArePaddedAcrossTiles) {
    // The island ends at pixel 256 exactly: its padding lies in the next tile.
    const ScalpPtr scalp = planeOver({0.0f, 0.5f}, 0.5f);
    const auto start = PaintImage::filled(512, 512, 1, {0});
    TexturePaint paint(start);
    paint.beginEdit(scalp);
    EXPECT_TRUE(paint.applyEdit(sphereAt({5.0f, 0.0f, 0.0f}, 2.0f), 1.0f, kWhite));
    const auto raw = paint.image();
    EXPECT_EQ(raw->tiles()[1], start->tiles()[1]);
    const auto image = paint.endEdit();
    for (int y = 0; y < 256; ++y) {
        EXPECT_EQ(pixelOf(*image, 255, y), pixelOf(*raw, 255, y));
        for (const int x : {256, 257}) EXPECT_EQ(pixelOf(*image, x, y), pixelOf(*raw, 255, y));
        EXPECT_EQ(pixelOf(*image, 258, y)[0], 0);
    }
    EXPECT_GT(pixelOf(*image, 257, 128)[0], 100);
    EXPECT_EQ(image->tiles()[2], start->tiles()[2]);
    EXPECT_EQ(image->tiles()[3], start->tiles()[3]);
}

TEST(TexturePaint, RepeatedUvsPaintWhereTheyAreRead) {
    for (const float shift : {-3.0f, 0.0f, 2.0f}) {
        const ScalpPtr scalp = planeOver({shift, -shift}, 1.0f);
        TexturePaint paint(PaintImage::filled(128, 128, 1, {0}));
        paint.beginEdit(scalp);
        EXPECT_TRUE(paint.applyEdit(sphereAt({2.0f, 0.0f, 2.0f}, 1.0f, 1.0f), 1.0f, kWhite));
        SurfaceHit hit;
        ASSERT_TRUE(scalp->closestPoint({2.0f, 0.0f, 2.0f}, 1.0f, hit));
        const Vec2f uv = scalp->surfaceUv(hit.root());
        EXPECT_EQ(paint.endEdit()->texture()->sample(uv.x, uv.y, MapComponent::R), 1.0f) << shift;
    }
}

TEST(TexturePaint, TheLowestTriangleOwnsAPixel) {
    ScalpMesh mesh({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {0, 50, 0}, {1, 50, 0}, {0, 50, 1}},
                   {{0, 1, 2}, {3, 4, 5}});
    mesh.setUvs({{0, 0}, {1, 0}, {0, 1}, {0, 0}, {1, 0}, {0, 1}});
    const ScalpPtr scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
    TexturePaint paint(PaintImage::filled(32, 32, 1, {0}));
    paint.beginEdit(scalp);
    EXPECT_FALSE(paint.applyEdit(sphereAt({0, 50, 0}, 10.0f, 1.0f), 1.0f, kWhite));
    EXPECT_TRUE(paint.applyEdit(sphereAt({0, 0, 0}, 10.0f, 1.0f), 1.0f, kWhite));
}

/// A plane of 10 cm, its halves on two islands of the UVs, the right one turned by half a turn.
ScalpPtr cutPlane(int quads = 8) {
    ScalpMesh mesh = makePlane(quads, quads, 10.0f);
    std::vector<Vec2f> uvs(mesh.uvs().begin(), mesh.uvs().end());
    for (std::size_t t = 0; t < mesh.triangles().size(); ++t) {
        float middle = 0.0f;
        for (std::size_t c = 0; c < 3; ++c) middle += uvs[3 * t + c].x / 3.0f;
        for (std::size_t c = 0; c < 3; ++c) {
            Vec2f& uv = uvs[3 * t + c];
            uv = middle < 0.5f ? Vec2f{0.05f + 0.8f * uv.x, 0.1f + 0.8f * uv.y}
                               : Vec2f{0.95f - 0.8f * (uv.x - 0.5f), 0.9f - 0.8f * uv.y};
        }
    }
    mesh.setUvs(uvs);
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

/// What an image shows at a place of a plane.
float shownAt(const PaintImage& image, const ScalpMesh& scalp, Vec3f place) {
    SurfaceHit hit;
    EXPECT_TRUE(scalp.closestPoint(place, 1.0f, hit));
    const Vec2f uv = scalp.surfaceUv(hit.root());
    return image.texture()->sample(uv.x, uv.y, MapComponent::R);
}

TEST(TexturePaint, SmoothingCrossesTheSeamsOfTheUvs) {
    // The same strokes on the plane in one piece and cut in two: the same picture on the scalp.
    std::array<std::shared_ptr<const PaintImage>, 2> images;
    const std::array<ScalpPtr, 2> scalps = {planeOver({0.1f, 0.1f}, 0.8f, 8), cutPlane()};
    for (std::size_t i = 0; i < 2; ++i) {
        TexturePaint paint(PaintImage::filled(300, 300, 1, {0}));
        paint.beginEdit(scalps[i]);
        // White on the left half alone: the brush ends where the cut is.
        EXPECT_TRUE(paint.applyEdit(sphereAt({-100.0f, 0, 0}, 100.0f, 1.0f), 1.0f, kWhite));
        for (int pass = 0; pass < 300; ++pass)
            EXPECT_TRUE(paint.smoothEdit(sphereAt({0, 0, 0}, 3.0f, 1.0f), 1.0f));
        images[i] = paint.endEdit();
    }
    float beyond = 0.0f;
    for (const float x : {-1.5f, -0.6f, -0.3f, 0.3f, 0.6f, 1.5f})
        for (const float z : {-2.0f, -0.7f, 0.0f, 1.3f}) {
            const float whole = shownAt(*images[0], *scalps[0], {x, 0, z});
            const float cut = shownAt(*images[1], *scalps[1], {x, 0, z});
            EXPECT_NEAR(whole, cut, 0.04f) << x << " " << z;
            if (x > 0.0f) beyond = std::max(beyond, cut);
        }
    EXPECT_GT(beyond, 0.2f) << "nothing came over";
}

TEST(TexturePaint, SmoothingKeepsIslandsApartThatTouchInThePictureAlone) {
    // Two squares one above the other, 50 cm apart, whose islands share a line of the picture.
    ScalpMesh mesh({{0, 0, 0},
                    {10, 0, 0},
                    {10, 0, 10},
                    {0, 0, 10},
                    {0, 50, 0},
                    {10, 50, 0},
                    {10, 50, 10},
                    {0, 50, 10}},
                   {{0, 1, 2}, {0, 2, 3}, {4, 5, 6}, {4, 6, 7}});
    const auto corner = [](float left, float u, float v) { return Vec2f{left + 0.5f * u, v}; };
    std::vector<Vec2f> uvs;
    for (const float left : {0.0f, 0.5f})
        for (const auto& [u, v] : {std::pair{0, 0}, {1, 0}, {1, 1}, {0, 0}, {1, 1}, {0, 1}})
            uvs.push_back(corner(left, float(u), float(v)));
    mesh.setUvs(uvs);
    Bytes bytes(128 * 128, 0);
    for (std::size_t p = 0; p < bytes.size(); ++p)
        if (p % 128 < 64) bytes[p] = 255;
    const auto start = PaintImage::fromPixels(128, 128, 1, bytes);
    TexturePaint paint(start);
    paint.beginEdit(std::make_shared<const ScalpMesh>(std::move(mesh)));
    for (int pass = 0; pass < 20; ++pass)
        EXPECT_FALSE(paint.smoothEdit(sphereAt({5, 25, 5}, 100.0f, 1.0f), 1.0f));
    EXPECT_EQ(paint.endEdit(), start);
}

TEST(TexturePaint, SmoothingEvensOutAndLeavesAnEvenMapAlone) {
    std::mt19937 random{11};
    Bytes noise(300 * 300);
    for (std::uint8_t& b : noise) b = std::uint8_t(random());
    const ScalpPtr scalp = planeOver({0, 0}, 1.0f);
    const auto start = PaintImage::fromPixels(300, 300, 1, noise);
    TexturePaint paint(start);
    paint.beginEdit(scalp);
    const BrushStamp all = sphereAt({0, 0, 0}, 100.0f, 1.0f);
    const auto roughness = [](const PaintImage& image) {
        double sum = 0.0;
        for (int y = 0; y < 300; ++y)
            for (int x = 1; x < 300; ++x)
                sum +=
                    std::abs(double(pixelOf(image, x, y)[0]) - double(pixelOf(image, x - 1, y)[0]));
        return sum;
    };
    int passes = 0;
    EXPECT_TRUE(smoothPasses(2.5f, [&](float strength) {
        ++passes;
        EXPECT_NEAR(strength, 2.5f / 3.0f, 1e-6f);
        return paint.smoothEdit(all, strength);
    }));
    EXPECT_EQ(passes, 3);
    EXPECT_LT(roughness(*paint.image()), 0.4 * roughness(*start));
    TexturePaint even(PaintImage::filled(300, 300, 4, {1, 2, 3, 4}));
    even.beginEdit(scalp);
    EXPECT_FALSE(even.smoothEdit(all, 1.0f));
}

TEST(TexturePaint, GivesTheSameBitsOnOneThreadAndOnMany) {
    ScalpMesh mesh = makeSphere(24, 32, 5.0f);
    const ScalpPtr scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
    const auto stroke = [&] {
        std::mt19937 random{2};
        const auto draw = [&] { return float(random() % 1000) * 0.01f - 5.0f; };
        TexturePaint paint(PaintImage::filled(700, 700, 4, {90, 120, 150, 255}));
        paint.beginEdit(scalp);
        for (int i = 0; i < 30; ++i) {
            const Vec3f at = Vec3f{draw(), draw(), draw()};
            const std::array<float, 4> color = {draw(), draw(), draw(), draw()};
            if (i % 4 == 3)
                paint.smoothEdit(sphereAt(at, 3.0f), 0.8f);
            else
                paint.applyEdit(sphereAt(at, 3.0f, 0.2f), 0.6f, color);
        }
        return paint.endEdit();
    };
    std::shared_ptr<const PaintImage> one, many;
    runWithThreads(1, [&] { one = stroke(); });
    runWithThreads(8, [&] { many = stroke(); });
    EXPECT_EQ(one->texture()->hash(), many->texture()->hash());
    EXPECT_NE(one->texture()->hash(),
              PaintImage::filled(700, 700, 4, {90, 120, 150, 255})->texture()->hash());
}

TEST(TexturePaint, HostileUvsAndMissingOnesDoNoHarm) {
    TexturePaint paint(PaintImage::filled(64, 64, 1, {0}));
    const auto withoutUvs = std::make_shared<const ScalpMesh>(makeIcosphere(1, 1.0f));
    for (const ScalpPtr& scalp : {ScalpPtr(), ScalpPtr(withoutUvs)}) {
        try {
            paint.beginEdit(scalp);
            ADD_FAILURE();
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "the scalp has no UVs to paint a texture map on");
        }
    }
    std::mt19937 random{9};
    for (int round = 0; round < 50; ++round) {
        ScalpMesh mesh = makePlane(3, 3, 10.0f);
        std::vector<Vec2f> uvs(mesh.uvs().begin(), mesh.uvs().end());
        const float wild[] = {NAN, INFINITY, -INFINITY, 1e30f, -1e9f, 0.0f, 1e-40f, 1.0f, 3.9f};
        for (int i = 0; i < 12; ++i)
            (i % 2 ? uvs[random() % uvs.size()].x : uvs[random() % uvs.size()].y) =
                wild[random() % std::size(wild)];
        mesh.setUvs(uvs);
        paint.beginEdit(std::make_shared<const ScalpMesh>(std::move(mesh)));
        paint.applyEdit(sphereAt({0, 0, 0}, 4.0f), 1.0f, kWhite);
        paint.smoothEdit(sphereAt({0, 0, 0}, 4.0f), 1.0f);
        paint.endEdit();
    }
}

// Images.

TEST(PaintImage, PngsReadBackAsTheyWere) {
    const TempFolder folder;
    std::mt19937 random{1};
    for (const int channels : {1, 4})
        for (const auto& [width, height] : {std::pair{1, 1}, {256, 3}, {300, 513}}) {
            Bytes pixels(std::size_t(width * height * channels));
            for (std::uint8_t& p : pixels) p = std::uint8_t(random());
            const auto image = PaintImage::fromPixels(width, height, channels, pixels);
            const std::string path = folder.file("a.png");
            image->writePng(path);
            const auto again = readPaintImage(path);
            EXPECT_EQ(again->channels(), channels);
            EXPECT_EQ(again->texture()->hash(), image->texture()->hash());
            EXPECT_EQ(Texture::load(path, {})->sampleColor(0.3f, 0.7f),
                      image->texture()->sampleColor(0.3f, 0.7f));
        }
}

TEST(PaintImage, SaysWhyAFileCannotBePaintedOn) {
    const TempFolder folder;
    const auto errorOf = [](const std::string& path) -> std::string {
        try {
            readPaintImage(path);
        } catch (const TextureError& error) {
            return error.what();
        }
        return "nothing was thrown";
    };
    const std::string other = folder.file("a.bmp"), none = folder.file("none.png"),
                      cut = folder.file("cut.png"), empty = folder.file("empty.png");
    writeBytes(other, std::string(100, 'B'));
    writeBytes(empty, "");
    const std::string png = [&] {
        PaintImage::filled(8, 8, 1, {7})->writePng(cut);
        return cut;
    }();
    writeBytes(cut, std::string("\x89PNG\r\n\x1a\n") + std::string(40, 'x'));
    EXPECT_EQ(errorOf("a.<UDIM>.png"), "a scalp map is one image over UVs 0-1");
    EXPECT_EQ(errorOf(other), other + " is not a PNG, and painting writes PNG");
    EXPECT_EQ(errorOf(empty), empty + " is not a PNG, and painting writes PNG");
    EXPECT_EQ(errorOf(none), "cannot read '" + none + "': file not found");
    EXPECT_THAT(errorOf(cut), testing::StartsWith("cannot read '" + cut + "'"));
    EXPECT_THROW(PaintImage(10, 10, 1, {}), TextureError);
    EXPECT_THROW(PaintImage::filled(0, 1, 1, {}), TextureError);
    EXPECT_THROW(PaintImage::filled(1, 1, 3, {}), TextureError);
    EXPECT_THROW(PaintImage::fromPixels(2, 2, 1, Bytes(3)), TextureError);
}

}  // namespace
}  // namespace corvelle
