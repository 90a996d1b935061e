#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "model/correctiveApply.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "tools/brushMode.h"
#include "tools/screenOcclusion.h"
#include "tools/selection.h"
#include "tools/strokeFixture.h"

namespace corvelle {
namespace {

TEST(BrushTool, EveryBrushMakesOneStepAndLeavesTheRestBitForBit) {
    for (const BrushMode mode : kShapes) {
        FakeStrokeHost host = makeHost(1);
        const auto before = host.guides;
        const StrokeResult result = stroke(host, shaping(mode), kAcross);
        ASSERT_TRUE(result.committed) << brushModeWord(mode);
        EXPECT_EQ(result.slots, std::vector<DocumentSlot>{DocumentSlot::Guides});
        EXPECT_EQ(host.labels, std::vector<std::string>{brushModeWord(mode)});
        const std::size_t moved = movedIds(*before, *host.guides).size();
        EXPECT_GT(moved, 0u);
        EXPECT_LT(moved, before->size() / 2) << "one side of the head alone";
        EXPECT_TRUE(host.warnings.empty() && host.notes.empty());
    }
}

TEST(BrushTool, ShowsTheStrokeLiveAndKeepsUntouchedGuidesTheSameObjects) {
    FakeStrokeHost host = makeHost(2);
    BrushTool tool;
    tool.settings = shaping(BrushMode::Comb);
    ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 1.0f));
    EXPECT_FALSE(tool.drag(host, frontView(), std::span<const StrokePoint>()));
    ASSERT_TRUE(tool.drag(host, frontView(), 440, 320, 1.0f));
    ASSERT_NE(host.live, nullptr);
    std::size_t same = 0, other = 0;
    for (std::size_t i = 0; i < host.guides->size(); ++i)
        (host.live->guides()[i] == host.guides->guides()[i] ? same : other)++;
    EXPECT_GT(other, 3u);
    EXPECT_GT(same, host.guides->size() / 2);
    const auto first = host.live;
    const std::uint64_t hash = first->contentHash();
    ASSERT_TRUE(tool.drag(host, frontView(), 470, 300, 1.0f));
    EXPECT_NE(host.live, first);
    EXPECT_EQ(first->contentHash(), hash) << "a snapshot does not change";
    EXPECT_STREQ(tool.modeWord(), "comb");
    EXPECT_TRUE(tool.ring().valid);
    EXPECT_EQ(tool.path().size(), 3u);
    EXPECT_TRUE(tool.edited());
    const auto last = host.live;
    ASSERT_TRUE(tool.end(host, frontView()).committed);
    for (const GuidePtr& guide : last->guides())
        if (guide->parent == 0) {
            EXPECT_EQ(host.guides->guide(guide->id)->points, guide->points);
        }
    EXPECT_FALSE(tool.dragging());
    EXPECT_TRUE(strokeDocument(tool).has(DocumentSlot::Guides));
}

TEST(BrushTool, CancelLeavesNothing) {
    for (const BrushMode mode : kShapes) {
        FakeStrokeHost host = makeHost(3);
        const auto before = host.guides;
        const std::string text = guidesToJson(*before);
        BrushTool tool;
        tool.settings = shaping(mode);
        ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 1.0f));
        tool.drag(host, frontView(), 450, 300, 1.0f);
        tool.cancel(host);
        tool.cancel(host);
        EXPECT_EQ(host.guides, before);
        EXPECT_EQ(guidesToJson(*host.guides), text);
        EXPECT_TRUE(host.commits.empty() && !host.active && !host.live);
        EXPECT_FALSE(tool.end(host, frontView()).committed);
        EXPECT_FALSE(tool.drag(host, frontView(), 1, 1, 1.0f));
    }
}

