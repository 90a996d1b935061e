#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "model/floatText.h"
#include "model/hash.h"

namespace corvelle {
namespace {

std::string textOf(float value) {
    std::string text;
    appendFloat32(text, value);
    return text;
}

/// The rule as it stands, through the standard library alone.
std::string plainText(float value) {
    if (value == 0.0f) return std::signbit(value) ? "-0.0" : "0";
    char text[64];
    char* end = std::to_chars(text, text + sizeof text, value).ptr;
    double wide = 0.0;
    std::from_chars(text, end, wide);
    if (float(wide) != value) end = std::to_chars(text, text + sizeof text, double(value)).ptr;
    return {text, end};
}

TEST(FloatText, IsShortAndReadsBack) {
    const std::vector<std::pair<float, const char*>> cases = {{0.0f, "0"},
                                                              {-0.0f, "-0.0"},
                                                              {1.0f, "1"},
                                                              {-1.5f, "-1.5"},
                                                              {0.1f, "0.1"},
                                                              {100.0f, "100"},
                                                              {12345.0f, "12345"},
                                                              {1e5f, "1e+05"},
                                                              {1e20f, "1e+20"},
                                                              {0.001f, "0.001"},
                                                              {0.0001f, "1e-04"},
                                                              {1e-7f, "1e-07"},
                                                              {99999.99f, "99999.99"},
                                                              {0.0012345f, "0.0012345"},
                                                              {16777216.0f, "16777216"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(textOf(value), text);
}

TEST(FloatText, IsTheTextOfTheStandardLibraryForFloatsOfEveryKind) {
    SplitMix random(11);
    const auto check = [](float value) {
        if (std::isfinite(value)) {
            ASSERT_EQ(textOf(value), plainText(value)) << std::hexfloat << value;
        }
    };
    for (int i = 0; i < 400'000; ++i) {
        const std::uint64_t word = random.nextU64();
        check(std::bit_cast<float>(std::uint32_t(word)));  // any bits
        check(random.nextRange(-200.0f, 200.0f));          // places in cm
        check(random.nextFloat());                         // shares
        const float shortOne = float(double(word % 1'000'000) / std::pow(10.0, int(word >> 60)));
        check(shortOne);                        // few digits
        check(std::nextafter(shortOne, 1e9f));  // and beside them
        check(std::nextafter(shortOne, -1e9f));
        check(std::ldexp(float(word >> 40 | 1u), -int(word % 34)));  // halves and eighths
    }
    for (int exponent = -12; exponent < 20; ++exponent)  // where steps change
        for (const float around : {0.0f, 1e9f, -1e9f})
            check(around == 0.0f ? std::ldexp(1.0f, exponent)
                                 : std::nextafter(std::ldexp(1.0f, exponent), around));
}

}  // namespace
}  // namespace corvelle
