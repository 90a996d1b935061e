#include <gtest/gtest.h>

#include "expr/testing/pictures.h"
#include "graph/colorMap.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

using Kind = ColorMapLookup::Kind;

GuidesPtr guideWith(const std::string& layer) {
    GuideDetail detail;
    detail.attributes[layer] = 0.5f;
    std::vector<GuideCurve> curves;
    curves.push_back(
        {1, {}, {Vec3f{}, Vec3f{0, 1, 0}}, std::make_shared<const GuideDetail>(detail)});
    return std::make_shared<const GuideSet>(std::move(curves));
}

class ColorMapTest : public testing::Test {
protected:
    ColorMapTest() {
        ScalpMesh mesh = makePlane(2, 2, 4.0f);
        const std::size_t corners = mesh.triangles().size() * 3;
        for (const char* name : {"set", "both.png", "layer"})
            mesh.addColorSet(name, std::vector<Color4f>(corners, Color4f{0.1f, 0.2f, 0.3f, 1.0f}));
        data.scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
        data.directory = folder.path();
        for (const char* name : {"image.png", "both.png"})
            writePng(folder.file(name), 1, 1, 3, {255, 128, 0});
        writeHdr(folder.file("deep.hdr"), 1, 1, {1.0f, 2.0f, 3.0f});
        writeBytes(folder.file("bad.png"), "no picture");
        const auto sized = [](std::size_t n) {
            return std::make_shared<const std::vector<float>>(n, 0.5f);
        };
        auto catalog = std::make_shared<MapCatalogValue>();
        catalog->maps = {
            {"painted", {.kind = PaintedMap::Kind::Vertices, .values = sized(9), .vertices = 9}},
            {"old", {.kind = PaintedMap::Kind::Vertices, .values = sized(8), .vertices = 8}},
            {"texture", {.kind = PaintedMap::Kind::Texture, .file = "image.png"}},
            {"unpainted", {.kind = PaintedMap::Kind::Texture}},
            {"set", {.kind = PaintedMap::Kind::Vertices, .values = sized(9), .vertices = 9}},
            {"alias", {.kind = PaintedMap::Kind::Guides, .layer = "mask"}},
        };
        data.maps = catalog;
        data.flatGuides = guideWith("layer");
    }
    const TempFolder folder;
    EvaluationData data;
    const ScalpPtr bare = std::make_shared<const ScalpMesh>(makeIcosphere(0, 2.0f));
};

TEST_F(ColorMapTest, FindsPaintedMapsThenLayersThenColorSetsThenImages) {
    const std::pair<const char*, Kind> kCases[] = {
        {"painted", Kind::Vertices}, {"texture", Kind::Texture}, {"set", Kind::Vertices},
        {"alias", Kind::Guides},     {"layer", Kind::Guides},    {"both.png", Kind::ColorSet},
        {"image.png", Kind::Image},  {"nobody", Kind::None},     {"", Kind::None},
    };
    for (const auto& [name, kind] : kCases) {
        const ColorMapLookup lookup = readColorMap(name, data);
        EXPECT_EQ(lookup.kind, kind) << name;
        EXPECT_EQ(bool(lookup), kind != Kind::None) << name;
    }
    EXPECT_EQ(readColorMap("both.png", data, nullptr, {.colorSets = false}).kind, Kind::Image);
    EXPECT_EQ(readColorMap("alias", data).map->channel(), "mask");
    EXPECT_EQ(readColorMap("layer", data, nullptr, {.guides = guideWith("layer")})
                  .map->at({}, {}, MapComponent::R),
              0.5f);
}

TEST_F(ColorMapTest, OnlyEightBitImageFilesNamedDirectlyAreSrgb) {
    EXPECT_TRUE(readColorMap("image.png", data).sRgb);
    EXPECT_FALSE(readColorMap("deep.hdr", data).sRgb);
    EXPECT_FALSE(readColorMap("texture", data).sRgb);
    EXPECT_FALSE(readColorMap("set", data).sRgb);
}

TEST_F(ColorMapTest, SaysWhyAMapCannotBeRead) {
    const struct {
        const char* name;
        ScalpPtr scalp;
        std::string text;
    } kCases[] = {
        {"unpainted", nullptr, "the texture map has no image file yet"},
        {"image.png", bare, "an image needs a scalp with UVs"},
        {"texture", bare, "an image needs a scalp with UVs"},
        {"old", nullptr, "the vertex map does not fit this scalp (paint it again, or convert it)"},
        {"nobody", nullptr,
         "no map or image named 'nobody' (Groom Tools > Paint > New... makes a map)"},
    };
    for (const auto& c : kCases) {
        const ColorMapLookup lookup = readColorMap(c.name, data, c.scalp);
        EXPECT_FALSE(lookup);
        EXPECT_EQ(colorMapFaultText(lookup, c.name, "HairColor"), c.text);
    }
    EXPECT_EQ(colorMapFaultText(readColorMap("alias", data), "alias", "HairColor"),
              "a guide layer reaches the strands through Interpolate (put HairColor after it)");
    EXPECT_EQ(colorMapFaultText(readColorMap("bad.png", data), "bad.png", "HairColor")
                  .rfind("cannot read '", 0),
              0u);
}

TEST_F(ColorMapTest, TheHashFollowsWhatTheNameReads) {
    const auto hash = [&](const char* name) { return colorMapHash(name, data); };
    const std::uint64_t image = hash("image.png"), texture = hash("texture"), set = hash("set");
    const std::uint64_t painted = hash("painted"), layer = hash("layer");
    writePng(folder.file("image.png"), 2, 2, 3, std::vector<std::uint8_t>(12, 7));
    EXPECT_NE(hash("image.png"), image);
    EXPECT_NE(hash("texture"), texture);
    EXPECT_EQ(hash("painted"), painted);
    EXPECT_EQ(hash("set"), set);
    data.scalp = bare;
    EXPECT_NE(hash("painted"), painted);
    EXPECT_EQ(hash("layer"), layer) << "read from strands: their hash has it";
    EXPECT_EQ(hash(""), 0u);
}

}  // namespace
}  // namespace corvelle
