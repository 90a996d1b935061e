#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "expr/expressionFunctions.h"
#include "expr/expressionTestTools.h"
#include "model/hash.h"
#include "model/noise.h"

namespace corvelle {
namespace {

using namespace testing_;

TEST(ExpressionFunctions, AreATableOf58RowsAnd57Names) {
    std::set<std::string_view> names;
    for (const ExpressionFunction& f : expressionFunctions()) names.insert(f.name);
    EXPECT_EQ(expressionFunctions().size(), 58u);
    EXPECT_EQ(names.size(), 57u);
}

struct Case {
    std::string text;
    float expected;
};
class ExpressionFunctionTable : public testing::TestWithParam<Case> {};
TEST_P(ExpressionFunctionTable, GivesTheStatedValue) {
    EXPECT_FLOAT_EQ(valueOf(GetParam().text), GetParam().expected) << GetParam().text;
}
INSTANTIATE_TEST_SUITE_P(
    Plain, ExpressionFunctionTable,
    testing::Values(Case{"sin(0.5)", std::sin(0.5f)}, Case{"cos(0.5)", std::cos(0.5f)},
                    Case{"tan(0.5)", std::tan(0.5f)}, Case{"atan(2)", std::atan(2.0f)},
                    Case{"abs(-2)", 2}, Case{"floor(-1.5)", -2}, Case{"ceil(-1.5)", -1},
                    Case{"exp(1)", 2.7182817f}, Case{"exp(1000)", 0}, Case{"round(2.5)", 3},
                    Case{"round(-2.5)", -3}, Case{"round(0.49999997)", 0}, Case{"trunc(-1.7)", -1},
                    Case{"asin(2)", 1.5707964f}, Case{"acos(-3)", 3.1415927f}, Case{"sqrt(-1)", 0},
                    Case{"sqrt(9)", 3}, Case{"fract(-0.25)", 0.75f}, Case{"log(0)", 0},
                    Case{"log(-1)", 0}, Case{"log(exp(2))", 2}, Case{"sign(-3)", -1},
                    Case{"sign(0)", 0}, Case{"sign(7)", 1}, Case{"radians(180)", 3.1415927f},
                    Case{"degrees(pi)", 180.0f}, Case{"pow(2, 10)", 1024}, Case{"pow(-8, 0.5)", 0},
                    Case{"atan2(1, -1)", 2.3561945f}, Case{"min(2, -1)", -1}, Case{"max(2, -1)", 2},
                    Case{"1/0", 0}, Case{"0/0", 0}, Case{"0^-1", 0}, Case{"-1/0", 0},
                    Case{"1e38 * 1e38", 0}));
INSTANTIATE_TEST_SUITE_P(
    Shaping, ExpressionFunctionTable,
    testing::Values(Case{"mod(-1, 3)", 2}, Case{"mod(1, 0)", 0}, Case{"mod(1, -3)", -2},
                    Case{"step(2, 1)", 0}, Case{"step(2, 2)", 1}, Case{"clamp(5, 0, 1)", 1},
                    Case{"clamp(5, 1, 0)", 1}, Case{"clamp(-5, 1, 0)", 0},
                    Case{"mix(2, 4, 1.5)", 5}, Case{"lerp(2, 4, -1)", 0},
                    Case{"smoothstep(0, 1, 0.5)", 0.5f}, Case{"smoothstep(0, 2, 0.5)", 0.15625f},
                    Case{"smoothstep(1, 0, 0.25)", 0.84375f}, Case{"smoothstep(1, 1, 0)", 0},
                    Case{"smoothstep(1, 1, 1)", 1}, Case{"linearstep(0, 4, 1)", 0.25f},
                    Case{"linearstep(0, 4, 9)", 1}, Case{"linearstep(2, 2, 1)", 0},
                    Case{"linearstep(2, 2, 2)", 1}, Case{"gamma(4, 2)", 2}, Case{"gamma(-4, 2)", 0},
                    Case{"gamma(4, 0)", 0}, Case{"bias(0.5, 0.25)", 0.25f}, Case{"bias(0.5, 0)", 0},
                    Case{"bias(0, 0.5)", 0}, Case{"bias(0.3, 1)", 1}, Case{"bias(0.3, 0.5)", 0.3f},
                    Case{"gain(0.5, 0.9)", 0.5f}, Case{"gain(0.25, 0.5)", 0.25f},
                    Case{"gain(0.75, 0.75)", 1 - 0.5f * 0.25f}, Case{"fit(5, 0, 10, 1, 3)", 2},
                    Case{"fit(20, 0, 10, 1, 3)", 5}, Case{"fit(7, 2, 2, 1, 3)", 1},
                    Case{"remap(20, 0, 10, 1, 3)", 3}, Case{"remap(20, 0, 10, 3, 1)", 1},
                    Case{"remap(-5, 0, 10, 3, 1)", 3}, Case{"remap(5, 2, 2, 1, 3)", 1}));
INSTANTIATE_TEST_SUITE_P(
    Choosing, ExpressionFunctionTable,
    testing::Values(Case{"choose(-1, 5, 6, 7)", 5}, Case{"choose(0.34, 5, 6, 7)", 6},
                    Case{"choose(0.99999994, 5, 6, 7)", 7}, Case{"choose(1, 5, 6, 7)", 7},
                    Case{"choose(0.5, 5)", 5}, Case{"cycle(7, 0, 2)", 1},
                    Case{"cycle(-1, 0, 2)", 2}, Case{"cycle(1.9, 1, 3)", 1},
                    Case{"cycle(4, 3, 1)", 1}, Case{"cycle(5, 2.4, 2.6)", 3},
                    Case{"cycle(1e30, 0, 0)", 0}, Case{"cycle(1, -1e30, 1e30)", 1},
                    Case{"pick(3, 5, 5)", 5}, Case{"pick(1, 0, 2, 0, 1, 0)", 1},
                    Case{"pick(1, 2, 0, -4, -1, 3)", 2}, Case{"pick(1, 7, 9, 0, 0, 0)", 7}));
INSTANTIATE_TEST_SUITE_P(
    Vectors, ExpressionFunctionTable,
    testing::Values(Case{"dot([1, 2, 3], [4, 5, 6])", 32},
                    Case{"distance([1, 2, 3], [1, 2, 5])", 2}, Case{"length([2, 3, 6])", 7},
                    Case{"length(normalize([2, 3, 6]))", 1},
                    Case{"length(normalize([0, 0, 1e-13]))", 0},
                    Case{"rotate([1, 0, 0], [0, 0, 5], pi / 2).y", 1},
                    Case{"rotate([1, 2, 3], [0, 0, 0], 1).z", 3},
                    Case{"dot(cross([1, 2, 3], [4, 5, 6]), [1, 10, 100])", -3 + 60 - 300}));
INSTANTIATE_TEST_SUITE_P(
    Curves, ExpressionFunctionTable,
    testing::Values(Case{"linearcurve(0.25, 0, 1, 1, 3)", 1.5f},
                    Case{"linearcurve(-1, 0, 1, 1, 3)", 1}, Case{"linearcurve(2, 0, 1, 1, 3)", 3},
                    Case{"linearcurve(0.5, 1, 3, 0, 1)", 2},  // keys in any order
                    Case{"curve(0.5, 0, 0, 0.5, 1, 1, 0)", 1}, Case{"curve(0.3, 0, 2)", 2},
                    Case{"curve(0.5, 0, 0, 1, 1)", 0.5f}, Case{"spline(0.5, 1, 5, 1)", 5},
                    Case{"spline(0.7, 4)", 4}, Case{"spline(0.5, -pi / 2, sin(0))", -0.7853982f},
                    Case{"linearcurve(linearcurve(0.5, 0, 0, 1, 1), 0, curve(0, 0, 8), 1, 10)",
                         9}));

TEST(ExpressionFunctions, NeverGiveWhatIsNotFinite) {
    const std::vector<std::string> hostile = {"0",     "-0",     "1",    "-1",    "0.5",
                                              "1e-45", "-1e-45", "3e38", "-3e38", "0.99999994"};
    for (const ExpressionFunction& f : expressionFunctions()) {
        if (f.family == ExpressionFamily::Map) continue;
        const bool curve =
            f.family == ExpressionFamily::Curve || f.family == ExpressionFamily::Spline;
        for (std::size_t seed = 0; seed < 60; ++seed) {
            std::string text(f.name);
            SplitMix random(seed);
            const auto number = [&] { return hostile[random.nextU64() % hostile.size()]; };
            std::size_t count = f.least + random.nextU64() % (f.most - f.least + 1u);
            if (f.family == ExpressionFamily::Curve) count |= 1u;
            if (curve) count = std::min<std::size_t>(count, 9);
            for (std::size_t k = 0; k < count; ++k)
                text += std::string(k ? ", " : "(") +
                        (k < f.vectors ? "[" + number() + ", " + number() + ", " + number() + "]"
                                       : number());
            text += f.vectorResult ? ").y" : ")";
            EXPECT_TRUE(std::isfinite(valueOf(text))) << text;
        }
    }
}

TEST(ExpressionFunctions, DrawAtRandomByIdOrByValueAlone) {
    const StrandSet set = threeStrands();
    const ExpressionEnvironment none;
    const auto values = [&](const std::string& text) {
        std::vector<float> out(3);
        ExpressionMap(text, none, true).bind(set, none).strands(allOf(set), out);
        return out;
    };
    const std::vector<float> random = values("rand(2)");
    EXPECT_EQ(random[0], unitHash(hashCombine(mix64(11), 2.0f)));
    EXPECT_EQ(random[1], unitHash(hashCombine(mix64(22), 2.0f)));
    EXPECT_NE(random[0], values("rand(3)")[0]);
    EXPECT_EQ(values("rand")[2], unitHash(hashCombine(mix64(33), std::uint64_t(0x72616E64))));
    const std::vector<float> hash = values("hash(2)");
    EXPECT_EQ(hash[0], hash[1]);
    EXPECT_EQ(valueOf("hash(0)"), valueOf("hash(-0)"));
    EXPECT_NE(valueOf("hash(0)"), valueOf("hash(1)"));
}

TEST(ExpressionFunctions, PickByWeightAndPastTheList) {
    const auto counts = [&](const std::string& arguments, std::size_t values) {
        std::vector<int> out(values, 0);
        for (int k = 0; k < 2000; ++k)
            ++out.at(std::size_t(valueOf("pick(" + std::to_string(k) + arguments + ")")));
        return out;
    };
    const std::vector<int> even = counts(", 0, 3", 4);
    for (const int n : even) EXPECT_NEAR(n, 500, 100);
    const std::vector<int> weighted = counts(", 0, 3, 6, 0", 4);  // 6, 0, 1, 1
    EXPECT_NEAR(weighted[0], 1500, 120);
    EXPECT_EQ(weighted[1], 0);
    EXPECT_NEAR(weighted[2], 250, 80);
    EXPECT_NEAR(weighted[3], 250, 80);
    // A range of two thousand million values costs no more than one of two.
    const float far = valueOf("pick(1, -1e30, 1e30, 5)");
    EXPECT_LE(std::abs(far), 1e9f);
}

TEST(ExpressionFunctions, ReadTheNoiseOfTheirSeeds) {
    const Vec3f p{0.3f, -1.7f, 2.2f};
    const std::string text = "[0.3, -1.7, 2.2]";
    EXPECT_EQ(valueOf("noise(" + text + ")"), noise3(p, 28161));
    EXPECT_EQ(valueOf("noise(0.3, -1.7, 2.2)"), noise3(p, 28161));
    EXPECT_EQ(vectorOf("vnoise(" + text + ")"), fbmVectorWeighted(p, 28162, 1, {}));
    EXPECT_EQ(valueOf("fbm(" + text + ", 1)"), noise3(p, 64256));
    EXPECT_EQ(valueOf("fbm(" + text + ", -3)"), noise3(p, 64256));
    EXPECT_EQ(valueOf("fbm(" + text + ", 2, 3, 0.25)"),
              (noise3(p, 64256) + noise3(p * 3.0f, 64257) * 0.25f) / 1.25f);
    EXPECT_EQ(valueOf("fbm(" + text + ")"), valueOf("fbm(" + text + ", 4, 2, 0.5)"));
    EXPECT_EQ(valueOf("fbm(" + text + ", 16)"), valueOf("fbm(" + text + ", 1000)"));
    EXPECT_EQ(valueOf("fbm(" + text + ", 2, 2, -1)"), 0.0f);  // amplitudes that cancel
    EXPECT_EQ(valueOf("turbulence(" + text + ", 1)"), std::abs(noise3(p, 64256)));
    EXPECT_EQ(vectorOf("vfbm(" + text + ", 1)"), noiseVector3(p, 64512));
    EXPECT_EQ(valueOf("cellnoise(" + text + ")"), unitHash(latticeHash(0, -2, 2, 52753)));
    EXPECT_EQ(valueOf("cellnoise([1e30, 0, 0])"), unitHash(latticeHash(10'000'000, 0, 0, 52753)));
}

TEST(ExpressionFunctions, MeasureVoronoiCells) {
    // Without jitter the feature points are the centres of the cells.
    EXPECT_EQ(valueOf("voronoi([0.5, 0.5, 0.5], 0)"), 0.0f);
    EXPECT_FLOAT_EQ(valueOf("voronoi([0.5, 0.5, 0.75], 0)"), 0.25f);
    EXPECT_FLOAT_EQ(valueOf("voronoi([0.5, 0.5, 0.75], 0, 2)"), 0.75f);
    EXPECT_FLOAT_EQ(valueOf("voronoi([0.5, 0.5, 0.75], -7, 3)"), 0.5f);
    for (int k = 0; k < 50; ++k) {
        const std::string p = "[" + std::to_string(0.37 * k) + ", " + std::to_string(-0.71 * k) +
                              ", " + std::to_string(1.3 * k) + "]";
        const float first = valueOf("voronoi(" + p + ")");
        const float second = valueOf("voronoi(" + p + ", 1, 2)");
        EXPECT_EQ(first, valueOf("voronoi(" + p + ", 1, 1)"));
        EXPECT_EQ(first, valueOf("voronoi(" + p + ", 9)"));
        EXPECT_LE(first, second);
        EXPECT_EQ(valueOf("voronoi(" + p + ", 1, 3)"), second - first);
        EXPECT_LT(first, 1.5f);
    }
}

TEST(ExpressionFunctions, KeepTheValuesThatSavedGroomsDependOn) {
    const std::vector<std::pair<std::string, std::uint32_t>> golden = {
        {"hash(1)", 0x3f4b0b73},
        {"hash(0.5)", 0x3e476648},
        {"pick(1, 0, 1000000)", 0x4931e300},
        {"pick(2, 0, 9)", 0x40e00000},
        {"rand(1)", 0x3f37236e},
        {"rand", 0x3f0bf3eb},
        {"noise(0.3, -1.7, 2.2)", 0xbe981961},
        {"vnoise([0.3, -1.7, 2.2]).y", 0xbe8b7d54},
        {"fbm([0.3, -1.7, 2.2])", 0x3e0bf449},
        {"turbulence([0.3, -1.7, 2.2])", 0x3e2c871a},
        {"vfbm([0.3, -1.7, 2.2]).z", 0xbdb94720},
        {"cellnoise([0.3, -1.7, 2.2])", 0x3f17b905},
        {"voronoi([0.3, -1.7, 2.2])", 0x3f4c44b6},
        {"voronoi([0.3, -1.7, 2.2], 0.5, 3)", 0x3e7c55a8}};
    for (const auto& [text, bits] : golden)
        EXPECT_EQ(bitsOf(valueOf(text)), bits)
            << text << ": 0x" << std::hex << bitsOf(valueOf(text));
}

}  // namespace
}  // namespace corvelle
