#include <array>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "tools/brushWeight.h"
#include "tools/fakeStrokeHost.h"
#include "tools/guideBoxes.h"
#include "tools/scalpSides.h"
#include "tools/screenOcclusion.h"

namespace corvelle {
namespace {

std::vector<Vec3f> randomPlaces(std::uint64_t seed, std::size_t count, float extent) {
    SplitMix random(seed);
    std::vector<Vec3f> out(count);
    for (Vec3f& p : out)
        p = {random.nextRange(-extent, extent), random.nextRange(-extent, extent),
             random.nextRange(-extent, extent)};
    return out;
}

TEST(BrushFalloff, FadesFromTheHardCoreToTheRim) {
    for (const float d : {0.0f, 0.3f, 1.0f, 5.0f}) {
        EXPECT_EQ(brushFalloff(d, 0.0f, 0.5f, nullptr), 0.0f);
        EXPECT_EQ(brushFalloff(d, 2.0f, 1.0f, nullptr), d < 2.0f ? 1.0f : 0.0f);
        const float t = d / 2.0f;
        EXPECT_FLOAT_EQ(brushFalloff(d, 2.0f, 0.0f, nullptr),
                        d < 2.0f ? (1 - t * t) * (1 - t * t) : 0.0f);
    }
    EXPECT_EQ(brushFalloff(2.0f, 2.0f, 1.0f, nullptr), 0.0f) << "the rim itself";
    EXPECT_EQ(brushFalloff(0.9f, 2.0f, 0.5f, nullptr), 1.0f);
    EXPECT_FLOAT_EQ(brushFalloff(1.5f, 2.0f, 0.5f, nullptr), 0.5625f);
    const Ramp high({{0.0f, 3.0f}, {1.0f, -1.0f}}, true);
    EXPECT_EQ(brushFalloff(0.0f, 1.0f, 0.0f, &high), 1.0f) << "curves are cut to 0..1";
    EXPECT_EQ(brushFalloff(0.99f, 1.0f, 0.0f, &high), 0.0f);
    EXPECT_FLOAT_EQ(brushFalloff(0.625f, 1.0f, 1.0f, &high), 0.5f) << "and beat hardness";
    const Ramp none;
    EXPECT_EQ(brushFalloff(0.5f, 1.0f, 1.0f, &none), 1.0f);
}

TEST(ScreenBrush, WeighsByPixelsAndNothingBehindTheCamera) {
    const ToolView view = frontView();
    const PointWeight weight = screenBrushWeight(view, 400, 300, 50, 0.0f, nullptr, nullptr);
    EXPECT_FLOAT_EQ(weight(Vec3f{0, 0, 0}), 1.0f);
    EXPECT_FLOAT_EQ(weight(Vec3f{0, 0, 30}), 1.0f) << "depth does not count";
    EXPECT_EQ(weight(Vec3f{0, 0, 41}), 0.0f);
    EXPECT_EQ(weight(Vec3f{0, 0, std::nanf("")}), 0.0f);
    const Vec3f rim = view.placeAtDepth(450, 300, {});
    EXPECT_NEAR(weight(rim), 0.0f, 1e-6f);
    const BoxReach reach = screenBrushReach(view, 400, 300, 50);
    const BoxReach mayReach = screenBrushMayReach(view, 400, 300, 50);
    EXPECT_TRUE(reach({-1, -1, -1}, {1, 1, 1}));
    EXPECT_FALSE(reach({-1, -1, -1}, {1, 1, 50})) << "a corner behind the camera";
    EXPECT_TRUE(mayReach({-1, -1, -1}, {1, 1, 50}));
    EXPECT_FALSE(mayReach({8, 8, -1}, {9, 9, 1}));
}

TEST(BrushStamp, ReachesEveryBoxWithAWeightInIt) {
    const ToolView view = frontView();
    const SideMap map{{1, 2, 3}, {-2, 1, 0}, Rotation::about(normalized({1, 1, 0}), 0.7f)};
    BrushStamp sphere;
    sphere.center = {1, 0, 2};
    sphere.radius = 2.5f;
    BrushStamp screen = sphere;
    screen.weightFunction = screenBrushWeight(view, 430, 250, 60, 1.0f, nullptr, nullptr);
    screen.reach = screenBrushReach(view, 430, 250, 60);
    BrushStamp mirrored = screen, mapped = screen;
    mirrored.weightFunction = mirroredWeight(screen.weightFunction, 0, 0.5f);
    mirrored.reach = mirroredReach(screen.reach, 0, 0.5f);
    mapped.weightFunction = mappedWeight(screen.weightFunction, map);
    mapped.reach = mappedReach(screen.reach, map);
    int weighted = 0, missed = 0;
    for (const BrushStamp* stamp : {&sphere, &screen, &mirrored, &mapped}) {
        const std::vector<Vec3f> a = randomPlaces(1, 3000, 8.0f), d = randomPlaces(2, 3000, 0.6f);
        for (std::size_t i = 0; i < a.size(); ++i) {
            const std::array<Vec3f, 2> guide{a[i], a[i] + d[i]};
            const GuideBox box = boxOf(guide);
            const bool has = stamp->weight(guide[0]) > 0.0f || stamp->weight(guide[1]) > 0.0f;
            weighted += has;
            missed += !stamp->reaches(box.low, box.high);
            EXPECT_LE(has, stamp->reaches(box.low, box.high));
        }
    }
    EXPECT_GT(weighted, 100);
    EXPECT_GT(missed, 1000) << "a reach that says yes to all proves nothing";
}

TEST(MirroredWeight, IsTheWeightOfTheMirrorImage) {
    const PointWeight weight = sphereWeight({2, 1, 0}, 3.0f, 0.0f, nullptr);
    const SideMap flip = planeMap(0, 0.25f);
    const PointWeight mirrored = mirroredWeight(weight, 0, 0.25f),
                      mapped = mappedWeight(weight, flip);
    EXPECT_TRUE(mirrored.threadSafe);
    for (const Vec3f& p : randomPlaces(5, 300, 4.0f)) {
        const Vec3f image{0.5f - p.x, p.y, p.z};
        EXPECT_EQ(mirrored(p), weight(image));
        EXPECT_FLOAT_EQ(mapped(p), weight(flip(p)));
        EXPECT_NEAR(distance(flip(flip(p)), p), 0.0f, 1e-5f);
    }
}

TEST(ScreenOcclusion, HidesTheFarSideAlikeInAnyOrder) {
    const auto scalp = std::make_shared<const ScalpMesh>(makeSphere(24, 32, 8.0f));
    for (const ToolView& view : {frontView(), flatView()}) {
        const ScreenOcclusionCache cache(view, scalp);
        EXPECT_FALSE(cache.hidden({0, 0, 8}));
        EXPECT_FALSE(cache.hidden({0, 0, 20}));
        EXPECT_TRUE(cache.hidden({0, 0, -8}));
        EXPECT_TRUE(cache.hidden({0, 0, 0}));
        EXPECT_FALSE(cache.hidden({11, 0, -5})) << "beside the ball";
        EXPECT_FALSE(ScreenOcclusionCache(view, nullptr).hidden({0, 0, -8}));
    }
    const std::vector<Vec3f> places = randomPlaces(9, 20000, 8.5f);
    std::vector<std::uint8_t> first(places.size()), again(places.size());
    const auto ask = [&](std::vector<std::uint8_t>& out, bool backwards) {
        const ScreenOcclusionCache cache(frontView(), scalp);
        parallelRange(0, places.size(), 16, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const std::size_t at = backwards ? places.size() - 1 - i : i;
                out[at] = cache.hidden(places[at]);
            }
        });
    };
    runWithThreads(1, [&] { ask(first, false); });
    runWithThreads(8, [&] { ask(again, true); });
    EXPECT_EQ(first, again);
    EXPECT_GT(std::count(first.begin(), first.end(), 1), 1000);
}