TEST(BrushTool, AStrokeThatMovesNothingIsNoStep) {
    FakeStrokeHost host = makeHost(4);
    EXPECT_FALSE(stroke(host, shaping(BrushMode::Comb), {{400, 300}}).committed) << "no drag";
    EXPECT_FALSE(stroke(host, shaping(BrushMode::Smooth), {{5, 5}, {9, 5}}).committed) << "beside";
    EXPECT_TRUE(stroke(host, shaping(BrushMode::Smooth), {{400, 300}}).committed) << "a click";
    BrushTool tool;
    tool.settings = shaping(BrushMode::Smooth);
    ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 0.0f));
    EXPECT_FALSE(tool.drag(host, frontView(), 440, 300, 0.0f)) << "no pressure, no stamp";
    EXPECT_FALSE(tool.end(host, frontView()).committed);
    tool.settings.pressure = false;
    ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 0.0f));
    EXPECT_TRUE(tool.end(host, frontView()).committed) << "unless pressure does not count";
}

TEST(BrushTool, SameBitsOnOneThreadAndOnMany) {
    for (const BrushMode mode : kShapes) {
        for (const bool propagate : {false, true}) {
            std::vector<std::string> texts;
            for (const unsigned threads : {1u, 2u, 8u}) {
                FakeStrokeHost host = makeHost(5);
                BrushToolSettings settings = shaping(mode);
                settings.propagate = propagate;
                settings.symmetry = 0;
                runWithThreads(threads, [&] { stroke(host, settings, kAcross); });
                texts.push_back(guidesToJson(*host.guides));
            }
            EXPECT_EQ(texts[0], texts[1]) << brushModeWord(mode);
            EXPECT_EQ(texts[0], texts[2]) << brushModeWord(mode);
        }
    }
}

TEST(BrushTool, EventsInOneListOrOneByOneAreTheSameStroke) {
    FakeStrokeHost one = makeHost(6), many = makeHost(6);
    stroke(one, shaping(BrushMode::Curl), kAcross);
    BrushTool tool;
    tool.settings = shaping(BrushMode::Curl);
    ASSERT_TRUE(tool.begin(many, frontView(), kAcross[0].x, kAcross[0].y, 1.0f));
    std::vector<StrokePoint> points;
    for (const Vec2f p : Points(kAcross.begin() + 1, kAcross.end())) points.push_back({p.x, p.y});
    ASSERT_TRUE(tool.drag(many, frontView(), points));
    tool.end(many, frontView());
    EXPECT_EQ(guidesToJson(*one.guides), guidesToJson(*many.guides));
    FakeStrokeHost script = makeHost(6);
    int drags = 0;
    EXPECT_TRUE(tool.scriptedStroke(script, shaping(BrushMode::Curl), frontView(), kAcross, 1.0f, 0,
                                    [&] { ++drags; }));
    EXPECT_EQ(drags, 4);
    EXPECT_EQ(guidesToJson(*script.guides), guidesToJson(*one.guides));
}

