#include <cstdint>

#include <gtest/gtest.h>

#include "model/testing/brokenText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvelle {
namespace {

// The fuzz target on a fixed stream of broken graphs: no clang is needed to see that it holds.
TEST(GraphJsonFuzz, LivesThroughBrokenGraphs) {
    const std::vector<std::string> graphs = textsInFolder(CORVELLE_GRAPH_CORPUS);
    ASSERT_GE(graphs.size(), 5u);
    const std::string letters = "{}[],:\"\\ 0123456789.eE+-tfnawms\n\xff";
    int runs = 0;
    for (std::uint64_t seed = 0; seed < 4000; ++seed) {
        SplitMix random(seed);
        const std::string text = brokenText(graphs, letters, random);
        runs += LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()),
                                       text.size()) == 0;
    }
    EXPECT_EQ(runs, 4000);
}

}  // namespace
}  // namespace corvelle
