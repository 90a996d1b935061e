#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "model/polyline.h"
#include "tools/brushMode.h"
#include "tools/selection.h"
#include "tools/strokeFixture.h"

namespace corvelle {
namespace {

TEST(BrushTool, PlacesGuidesApartAlikeAndMirrored) {
    FakeStrokeHost host = makeHost(12, 40, 0);
    const std::size_t before = host.guides->size();
    BrushToolSettings settings;
    settings.kind = ToolKind::Place;
    settings.label = "place";
    settings.spacing = 0.4f;
    settings.group = "hair";
    ASSERT_TRUE(stroke(host, settings, {{300, 300}, {420, 310}, {500, 330}}).committed);
    const std::size_t made = host.guides->size() - before;
    EXPECT_GT(made, 8u);
    for (std::size_t i = before; i < host.guides->size(); ++i) {
        const Guide& guide = *host.guides->guides()[i];
        EXPECT_EQ(guide.points.size(), 10u) << "the neighbours'";
        EXPECT_NEAR(length(guide.points[0]), 8.0f, 0.1f);
        EXPECT_TRUE(guide.attributes.contains("stiff"));
        EXPECT_TRUE(guide.pointAttributes.contains("mask"));
        for (std::size_t j = before; j < i; ++j)
            EXPECT_GE(distance(guide.points[0], host.guides->guides()[j]->points[0]), 0.399f);
    }
    settings.symmetry = 0;
    const std::size_t then = host.guides->size();
    ASSERT_TRUE(stroke(host, settings, {{550, 200}}).committed);
    ASSERT_EQ(host.guides->size(), then + 2);
    const Guide &right = *host.guides->guides()[then], &left = *host.guides->guides()[then + 1];
    for (std::size_t i = 0; i < right.points.size(); ++i) {
        const Vec3f p = right.points[i];
        EXPECT_LT(distance({-p.x, p.y, p.z}, left.points[i]), 0.02f);
    }
    const Vec2f middle{400, 250};
    ASSERT_TRUE(stroke(host, settings, {middle}).committed);
    EXPECT_EQ(host.guides->size(), then + 3) << "its own mirror image";
    EXPECT_FALSE(stroke(host, settings, {{3, 3}}).committed) << "off the scalp";
}

TEST(BrushTool, PlacesWhereNothingWas) {
    FakeStrokeHost host = makeHost(13, 1, 0);
    host.guides = nullptr;
    BrushToolSettings settings;
    settings.kind = ToolKind::Place;
    settings.segments = 5;
    settings.length = 2.0f;
    ASSERT_TRUE(stroke(host, settings, {{400, 300}}).committed);
    ASSERT_EQ(host.guides->size(), 1u);
    const Guide& guide = *host.guides->guides()[0];
    EXPECT_EQ(host.guides->groups()[0].name, "primary");
    EXPECT_EQ(guide.points.size(), 6u);
    EXPECT_NEAR(polylineLength(guide.points), 2.0f, 1e-4f);
    EXPECT_EQ(guide.tubeRadius, (std::vector<float>{0.1f, 0.1f}));
    EXPECT_EQ(host.guides->scalpTopology(), host.mesh->topologyHash());
    settings.group = "nowhere";
    EXPECT_THROW(stroke(host, settings, {{400, 300}}), std::invalid_argument);
    EXPECT_FALSE(host.active);
}

TEST(BrushTool, PlacesChildrenByHandAndSolosNewGuides) {
    FakeStrokeHost host = makeHost(14);
    const std::size_t before = host.guides->size();
    BrushToolSettings settings;
    settings.kind = ToolKind::Place;
    settings.group = "hair_1";
    settings.level = 1;
    settings.soloNewGuides = true;
    ASSERT_TRUE(stroke(host, settings, {{400, 300}}).committed);
    ASSERT_EQ(host.guides->size(), before + 1);
    const Guide& child = *host.guides->guides()[before];
    ASSERT_TRUE(child.follows());
    float nearest = 1e9f;
    for (const GuidePtr& guide : host.guides->guides())
        if (host.guides->group(guide->group)->name == "hair")
            nearest = std::min(nearest, distance(guide->points[0], child.points[0]));
    EXPECT_NEAR(distance(host.guides->guide(child.parent)->points[0], child.points[0]), nearest,
                1e-3f);
    EXPECT_FALSE(child.attributes.contains("freeze"));
    EXPECT_EQ(host.guides->guides()[0]->attributes.at("freeze"), 1.0f);
}

TEST(BrushTool, DrawsInTheAir) {
    FakeStrokeHost host = makeHost(15, 30, 0);
    const std::size_t before = host.guides->size();
    BrushToolSettings settings;
    settings.kind = ToolKind::Draw;
    settings.segments = 7;
    settings.group = "hair";
    settings.collide = false;
    const Points up = {{400, 400}, {400, 440}, {420, 500}, {480, 520}};
    ASSERT_TRUE(stroke(host, settings, up).committed);
    ASSERT_EQ(host.guides->size(), before + 1);
    const Guide& guide = *host.guides->guides()[before];
    ASSERT_EQ(guide.points.size(), 8u);
    double x = 0.0, y = 0.0;
    ASSERT_TRUE(frontView().project(guide.points.back(), x, y));
    EXPECT_NEAR(x, 480.0, 0.01);
    EXPECT_NEAR(y, 520.0, 0.01);
    for (const Vec3f& p : guide.points) EXPECT_NEAR(p.z, guide.points[0].z, 1e-3f);
    EXPECT_TRUE(guide.attributes.contains("stiff")) << "its neighbours' layers";
    ASSERT_TRUE(stroke(host, settings, {{380, 300}, {381, 301}}).committed);
    const Guide& standing = *host.guides->guides()[before + 1];
    EXPECT_GT(dot(normalized(standing.points.back() - standing.points[0]),
                  normalized(standing.points[0])),
              0.99f)
        << "no drag: it stands";
    BrushTool tool;
    tool.settings = settings;
    EXPECT_FALSE(tool.begin(host, frontView(), 3, 3, 1.0f));
    EXPECT_FALSE(host.active);
}

TEST(BrushTool, DrawsPartsAndSaysWhatMakesNone) {
    FakeStrokeHost host = makeHost(16, 4, 0);
    BrushToolSettings settings;
    settings.kind = ToolKind::Part;
    settings.partName = "left";
    EXPECT_FALSE(stroke(host, settings, {{500, 300}}).committed);
    EXPECT_EQ(host.warnings, std::vector<std::string>{"a part needs a longer stroke"});
    host.warnings.clear();
    EXPECT_FALSE(stroke(host, settings, {{2, 2}, {40, 4}}).committed);
    EXPECT_EQ(host.warnings,
              std::vector<std::string>{"a part needs at least two points on the scalp"});
    EXPECT_EQ(stroke(host, settings, {{480, 300}, {500, 320}, {520, 360}}).slots,
              std::vector<DocumentSlot>{DocumentSlot::Parts});
    ASSERT_EQ(host.partLines->lines.size(), 1u);
    EXPECT_EQ(host.partLines->lines[0].name, "left");
    EXPECT_EQ(host.partLines->lines[0].points.size(), 3u);
    settings.symmetry = 0;
    ASSERT_TRUE(
        stroke(host, settings, {{480, 200}, {500, 220}, {2, 2}, {520, 260}, {540, 270}}).committed);
    ASSERT_EQ(host.partLines->lines.size(), 5u)
        << "a miss breaks the line, each has its mirror image";
    const Vec3f a = host.mesh->surfacePoint(host.partLines->lines[1].points[0]);
    const Vec3f b = host.mesh->surfacePoint(host.partLines->lines[2].points[0]);
    EXPECT_LT(distance({-a.x, a.y, a.z}, b), 1e-3f);
    BrushTool tool;
    const auto before = host.partLines;
    EXPECT_FALSE(tool.scriptedStroke(host, settings, frontView(),
                                     Points{{480, 300}, {500, 320}, {520, 360}}, 1.0f,
                                     kScriptedEnd));
    EXPECT_EQ(host.partLines, before);
}

TEST(BrushTool, LaysCombsAndErasesFlow) {
    FakeStrokeHost host = makeHost(17, 4, 0);
    BrushToolSettings settings;
    settings.kind = ToolKind::Flow;
    settings.radius = 40.0f;
    EXPECT_FALSE(stroke(host, settings, {{400, 300}}).committed) << "a click points nowhere";
    ASSERT_TRUE(stroke(host, settings, {{300, 300}, {400, 300}, {500, 300}}).committed);
    const std::size_t laid = host.flowLines->pins.size();
    EXPECT_GE(laid, 7u);
    for (const FlowPin& pin : host.flowLines->pins) {
        EXPECT_GT(flowPinDirection(*host.mesh, pin).x, 0.8f);
        EXPECT_EQ(pin.line, 0);
    }
    ASSERT_TRUE(stroke(host, settings, {{350, 290}, {360, 330}, {360, 360}}).committed);
    EXPECT_EQ(host.flowLines->pins.size(), laid) << "over arrows it combs";
    float most = 0.0f;
    for (const FlowPin& pin : host.flowLines->pins)
        most = std::max(most, flowPinDirection(*host.mesh, pin).y);
    EXPECT_GT(most, 0.5f);
    settings.flowSink = "whorl";
    ASSERT_TRUE(stroke(host, settings, {{400, 400}}).committed);
    ASSERT_EQ(host.flowLines->sinks.size(), 1u);
    EXPECT_EQ(host.flowLines->sinks[0].angle, 70.0f);
    ASSERT_TRUE(stroke(host, settings, {{400, 400}}, false, true).committed) << "Ctrl erases";
    EXPECT_TRUE(host.flowLines->sinks.empty());
    settings.flowSink = "drain";
    EXPECT_THROW(stroke(host, settings, {{400, 400}}), std::invalid_argument);
}

TEST(BrushTool, ShapesPartsAndFlowWhenTheyAreTargets) {
    FakeStrokeHost host = makeHost(18, 4, 0);
    BrushToolSettings draw;
    draw.kind = ToolKind::Part;
    stroke(host, draw, {{300, 300}, {350, 330}, {400, 300}, {450, 330}, {500, 300}});
    const PartData drawn = *host.partLines;
    const auto onParts = [&](BrushMode mode, const Points& points) {
        host.partLines = std::make_shared<const PartData>(drawn);
        BrushToolSettings settings = shaping(mode);
        settings.targets = {.guides = false, .parts = true};
        EXPECT_TRUE(stroke(host, settings, points).committed) << brushModeWord(mode);
        return *host.partLines;
    };
    const auto lengthOf = [&](const PartData& parts) {
        std::vector<Vec3f> places;
        for (const StrandRoot& root : parts.lines.at(0).points)
            places.push_back(host.mesh->surfacePoint(root));
        return polylineLength(places);
    };
    EXPECT_EQ(onParts(BrushMode::Cut, {{400, 300}}).lines.size(), 2u);
    EXPECT_LT(lengthOf(onParts(BrushMode::Smooth, kAcross)), lengthOf(drawn));
    EXPECT_LT(lengthOf(onParts(BrushMode::Straighten, kAcross)), lengthOf(drawn));
    EXPECT_GT(lengthOf(onParts(BrushMode::Length, {{500, 300}})), lengthOf(drawn));
    const PartData combed = onParts(BrushMode::Comb, {{400, 300}, {400, 320}});
    for (const PartLine& line : combed.lines)
        for (const StrandRoot& root : line.points) EXPECT_TRUE(host.mesh->validRoot(root));
}

}  // namespace
}  // namespace corvelle