TEST(GuideBoxes, FindsWhatALookAtEveryBoxFinds) {
    SplitMix random(3);
    for (const std::size_t count :
         {std::size_t(1), std::size_t(8), std::size_t(9), std::size_t(700)}) {
        std::vector<GuideBox> boxes;
        for (const Vec3f& p : randomPlaces(count, count, 10.0f))
            boxes.push_back({p, p + Vec3f{0.5f, 1.0f, 0.2f}});
        GuideBoxes tree(boxes);
        for (int round = 0; round < 40; ++round) {
            const auto moved = std::uint32_t(random.nextU64() % count);
            boxes[moved].low = randomPlaces(random.nextU64(), 1, 10.0f)[0];
            boxes[moved].high = boxes[moved].low + Vec3f{0.1f, 0.1f, 0.1f};
            tree.update(moved, boxes[moved]);
            tree.refit();
            BrushStamp stamp;
            stamp.center = randomPlaces(random.nextU64(), 1, 10.0f)[0];
            stamp.radius = random.nextRange(0.1f, 6.0f);
            std::vector<std::uint32_t> found, wanted;
            tree.reached(stamp, found);
            for (std::uint32_t i = 0; i < boxes.size(); ++i)
                if (stamp.reaches(boxes[i].low, boxes[i].high)) wanted.push_back(i);
            EXPECT_EQ(found, wanted);
        }
    }
    std::vector<std::uint32_t> none{1};
    GuideBoxes().reached({}, none);
    EXPECT_TRUE(none.empty());
}

