#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/elementary.h"
#include "model/hash.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr double kInfinity64 = std::numeric_limits<double>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

/// Floats of every size, both signs, numbers that are none and infinities among them.
std::vector<float> floatsOfAllSizes() {
    std::vector<float> all;
    for (std::uint64_t bits = 0; bits <= 0xffffffffu; bits += 104729)
        all.push_back(std::bit_cast<float>(std::uint32_t(bits)));
    for (const float x : {0.0f, -0.0f, 1.0f, -1.0f, kInfinity, -kInfinity}) all.push_back(x);
    return all;
}

/// How far `value` is from `truth`, in last bits of a float next to it.
double floatUlps(float value, double truth) {
    if (std::isnan(value) && std::isnan(truth)) return 0.0;
    const float nearest = float(truth);
    if (!std::isfinite(value) || !std::isfinite(nearest)) return value == nearest ? 0.0 : 1e9;
    int exponent = 0;
    std::frexp(nearest, &exponent);
    return std::abs(double(value) - truth) / std::ldexp(1.0, std::max(exponent - 24, -149));
}

double doubleUlps(double value, double truth) {
    int exponent = 0;
    std::frexp(truth, &exponent);
    return std::abs(value - truth) / std::ldexp(1.0, std::max(exponent - 53, -1074));
}

struct FloatCase {
    const char* name;
    float (*ours)(float);
    double (*librarys)(double);  // in double, so good for the last bit of a float
    float most = kInfinity;      // argument: a library may reduce large angles badly
};
const FloatCase kFloatCases[] = {
    {"sin", math::sin, std::sin, 100.0f}, {"cos", math::cos, std::cos, 100.0f},
    {"tan", math::tan, std::tan, 100.0f}, {"asin", math::asin, std::asin},
    {"acos", math::acos, std::acos},      {"atan", math::atan, std::atan},
    {"exp", math::exp, std::exp},         {"log", math::log, std::log},
    {"cbrt", math::cbrt, std::cbrt},
};

TEST(Elementary, GivesFloatsToHalfALastBit) {
    for (const FloatCase& f : kFloatCases) {
        std::size_t tried = 0;
        for (const float x : floatsOfAllSizes()) {
            if (std::abs(x) > f.most) continue;
            ASSERT_LT(floatUlps(f.ours(x), f.librarys(double(x))), 0.51) << f.name << " of " << x;
            ++tried;
        }
        EXPECT_GT(tried, 20000u) << f.name;
    }
}

TEST(Elementary, GivesFloatsOfTwoArgumentsToHalfALastBit) {
    SplitMix random(5);
    const std::vector<float> xs = floatsOfAllSizes();
    for (const float x : xs) {
        const float y = xs[std::size_t(random.nextFloat() * float(xs.size()))];
        ASSERT_LT(floatUlps(math::atan2(y, x), std::atan2(double(y), double(x))), 0.51)
            << y << ", " << x;
        const float power = random.nextRange(-8.0f, 8.0f);
        ASSERT_LT(floatUlps(math::pow(x, power), std::pow(double(x), double(power))), 0.51)
            << x << " to the " << power;
        const float whole = std::round(power * 8.0f);
        ASSERT_LT(floatUlps(math::pow(x, whole), std::pow(double(x), double(whole))), 0.51)
            << x << " to the " << whole;
    }
}