TEST(BrushTool, LeavesFrozenMaskedHiddenAndUnselectedGuidesAlone) {
    FakeStrokeHost free = makeHost(7);
    const auto before = free.guides;
    const BrushToolSettings settings = shaping(BrushMode::Twist);
    stroke(free, settings, kAcross);
    const std::vector<std::uint64_t> moved = movedIds(*before, *free.guides);
    std::vector<std::uint64_t> primaries;
    for (const std::uint64_t id : moved)
        if (before->guide(id)->parent == 0) primaries.push_back(id);
    ASSERT_GT(primaries.size(), 4u);
    const std::uint64_t one = primaries[1];
    const auto stays = [&](FakeStrokeHost& host, BrushToolSettings own) {
        const auto start = host.guides;
        EXPECT_TRUE(stroke(host, own, kAcross).committed);
        const GuidePtr guide = host.guides->guide(one);
        EXPECT_EQ(guide->contentHash, start->guide(one)->contentHash);
        EXPECT_NE(host.guides->guide(primaries[2])->contentHash,
                  start->guide(primaries[2])->contentHash);
    };
    FakeStrokeHost frozen = makeHost(7);
    frozen.frozen = std::make_shared<const GuideIds>(GuideIds{one});
    stays(frozen, settings);
    FakeStrokeHost masked = makeHost(7);
    auto with = std::make_shared<GuideHierarchy>(*masked.guides);
    with->setAttribute(one, "freeze", 1.0f);
    masked.guides = with;
    stays(masked, settings);
    FakeStrokeHost selected = makeHost(7);
    selected.weights =
        std::make_shared<const GuideWeights>(GuideWeights{{primaries[2], 0.5f}, {one, 0.0f}});
    BrushToolSettings only = settings;
    only.selectedOnly = true;
    stays(selected, only);
    EXPECT_LT(distance(selected.guides->guide(primaries[2])->points.back(),
                       before->guide(primaries[2])->points.back()),
              distance(free.guides->guide(primaries[2])->points.back(),
                       before->guide(primaries[2])->points.back()))
        << "half selected, half moved";
    FakeStrokeHost hidden = makeHost(7);
    hidden.hidden = {"hair", "brow"};
    EXPECT_FALSE(stroke(hidden, settings, kAcross).committed);
    // The freeze mask itself can be painted on what is masked.
    BrushToolSettings thaw = shaping(BrushMode::Paint);
    thaw.attribute = "freeze";
    thaw.value = 0.0f;
    thaw.hardness = 1.0f;
    FakeStrokeHost melting = makeHost(7);
    melting.guides = with;
    stroke(melting, thaw, kAcross);
    EXPECT_EQ(melting.guides->guide(one)->attributes.at("freeze"), 0.0f);
}

TEST(BrushTool, ReachesTheFarSideOnlyWhenAsked) {
    const auto unseen = [](bool frontOnly) {
        FakeStrokeHost host = makeHost(8);
        const auto before = host.guides;
        BrushToolSettings settings = shaping(BrushMode::Twist);
        settings.frontFacingOnly = frontOnly;
        settings.radius = 100.0f;
        stroke(host, settings, kAcross);
        const ScreenOcclusionCache occlusion(frontView(), host.mesh);
        int count = 0;
        for (const std::uint64_t id : movedIds(*before, *host.guides)) {
            const GuidePtr guide = before->guide(id);
            const auto isHidden = [&](Vec3f p) { return occlusion.hidden(p); };
            count += guide->parent == 0 &&
                     std::all_of(guide->points.begin(), guide->points.end(), isHidden);
        }
        return count;
    };
    EXPECT_EQ(unseen(true), 0);
    EXPECT_GT(unseen(false), 5);
}

TEST(BrushTool, SymmetryDoesTheSameOnBothSides) {
    for (const bool topology : {false, true}) {
        for (const BrushMode mode : {BrushMode::Comb, BrushMode::Attract, BrushMode::Smooth}) {
            FakeStrokeHost host = makeHost(9, 400, 0);
            auto even = std::make_shared<GuideHierarchy>(*host.guides);
            even->mirrorAll(0, 0.0f, true, host.mesh.get());
            host.guides = even;
            const auto before = host.guides;
            BrushToolSettings settings = shaping(mode);
            settings.symmetry = topology ? -1 : 0;
            settings.topology = topology;
            settings.collide = false;
            settings.radius = 120.0f;
            stroke(host, settings, {{500, 300}, {510, 320}, {530, 340}});
            int mirrored = 0;
            for (const std::uint64_t id : movedIds(*before, *host.guides)) {
                const GuidePtr was = before->guide(id), now = host.guides->guide(id);
                if (was->points[0].x < 0.5f) continue;
                // The twin is rooted at the mirror image.
                for (const GuidePtr& twin : before->guides()) {
                    const Vec3f r = twin->points[0];
                    if (distance({-r.x, r.y, r.z}, was->points[0]) > 0.02f) continue;
                    const Vec3f tip = host.guides->guide(twin->id)->points.back();
                    const Vec3f move = now->points.back() - was->points.back();
                    EXPECT_LT(distance({-tip.x, tip.y, tip.z}, now->points.back()),
                              0.02f + 0.05f * length(move))
                        << brushModeWord(mode) << (topology ? " by topology" : " by plane");
                    mirrored += length(move) > 0.02f;
                }
            }
            EXPECT_GT(mirrored, 3);
        }
    }
    FakeStrokeHost lopsided = makeHost(9);
    lopsided.mesh =
        makeSphere(16, 24, 8.0f).withPoints(jitteredPoints(makeSphere(16, 24, 8.0f), 0.5f, 4));
    BrushToolSettings settings = shaping(BrushMode::Smooth);
    settings.topology = true;
    EXPECT_TRUE(stroke(lopsided, settings, kAcross).committed);
    EXPECT_EQ(lopsided.warnings.size(), 1u) << "said once, and the stroke goes on";
}

