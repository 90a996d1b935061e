#include <gtest/gtest.h>

#include "operators/hairColor.h"
#include "operators/hairPigment.h"

namespace corvelle {
namespace {

TEST(HairPigment, DarkensWithMelaninAndReddensWithRedness) {
    Vec3f before = pigmentColor(0.0f, 0.3f);
    EXPECT_NEAR(before.x, 1.0f, 1e-4f);
    for (float melanin = 0.1f; melanin <= 1.0f; melanin += 0.1f) {
        const Vec3f now = pigmentColor(melanin, 0.3f);
        EXPECT_LT(now.x, before.x);
        EXPECT_LT(now.y, before.y);
        EXPECT_GT(now.x, now.y);
        EXPECT_GT(now.y, now.z);
        before = now;
    }
    const Vec3f brown = pigmentColor(0.4f, 0.0f), red = pigmentColor(0.4f, 1.0f);
    EXPECT_GT(red.x / red.y, brown.x / brown.y);
}

TEST(HairPigment, FindsTheMelaninOfAGreen) {
    for (float melanin = 0.05f; melanin < 0.95f; melanin += 0.09f)
        for (const float redness : {0.0f, 0.5f, 1.0f})
            EXPECT_NEAR(melaninOfGreen(pigmentColor(melanin, redness).y, redness), melanin, 1e-3f);
}

TEST(HairColor, AdjustsHueSaturationAndValue) {
    const auto near = [](Vec3f a, Vec3f b) { return length(a - b) < 1e-5f; };
    const Vec3f c{0.6f, 0.3f, 0.1f};
    EXPECT_TRUE(near(adjustHsv(c, 0.0f, 1.0f, 1.0f), c));
    EXPECT_TRUE(near(adjustHsv(c, 1.0f / 3.0f, 1.0f, 1.0f), {0.1f, 0.6f, 0.3f}));
    EXPECT_TRUE(near(adjustHsv(c, 0.0f, 0.0f, 1.0f), {0.6f, 0.6f, 0.6f}));
    EXPECT_TRUE(near(adjustHsv(c, -2.0f, 1.0f, 0.5f), c * 0.5f));
    EXPECT_TRUE(near(adjustHsv({}, 0.3f, 2.0f, 2.0f), {}));
}

TEST(HairColor, SharesItsRandomnessWithinAClump) {
    const HairColorSettings all{.melaninRandom = 0.2f, .clumpShare = 1.0f};
    const auto melanin = [&](std::uint64_t id, float clump) {
        return hairColor({.id = id, .clump = clump}, all).melanin;
    };
    EXPECT_EQ(melanin(1, 4.0f), melanin(2, 4.0f));
    EXPECT_NE(melanin(1, 4.0f), melanin(1, 5.0f));
    EXPECT_NE(melanin(1, -1.0f), melanin(2, -1.0f)) << "strands in no clump go by themselves";
}

TEST(HairColor, AMapReplacesOrMultipliesThePigment) {
    const Vec3f map{0.2f, 0.9f, 0.4f};
    HairColorSettings settings{.melaninRandom = 0.0f, .rednessRandom = 0.0f, .dye = {1.0f, 0.5f, 1.0f}};
    const HairColorInput strand{.id = 3, .map = &map};
    EXPECT_EQ(hairColor(strand, settings).rgb, map * settings.dye);
    settings.multiplyMap = true;
    EXPECT_EQ(hairColor(strand, settings).rgb, pigmentColor(0.35f, 0.2f) * map * settings.dye);
}

}  // namespace
}  // namespace corvelle