TEST(Elementary, GivesDoublesToAFewLastBits) {
    SplitMix random(6);
    const auto draw = [&](double lo, double hi) {
        return lo + (hi - lo) * (double(random.nextFloat()) + double(random.nextFloat()) * 0x1p-24);
    };
    for (int i = 0; i < 20000; ++i) {
        // A bit more than promised: the library is off by one as well.
        const double angle = draw(-10.0, 10.0), power = draw(-700.0, 700.0);
        const double x = std::exp(power), share = draw(-1.0, 1.0), y = draw(-2.0, 2.0);
        ASSERT_LE(doubleUlps(math::sin(angle), std::sin(angle)), 2.0) << angle;
        ASSERT_LE(doubleUlps(math::cos(angle), std::cos(angle)), 2.0) << angle;
        ASSERT_LE(doubleUlps(math::exp(power), x), 2.0) << power;
        ASSERT_LE(doubleUlps(math::log(x), std::log(x)), 2.0) << x;
        ASSERT_LE(doubleUlps(math::log(1.0 + 0.25 * share), std::log(1.0 + 0.25 * share)), 2.0);
        ASSERT_LE(doubleUlps(math::acos(share), std::acos(share)), 4.0) << share;
        ASSERT_LE(doubleUlps(math::atan2(y, share), std::atan2(y, share)), 3.0) << share;
    }
    EXPECT_DOUBLE_EQ(math::exp(-740.0) / 4.199559e-322, 1.0);
    EXPECT_DOUBLE_EQ(math::log(0x1p-1070), -1070.0 * std::numbers::ln2);
    EXPECT_EQ(math::hypot(3.0, 4.0), 5.0);
    EXPECT_EQ(math::hypot(2.0, 3.0, 6.0), 7.0);
    EXPECT_FLOAT_EQ(math::hypot(1.5e38f, 2e38f), 2.5e38f);
}

TEST(Elementary, ReducesLargeAngles) {  // values worked out with 2000 bits
    EXPECT_LE(doubleUlps(math::sin(1e22), -0x1.b453ab76bf397p-1), 3.0);
    EXPECT_LE(doubleUlps(math::cos(1e22), 0x1.0be2cef01c8f4p-1), 3.0);
    EXPECT_LE(doubleUlps(math::sin(-0x1p1000), 0x1.460b8ae1c886ep-3), 3.0);
    EXPECT_LE(doubleUlps(math::cos(-0x1p1000), 0x1.f9785160c8815p-1), 3.0);
    EXPECT_LE(doubleUlps(math::sin(3e6), -0x1.c1c972eb2f878p-1), 3.0);
    EXPECT_LE(doubleUlps(math::cos(3e6), 0x1.e93a1503a252dp-2), 3.0);
    // The double that is nearest to a right angle, and those next to pi.
    EXPECT_LE(doubleUlps(math::cos(0x1.6ac5b262ca1ffp849), -0x1.14ae72e6ba22fp-61), 3.0);
    EXPECT_EQ(math::sin(0x1.6ac5b262ca1ffp849), 1.0);
    EXPECT_EQ(math::sin(0x1.921fb54442d18p1), 0x1.1a62633145c07p-53);
    EXPECT_EQ(math::cos(0x1.921fb54442d18p0), 0x1.1a62633145c07p-54);
    EXPECT_EQ(math::sin(0x1p127f), 0x1.3f2c62p-1f);
    EXPECT_EQ(math::cos(0x1.fffffep127f), 0x1.b4bf2cp-1f);
    EXPECT_EQ(math::tan(0x1p120f), -0x1.a1dc28p-2f);
    EXPECT_EQ(math::tan(-0x1.fffffep127f), 0x1.393d94p-1f);
}

/// Equal, and of one sign; or both no numbers.
MATCHER_P(Same, wanted, "") {
    if (std::isnan(wanted)) return bool(std::isnan(arg));
    return arg == wanted && std::signbit(arg) == std::signbit(wanted);
}

