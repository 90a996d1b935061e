#include "operators/previewShare.h"

#include <gtest/gtest.h>

#include "graph/graphError.h"

namespace corvelle {
namespace {

float shareOf(double strands, float density, double budget = 0.0, bool all = false) {
    return previewShare({.strands = strands,
                         .pointsPerStrand = 9,
                         .density = density,
                         .pointBudget = budget,
                         .previewAll = all})
        .share;
}

std::string refusal(const PreviewRequest& request) {
    try {
        previewShare(request);
    } catch (const GraphError& error) {
        return error.what();
    }
    return {};
}

TEST(PreviewShare, NeverThinsSmallGroomsAndKeepsAFloorOfBigOnes) {
    EXPECT_EQ(shareOf(4000, 0.1f), 1.0f);
    EXPECT_EQ(shareOf(5000, 0.0f), 1.0f);
    EXPECT_EQ(shareOf(5001, 0.0f), 1.0f);  // 2^0
    EXPECT_EQ(shareOf(10000, 0.0f), 0.5f);
    EXPECT_EQ(shareOf(200000, 0.01f), 0.03125f);
    EXPECT_EQ(shareOf(2e6, 0.01f), 0.03f);
    EXPECT_EQ(shareOf(200000, 0.5f), 0.5f);
    EXPECT_EQ(shareOf(200000, 1.0f), 1.0f);
    EXPECT_EQ(previewShare({.strands = 200000, .density = 0.5f}).always, 0.03125f);
    EXPECT_EQ(previewShare({.strands = 4000, .density = 0.5f}).always, 1.0f);
    EXPECT_EQ(shareOf(0, 0.5f), 1.0f);
}

TEST(PreviewShare, BudgetsLimitPointsAndPreviewAllWins) {
    EXPECT_FLOAT_EQ(shareOf(100000, 1.0f, 450000.0), 0.5f);
    EXPECT_EQ(shareOf(100000, 1.0f, 1.0), 0.0625f);  // the floor holds
    EXPECT_EQ(shareOf(100000, 0.2f, 0.0, true), 1.0f);
    EXPECT_EQ(shareOf(100000, 0.2f, 1000.0, true), 1.0f);
}

TEST(PreviewShare, RefusesWhatDoesNotFitBeforeItIsMade) {
    EXPECT_EQ(refusal({.strands = 20e6, .pointsPerStrand = 17, .density = 0.5f}),
              "Scatter: the preview would have 170M points (10000k strands x 17): lower the preview "
              "density, density or the Resample's segments");
    EXPECT_EQ(refusal({.strands = 40e6, .pointsPerStrand = 17, .density = 1.0f}),
              "Scatter: 680M points (strands x 17) is more than memory holds: lower the density or "
              "the Resample's segments");
    EXPECT_EQ(refusal({.strands = 20e6, .pointsPerStrand = 17, .density = 1.0f}), "");
    EXPECT_EQ(refusal({.strands = 20e6, .pointsPerStrand = 17, .density = 0.5f, .pointBudget = 200e6}),
              "");
}

}  // namespace
}  // namespace corvelle