TEST(BrushTool, PropagatesToWhatFollows) {
    FakeStrokeHost host = makeHost(10, 100, 2);
    const auto before = host.guides;
    BrushToolSettings settings = shaping(BrushMode::Length, -1.0f);
    stroke(host, settings, kAcross);
    const auto plain = host.guides;
    host.guides = before;
    settings.propagate = true;
    stroke(host, settings, kAcross);
    int shorter = 0;
    for (const GuidePtr& guide : before->guides()) {
        if (guide->parent == 0) continue;
        const float own = polylineLength(host.guides->guide(guide->id)->points);
        shorter += own < 0.995f * polylineLength(plain->guide(guide->id)->points);
    }
    EXPECT_GT(shorter, 5);
}

TEST(BrushTool, ErasesGuidesWithTheirChildrenPartsAndFlow) {
    FakeStrokeHost host = makeHost(11);
    const auto before = host.guides;
    SurfaceHit hit;
    ASSERT_TRUE(host.mesh->closestPoint({0, 0, 9}, 5.0f, hit));
    FlowData flow;
    flow.pins.push_back(flowPin(*host.mesh, hit.root(), {1, 0, 0}));
    flow.sinks.push_back({.at = hit.root()});
    host.flowLines = std::make_shared<const FlowData>(flow);
    BrushToolSettings settings = shaping(BrushMode::Erase);
    settings.eraseFlow = false;
    EXPECT_EQ(stroke(host, settings, kAcross).slots,
              std::vector<DocumentSlot>{DocumentSlot::Guides});
    EXPECT_LT(host.guides->size(), before->size());
    for (const GuidePtr& guide : host.guides->guides())
        EXPECT_TRUE(guide->parent == 0 || host.guides->guide(guide->parent));
    EXPECT_EQ(*host.flowLines, flow);
    settings.eraseGuides = false;
    settings.eraseFlow = true;
    EXPECT_EQ(stroke(host, settings, kAcross).slots, std::vector<DocumentSlot>{DocumentSlot::Flow});
    EXPECT_TRUE(host.flowLines->empty());
}

