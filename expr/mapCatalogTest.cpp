#include <cmath>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "expr/mapCatalog.h"
#include "expr/mapCatalogJson.h"
#include "expr/testing/pictures.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

constexpr MapComponent kComponents[] = {MapComponent::R, MapComponent::G, MapComponent::B,
                                        MapComponent::A, MapComponent::Luminance};

/// A 6 x 6 plane with UVs, a colour set that is an affine function of the place, and guides on it.
class MapTest : public testing::Test {
protected:
    MapTest() {
        ScalpMesh mesh = makePlane(6, 6, 12.0f);
        std::vector<Color4f> colors;
        for (const Triangle& t : mesh.triangles())
            for (const std::int32_t corner : t)
                colors.push_back(tone(mesh.points()[std::size_t(corner)]));
        mesh.addColorSet("tone", colors);
        bare = std::make_shared<const ScalpMesh>(
            std::vector<Vec3f>(mesh.points().begin(), mesh.points().end()),
            std::vector<Triangle>(mesh.triangles().begin(), mesh.triangles().end()));
        scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
        SplitMix random(3);
        for (int i = 0; i < 1000; ++i) {
            const float a = random.nextFloat(), b = random.nextFloat() * (1.0f - a);
            roots.push_back({int(random.nextU64() % scalp->triangles().size()), a, b});
            positions.push_back(scalp->surfacePoint(roots.back()));
        }
        for (std::size_t i = 0; i < roots.size(); i += 7)
            roots[i] = {};  // read at the closest point
        for (std::size_t i = 3; i < roots.size(); i += 50) roots[i].triangle = 100000;
    }
    static Color4f tone(Vec3f p) {
        return {0.5f + p.x / 24.0f, 0.5f + p.z / 24.0f, 0.25f, 0.5f - p.x / 48.0f};
    }
    GuidesPtr guides(std::size_t count, bool along = false) const {
        std::vector<GuideCurve> curves;
        SplitMix random(9);
        for (std::size_t g = 0; g < count; ++g) {
            GuideDetail detail;
            if (g % 4 != 3) {
                if (along)
                    detail.pointAttributes["mask"] = {float(g), 0.0f, 9.0f};
                else
                    detail.attributes["mask"] = float(g);
            }
            const float x = random.nextRange(-6, 6);
            const Vec3f root{x, 0.0f, random.nextRange(-6, 6)};
            curves.push_back({g + 1,
                              {},
                              {root, root + Vec3f{0, 1, 0}},
                              std::make_shared<const GuideDetail>(detail)});
        }
        return std::make_shared<const GuideSet>(std::move(curves));
    }
    std::vector<NamedMapPtr> allMaps() {
        std::vector<float> gray, rgba;
        for (const Vec3f p : scalp->points()) {
            gray.push_back(p.x);
            for (int c = 0; c < 4; ++c) rgba.push_back(p.z + float(c));
        }
        const auto pixels =
            makePixels(16, 16, 4, [](int x, int y, int c) { return 9 * x + 5 * y + 20 * c; });
        return {textureMap(Texture::fromPixels(16, 16, 4, pixels), scalp),
                colorSetMap(scalp, "tone"),
                vertexMap(std::make_shared<const std::vector<float>>(gray), 1, scalp),
                vertexMap(std::make_shared<const std::vector<float>>(rgba), 4, scalp),
                guideLayerMap(guides(40), scalp, "mask")};
    }

    ScalpPtr scalp, bare;
    std::vector<StrandRoot> roots;
    std::vector<Vec3f> positions;
    const PathResolver plain = searchPathResolver({}, {});
    const TempFolder folder;
};

