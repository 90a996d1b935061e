#include <gtest/gtest.h>

#include "tools/fakeStrokeHost.h"
#include "tools/hover.h"
#include "tools/selection.h"

namespace corvelle {
namespace {

const std::vector<Vec2f> kAll = {{0, 0}, {800, 0}, {800, 600}, {0, 600}};

Vec2f seen(const ToolView& view, Vec3f p) {
    double x = 0.0, y = 0.0;
    EXPECT_TRUE(view.project(p, x, y));
    return {float(x), float(y)};
}

TEST(Selection, WordsAndModes) {
    EXPECT_EQ(parseSelectionMode("deselect"), SelectionMode::Deselect);
    try {
        parseSelectionMode("Replace");
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(),
                     "a selection mode is replace, add, toggle or deselect, not Replace");
    }
    const GuideIds held{1, 2, 3}, hit{3, 4};
    EXPECT_EQ(combineSelection(held, hit, SelectionMode::Replace), hit);
    EXPECT_EQ(combineSelection(held, hit, SelectionMode::Add), (GuideIds{1, 2, 3, 4}));
    EXPECT_EQ(combineSelection(held, hit, SelectionMode::Toggle), (GuideIds{1, 2, 4}));
    EXPECT_EQ(combineSelection(held, hit, SelectionMode::Deselect), (GuideIds{1, 2}));
    EXPECT_EQ(combineSelection(held, {}, SelectionMode::Add), held);
    EXPECT_TRUE(combineSelection(held, {}, SelectionMode::Replace).empty());
}

TEST(Selection, ALassoTakesWhatIsSeenInside) {
    FakeStrokeHost host = makeHost(1);
    const ToolView view = frontView();
    BrushToolSettings settings;
    const GuideIds front = pickGuides(host, view, kAll, settings);
    settings.frontFacingOnly = false;
    const GuideIds every = pickGuides(host, view, kAll, settings);
    std::size_t level0 = 0;
    for (const GuidePtr& guide : host.guides->guides()) {
        const bool primary = guide->parent == 0;
        level0 += primary;
        if (primary && guide->points[0].z > 3.0f) {
            EXPECT_TRUE(front.contains(guide->id));
        }
        EXPECT_LE(front.contains(guide->id), primary) << "level 0 alone";
    }
    EXPECT_EQ(every.size(), level0);
    EXPECT_LT(front.size(), every.size());
    EXPECT_GT(front.size(), 20u);
    const std::vector<Vec2f> half = {{0, 0}, {400, 0}, {400, 600}, {0, 600}};
    for (const std::uint64_t id : pickGuides(host, view, half, settings, {.rootsOnly = true}))
        EXPECT_LT(host.guides->guide(id)->points[0].x, 0.1f);
    host.hidden = {"hair"};
    for (const std::uint64_t id : pickGuides(host, view, kAll, settings, {.anyLevel = true}))
        EXPECT_EQ(host.guides->group(host.guides->guide(id)->group)->name, "brow")
            << "a hidden group hides its child groups";
    settings.group = "brow";
    EXPECT_FALSE(pickGuides(host, view, kAll, settings).empty());
    settings.level = 1;
    EXPECT_TRUE(pickGuides(host, view, kAll, settings).empty());
}

TEST(Selection, AClickTakesTheNearestGuideFrozenOrNot) {
    FakeStrokeHost host = makeHost(2);
    host.frozen = std::make_shared<const GuideIds>(GuideIds{host.guides->guides()[0]->id});
    const ToolView view = frontView();
    BrushToolSettings settings;
    settings.frontFacingOnly = false;
    for (std::size_t g = 0; g < 20; ++g) {
        const GuidePtr guide = host.guides->guides()[g];
        const Vec2f at = seen(view, guide->points.front());
        const GuideIds hit = pickGuides(host, view, {{at}}, settings, {.anyLevel = true});
        ASSERT_EQ(hit.size(), 1u);
        float nearest = 1e9f, own = 1e9f;
        const auto projector = pixelProjector(view);
        for (const GuidePtr& other : host.guides->guides())
            for (const Vec3f& p : other->points) {
                float x = 0.0f, y = 0.0f;
                if (!projector(p, x, y)) continue;
                const float d = std::hypot(x - at.x, y - at.y);
                nearest = std::min(nearest, d);
                if (other->id == *hit.begin()) own = std::min(own, d);
            }
        EXPECT_EQ(own, nearest);
        const std::vector<Vec2f> tremble = {at, {at.x + 2, at.y + 1}, {at.x - 1, at.y}};
        EXPECT_EQ(pickGuides(host, view, tremble, settings, {.anyLevel = true}), hit);
    }
    EXPECT_TRUE(pickGuides(host, view, {{Vec2f{1, 1}}}, settings).empty());
    EXPECT_TRUE(pickGuides(host, view, {}, settings).empty());
}

TEST(Selection, PicksTheMirrorGuidesToo) {
    FakeStrokeHost host = makeHost(3, 60, 0);
    auto mirrored = std::make_shared<GuideHierarchy>(*host.guides);
    mirrored->mirrorAll(0, 0.0f, true, host.mesh.get());
    host.guides = mirrored;
    BrushToolSettings settings;
    settings.frontFacingOnly = false;
    const std::vector<Vec2f> right = {{405, 0}, {800, 0}, {800, 600}, {405, 600}};
    const GuideIds plain = pickGuides(host, frontView(), right, settings, {.rootsOnly = true});
    ASSERT_GT(plain.size(), 10u);
    for (const bool topology : {false, true}) {
        settings.symmetry = topology ? -1 : 0;
        settings.topology = topology;
        const GuideIds both = pickGuides(host, frontView(), right, settings, {.rootsOnly = true});
        EXPECT_EQ(both.size(), 2 * plain.size());
        for (const std::uint64_t id : both) {
            const Vec3f root = host.guides->guide(id)->points[0];
            EXPECT_TRUE(std::any_of(both.begin(), both.end(), [&](std::uint64_t other) {
                const Vec3f o = host.guides->guide(other)->points[0];
                return distance({-o.x, o.y, o.z}, root) < 0.05f;
            }));
        }
    }
}

TEST(Selection, SoftWeightsFallAndTheRestFreezes) {
    FakeStrokeHost host = makeHost(4);
    const std::uint64_t chosen = host.guides->guides()[3]->id;
    const Vec3f root = host.guides->guides()[3]->points[0];
    const GuideWeights hard = softSelection(*host.guides, {chosen, 999999999}, 0.0f, {});
    EXPECT_EQ(hard, (GuideWeights{{chosen, 1.0f}})) << "guides that are gone leave";
    const GuideWeights soft = softSelection(*host.guides, {chosen}, 3.0f, {});
    EXPECT_GT(soft.size(), 3u);
    for (const auto& [id, weight] : soft) {
        const float t = distance(host.guides->guide(id)->points[0], root) / 3.0f;
        EXPECT_NEAR(weight, (1 - t * t) * (1 - t * t), 1e-5f);
        EXPECT_EQ(host.guides->guide(id)->parent, 0u) << "of the level";
    }
    const GuideIds frozen = frozenBySelection(*host.guides, soft);
    EXPECT_EQ(frozen.size() + soft.size(), host.guides->size());
    EXPECT_TRUE(frozenBySelection(*host.guides, {}).empty()) << "nothing picked freezes nothing";

    GuideHierarchy solo = *host.guides;
    soloGuides(solo, {chosen}, "freeze");
    for (const GuidePtr& guide : solo.guides()) {
        const bool is = guide->id == chosen;
        EXPECT_EQ(guide == host.guides->guide(guide->id), is) << "what stays is the same object";
        if (!is) {
            EXPECT_EQ(guide->attributes.at("freeze"), 1.0f);
        }
    }
    soloGuides(solo, {solo.guides()[0]->id}, "freeze");
    EXPECT_EQ(solo.guides()[0]->attributes.at("freeze"), 0.0f);
    EXPECT_EQ(solo.guide(chosen)->attributes.at("freeze"), 1.0f);
}

TEST(Hover, FindsWhatALookAtEveryPointFinds) {
    FakeStrokeHost host = makeHost(5);
    const ToolView view = frontView();
    BrushToolSettings settings;
    settings.frontFacingOnly = false;
    HoverCache cache;
    SplitMix random(8);
    int over = 0;
    for (int i = 0; i < 300; ++i) {
        const double x = double(random.nextRange(-20, 820)), y = double(random.nextRange(-20, 620));
        const HoverHit hit = cache.at(host, view, x, y, settings, 25.0f);
        double nearest = 25.0;
        for (const GuidePtr& guide : host.guides->guides())
            for (const Vec3f& p : guide->points) {
                double px = 0.0, py = 0.0;
                if (view.project(p, px, py) && px >= 0 && py >= 0 && px <= 800 && py <= 600)
                    nearest = std::min(nearest, std::hypot(px - x, py - y));
            }
        EXPECT_EQ(hit.kind == HoverHit::Kind::Guide, nearest < 24.999);
        if (hit.kind != HoverHit::Kind::Guide) continue;
        ++over;
        EXPECT_NEAR(double(hit.pixels), nearest, 1e-3);
        EXPECT_EQ(hit.line, host.guides->guide(hit.guide)->points);
    }
    EXPECT_GT(over, 50);
}

TEST(Hover, SeesPartsArrowsAndChanges) {
    FakeStrokeHost host = makeHost(6, 1, 0);
    host.guides = std::make_shared<const GuideHierarchy>();
    SurfaceHit hit;
    PartData parts;
    PartLine line{.name = "left", .points = {}};
    for (const float x : {-1.0f, 0.0f, 1.0f}) {
        ASSERT_TRUE(host.mesh->closestPoint({x, 0, 9}, 5.0f, hit));
        line.points.push_back(hit.root());
    }
    parts.lines.push_back(line);
    host.partLines = std::make_shared<const PartData>(parts);
    FlowData flow;
    ASSERT_TRUE(host.mesh->closestPoint({0, 3, 9}, 5.0f, hit));
    flow.pins.push_back(flowPin(*host.mesh, hit.root(), {1, 0, 0}));
    host.flowLines = std::make_shared<const FlowData>(flow);
    const ToolView view = frontView();
    const Vec2f onPart = seen(view, host.mesh->surfacePoint(line.points[1]));
    const Vec2f onPin = seen(view, hit.position);
    HoverCache cache;
    const auto at = [&](Vec2f p) { return cache.at(host, view, double(p.x), double(p.y), {}); };
    EXPECT_EQ(at(onPart).part, "left");
    EXPECT_EQ(at(onPart).line.size(), 3u);
    EXPECT_EQ(at(onPin).kind, HoverHit::Kind::Flow);
    EXPECT_EQ(at({5, 5}).kind, HoverHit::Kind::None);
    host.partLines = std::make_shared<const PartData>();
    EXPECT_EQ(at(onPart).kind, HoverHit::Kind::None) << "a changed groom is looked at anew";
    EXPECT_EQ(at({std::nanf(""), 0}).kind, HoverHit::Kind::None);

    const BrushRing ring = brushRing(host, view, 400, 300, {});
    EXPECT_TRUE(ring.valid && ring.onScalp);
    EXPECT_NEAR(distance(ring.center, {0, 0, 8}), 0.0f, 0.1f);
    EXPECT_NEAR(ring.radius, 60.0f * view.pixelSize(ring.center), 1e-4f);
    const BrushRing off = brushRing(host, view, 2, 2, {});
    EXPECT_TRUE(off.valid && !off.onScalp);
    EXPECT_NEAR(off.center.z, 0.0f, 0.01f) << "at the depth of the scalp's middle";
}

}  // namespace
}  // namespace corvelle