TEST(BrushTool, ShiftSmoothsADragAndPicksOnAClick) {
    FakeStrokeHost host = makeHost(19);
    const auto before = host.guides;
    StrokeResult result = stroke(host, shaping(BrushMode::Lift), kAcross, true);
    EXPECT_TRUE(result.committed);
    EXPECT_EQ(host.labels.back(), "smooth");
    const auto smoothed = host.guides;
    host.guides = before;
    stroke(host, shaping(BrushMode::Smooth), kAcross);
    EXPECT_EQ(guidesToJson(*host.guides), guidesToJson(*smoothed));

    host.guides = before;
    const GuidePtr child = host.guides->guides()[0];
    double x = 0.0, y = 0.0;
    GuidePtr seen;
    for (const GuidePtr& guide : host.guides->guides())
        if (guide->parent != 0 && guide->points.back().z > 9.0f) seen = guide;
    ASSERT_TRUE(seen && frontView().project(seen->points.back(), x, y));
    const Points click = {{float(x), float(y)}, {float(x) + 1, float(y)}};
    result = stroke(host, shaping(BrushMode::Comb), click, true);
    EXPECT_TRUE(result.picked && !result.committed);
    ASSERT_NE(result.guide, 0u);
    const GuidePtr picked = before->guide(result.guide);
    EXPECT_EQ(result.group, before->group(picked->group)->name);
    EXPECT_EQ(result.level, before->depthOf(picked->group));
    EXPECT_EQ(host.guides, before);

    BrushToolSettings place;
    place.kind = ToolKind::Place;
    result = stroke(host, place, click, true);
    EXPECT_TRUE(result.picked && result.committed && result.soloed);
    EXPECT_EQ(host.labels.back(), "solo selection");
    for (const GuidePtr& guide : host.guides->guides()) {
        const auto freeze = guide->attributes.find("freeze");
        EXPECT_EQ(freeze != guide->attributes.end() && freeze->second == 1.0f,
                  guide->id != result.guide);
    }
    BrushToolSettings paint = shaping(BrushMode::Paint);
    paint.attribute = "stiff";
    result = stroke(host, paint, {{400, 300}}, true);
    EXPECT_FALSE(result.picked) << "a paint tool smooths where it is";
}

TEST(BrushTool, CtrlTurnsTheToolRound) {
    for (const BrushMode mode : {BrushMode::Lift, BrushMode::Twist, BrushMode::Length}) {
        FakeStrokeHost a = makeHost(20), b = makeHost(20);
        stroke(a, shaping(mode, 0.6f), kAcross, false, true);
        stroke(b, shaping(mode, -0.6f), kAcross);
        EXPECT_EQ(guidesToJson(*a.guides), guidesToJson(*b.guides));
    }
    FakeStrokeHost a = makeHost(20), b = makeHost(20);
    stroke(a, shaping(BrushMode::Cut, 0.6f), kAcross, false, true);
    stroke(b, shaping(BrushMode::Length, 0.6f), kAcross);
    EXPECT_EQ(guidesToJson(*a.guides), guidesToJson(*b.guides)) << "cut grows";
    FakeStrokeHost host = makeHost(20);
    BrushToolSettings paint = shaping(BrushMode::Paint);
    paint.attribute = "wet";
    paint.value = 0.75f;
    paint.hardness = 1.0f;
    stroke(host, paint, {{400, 300}}, false, true);
    int painted = 0;
    for (const GuidePtr& guide : host.guides->guides()) {
        const auto wet = guide->attributes.find("wet");
        if (wet == guide->attributes.end()) continue;
        EXPECT_EQ(wet->second, 0.25f);
        ++painted;
    }
    EXPECT_GT(painted, 0);
}

TEST(BrushTool, PaintsAlongGuidesAndSmoothsLayers) {
    FakeStrokeHost host = makeHost(21);
    BrushToolSettings paint = shaping(BrushMode::Paint);
    paint.attribute = "wet";
    paint.pointwise = true;
    stroke(host, paint, kAcross);
    int along = 0;
    for (const GuidePtr& guide : host.guides->guides()) {
        const auto wet = guide->pointAttributes.find("wet");
        if (wet == guide->pointAttributes.end()) continue;
        ++along;
        EXPECT_EQ(wet->second.size(), guide->points.size());
        for (const float v : wet->second) EXPECT_TRUE(v >= 0.0f && v <= 1.0f);
    }
    EXPECT_GT(along, 3);
    FakeStrokeHost patchy = makeHost(21, 200, 0);
    BrushToolSettings dot = shaping(BrushMode::Paint);
    dot.attribute = "wet";
    dot.radius = 70.0f;
    stroke(patchy, dot, {{400, 300}});
    const auto spread = [&] {
        float most = 0.0f;
        int count = 0;
        for (const GuidePtr& guide : patchy.guides->guides()) {
            const auto wet = guide->attributes.find("wet");
            if (wet == guide->attributes.end()) continue;
            most = std::max(most, wet->second);
            ++count;
        }
        return std::pair(most, count);
    };
    const auto before = spread();
    ASSERT_GT(before.second, 0);
    paint.radius = 250.0f;
    ASSERT_TRUE(stroke(patchy, paint, {{390, 300}, {410, 300}}, true).committed);
    EXPECT_LT(spread().first, before.first);
    EXPECT_GT(spread().second, before.second);
}

