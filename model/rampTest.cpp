#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/ramp.h"

namespace corvelle {
namespace {

Ramp randomRamp(std::uint64_t seed, bool linear) {
    SplitMix random(seed);
    std::vector<Ramp::Key> keys(2 + random.nextU64() % 7);
    for (auto& [position, value] : keys) {
        position = float(random.nextU64() % 9) / 8.0f;  // doubled positions happen
        value = random.nextRange(-2.0f, 2.0f);
    }
    return Ramp(keys, linear);
}

TEST(Ramp, GivesOneWhenEmptyAndItsOnlyValueForOneKey) {
    const Ramp empty, one({{0.3f, 0.7f}});
    for (const float x : {-1.0f, 0.0f, 0.3f, 1.0f, 2.0f, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_EQ(empty(x), 1.0f);
        EXPECT_EQ(one(x), 0.7f);
    }
    EXPECT_EQ(empty.maxValue(), 1.0f);
    EXPECT_TRUE(empty.isConstant(1.0f));
    EXPECT_TRUE(one.isConstant(0.7f));
}

TEST(Ramp, SmoothPeakSitsOnItsKey) {
    const Ramp ramp({{0, 0}, {0.5f, 1}, {1, 0}});
    EXPECT_EQ(ramp(0.5f), 1.0f);
    for (int i = 0; i <= 1000; ++i) {
        const float x = float(i) / 1000.0f;
        EXPECT_GE(ramp(x), 0.0f);
        EXPECT_LE(ramp(x), 1.0f);
        if (x != 0.5f) {
            EXPECT_LT(ramp(x), 1.0f);
        }
    }
}

TEST(Ramp, FollowsTheMonotoneCubicOfItsTangents) {
    // Slopes 2 and 0.5 round the inner key: tangent 3 (1) / (1.5 / 2 + 1.5 / 0.5) = 0.8.
    const Ramp ramp({{0, 0}, {0.5f, 1}, {1, 1.25f}});
    const float t = 0.5f, span = 0.5f;
    const float expected = 0.5f * 0.0f + 0.125f * span * 2.0f + 0.5f * 1.0f - 0.125f * span * 0.8f;
    EXPECT_NEAR(ramp(t * span), expected, 1e-6f);
    EXPECT_FLOAT_EQ(Ramp({{0, 0}, {1, 2}}, true)(0.25f), 0.5f);
    EXPECT_FLOAT_EQ(Ramp({{0, 0}, {1, 2}})(0.25f), 0.5f);  // two keys: a line
}

TEST(Ramp, StaysBetweenNeighbouringKeysAndHitsThem) {
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        const Ramp ramp = randomRamp(seed, seed % 2 == 0);
        const auto& keys = ramp.keys();
        ASSERT_TRUE(std::is_sorted(keys.begin(), keys.end(),
                                   [](auto& a, auto& b) { return a.first < b.first; }));
        float largest = -10.0f;
        for (int i = -10; i <= 110; ++i) {
            const float x = float(i) / 100.0f, value = ramp(x);
            largest = std::max(largest, value);
            for (std::size_t k = 0; k + 1 < keys.size(); ++k) {
                if (!(x > keys[k].first && x < keys[k + 1].first)) continue;
                EXPECT_GE(value, std::min(keys[k].second, keys[k + 1].second));
                EXPECT_LE(value, std::max(keys[k].second, keys[k + 1].second));
            }
        }
        EXPECT_LE(largest, ramp.maxValue());
        EXPECT_EQ(ramp(keys.front().first), keys.front().second);
        if (keys.front().first < keys.back().first) {
            EXPECT_EQ(ramp(keys.back().first), keys.back().second);
        }
    }
}

TEST(Ramp, AJumpTakesTheLaterValueJustPastIt) {
    const Ramp jump({{0, 0}, {0.5f, 0}, {0.5f, 1}, {1, 1}}, true);
    EXPECT_EQ(jump(0.49f), 0.0f);
    EXPECT_EQ(jump(0.5f), 1.0f);
    EXPECT_EQ(jump(0.51f), 1.0f);
}

TEST(Ramp, IsConstantOnlyWhenEveryValueIs) {
    const Ramp flat({{0, 0.3f}, {0.4f, 0.3f}, {1, 0.3f}});
    EXPECT_TRUE(flat.isConstant(0.3f));
    for (int i = 0; i <= 100; ++i) EXPECT_EQ(flat(float(i) / 100.0f), 0.3f);
    EXPECT_FALSE(Ramp({{0, 0.3f}, {1, 0.4f}}).isConstant(0.3f));
}

TEST(Ramp, HashTellsKeysAndKindApart) {
    const Ramp a({{0, 0}, {1, 1}}), b({{1, 1}, {0, 0}});
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(), b.hash());
    EXPECT_NE(a.hash(), Ramp({{0, 0}, {1, 1}}, true).hash());
    EXPECT_NE(a.hash(), Ramp({{0, 0}, {1, 0.5f}}).hash());
    EXPECT_NE(a.hash(), Ramp().hash());
}

TEST(Ramp, SurvivesKeysThatAreNotNumbers) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Ramp ramp({{nan, 5}, {1, 1}, {nan, 6}, {0, 0}});
    EXPECT_EQ(ramp.keys()[0].first, 0.0f);
    EXPECT_EQ(ramp.keys()[1].first, 1.0f);
    EXPECT_EQ(ramp(0.0f), 0.0f);
    EXPECT_FALSE(std::isnan(ramp(0.5f)));
}

}  // namespace
}  // namespace corvelle