TEST(Elementary, KeepsTheSpecialValuesOfTheStandard) {
    for (const FloatCase& f : kFloatCases) {
        EXPECT_THAT(f.ours(kNaN), Same(kNaN)) << f.name;
        for (const float x : {0.0f, -0.0f, kInfinity, -kInfinity, 1.0f, -1.0f, 2.0f, 1e-45f}) {
            const bool wild = f.most < kInfinity && std::isinf(x);
            EXPECT_THAT(f.ours(x), Same(wild ? kNaN : float(f.librarys(double(x)))))
                << f.name << " of " << x;
        }
    }
    const float specials[] = {0.0f,  -0.0f, 1.0f, -1.0f,     0.5f,       -0.5f,
                              3.0f,  -3.0f, 2e9f, kInfinity, -kInfinity, kNaN,
                              -2e9f, 7.0f,  2.0f, -2.0f,     1e-45f,     -3e38f};
    for (const float x : specials)
        for (const float y : specials) {
            EXPECT_THAT(math::pow(x, y), Same(float(std::pow(double(x), double(y)))))
                << x << " to the " << y;
            EXPECT_THAT(math::atan2(y, x), Same(float(std::atan2(double(y), double(x)))))
                << y << ", " << x;
            const double angle = std::atan2(double(y), double(x));
            const double ours = math::atan2(double(y), double(x));
            if (std::isfinite(angle) && angle != 0.0)
                EXPECT_LE(doubleUlps(ours, angle), 2.0) << y << ", " << x;
            else
                EXPECT_THAT(ours, Same(angle)) << y << ", " << x;
        }
    for (const double x : {kInfinity64, -kInfinity64, double(kNaN)}) {
        EXPECT_TRUE(std::isnan(math::sin(x)));
        EXPECT_TRUE(std::isnan(math::cos(x)));
        EXPECT_TRUE(std::isnan(math::acos(x)));
        EXPECT_THAT(math::exp(x), Same(std::exp(x)));
        EXPECT_THAT(math::log(x), Same(std::log(x)));
    }
    EXPECT_THAT(math::sin(-0.0), Same(-0.0));
    EXPECT_THAT(math::exp(711.0), Same(kInfinity64));
    EXPECT_THAT(math::exp(-747.0), Same(0.0));
    EXPECT_THAT(math::log(-0.0), Same(-kInfinity64));
    EXPECT_TRUE(std::isnan(math::log(-1.0)));
    EXPECT_TRUE(std::isnan(math::acos(1.5)));
    EXPECT_EQ(math::acos(1.0), 0.0);
}

// What a groom looks like hangs on these bits, on every system and processor.
TEST(Elementary, HasTheSameBitsEverywhere) {
    const auto bitsOf = [](auto&& f) {
        std::uint64_t hash = 0;
        const auto add = [&](auto value) {
            if (value == value) hash = hashCombine(hash, value);  // NaN has many patterns
        };
        SplitMix random(11);
        for (const float x : floatsOfAllSizes()) {
            const float y = random.nextRange(-6.0f, 6.0f), z = random.nextRange(-1.0f, 1.0f);
            add(f(x, y));
            add(f(y, z));
            add(f(z, y));
        }
        return hash;
    };
    const auto plain = [&](float (*f)(float)) {
        return bitsOf([f](float x, float) { return f(x); });
    };
    const auto wide = [&](double (*f)(double)) {
        return bitsOf([f](float x, float y) { return f(double(x) + double(y) * 0x1p-30); });
    };
    EXPECT_EQ(plain(math::sin), 0xb420e606c819ba2du);
    EXPECT_EQ(plain(math::cos), 0xfcd81884e9d19f26u);
    EXPECT_EQ(plain(math::tan), 0x253ebe19d7a9a4cau);
    EXPECT_EQ(plain(math::asin), 0xebddfc065a977d23u);
    EXPECT_EQ(plain(math::acos), 0x73602647764ce808u);
    EXPECT_EQ(plain(math::atan), 0xf57d0ca2becd7628u);
    EXPECT_EQ(plain(math::exp), 0x36ca6c5b52714905u);
    EXPECT_EQ(plain(math::log), 0xfacd053f5fb845fdu);
    EXPECT_EQ(plain(math::cbrt), 0xe1aaa34ec7ab0ac6u);
    EXPECT_EQ(bitsOf([](float x, float y) { return math::atan2(x, y); }), 0x3075baff4c4f0594u);
    EXPECT_EQ(bitsOf([](float x, float y) { return math::pow(x, y); }), 0x550b5cccb9b8cadu);
    EXPECT_EQ(wide(math::sin), 0x1c4fa869f3542e48u);
    EXPECT_EQ(wide(math::cos), 0xa2747c8e3da178d6u);
    EXPECT_EQ(wide(math::acos), 0x5d4c243933452f69u);
    EXPECT_EQ(wide(math::exp), 0x2054ad3b160c084bu);
    EXPECT_EQ(wide(math::log), 0x5d5dd7a8b40feb3au);
    EXPECT_EQ(bitsOf([](float x, float y) { return math::atan2(double(x) * 1.1, double(y)); }),
              0xec742bb80183b485u);
}

}  // namespace
}  // namespace corvelle