TEST(BrushTool, PaintsAMapOfTheScalpOnBothSides) {
    FakeStrokeHost host = makeHost(25, 4, 0);
    auto maps = std::make_shared<MapCatalogValue>();
    const std::size_t count = host.mesh->points().size();
    maps->maps["bald"] = {.kind = PaintedMap::Kind::Vertices,
                          .channels = 1,
                          .values = std::make_shared<const std::vector<float>>(count, 0.0f),
                          .vertices = count};
    host.catalog = maps;
    BrushToolSettings settings = shaping(BrushMode::Paint);
    settings.paintKind = "vertices";
    settings.attribute = "bald";
    settings.symmetry = 0;
    const Points right = {{470, 300}, {480, 320}};
    BrushTool tool;
    tool.settings = settings;
    ASSERT_TRUE(tool.begin(host, frontView(), right[0].x, right[0].y, 1.0f));
    tool.drag(host, frontView(), right[1].x, right[1].y, 1.0f);
    ASSERT_NE(host.liveMaps, nullptr);
    const std::vector<float> painted = *host.liveMaps->find("bald")->values;
    EXPECT_EQ(tool.end(host, frontView()).slots,
              std::vector<DocumentSlot>{DocumentSlot::ScalpMaps});
    EXPECT_EQ(host.liveMaps, nullptr);
    float left = 0.0f, all = 0.0f;
    for (std::size_t v = 0; v < count; ++v) {
        all += painted[v];
        left += host.mesh->points()[v].x < 0.0f ? painted[v] : 0.0f;
        if (painted[v] > 0.0f) {
            EXPECT_GT(host.mesh->points()[v].z, 0.0f) << "the near side alone";
        }
    }
    EXPECT_GT(all, 1.0f);
    EXPECT_NEAR(left, 0.5f * all, 0.02f * all);
    settings.attribute = "none of it";
    EXPECT_THROW(stroke(host, settings, right), std::invalid_argument);
    EXPECT_FALSE(host.active);
}

TEST(BrushTool, RefusesWhatCannotStart) {
    FakeStrokeHost host = makeHost(22);
    BrushTool tool;
    host.isGroom = false;
    EXPECT_FALSE(tool.begin(host, frontView(), 400, 300, 1.0f));
    host.isGroom = true;
    const ScalpPtr mesh = host.mesh;
    for (const ScalpPtr& none : {ScalpPtr(), std::make_shared<const ScalpMesh>()}) {
        host.mesh = none;
        host.notes.clear();
        EXPECT_FALSE(tool.begin(host, frontView(), 400, 300, 1.0f));
        EXPECT_EQ(host.notes,
                  std::vector<std::string>{"Corvelle brush: the groom has no scalp mesh"});
    }
    host.mesh = mesh;
    const auto refused = [&](const std::function<void(BrushToolSettings&)>& spoil) {
        tool.settings = {};
        spoil(tool.settings);
        EXPECT_THROW(tool.begin(host, frontView(), 400, 300, 1.0f), std::invalid_argument);
        EXPECT_TRUE(!host.active && !tool.dragging());
    };
    refused([](auto& s) { s.strength = std::nanf(""); });
    refused([](auto& s) { s.paintKind = "skin"; });
    refused([](auto& s) { s.paintChannels = 0; });
    refused([](auto& s) { s.mode = BrushMode(15); });
    refused([](auto& s) { s.kind = ToolKind(9); });
    refused([](auto& s) {
        s.mode = BrushMode::Paint;
        s.attribute = "";
    });
    tool.settings = {};
    EXPECT_THROW(tool.begin(host, frontView(), std::numeric_limits<float>::infinity(), 0, 1.0f),
                 std::invalid_argument);
    ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 1.0f));
    EXPECT_THROW(tool.drag(host, frontView(), std::nanf(""), 0, 1.0f), std::invalid_argument);
    EXPECT_TRUE(tool.dragging()) << "the stroke goes on";
    EXPECT_TRUE(tool.drag(host, frontView(), 460, 300, 1.0f));
    const auto before = host.guides;
    host.failsCommit = true;
    EXPECT_THROW(tool.end(host, frontView()), std::runtime_error);
    EXPECT_TRUE(tool.dragging());
    EXPECT_EQ(host.guides, before);
    host.failsCommit = false;
    EXPECT_TRUE(tool.end(host, frontView()).committed);
    // A script puts the settings back, also when it fails.
    tool.settings.radius = 33.0f;
    host.failsCommit = true;
    EXPECT_THROW(tool.scriptedStroke(host, shaping(BrushMode::Lift), frontView(), kAcross, 1.0f,
                                     kScriptedSmooth),
                 std::runtime_error);
    EXPECT_EQ(tool.settings.radius, 33.0f);
    EXPECT_FALSE(tool.dragging() || host.active);
}

