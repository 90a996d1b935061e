#include <cmath>
#include <limits>
#include <set>

#include <gtest/gtest.h>

#include "model/hash.h"

namespace corvelle {
namespace {

// Golden values: every groom ever saved depends on them. Worked out by an independent program.

TEST(Mix64, KeepsTheValuesThatSavedGroomsDependOn) {
    EXPECT_EQ(mix64(0), 0xe220a8397b1dcdafu);
    EXPECT_EQ(mix64(1), 0x910a2dec89025cc1u);
    EXPECT_EQ(mix64(~std::uint64_t(0)), 0xe4d971771b652c20u);
}

TEST(HashCombine, KeepsTheValuesThatSavedGroomsDependOn) {
    EXPECT_EQ(hashCombine(0, std::uint64_t(0)), 0x6e789e6aa1b965f4u);
    EXPECT_EQ(hashCombine(1, std::uint64_t(2)), 0xa3efbcce2e044f84u);
    EXPECT_EQ(hashCombine(7, 1.0f), 0x71189cfe4ffdeef6u);
    EXPECT_EQ(hashCombine(7, 1.0), 0xc8c4599f8f977f2fu);
    EXPECT_EQ(hashCombine(7, std::string_view("Noise\xff")), 0xe5a729469e1d5844u);
}

TEST(HashCombine, ExtendsNarrowValues) {
    EXPECT_EQ(hashCombine(5, std::int32_t(-1)), 0x85be71d65653e150u);
    EXPECT_EQ(hashCombine(5, std::int32_t(-1)), hashCombine(5, std::int64_t(-1)));
    EXPECT_EQ(hashCombine(5, 0xffffffffu), hashCombine(5, std::uint64_t(0xffffffff)));
    EXPECT_EQ(hashCombine(5, true), hashCombine(5, std::uint64_t(1)));
    EXPECT_EQ(hashCombine(5, ""), 5u);
    EXPECT_NE(hashCombine(5, 0.0f), hashCombine(5, -0.0f));  // by bits
}

TEST(SplitMix, KeepsTheSequenceThatSavedGroomsDependOn) {
    SplitMix words(0), floats(0);
    EXPECT_EQ(words.nextU64(), 0xb382a305f4414f5eu);
    EXPECT_EQ(words.nextU64(), 0x631a9154fbabf717u);
    EXPECT_EQ(words.nextU64(), 0xa80aba8c86640906u);
    EXPECT_EQ(floats.nextFloat(), std::ldexp(float(0xb382a3), -24));
    EXPECT_EQ(floats.nextFloat(), std::ldexp(float(0x631a91), -24));
    EXPECT_EQ(floats.nextRange(-1.0f, 3.0f), std::ldexp(float(0xa80aba), -24) * 4.0f - 1.0f);
    EXPECT_EQ(words.state(), floats.state());
}

TEST(UnitHash, IsTheTopOfMix64AndFillsTheUnitInterval) {
    EXPECT_EQ(unitHash(0), std::ldexp(float(0xe220a8), -24));
    double sum = 0.0;
    int tenths[10] = {};
    constexpr int kCount = 100'000;
    for (std::uint64_t x = 0; x < kCount; ++x) {
        const float h = unitHash(x);
        ASSERT_GE(h, 0.0f);
        ASSERT_LT(h, 1.0f);
        EXPECT_EQ(h, float(mix64(x) >> 40) * 0x1p-24f);
        sum += h;
        ++tenths[int(h * 10.0f)];
    }
    EXPECT_NEAR(sum / kCount, 0.5, 0.005);
    for (const int n : tenths) EXPECT_NEAR(n, kCount / 10, 500);
}

TEST(Draw, IsIndependentOfPreviewThinning) {
    // Thinning keeps low unitHash(id): the draws of what it keeps must still be uniform.
    const std::uint64_t base = drawBase(7, "Noise.strand");
    double sum = 0.0;
    int kept = 0;
    for (std::uint64_t i = 0; i < 100'000; ++i) {
        const std::uint64_t id = mix64(i);
        if (unitHash(id) >= 0.1f) continue;
        sum += draw(base, id);
        ++kept;
    }
    EXPECT_GT(kept, 9'000);
    EXPECT_NEAR(sum / kept, 0.5, 0.015);
}

TEST(Draw, EachUseAndSeedHasItsOwnBase) {
    std::set<std::uint64_t> bases;
    for (std::uint64_t seed = 0; seed < 50; ++seed)
        for (const char* use : {"Noise.fraction", "Noise.strand", "Length.trim", ""})
            bases.insert(drawBase(seed, use));
    EXPECT_EQ(bases.size(), 200u);
    EXPECT_EQ(drawSigned(3, 4), 2.0f * draw(3, 4) - 1.0f);
}

}  // namespace
}  // namespace corvelle
