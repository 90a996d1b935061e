#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/testing/brokenText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvelle {
namespace {

// The fuzz target on a fixed stream of broken texts: no clang is needed to see that it holds.
TEST(ExpressionFuzz, LivesThroughBrokenTexts) {
    const std::vector<std::string> seeds = {
        "fit(length, 0, 10, 1, 0.2) + noise(P * 3) * 0.5",
        "$a = [1, x, t]; $a.y + $a[2] * dot($a, P)",
        "curve(t, 0, 0, 0.5, 1, 1, 0) + spline(t, 1, 2, 3)",
        "pick(rand, 0, 5, 1, 2) + choose(t, 1, 2, 3) + cycle(index, 0, 3)",
        "map(\"m\", \"r\") + cmap(\"m\").g # maps\n + map('m', 4)",
        "x > 1 ? y : z ^ 2 / -1e30 + rotate(P, N, pi).x",
        std::string("$k * share\0{\"k\": 2}", 19)};
    const std::string letters = "()[]?:,;.$+-*/^<>=!\"' #\n019eExyztPN\xc3\xff";
    int runs = 0;
    for (std::uint64_t seed = 0; seed < 4000; ++seed) {
        SplitMix random(seed);
        std::string text = brokenText(seeds, letters, random);
        text.insert(text.begin(), char(random.nextU64() % 4));
        runs += LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()),
                                       text.size()) == 0;
    }
    EXPECT_EQ(runs, 4000);
}

}  // namespace
}  // namespace corvelle
