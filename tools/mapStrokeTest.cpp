// Paint strokes on the maps of a groom, and how a param brush finds its map in the graph.

#include <cmath>
#include <functional>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "expr/mapCatalogJson.h"
#include "graph/graphEdit.h"
#include "graph/graphJson.h"
#include "model/hash.h"
#include "model/surfaceTopology.h"
#include "model/testing/meshes.h"
#include "operators/registerOperators.h"
#include "tools/mapStroke.h"
#include "tools/paramBrush.h"
#include "tools/texturePaint.h"
#include "tools/vertexMapPaint.h"

namespace corvelle {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;

std::string errorOf(const std::function<void()>& run) {
    try {
        run();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

/// A groom of a scalp, a graph and maps, which notes what a stroke shows.
class PaintHost final : public StrokeHost {
public:
    bool hasGroom() const override { return true; }
    ScalpPtr scalp() override { return nullptr; }
    std::shared_ptr<const GuideHierarchy> hierarchy() override { return nullptr; }
    std::shared_ptr<const GuideHierarchy> editHierarchy() override { return nullptr; }
    std::shared_ptr<const PartData> parts() override { return nullptr; }
    std::shared_ptr<const FlowData> flow() override { return nullptr; }
    MapCatalogPtr maps() override { return held; }
    std::string graphText() override { return graph; }
    std::shared_ptr<const PaintImage> image(const std::string& map) override {
        const auto found = images.find(map);
        if (found == images.end())
            throw std::invalid_argument("this groom has no texture map named " + map);
        return found->second;
    }
    void setStrokeActive(bool) override {}
    void setLiveHierarchy(std::shared_ptr<const GuideHierarchy>) override {}
    void setLiveParts(std::shared_ptr<const PartData>) override {}
    void setLiveFlow(std::shared_ptr<const FlowData>) override {}
    void setLiveMaps(MapCatalogPtr live) override {
        shownMaps = std::move(live);
        ++shown;
    }
    void setLiveGraph(const std::string& text) override { shownGraph = text; }
    bool commit(StrokeDocument, const std::string&) override { return true; }
    GuideHierarchy toDocumentPose(const GuideHierarchy& edited) override { return edited; }
    void notify(const std::string& text) override { notes.push_back(text); }
    void addWarning(const std::string& text) override { notes.push_back(text); }

    MapCatalogPtr held;
    std::string graph;
    std::map<std::string, std::shared_ptr<const PaintImage>> images;
    MapCatalogPtr shownMaps;
    std::string shownGraph;
    int shown = 0;
    std::vector<std::string> notes;
};

class MapStrokes : public testing::Test {
protected:
    MapStrokes() { registerOperators(); }
    void hold(const std::string& maps) {
        host.held = std::make_shared<const MapCatalogValue>(readScalpMaps(maps));
    }
    /// A vertex map of the plane's 25 values.
    static json vertexMap(float value) { return {{"values", std::vector<float>(25, value)}}; }
    static std::string mapsWith(const std::string& name, const json& map) {
        return json{{name, map}}.dump();
    }
    std::unique_ptr<MapStroke> begin() { return beginMapStroke(host, settings, scalp); }

    const ScalpPtr scalp = std::make_shared<const ScalpMesh>(makePlane(4, 4, 10.0f));
    const BrushStamp middle{.center = {0, 0, 0}, .radius = 3.0f};
    PaintHost host;
    BrushToolSettings settings;
};

TEST_F(MapStrokes, AVertexStrokeShowsLiveValuesAndLeavesTheDocumentToItsEnd) {
    hold(mapsWith("len", vertexMap(1.0f)));
    settings.paintKind = "vertices";
    settings.attribute = "len";
    settings.value = 0.0f;
    const auto stroke = begin();
    EXPECT_TRUE(stroke->guideLayer().empty());
    EXPECT_FALSE(stroke->graphChanged());
    EXPECT_TRUE(stroke->stamp({&middle, 1.0f, false}));
    stroke->publish();
    stroke->publish();
    EXPECT_EQ(host.shown, 1) << "nothing new to show";
    const std::size_t center = 12;
    EXPECT_EQ(host.shownMaps->find("len")->values->at(center), 0.0f);
    EXPECT_EQ(host.held->find("len")->values->at(center), 1.0f);
    const float before = host.shownMaps->find("len")->values->at(center + 1);
    EXPECT_TRUE(stroke->stamp({&middle, 1.0f, true}));
    stroke->publish();
    EXPECT_GT(host.shownMaps->find("len")->values->at(center), 0.1f) << "smoothed";
    EXPECT_NE(host.shownMaps->find("len")->values->at(center + 1), before);
    StrokeDocument document;
    stroke->finish(document);
    EXPECT_TRUE(document.has(DocumentSlot::ScalpMaps));
    EXPECT_FALSE(document.has(DocumentSlot::Graph));
    EXPECT_TRUE(document.images.empty());
    EXPECT_EQ(*readScalpMaps(*document.at(DocumentSlot::ScalpMaps)).find("len")->values,
              *host.shownMaps->find("len")->values);
}

TEST_F(MapStrokes, WhatWasShownStaysAsItWasWhoeverHoldsIt) {
    const auto wide = std::make_shared<const ScalpMesh>(makePlane(30, 30, 10.0f));
    std::size_t mostHeld = 0;
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        SplitMix random(seed);
        const std::size_t channels = seed % 2 == 0 ? 1 : 4;
        std::vector<float> plain(wide->points().size() * channels, 0.5f);
        hold(mapsWith("len", {{"values", plain}, {"channels", channels}}));
        settings.paintKind = "vertices";
        settings.attribute = "len";
        settings.paintChannels = 15;
        settings.paintColor = {1.0f, 0.0f, 0.3f, 0.7f};
        settings.value = 1.0f;
        const auto stroke = beginMapStroke(host, settings, wide);
        const SurfaceTopology topology(wide->triangles(), wide->points().size());
        const VertexBlocks blocks(*wide);
        std::vector<std::pair<MapCatalogPtr, std::vector<float>>> held;  // with what they showed
        for (int stamps = 0; stamps < 80; ++stamps) {
            const BrushStamp stamp{
                .center = {random.nextRange(-6.0f, 6.0f), 0, random.nextRange(-6.0f, 6.0f)},
                .radius = random.nextRange(0.0f, seed % 3 == 0 ? 9.0f : 1.5f)};
            const float strength = random.nextFloat();
            const bool smooth = random.nextFloat() < 0.3f;
            const auto touched = blocks.touched(stamp);
            const std::array<float, 4> one{1.0f, 1.0f, 1.0f, 1.0f};
            const auto& color = channels == 1 ? one : settings.paintColor;
            const bool changed =
                smooth ? smoothVertexMap(plain, int(channels), 15, *wide,
                                         {topology.neighborOffsets(), topology.neighbors()},
                                         touched, strength)
                       : stampVertexMap(plain, int(channels), 15, *wide, touched, strength, color);
            EXPECT_EQ(stroke->stamp({&stamp, strength, smooth}), changed);
            if (random.nextFloat() < 0.3f) continue;
            const MapCatalogPtr before = host.shownMaps;
            stroke->publish();
            if (host.shownMaps != before) {
                ASSERT_EQ(*host.shownMaps->find("len")->values, plain);
            }
            if (host.shownMaps && random.nextFloat() < 0.3f)
                held.emplace_back(host.shownMaps, *host.shownMaps->find("len")->values);
            if (!held.empty() && random.nextFloat() < 0.2f) held.erase(held.begin());
            mostHeld = std::max(mostHeld, held.size());
            for (const auto& [catalog, values] : held)
                ASSERT_EQ(*catalog->find("len")->values, values) << seed;
        }
        host.shownMaps = nullptr;
    }
    EXPECT_GT(mostHeld, 2u);
}

TEST_F(MapStrokes, AGrayMapIsPaintedTowardsWhatItCanHold) {
    for (const auto& [value, wanted] : {std::pair{9.0f, 0.55f}, {-9.0f, 0.45f}}) {
        hold(mapsWith("len", vertexMap(0.5f)));
        settings.paintKind = "vertices";
        settings.attribute = "len";
        settings.value = value;
        const auto stroke = begin();
        EXPECT_TRUE(stroke->stamp({&middle, 0.1f, false}));
        stroke->publish();
        EXPECT_FLOAT_EQ(host.shownMaps->find("len")->values->at(12), wanted);
    }
}

TEST_F(MapStrokes, AStrokeThatChangesNothingLeavesNothing) {
    hold(mapsWith("len", vertexMap(1.0f)));
    settings.paintKind = "vertices";
    settings.attribute = "len";
    const auto stroke = begin();
    EXPECT_FALSE(stroke->stamp({&middle, 1.0f, false})) << "1 on 1";
    EXPECT_FALSE(stroke->stamp({&middle, 1.0f, true}));
    stroke->publish();
    StrokeDocument document;
    stroke->finish(document);
    EXPECT_TRUE(document.empty());
    EXPECT_EQ(host.shown, 0);
}

TEST_F(MapStrokes, ATextureStrokePublishesTilesAndHandsOverTheImage) {
    hold(mapsWith("tint", {{"kind", "texture"}, {"texture", "/x/tint.png"}}));
    host.images["tint"] = PaintImage::filled(600, 600, 4, {0, 0, 0, 255});
    settings.paintKind = "texture";
    settings.paintTexture = "tint";
    settings.paintColor = {1.0f, 0.5f, 0.25f, 0.0f};
    settings.paintChannels = 7;
    const auto stroke = begin();
    const BrushStamp hard{.center = {0, 0, 0}, .radius = 3.0f, .hardness = 1.0f};
    EXPECT_TRUE(stroke->stamp({&hard, 1.0f, false}));
    stroke->publish();
    const PaintedMap live = *host.shownMaps->find("tint");
    EXPECT_EQ(live.image->sampleColor(0.5f, 0.5f),
              (Color4f{1.0f, 128 / 255.0f, 64 / 255.0f, 1.0f}));
    EXPECT_EQ(live.file, "/x/tint.png");
    EXPECT_EQ(live.channels, 4);
    StrokeDocument document;
    stroke->finish(document);
    ASSERT_TRUE(document.images.contains("tint"));
    const PaintImage& image = *document.images["tint"];
    EXPECT_EQ(image.texture()->sampleColor(0.5f, 0.5f), live.image->sampleColor(0.5f, 0.5f));
    EXPECT_EQ(image.tiles()[8], host.images["tint"]->tiles()[8]) << "the corner was not reached";
    EXPECT_EQ(readScalpMaps(*document.at(DocumentSlot::ScalpMaps)).find("tint")->file,
              "/x/tint.png");
}

TEST_F(MapStrokes, ATextureMapWithoutPixelsStartsWhite) {
    hold(R"({"new":{"kind":"texture","channels":4}})");
    settings.paintKind = "texture";
    settings.paintTexture = "new";
    settings.paintResolution = 32;
    settings.paintColor = {0, 0, 0, 1};
    const auto stroke = begin();
    EXPECT_TRUE(stroke->stamp({&middle, 1.0f, false}));
    stroke->publish();
    const PaintedMap& map = *host.shownMaps->find("new");
    EXPECT_EQ(map.file, "new.png");
    EXPECT_EQ(map.image->sampleColor(0.0f, 0.0f), (Color4f{1, 1, 1, 1}));
    EXPECT_LT(map.image->sampleColor(0.5f, 0.5f).r, 0.2f);
}

TEST_F(MapStrokes, AMapOfAnotherScalpStartsOverWithANotice) {
    hold(R"({"old":{"values":[0,0,0]}})");
    settings.paintKind = "vertices";
    settings.attribute = "old";
    settings.value = 0.0f;
    const auto stroke = begin();
    EXPECT_THAT(host.notes,
                ElementsAre("Corvelle paint: map old was painted on a scalp with another "
                            "vertex count; painting starts it over here"));
    stroke->stamp({&middle, 1.0f, false});
    StrokeDocument document;
    stroke->finish(document);
    const MapCatalogValue maps = readScalpMaps(*document.at(DocumentSlot::ScalpMaps));
    EXPECT_EQ(maps.find("old")->vertices, 25u);
    EXPECT_EQ(maps.find("old")->values->at(0), 1.0f);
}

TEST_F(MapStrokes, NamesWhatCannotBePainted) {
    settings.paintKind = "vertices";
    settings.attribute = "none";
    EXPECT_EQ(errorOf([&] { begin(); }), "this groom has no vertex map named none");
    EXPECT_THROW(begin(), StrokeNotFound);
    settings.paintKind = "texture";
    settings.paintTexture = "none";
    EXPECT_EQ(errorOf([&] { begin(); }), "this groom has no texture map named none");
    hold(
        R"({"none":{"kind":"texture","texture":"n.png"},"layer":{"kind":"guides","layer":"mask"}})");
    host.images["none"] = PaintImage::filled(4, 4, 1, {0});
    const auto bare = std::make_shared<const ScalpMesh>(makeIcosphere(1, 1.0f));
    EXPECT_EQ(errorOf([&] { beginMapStroke(host, settings, bare); }),
              "the scalp has no UVs to paint a texture map on");
    EXPECT_THROW(beginMapStroke(host, settings, bare), StrokeStateError);
    settings.paintTexture = "layer";
    EXPECT_EQ(begin()->guideLayer(), "mask");
    EXPECT_EQ(host.shown, 0);
}

TEST_F(MapStrokes, AParamBrushMakesAMapWiresItAndTakesItBack) {
    host.graph = defaultGraphJson().dump();
    settings.paramBrush = "width";
    settings.value = 0.5f;
    for (const std::string kind : {"guides", "vertices", "texture"}) {
        settings.paintKind = kind;
        settings.paintResolution = 64;
        const auto stroke = begin();
        EXPECT_TRUE(stroke->graphChanged());
        const json graph = json::parse(host.shownGraph);
        ASSERT_NO_THROW(graphFromJson(graph));
        GraphEdit edit(graph);
        const json before = json::parse(host.graph);
        const std::string source = edit.node("width")["paramInputs"]["width"]["from"];
        EXPECT_EQ(edit.node(source)["type"], "Map");
        EXPECT_EQ(edit.node(source)["params"]["name"], "width");
        EXPECT_EQ(edit.node("width")["params"], GraphEdit(before).node("width")["params"]);
        const PaintedMap* map = host.shownMaps->find("width");
        ASSERT_NE(map, nullptr);
        if (kind == "texture") {
            EXPECT_EQ(map->file, "width.png");
            EXPECT_EQ(map->image->sample(0.1f, 0.9f, MapComponent::R), 1.0f);
        } else {
            EXPECT_EQ(*map->values, std::vector<float>(25, 1.0f));
        }
        StrokeDocument nothing, document;
        stroke->finish(nothing);
        EXPECT_TRUE(nothing.empty());
        EXPECT_TRUE(stroke->stamp({&middle, 1.0f, false}));
        stroke->finish(document);
        EXPECT_EQ(*document.at(DocumentSlot::Graph), host.shownGraph);
        EXPECT_EQ(document.images.contains("width"), kind == "texture");
        stroke->cancel();
        EXPECT_EQ(host.shownGraph, "");
        EXPECT_EQ(host.shownMaps, nullptr);
    }
}

/// A graph of scatter -> width, with what drives the width given.
std::string graphWith(const json& width, const json& paramInputs = nullptr,
                      const json& more = json::array()) {
    json node = {{"name", "w"}, {"type", "Width"}, {"params", {{"width", width}}}};
    if (!paramInputs.is_null()) node["paramInputs"] = paramInputs;
    json nodes = {{{"name", "s"}, {"type", "Scatter"}, {"params", json::object()}}, node};
    for (const json& other : more) nodes.push_back(other);
    return json{{"nodes", nodes},
                {"connections", {{{"from", "s"}, {"to", "w"}, {"input", "strands"}}}},
                {"output", "w"}}
        .dump();
}

TEST_F(MapStrokes, AParamBrushFindsTheMapThatDrivesItsParam) {
    hold(R"({"painted":{},"image":{"kind":"texture","texture":"a/b.png"},
             "fur":{"kind":"guides","layer":"mask"}})");
    const auto find = [&](const std::string& graph) {
        return paramBrushMap("width", graph, host.held.get(), scalp, PaintedMap::Kind::Vertices);
    };
    const auto driven = [&](const json& width) { return find(graphWith(width)); };
    const auto wired = [&](const std::string& map, const json& inputs) {
        return find(graphWith(0.1, inputs,
                              {{{"name", "m"}, {"type", "Map"}, {"params", {{"name", map}}}}}));
    };
    using Kind = PaintedMap::Kind;
    const std::tuple<ParamBrushMap, Kind, const char*> kCases[] = {
        {wired("painted", {{"width", {{"from", "m"}}}}), Kind::Vertices, "painted"},
        {wired("fur", json::array({{{"param", "width"}, {"from", "m"}}})), Kind::Guides, "mask"},
        {driven({{"guide", "soft"}}), Kind::Guides, "soft"},
        {driven({{"texture", "a/b.png"}}), Kind::Texture, "image"},
        {driven({{"texture", "image"}}), Kind::Texture, "image"},
        {driven({{"expression", " map( \"painted\" ) "}}), Kind::Vertices, "painted"},
    };
    for (const auto& [map, kind, name] : kCases) {
        EXPECT_EQ(map.kind, kind) << name;
        EXPECT_EQ(map.name, name);
        EXPECT_FALSE(map.made);
    }
    const auto wrong = [&](const json& width) { return errorOf([&] { driven(width); }); };
    EXPECT_EQ(wrong({{"texture", "c.png"}}), "width reads c.png, which is no map of the groom");
    EXPECT_EQ(wrong({{"expression", "map(\"gone\")"}}),
              "width reads gone, which is no map of the groom");
    EXPECT_EQ(wrong({{"colorSet", "tint"}}), "width reads the color set tint");
    for (const char* expression : {"map(\"painted\") * 2", "u", "map(\"painted", ""})
        EXPECT_EQ(wrong({{"expression", expression}}),
                  "width is driven by an expression or a channel");
    EXPECT_EQ(wrong({{"attribute", "tone"}}), "width is driven by an expression or a channel");
    EXPECT_EQ(errorOf([&] {
                  wired("gone", {{"width", {{"from", "m"}}}});
              }),
              "width reads gone, which is no map of the groom");
    EXPECT_EQ(errorOf([&] {
                  wired("painted", {{"width", {{"from", "s"}}}});
              }),
              "width is wired to s, not a painted map");
}

TEST_F(MapStrokes, AParamBrushTakesTheShownNodeNearestTheOutput) {
    const auto node = [](const char* name, json more = json::object()) {
        more.update({{"name", name}, {"type", "Width"}, {"params", {{"width", 0.0}}}});
        return more;
    };
    const auto graph = [&](const json& first, const json& second) {
        return json{
            {"nodes",
             {{{"name", "s"}, {"type", "Scatter"}, {"params", json::object()}}, first, second}},
            {"connections",
             {{{"from", "s"}, {"to", "a"}, {"input", "strands"}},
              {{"from", "a"}, {"to", "b"}, {"input", "strands"}}}},
            {"output", "b"}}
            .dump();
    };
    const auto wiredOn = [&](const std::string& text) -> std::string {
        const ParamBrushMap map =
            paramBrushMap("width", text, nullptr, scalp, PaintedMap::Kind::Texture);
        EXPECT_TRUE(map.made);
        const json made = json::parse(map.graph);
        for (const json& n : made["nodes"])
            if (n.contains("paramInputs")) {
                EXPECT_EQ(n["paramInputs"]["width"]["scale"], 1) << "0 times the map would be 0";
                return n["name"];
            }
        return "";
    };
    EXPECT_EQ(wiredOn(graph(node("a"), node("b"))), "b");
    EXPECT_EQ(wiredOn(graph(node("a"), node("b", {{"bypass", true}}))), "a");
    EXPECT_EQ(wiredOn(graph(node("a"), node("b", {{"evaluation", "renderOnly"}}))), "a");
    const std::string none =
        graph(node("a", {{"bypass", true}}), node("b", {{"evaluation", "renderOnly"}}));
    const auto error = [&](const char* brush, const std::string& text, const ScalpPtr& on) {
        return errorOf(
            [&] { paramBrushMap(brush, text, nullptr, on, PaintedMap::Kind::Vertices); });
    };
    EXPECT_EQ(error("width", none, scalp), "the graph has no Width node to paint the width map on");
    EXPECT_EQ(error("density", "", scalp),
              "the graph has no Scatter node to paint the density map on");
    EXPECT_EQ(error("density", graph(node("a"), node("b")), nullptr),
              "no scalp to paint the density map on");
    EXPECT_EQ(error("length", none, scalp), "no param brush named length");
    for (const char* text :
         {"[]", "{\"nodes\":1}", "{\"nodes\":[1,{}],\"connections\":[3,null],\"output\":4}"})
        EXPECT_EQ(error("width", text, scalp),
                  "the graph has no Width node to paint the width map on");

    hold(R"({"density":{},"density2":{}})");
    EXPECT_EQ(paramBrushMap("density", graph(node("a"), node("b")), host.held.get(), scalp,
                            PaintedMap::Kind::Vertices)
                  .name,
              "density3");
}

}  // namespace
}  // namespace corvelle