TEST(ToolView, GoesToPixelsAndBack) {
    for (const ToolView& view : {frontView(40.0, 2.0), flatView()}) {
        for (const Vec3f& p : randomPlaces(11, 200, 6.0f)) {
            double x = 0.0, y = 0.0;
            ASSERT_TRUE(view.project(p, x, y));
            EXPECT_NEAR(distance(view.placeAtDepth(x, y, p), p), 0.0f, 1e-4f);
            const PickRay ray = view.pickRay(x, y);
            const Vec3f along = normalized(ray.direction);
            const Vec3f off = p - ray.origin;
            EXPECT_NEAR(length(off - along * dot(off, along)), 0.0f, 2e-3f);
            const Vec3f beside = view.placeAtDepth(x + 10.0, y, p);
            EXPECT_NEAR(distance(beside, p), 10.0f * view.pixelSize(p), 1e-3f);
            float px = 0.0f, py = 0.0f;
            ASSERT_TRUE(pixelProjector(view)(p, px, py));
            EXPECT_EQ(px, std::floor(float(x)));
        }
    }
    EXPECT_FALSE(frontView().isOrthographic);
    EXPECT_TRUE(flatView().isOrthographic);
    EXPECT_NEAR(distance(frontView(40.0, 2.0).cameraPosition, {2, 0, 40}), 0.0f, 1e-4f);
    EXPECT_NEAR(distance(frontView().pickDirection, {0, 0, -1}), 0.0f, 1e-6f);
    float x = 0.0f, y = 0.0f;
    EXPECT_FALSE(pixelProjector(frontView())({100, 0, 0}, x, y)) << "outside the clip box";
    EXPECT_FALSE(makeToolView({}, 800, 600));
    std::array<double, 16> bad = frontView().matrix;
    bad[5] = std::nan("");
    EXPECT_FALSE(makeToolView(bad, 800, 600));
    EXPECT_FALSE(makeToolView(frontView().matrix, 0, 600));
    const auto unit = multiplyMatrices(frontView().matrix, frontView().inverse);
    for (std::size_t i = 0; i < 16; ++i) EXPECT_NEAR(unit[i], i % 5 == 0 ? 1.0 : 0.0, 1e-9);
}

}  // namespace
}  // namespace corvelle