TEST_F(MapTest, InterpolatesAffineDataExactlyAtRootsAndAtBarePlaces) {
    const NamedMapPtr set = colorSetMap(scalp, "tone");
    std::vector<float> values;
    for (const Vec3f p : scalp->points()) values.push_back(3.0f * p.x - p.z);
    const NamedMapPtr vertices =
        vertexMap(std::make_shared<const std::vector<float>>(values), 1, scalp);
    // The image is the plane's own UVs: red grows with u, green with v.
    const auto pixels = makePixels(51, 51, 3, [](int x, int y, int c) {
        return c == 0 ? 5 * x : c == 1 ? 250 - 5 * y : 0;
    });
    const NamedMapPtr image = textureMap(Texture::fromPixels(51, 51, 3, pixels), scalp);
    for (std::size_t i = 0; i < roots.size(); ++i) {
        const Vec3f p = positions[i];
        const Color4f want = tone(p), got = set->colorAt(roots[i], p);
        EXPECT_NEAR(got.r, want.r, 1e-5f);
        EXPECT_NEAR(got.g, want.g, 1e-5f);
        EXPECT_NEAR(got.a, want.a, 1e-5f);
        EXPECT_NEAR(vertices->at(roots[i], p, MapComponent::Luminance), 3.0f * p.x - p.z, 1e-4f);
        const float u = std::clamp(p.x / 12.0f + 0.5f, 0.01f, 0.99f);
        EXPECT_NEAR(image->at(roots[i], p, MapComponent::R), (u * 51.0f - 0.5f) * 5.0f / 255.0f,
                    2e-2f);
    }
}

TEST_F(MapTest, GrayMapsAreGrayWithFullAlpha) {
    const NamedMapPtr gray = allMaps()[2];
    for (const float x : {-5.0f, 0.5f, 4.0f}) {
        const Vec3f p{x, 0.0f, 1.0f};
        const float v = gray->at({}, p, MapComponent::Luminance);
        EXPECT_NEAR(v, x, 1e-5f);
        EXPECT_EQ(gray->colorAt({}, p), (Color4f{v, v, v, 1.0f}));
        EXPECT_EQ(gray->at({}, p, MapComponent::A), 1.0f);
    }
}

TEST_F(MapTest, BatchesGiveTheBitsOfSingleReads) {
    for (const NamedMapPtr& map : allMaps()) {
        ASSERT_NE(map, nullptr);
        std::vector<Color4f> colors(roots.size());
        map->colors(roots, positions, colors);
        for (const MapComponent c : kComponents) {
            std::vector<float> out(roots.size());
            map->values(roots, positions, c, out);
            float low = out[0], high = out[0];
            for (std::size_t i = 0; i < roots.size(); ++i) {
                ASSERT_EQ(out[i], map->at(roots[i], positions[i], c));
                ASSERT_EQ(colors[i], map->colorAt(roots[i], positions[i]));
                low = std::min(low, out[i]);
                high = std::max(high, out[i]);
            }
            EXPECT_TRUE(high > low || c == MapComponent::A || c == MapComponent::B);
        }
    }
}

TEST_F(MapTest, ReadsStrandsAtTheirRootsInAnyOrder) {
    StrandSet tuft =
        makeTuft({.strands = 600, .seed = 2, .triangles = int(scalp->triangles().size())});
    for (std::size_t s = 0; s < 600; s += 9) tuft.mutableRoots()[s] = {};
    std::vector<std::uint32_t> inOrder(600), mixedUp;
    for (std::uint32_t s = 0; s < 600; ++s) inOrder[s] = s;
    for (std::uint32_t s = 0; s < 600; ++s) mixedUp.push_back(s * 7 % 600);
    for (const NamedMapPtr& map : allMaps())
        for (const auto& strands : {inOrder, mixedUp, std::vector<std::uint32_t>{}}) {
            std::vector<float> out(strands.size());
            std::vector<Color4f> colors(strands.size());
            map->strandValues(tuft, strands, MapComponent::G, out);
            map->strandColors(tuft, strands, colors);
            for (std::size_t i = 0; i < strands.size(); ++i) {
                const StrandRoot root = tuft.roots()[strands[i]];
                const Vec3f place = tuft.pointsOf(strands[i])[0];
                ASSERT_EQ(out[i], map->at(root, place, MapComponent::G));
                ASSERT_EQ(colors[i], map->colorAt(root, place));
            }
        }
}

TEST_F(MapTest, ReadsTheSameOnOneThreadAndOnMany) {
    for (const NamedMapPtr& map : allMaps()) {
        std::vector<float> results[2];
        for (int many = 0; many < 2; ++many)
            runWithThreads(many ? 8 : 1, [&] {
                results[many].resize(roots.size());
                parallelRange(0, roots.size(), 32, [&](std::size_t b, std::size_t e) {
                    map->values(std::span(roots).subspan(b, e - b),
                                std::span(positions).subspan(b, e - b), MapComponent::R,
                                std::span(results[many]).subspan(b, e - b));
                });
            });
        EXPECT_EQ(results[0], results[1]);
    }
}

