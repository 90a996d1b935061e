#include <cmath>

#include <gtest/gtest.h>

#include "model/polyline.h"
#include "tools/brushEdit.h"
#include "tools/brushMode.h"
#include "tools/fakeStrokeHost.h"
#include "tools/keepOffScalp.h"

namespace corvelle {
namespace {

constexpr int kModes = 15;

using ProfilePtr = std::shared_ptr<const Ramp>;

class BrushEditTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const ScalpMesh scalp = makeSphere(16, 24, 8.0f);
    const GuideHierarchy made = makeHierarchy(scalp, {.primaries = 30, .seed = GetParam()});

    static BrushStamp over(const Guide& guide, float radius, float hardness = 0.0f) {
        BrushStamp stamp;
        stamp.center = guide.points[guide.points.size() / 2];
        stamp.radius = radius;
        stamp.hardness = hardness;
        return stamp;
    }
    BrushEdit run(const Guide& guide, BrushMode mode, float strength, const BrushStamp& stamp,
                  Vec3f drag = {0.3f, 0.1f, -0.2f}, ProfilePtr profile = nullptr) const {
        BrushToolSettings settings;
        settings.mode = mode;
        settings.strength = strength;
        settings.strengthProfile = profile;
        return brushEdit(guide, &scalp, settings, stamp, stamp.center, drag);
    }
    static void expectLengths(std::span<const Vec3f> a, std::span<const Vec3f> b) {
        ASSERT_EQ(a.size(), b.size());
        for (std::size_t i = 1; i < a.size(); ++i)
            EXPECT_NEAR(distance(a[i], a[i - 1]), distance(b[i], b[i - 1]), 2e-5f);
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, BrushEditTest, testing::Range<std::uint64_t>(0, 6));

TEST_P(BrushEditTest, ShapingKeepsRootsAndLengths) {
    const auto profile = std::make_shared<const Ramp>(std::vector<Ramp::Key>{{0, 0.2f}, {1, 1.4f}});
    std::array<int, kModes> moved{};
    for (const GuidePtr& guide : made.guides()) {
        const float whole = polylineLength(guide->points);
        for (int m = 0; m < kModes; ++m) {
            const auto mode = BrushMode(m);
            for (const float strength : {1.0f, 0.4f, -0.7f}) {
                for (const auto& shape : {std::shared_ptr<const Ramp>(), profile}) {
                    const BrushEdit edit = run(*guide, mode, strength, over(*guide, whole),
                                               {0.3f, 0.1f, -0.2f}, shape);
                    if (edit.points.empty()) continue;
                    moved[std::size_t(m)]++;
                    ASSERT_EQ(edit.points.size(), guide->points.size());
                    if (mode != BrushMode::Slide) {
                        EXPECT_EQ(edit.points[0], guide->points[0]);
                    }
                    if (mode != BrushMode::Length && mode != BrushMode::Cut)
                        expectLengths(edit.points, guide->points);
                    for (const Vec3f& p : edit.points) EXPECT_TRUE(isFinite(p));
                }
            }
        }
    }
    for (int m = 0; m < kModes; ++m) {
        const auto mode = BrushMode(m);
        const bool moves =
            mode != BrushMode::Tube && mode != BrushMode::Paint && mode != BrushMode::Erase;
        EXPECT_EQ(moved[std::size_t(m)] > 0, moves) << brushModeWord(mode);
    }
}

TEST_P(BrushEditTest, WhatTheStampMissesStays) {
    for (const GuidePtr& guide : made.guides()) {
        BrushStamp away = over(*guide, 1.0f);
        away.center = away.center + Vec3f{100, 0, 0};
        BrushStamp none = over(*guide, 0.0f);
        for (int m = 0; m < kModes; ++m) {
            EXPECT_TRUE(run(*guide, BrushMode(m), 1.0f, away).empty());
            EXPECT_TRUE(run(*guide, BrushMode(m), 1.0f, none).empty());
            Guide dot;
            dot.points = {guide->points[0]};
            EXPECT_TRUE(run(dot, BrushMode(m), 1.0f, over(*guide, 9.0f)).empty());
        }
        // Without a drag, and with no strength, nothing that goes by them moves.
        const BrushStamp whole = over(*guide, 20.0f);
        for (const BrushMode mode : {BrushMode::Comb, BrushMode::Direction, BrushMode::Slide})
            EXPECT_TRUE(run(*guide, mode, 1.0f, whole, {}).empty());
        for (const BrushMode mode : {BrushMode::Twist, BrushMode::Direction, BrushMode::Lift,
                                     BrushMode::Curl, BrushMode::Length, BrushMode::Tube})
            EXPECT_TRUE(run(*guide, mode, 0.0f, whole).empty()) << brushModeWord(mode);
        EXPECT_FALSE(run(*guide, BrushMode::Smooth, 1.0f, whole, {}).empty());
    }
}

TEST_P(BrushEditTest, CombFollowsTheDragAndStretchesWhenAsked) {
    const GuidePtr guide = made.guides()[0];
    const Vec3f drag{0.02f, 0.01f, 0.0f};
    const BrushStamp all = over(*guide, 100.0f, 1.0f);
    BrushToolSettings settings;
    settings.stretch = true;
    const BrushEdit stretched = brushEdit(*guide, &scalp, settings, all, all.center, drag);
    EXPECT_NEAR(distance(stretched.points.back(), guide->points.back() + drag), 0.0f, 1e-4f);
    const std::size_t n = stretched.points.size();
    const float even = polylineLength(stretched.points) / float(n - 1);
    for (std::size_t i = 1; i < n; ++i)
        EXPECT_NEAR(distance(stretched.points[i], stretched.points[i - 1]), even, 0.05f * even);
    BrushStamp onRoot = all;
    onRoot.center = guide->points[0];
    onRoot.radius = 0.5f * distance(guide->points[0], guide->points[1]);
    EXPECT_TRUE(run(*guide, BrushMode::Comb, 1.0f, onRoot).empty()) << "roots do not move";
}

TEST_P(BrushEditTest, TrimsByTheLaws) {
    for (const GuidePtr& curled : made.guides()) {
        // Straight: resampling cuts no corners.
        const auto guide = std::make_shared<Guide>(*curled);
        for (std::size_t i = 0; i < guide->points.size(); ++i)
            guide->points[i] = guide->points[0] + Vec3f{0.3f, 0.1f, 0.2f} * float(i);
        const float whole = polylineLength(guide->points);
        const BrushStamp all = over(*guide, 100.0f, 1.0f);
        EXPECT_NEAR(polylineLength(run(*guide, BrushMode::Length, 1.0f, all).points), 1.05f * whole,
                    0.02f * whole);
        const BrushEdit least = run(*guide, BrushMode::Length, -1000.0f, all);
        EXPECT_NEAR(polylineLength(least.points), 0.05f * whole, 0.01f * whole);
        EXPECT_TRUE(run(*guide, BrushMode::Cut, 0.0f, all).empty());
        const BrushEdit stub = run(*guide, BrushMode::Cut, 1.0f, all);
        EXPECT_NEAR(polylineLength(stub.points), 0.02f * whole, 0.01f * whole)
            << "under the brush from the root on: the least is left";
        BrushStamp tip = all;
        tip.center = guide->points.back();
        tip.radius = 1.5f * distance(guide->points[0], guide->points[1]);
        const float left =
            (float(guide->points.size()) - 2.5f) / (float(guide->points.size()) - 1.0f);
        EXPECT_NEAR(polylineLength(run(*guide, BrushMode::Cut, 1.0f, tip).points), left * whole,
                    1e-3f * whole)
            << "half a segment before the first point under it";
        EXPECT_TRUE(run(*guide, BrushMode::Erase, 0.5f, all).erase);
        EXPECT_FALSE(run(*guide, BrushMode::Erase, 0.49f, all).erase);
        const BrushEdit wide = run(*guide, BrushMode::Tube, 1.0f, all);
        ASSERT_GE(wide.tube.size(), 8u);
        for (std::size_t j = 0; j < wide.tube.size(); ++j) {
            const float share = float(j) / float(wide.tube.size() - 1);
            if (guide->tubeRadius.size() < 8) {
                EXPECT_NEAR(wide.tube[j], 1.05f * tubeProfile(guide->tubeRadius, share), 1e-5f);
            }
        }
    }
}

TEST_P(BrushEditTest, StrengthZeroDoesNothing) {
    for (const GuidePtr& guide : made.guides())
        for (int m = 0; m < kModes; ++m) {
            const BrushEdit edit = run(*guide, BrushMode(m), 0.0f, over(*guide, 50.0f));
            EXPECT_TRUE(edit.empty()) << brushModeWord(BrushMode(m));
        }
}

TEST_P(BrushEditTest, SmoothAtFullStrengthGoesHalfWay) {
    Guide guide = *made.guides()[0];
    guide.points = {{0, 8, 0}, {0, 9, 0}, {1, 10, 0}, {0, 11, 0}, {0, 12, 0}};
    BrushStamp stamp;
    stamp.center = guide.points[2];
    stamp.radius = 0.5f;
    BrushToolSettings settings;
    settings.mode = BrushMode::Smooth;
    BrushEdit edit = brushEdit(guide, nullptr, settings, stamp, stamp.center, {});
    // Before lengths are restored x is 0.5; the segment's direction tells.
    const Vec3f d = normalized(edit.points[2] - edit.points[1]);
    EXPECT_NEAR(d.x / d.y, 0.5f, 1e-5f);
    settings.strength = 50.0f;
    EXPECT_EQ(brushEdit(guide, nullptr, settings, stamp, stamp.center, {}).points, edit.points);
}

TEST_P(BrushEditTest, TurnsTheWayTheyAreTold) {
    for (const GuidePtr& guide : made.guides()) {
        const BrushStamp all = over(*guide, 1000.0f, 1.0f);
        const Vec3f normal = rootNormal(*guide, &scalp);
        const auto height = [&](const std::vector<Vec3f>& p) {
            return dot(p.back() - p.front(), normal);
        };
        const float before = height(guide->points);
        EXPECT_GE(height(run(*guide, BrushMode::Lift, 1.0f, all).points), before - 1e-5f);
        const BrushEdit laid = run(*guide, BrushMode::Lift, -1.0f, all);
        EXPECT_LE(std::abs(height(laid.points)),
                  std::abs(before) + 0.3f * polylineLength(laid.points));
        // Twist and direction turn about the normal: heights stay.
        EXPECT_NEAR(height(run(*guide, BrushMode::Twist, 1.0f, all).points), before, 1e-4f);
        const Vec3f drag = normalized(cross(normal, Vec3f{0.3f, 0.5f, 0.8f}));
        const auto heading = [&](const std::vector<Vec3f>& p) {
            const Vec3f lie = p.back() - p.front();
            return dot(normalized(lie - normal * dot(lie, normal)), drag);
        };
        const BrushEdit turned = run(*guide, BrushMode::Direction, 1.0f, all, drag);
        const BrushEdit away = run(*guide, BrushMode::Direction, -1.0f, all, drag);
        if (!turned.points.empty()) {
            EXPECT_GE(heading(turned.points), heading(guide->points) - 1e-4f);
        }
        if (!away.points.empty()) {
            EXPECT_LE(heading(away.points), heading(guide->points) + 1e-4f);
        }
    }
}

TEST_P(BrushEditTest, NoiseBuildsUpOnePatternPerGuide) {
    Guide guide = *made.guides()[0];
    guide.points.clear();
    for (int i = 0; i < 12; ++i) guide.points.push_back({0, 8.0f + 0.5f * float(i), 0});
    const BrushStamp all = over(guide, 100.0f, 1.0f);
    const BrushEdit once = run(guide, BrushMode::Noise, 1.0f, all);
    EXPECT_EQ(run(guide, BrushMode::Noise, 1.0f, all).points, once.points);
    guide.id += 1;
    EXPECT_NE(run(guide, BrushMode::Noise, 1.0f, all).points, once.points);
    guide.id -= 1;
    guide.points = once.points;
    const BrushEdit twice = run(guide, BrushMode::Noise, 1.0f, all);
    const auto off = [](const std::vector<Vec3f>& p) {
        float sum = 0.0f;
        for (const Vec3f& v : p) sum += std::hypot(v.x, v.z);
        return sum;
    };
    EXPECT_GT(off(twice.points), 1.5f * off(once.points));
    EXPECT_LT(off(run(guide, BrushMode::Noise, -1.0f, all).points), off(once.points));
}

TEST_P(BrushEditTest, SlideKeepsTheShapeOnTheScalp) {
    for (const GuidePtr& guide : made.guides()) {
        const BrushStamp all = over(*guide, 100.0f, 1.0f);
        const BrushEdit slid = run(*guide, BrushMode::Slide, 1.0f, all, {0.5f, 0.5f, 0.1f});
        ASSERT_FALSE(slid.points.empty());
        SurfaceHit hit;
        ASSERT_TRUE(scalp.closestPoint(slid.points[0], 1.0f, hit));
        EXPECT_NEAR(hit.distance, 0.0f, 1e-4f);
        for (std::size_t i = 1; i < slid.points.size(); ++i)
            EXPECT_NEAR(distance(slid.points[i], slid.points[0]),
                        distance(guide->points[i], guide->points[0]), 1e-4f);
    }
}

TEST_P(BrushEditTest, PaintsTowardsTheValue) {
    Guide guide = *made.guides()[0];
    BrushToolSettings settings;
    settings.mode = BrushMode::Paint;
    settings.strength = 0.25f;
    guide.attributes["clump"] = 0.2f;
    const BrushStamp all = over(guide, 100.0f, 1.0f);
    const auto paint = [&] { return brushEdit(guide, &scalp, settings, all, all.center, {}); };
    EXPECT_FLOAT_EQ(paint().attributeValue, 0.4f);
    EXPECT_TRUE(paint().pointWeights.empty());
    guide.pointAttributes["clump"].assign(guide.points.size(), 0.0f);
    EXPECT_EQ(paint().pointWeights, std::vector<float>(guide.points.size(), 0.25f));
    guide.pointAttributes.clear();
    settings.pointwise = true;
    EXPECT_EQ(paint().pointWeights, std::vector<float>(guide.points.size(), 0.25f));
    EXPECT_TRUE(std::isnan(paint().attributeValue));
}

TEST_P(BrushEditTest, GuidesKeepOffTheScalpAndKeepTheirLengths) {
    int lifted = 0;
    for (const GuidePtr& guide : made.guides()) {
        std::vector<Vec3f> sunk = guide->points;
        for (std::size_t i = 1; i < sunk.size(); ++i) sunk[i] = mix(sunk[i], Vec3f{}, 0.3f);
        std::vector<Vec3f> free = sunk;
        keepOffScalp(free, scalp, 0.0f, guide->root.triangle);
        expectLengths(free, sunk);
        EXPECT_EQ(free[0], sunk[0]);
        lifted += free != sunk;
        for (const Vec3f& p : free) EXPECT_GT(length(p), 7.6f);
        std::vector<Vec3f> other = sunk;
        keepOffScalp(other, scalp, 0.0f);
        EXPECT_EQ(other, free) << "the hint is a hint";
    }
    EXPECT_GT(lifted, 10);
    std::vector<Vec3f> inside{{0, 8, 0}, {0, 7, 0}};
    const std::vector<Vec3f> before = inside;
    keepOffScalp(inside, ScalpMesh(), 0.0f);
    EXPECT_EQ(inside, before);
}

TEST(BrushModes, WordsAndNumbers) {
    for (int m = 0; m < kModes; ++m)
        EXPECT_EQ(brushModeFromWord(brushModeWord(BrushMode(m))), BrushMode(m));
    EXPECT_EQ(brushModeFromWord("clump"), BrushMode::Paint);
    EXPECT_EQ(brushModeFromWord("move"), BrushMode::Slide);
    EXPECT_STREQ(brushModeWord(BrushMode::Paint), "paint");
    EXPECT_EQ(int(BrushMode::Noise), 14);
    try {
        brushModeFromWord("Comb");
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "unknown brush mode 'Comb'");
    }
    EXPECT_STREQ(strokeModeWord(ToolKind::Part, BrushMode::Comb), "part");
}

}  // namespace
}  // namespace corvelle