TEST(BrushTool, FarDragsAndOddViewsEndInFiniteGuides) {
    FakeStrokeHost host = makeHost(23);
    SplitMix random(5);
    BrushTool tool;
    for (int round = 0; round < 26; ++round) {
        tool.settings = shaping(kShapes[round % 13], random.nextRange(-3.0f, 3.0f));
        tool.settings.radius = random.nextRange(1.0f, 2000.0f);
        const ToolView view = frontView(double(random.nextRange(5.0f, 60.0f)));
        if (!tool.begin(host, view, random.nextRange(-500, 1500), random.nextRange(-500, 1500),
                        1.0f))
            continue;
        for (int i = 0; i < 3; ++i)
            tool.drag(host, i == 2 ? flatView() : view, random.nextRange(-5000, 5000),
                      random.nextRange(-5000, 5000), random.nextFloat());
        tool.end(host, view);
    }
    for (const GuidePtr& guide : host.guides->guides())
        for (const Vec3f& p : guide->points) ASSERT_TRUE(isFinite(p));
}

TEST(BrushTool, SculptsIntoACorrectiveLayer) {
    FakeStrokeHost host = makeHost(24);
    Correctives layers;
    layers.layers.push_back({.name = "bend", .time = 10.0, .fadeIn = 4.0, .fadeOut = 4.0});
    host.layers = std::make_shared<const Correctives>(layers);
    host.inLayer = true;
    host.atFrame = 8.0;
    const auto before = host.guides;
    BrushTool tool;
    tool.settings = shaping(BrushMode::Comb);
    tool.settings.radius = 150.0f;
    ASSERT_TRUE(tool.begin(host, frontView(), kAcross[0].x, kAcross[0].y, 1.0f));
    for (const Vec2f p : kAcross) tool.drag(host, frontView(), p.x, p.y, 1.0f);
    const auto live = host.live;
    ASSERT_NE(live, nullptr);
    const StrokeResult result = tool.end(host, frontView());
    EXPECT_EQ(result.slots,
              (std::vector<DocumentSlot>{DocumentSlot::Correctives, DocumentSlot::ShotLayer}));
    EXPECT_EQ(host.guides, before) << "the guides themselves stay";
    const Correctives stored = readCorrectives(*host.commits.back().at(DocumentSlot::Correctives));
    ASSERT_EQ(stored.layers.size(), 1u);
    EXPECT_GT(stored.layers[0].offsets.size(), 1u);
    const auto weights = correctiveWeights(stored, host.atFrame);
    const auto shown = applyCorrectives(before, stored, weights, host.mesh.get());
    for (const auto& [id, offsets] : stored.layers[0].offsets)
        for (std::size_t i = 0; i < offsets.size(); ++i)
            EXPECT_LT(distance(shown->guide(id)->points[i], live->guide(id)->points[i]), 1e-3f);
    // A second stroke adds to what is there.
    host.layers = std::make_shared<const Correctives>(stored);
    ASSERT_TRUE(tool.begin(host, frontView(), kAcross[0].x, kAcross[0].y, 1.0f));
    for (const Vec2f p : kAcross) tool.drag(host, frontView(), p.x, p.y, 1.0f);
    const auto further = host.live;
    ASSERT_TRUE(tool.end(host, frontView()).committed);
    const Correctives twice = readCorrectives(*host.commits.back().at(DocumentSlot::Correctives));
    const auto both =
        applyCorrectives(before, twice, correctiveWeights(twice, host.atFrame), host.mesh.get());
    for (const auto& [id, offsets] : twice.layers[0].offsets)
        EXPECT_LT(distance(both->guide(id)->points.back(), further->guide(id)->points.back()),
                  1e-3f);
    EXPECT_NE(twice, stored);
    host.atFrame = 100.0;
    try {
        tool.begin(host, frontView(), 400, 300, 1.0f);
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(),
                     "corrective layer 'bend' has no weight on this frame: raise its weight (and "
                     "key it) to sculpt here");
    }
    host.atFrame = 10.0;
    for (const BrushMode mode : {BrushMode::Erase, BrushMode::Paint}) {
        tool.settings = shaping(mode);
        EXPECT_FALSE(tool.begin(host, frontView(), 400, 300, 1.0f));
    }
    for (const ToolKind kind : {ToolKind::Place, ToolKind::Draw, ToolKind::Part, ToolKind::Flow}) {
        tool.settings.kind = kind;
        EXPECT_FALSE(tool.begin(host, frontView(), 400, 300, 1.0f));
    }
    EXPECT_EQ(host.warnings.size(), 6u);
    EXPECT_FALSE(host.active);
}