TEST_F(MapTest, NothingUnderAPlaceReadsZero) {
    const auto empty = std::make_shared<const ScalpMesh>();
    const NamedMapPtr map = vertexMap(std::make_shared<const std::vector<float>>(), 1, empty);
    ASSERT_NE(map, nullptr);
    for (const MapComponent c : kComponents) EXPECT_EQ(map->at({}, {1, 2, 3}, c), 0.0f);
    EXPECT_EQ(map->colorAt({4, 0, 0}, {}), (Color4f{0, 0, 0, 0}));
}

TEST_F(MapTest, AGuideLayerBlendsTheFourNearestGuidesThatCarryIt) {
    for (const bool along : {false, true}) {
        const GuidesPtr set = guides(40, along);
        const NamedMapPtr map = guideLayerMap(set, scalp, "mask");
        EXPECT_EQ(map->channel(), "mask");
        for (const Vec3f p : positions) {
            std::vector<std::pair<float, float>> near;  // squared distance, value
            for (std::size_t g = 0; g < set->size(); ++g)
                if (g % 4 != 3) near.push_back({lengthSquared(p - set->pointsOf(g)[0]), float(g)});
            std::sort(near.begin(), near.end());
            double sum = 0.0, weights = 0.0;
            for (std::size_t i = 0; i < 4; ++i) {
                const double w = 1.0 / std::max(double(near[i].first), 1e-12);
                sum += w * near[i].second;
                weights += w;
            }
            EXPECT_NEAR(map->at({}, p, MapComponent::R), sum / weights, 1e-3);
        }
        for (std::size_t g = 0; g < set->size(); ++g)
            if (g % 4 != 3) {
                EXPECT_NEAR(map->at({}, set->pointsOf(g)[0], MapComponent::R), float(g), 1e-4f);
            }
    }
    EXPECT_EQ(guideLayerMap(guides(5), scalp, "other"), nullptr);
    EXPECT_EQ(guideLayerMap(nullptr, scalp, "mask"), nullptr);
    EXPECT_EQ(guideLayerMap(guides(1), scalp, "mask")->at({}, {5, 5, 5}, MapComponent::R), 0.0f);
}

TEST_F(MapTest, AGuideLayersHashFollowsRootsAndValuesButNotShapes) {
    const GuidesPtr set = guides(10);
    const std::uint64_t before = guideLayerHash(*set, "mask");
    const auto changed = [&](const std::function<void(GuideCurve&)>& change) {
        std::vector<GuideCurve> curves = set->curves();
        change(curves[2]);
        return guideLayerHash(GuideSet(std::move(curves)), "mask");
    };
    EXPECT_EQ(changed([](GuideCurve& g) { g.points[1].y = 7.0f; }), before);
    EXPECT_NE(changed([](GuideCurve& g) { g.points[0].x += 1.0f; }), before);
    const auto value = [](const char* name) {
        return [name](GuideCurve& g) {
            GuideDetail detail = *g.detail;
            detail.attributes[name] = 0.125f;
            g.detail = std::make_shared<const GuideDetail>(detail);
        };
    };
    EXPECT_NE(changed(value("mask")), before);
    EXPECT_EQ(changed(value("other")), before);
}

TEST_F(MapTest, MapsThatDoNotFitTheScalpAreNone) {
    const auto values = std::make_shared<const std::vector<float>>(scalp->points().size());
    EXPECT_NE(vertexMap(values, 1, scalp), nullptr);
    EXPECT_EQ(vertexMap(values, 4, scalp), nullptr);
    EXPECT_EQ(vertexMap(values, 2, scalp), nullptr);
    EXPECT_EQ(vertexMap(nullptr, 1, scalp), nullptr);
    EXPECT_EQ(vertexMap(values, 1, nullptr), nullptr);
    EXPECT_EQ(colorSetMap(scalp, "none"), nullptr);
    EXPECT_EQ(colorSetMap(nullptr, "tone"), nullptr);
    const std::uint8_t pixel[] = {1};
    EXPECT_EQ(textureMap(Texture::fromPixels(1, 1, 1, pixel), bare), nullptr);
    EXPECT_EQ(textureMap(nullptr, scalp), nullptr);
}

// The catalogue.

