#include <cstdint>

#include <gtest/gtest.h>

#include "model/testing/brokenText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvelle {
namespace {

// The fuzz target on a fixed stream of broken files: no clang is needed to see that it holds.
TEST(GroomFuzz, LivesThroughBrokenFiles) {
    const std::vector<std::string> files = textsInFolder(CORVELLE_GROOM_CORPUS);
    ASSERT_GE(files.size(), 5u);
    const std::string letters = "{}[],:\"\\ 0123456789.eE+-tfnu\n\xc3\xa5\xff";
    int runs = 0;
    for (std::uint64_t seed = 0; seed < 3000; ++seed) {
        SplitMix random(seed);
        const std::string text = brokenText(files, letters, random);
        runs += LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()),
                                       text.size()) == 0;
    }
    EXPECT_EQ(runs, 3000);
}

}  // namespace
}  // namespace corvelle