TEST(StrokeDocument, NamesItsSlots) {
    EXPECT_STREQ(documentSlotName(DocumentSlot::Guides), "guideData");
    EXPECT_STREQ(documentSlotName(DocumentSlot::Graph), "graph");
    StrokeDocument document;
    EXPECT_TRUE(document.empty());
    document.set(DocumentSlot::Flow, "");
    EXPECT_FALSE(document.empty()) << "an empty text is a text";
}

TEST(BrushTool, AStrokeThatTheHostTakesForNothingIsNoStep) {
    FakeStrokeHost host = makeHost(21, 20);
    host.takes = false;
    BrushTool tool;
    tool.settings = shaping(BrushMode::Comb);
    ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, 1.0f));
    tool.drag(host, frontView(), 420, 310, 1.0f);
    const StrokeResult result = tool.end(host, frontView());
    EXPECT_EQ(host.commits.size(), 1u);
    EXPECT_FALSE(result.committed);
    EXPECT_TRUE(result.slots.empty());
    EXPECT_TRUE(tool.strokeDocument().empty());
}

TEST(BrushTool, ShiftSmoothsALayerByThePressureWhateverTheStrength) {
    BrushToolSettings settings = shaping(BrushMode::Paint, 0.0f);
    settings.attribute = "stiff";
    std::vector<float> moved;
    for (const float pressure : {1.0f, 0.5f}) {
        FakeStrokeHost host = makeHost(22, 60);
        const auto before = host.guides;
        BrushTool tool;
        tool.settings = settings;
        ASSERT_TRUE(tool.begin(host, frontView(), 400, 300, pressure, true));
        tool.end(host, frontView());
        float sum = 0.0f;
        for (const GuidePtr& guide : before->guides())
            sum += std::abs(host.guides->guide(guide->id)->attributes.at("stiff") -
                            guide->attributes.at("stiff"));
        moved.push_back(sum);
    }
    EXPECT_GT(moved[1], 0.0f);
    EXPECT_NEAR(moved[1], 0.5f * moved[0], 1e-4f * moved[0]);
}

}  // namespace
}  // namespace corvelle