TEST_F(MapTest, TheCatalogueSaysWhyAMapCannotBeRead) {
    const std::size_t n = scalp->points().size();
    const auto sized = [](std::size_t count) {
        return std::make_shared<const std::vector<float>>(count, 0.5f);
    };
    const std::string png = folder.file("ok.png"), broken = folder.file("broken.png");
    writePng(png, 1, 1, 1, {128});
    writeBytes(broken, "no picture");
    MapCatalogValue catalog;
    using Kind = PaintedMap::Kind;
    catalog.maps = {
        {"fine", {.kind = Kind::Vertices, .values = sized(n), .vertices = n}},
        {"old", {.kind = Kind::Vertices, .values = sized(7), .vertices = 7}},
        {"short", {.kind = Kind::Vertices, .values = sized(n - 1), .vertices = n}},
        {"image", {.kind = Kind::Texture, .file = png}},
        {"unpainted", {.kind = Kind::Texture}},
        {"tiles", {.kind = Kind::Texture, .file = folder.file("t.<UDIM>.png")}},
        {"broken", {.kind = Kind::Texture, .file = broken}},
        {"gone", {.kind = Kind::Texture, .file = folder.file("gone.png")}},
        {"mask", {.kind = Kind::Guides}},
        {"alias", {.kind = Kind::Guides, .layer = "mask"}},
        {"nowhere", {.kind = Kind::Guides, .layer = "nowhere"}},
    };
    const auto look = [&](const char* name, const ScalpPtr& on, const GuidesPtr& with) {
        return readMap(&catalog, name, on, with, plain);
    };
    for (const char* name : {"fine", "image", "mask", "alias"}) {
        const MapLookup lookup = look(name, scalp, guides(10));
        EXPECT_TRUE(lookup.found && lookup.map) << name;
    }
    const struct {
        const char* name;
        ScalpPtr scalp;
        GuidesPtr guides;
        MapFault fault;
        std::string detail;
    } kFaults[] = {
        {"old", scalp, nullptr, MapFault::WrongScalp,
         "'old' was painted on a scalp with 7 vertices; this one has 49 (convert it to a texture "
         "or "
         "guide layer on the old scalp, or fill it anew)"},
        {"short", scalp, nullptr, MapFault::WrongScalp, ""},
        {"fine", nullptr, nullptr, MapFault::WrongScalp, ""},
        {"unpainted", scalp, nullptr, MapFault::NoImage, ""},
        {"image", bare, nullptr, MapFault::NoUvs, ""},
        {"image", nullptr, nullptr, MapFault::NoUvs, ""},
        {"tiles", scalp, nullptr, MapFault::Unreadable,
         "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as scalp maps"},
        {"broken", scalp, nullptr, MapFault::Unreadable, ""},
        {"gone", scalp, nullptr, MapFault::Unreadable,
         "cannot read '" + folder.file("gone.png") + "': file not found"},
        {"mask", scalp, nullptr, MapFault::NoGuides, ""},
        {"nowhere", scalp, guides(10), MapFault::NoLayer, ""},
    };
    for (const auto& c : kFaults) {
        const MapLookup lookup = look(c.name, c.scalp, c.guides);
        EXPECT_TRUE(lookup.found && !lookup.map) << c.name;
        EXPECT_EQ(lookup.fault, c.fault) << c.name;
        if (!c.detail.empty()) {
            EXPECT_EQ(lookup.detail, c.detail);
        }
    }
    EXPECT_FALSE(look("none", scalp, nullptr).found);
    EXPECT_FALSE(readMap(nullptr, "fine", scalp, nullptr, plain).found);
}

TEST_F(MapTest, TheCatalogueHashFollowsItsContents) {
    MapCatalogValue catalog;
    std::vector<std::uint64_t> hashes = {catalog.hash()};
    const auto note = [&] { hashes.push_back(catalog.hash()); };
    PaintedMap& map = catalog.maps["a"];
    note();
    map.values = std::make_shared<const std::vector<float>>(std::vector<float>{1.0f, 2.0f, 3.0f});
    note();
    map.values = std::make_shared<const std::vector<float>>(std::vector<float>{1.0f, 2.0f, 3.5f});
    note();
    map.vertices = 3;
    note();
    map.channels = 4;
    note();
    map.layer = "x";
    note();
    map.file = "x";
    note();
    catalog.maps["b"];
    note();
    for (std::size_t i = 0; i < hashes.size(); ++i)
        for (std::size_t j = 0; j < i; ++j) EXPECT_NE(hashes[i], hashes[j]) << i << " " << j;
    const MapCatalogValue copy = catalog;
    EXPECT_EQ(copy.hash(), catalog.hash());
    catalog.maps["a"].values =
        std::make_shared<const std::vector<float>>(std::vector<float>{1.0f, 2.0f, 3.5f});
    EXPECT_EQ(copy.hash(), catalog.hash()) << "equal values in another array";
}

// JSON.

std::string jsonError(const std::string& text) {
    try {
        mapCatalogFromJson(nlohmann::json::parse(text));
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(MapCatalogJson, ReadsTheThreeKinds) {
    const MapCatalogValue catalog = mapCatalogFromJson(nlohmann::json::parse(R"({
        "gray": {"values": [0, 0.5, 1], "vertices": 3},
        "color": {"kind": "vertices", "channels": 4, "values": [1, 2, 3, 4, 5, 6, 7, 8]},
        "image": {"kind": "texture", "texture": "a.png", "more": 1},
        "new": {"kind": "texture"},
        "mask": {"kind": "guides"}, "other": {"kind": "guides", "layer": "mask"}})"));
    ASSERT_EQ(catalog.maps.size(), 6u);
    EXPECT_THAT(*catalog.find("gray")->values, testing::ElementsAre(0.0f, 0.5f, 1.0f));
    EXPECT_EQ(catalog.find("gray")->vertices, 3u);
    EXPECT_EQ(catalog.find("color")->channels, 4);
    EXPECT_EQ(catalog.find("color")->vertices, 2u);
    EXPECT_EQ(catalog.find("image")->kind, PaintedMap::Kind::Texture);
    EXPECT_EQ(catalog.find("image")->file, "a.png");
    EXPECT_EQ(catalog.find("new")->file, "");
    EXPECT_EQ(catalog.find("other")->layer, "mask");
    EXPECT_EQ(catalog.find("none"), nullptr);
    EXPECT_TRUE(mapCatalogFromJson(nullptr).maps.empty());
}

TEST(MapCatalogJson, SaysWhatIsWrong) {
    const std::pair<const char*, const char*> kCases[] = {
        {R"([])", "scalpMaps: expected an object of maps"},
        {R"(3)", "scalpMaps: expected an object of maps"},
        {R"({"a": 1})", "scalpMaps: map 'a' is not an object"},
        {R"({"a": {"kind": "paint"}})", "scalpMaps: map 'a' has unknown kind 'paint'"},
        {R"({"a": {"kind": 1}})", "scalpMaps: map 'a' needs text as its kind"},
        {R"({"a": {"channels": 2}})", "scalpMaps: map 'a' has 2 channels (1 or 4)"},
        {R"({"a": {"channels": -1}})", "scalpMaps: map 'a' has -1 channels (1 or 4)"},
        {R"({"a": {"channels": "4"}})",
         "scalpMaps: map 'a' needs a number as its channels (1 or 4)"},
        {R"({"a": {"values": {}}})",
         "scalpMaps: map 'a' needs its values as a flat list of numbers"},
        {R"({"a": {"values": [1, "2"]}})",
         "scalpMaps: map 'a' needs its values as a flat list of numbers"},
        {R"({"a": {"values": [1e300]}})",
         "scalpMaps: map 'a' holds a value that is not a finite number"},
        {R"({"a": {"channels": 4, "values": [1, 2, 3]}})",
         "scalpMaps: map 'a' has 3 values, give one per scalp vertex and channel"},
        {R"({"a": {"values": [1, 2, 3], "vertices": 4}})",
         "scalpMaps: map 'a' has 3 values for 4 vertices, give one per scalp vertex and channel"},
        {R"({"a": {"kind": "texture", "texture": 1}})",
         "scalpMaps: map 'a' needs text as its texture"},
    };
    for (const auto& [text, message] : kCases) EXPECT_EQ(jsonError(text), message) << text;
}

TEST(MapCatalogJson, TextReadsBackAsTheSameMapsAndTheSameText) {
    const std::string text =
        R"({"a\"b":{"channels":4,"kind":"vertices","values":[0,0.1,1,-0.0,5,6,7,1e+20],"vertices":2},)"
        R"("image":{"channels":4,"kind":"texture","texture":"image.png"},)"
        R"("layer":{"kind":"guides","layer":"mask"},)"
        R"("old":{"channels":1,"kind":"vertices","values":[],"vertices":7}})";
    const MapCatalogValue maps = readScalpMaps(text);
    EXPECT_EQ(maps.find("a\"b")->values->at(1), 0.1f);
    EXPECT_TRUE(std::signbit(maps.find("a\"b")->values->at(3)));
    EXPECT_EQ(maps.find("image")->channels, 4);
    EXPECT_EQ(maps.find("old")->vertices, 7u);
    EXPECT_EQ(scalpMapsJson(maps), text);
    EXPECT_EQ(readScalpMaps(text).hash(), maps.hash());
    EXPECT_EQ(scalpMapsJson({}), "");
    EXPECT_TRUE(readScalpMaps(" \n").maps.empty());
}

TEST(MapCatalogJson, HostileTextIsAnErrorOfItsOwn) {
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    for (const std::string& text :
         {std::string("{"), std::string("\xff"), std::string("[]"), deep,
          std::string(R"({"a":{"values":[1e999]}})"), std::string(R"({"a":{"vertices":-1}})"),
          std::string(R"({"a":{"vertices":"many"}})"), std::string(R"({"a":{"vertices":1.5}})")})
        EXPECT_THROW(readScalpMaps(text), std::invalid_argument) << text.substr(0, 40);
}

TEST(MapCatalogJson, VertexMapsWithoutValuesTakeAColorSetOfTheirNameElseStartAtOne) {
    ScalpMesh mesh = makePlane(2, 2, 1.0f);
    std::vector<Color4f> corners;
    for (const Triangle& triangle : mesh.triangles())
        for (const std::int32_t vertex : triangle)
            corners.push_back({float(vertex), 0.0f, 1.0f, 0.25f});
    mesh.addColorSet("tint", corners);
    mesh.addColorSet("gray", corners);
    const ScalpPtr scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
    const auto maps = std::make_shared<const MapCatalogValue>(readScalpMaps(
        R"({"tint":{"channels":4},"gray":{},"new":{"channels":4},"kept":{"values":[1,2]},"i":{"kind":"texture"}})"));
    const MapCatalogPtr filled = withVertexValues(maps, scalp);
    ASSERT_NE(filled, maps);
    for (std::size_t v = 0; v < scalp->points().size(); ++v) {
        EXPECT_THAT(std::span(*filled->find("tint")->values).subspan(4 * v, 4),
                    testing::ElementsAre(float(v), 0.0f, 1.0f, 0.25f));
        EXPECT_EQ(filled->find("gray")->values->at(v), luminance(float(v), 0.0f, 1.0f));
        EXPECT_EQ(filled->find("new")->values->at(4 * v + 3), 1.0f);
    }
    EXPECT_EQ(filled->find("new")->vertices, scalp->points().size());
    EXPECT_EQ(filled->find("kept")->values, maps->find("kept")->values);
    EXPECT_EQ(withVertexValues(filled, scalp), filled);
    EXPECT_EQ(withVertexValues(maps, nullptr), maps);
}

TEST(MapSource, WordsAndHashTellEveryPartApart) {
    EXPECT_STREQ(mapKindKey(MapKind::Texture), "texture");
    EXPECT_STREQ(mapKindKey(MapKind::ColorSet), "colorSet");
    EXPECT_STREQ(mapKindKey(MapKind::Attribute), "attribute");
    EXPECT_STREQ(mapKindKey(MapKind::Expression), "expression");
    EXPECT_STREQ(mapKindKey(MapKind::GuideLayer), "guide");
    EXPECT_STREQ(mapComponentWord(MapComponent::A), "a");
    EXPECT_STREQ(mapComponentWord(MapComponent::Luminance), "luminance");
    const MapSource base{.kind = MapKind::Texture, .source = "a"};
    std::vector<MapSource> others(5, base);
    others[0].kind = MapKind::GuideLayer;
    others[1].source = "b";
    others[2].component = MapComponent::B;
    others[3].low = 0.5f;
    others[4].high = 2.0f;
    for (const MapSource& other : others) EXPECT_NE(other.hash(), base.hash());
    EXPECT_EQ(MapSource(base).hash(), base.hash());
}

}  // namespace
}  // namespace corvelle
