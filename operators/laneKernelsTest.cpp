#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/rampSlopes.h"
#include "model/testing/tuft.h"
#include "operators/laneKernels.h"
#include "operators/laneRuns.h"
#include "operators/length.h"
#include "operators/width.h"

namespace corvelle {
namespace {

/// Strands of n points, some with points on top of one another, some of no length at all.
StrandSet strandsOf(std::size_t n, std::uint64_t seed) {
    StrandSet set =
        makeTuft({.strands = 61, .pointsPerStrand = n, .seed = seed, .channels = false});
    const auto points = set.mutablePoints();
    for (std::size_t s = 0; s < set.strandCount(); s += 7)
        for (std::size_t i = s % 2; i + 1 < n; i += 2) points[s * n + i + 1] = points[s * n + i];
    return set;
}

class LaneKernelsTest : public testing::TestWithParam<std::size_t> {
protected:
    const StrandSet set = strandsOf(GetParam(), GetParam());
    std::vector<std::uint32_t> all = [this] {
        std::vector<std::uint32_t> list(set.strandCount());
        for (std::uint32_t s = 0; s < list.size(); ++s) list[s] = s;
        return list;
    }();
    std::vector<float> numbers(float most) const {
        SplitMix random(3);
        std::vector<float> out(set.strandCount());
        for (float& x : out) x = std::min(1.0f, random.nextFloat() * most);
        out[4] = 0.0f;
        return out;
    }
};
INSTANTIATE_TEST_SUITE_P(Points, LaneKernelsTest,
                         testing::Values<std::size_t>(2, 3, 4, 5, 9, 16, 33, 70));

TEST_P(LaneKernelsTest, TrimWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> shares = numbers(1.3f);  // some whole
    std::vector<Vec3f> wanted(set.pointCount());
    for (const std::uint32_t s : all)
        trimStrand(set.pointsOf(s), shares[s], std::span(wanted).subspan(s * n, n));
    for (const SplineLanes lanes : {SplineLanes::Four, SplineLanes::Eight}) {
        std::vector<Vec3f> out(set.pointCount());
        const TrimJob job{&set.points()[0].x, &out[0].x, set.offsets().data()};
        LaneScratch scratch;
        laneKernels(lanes).trim(job, all.data(), shares.data(), all.size(), n, scratch.of(n));
        EXPECT_EQ(out, wanted);
    }
}

TEST_P(LaneKernelsTest, WidenWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> widths = numbers(0.5f);
    const std::vector<Ramp> profiles = {
        Ramp({{0.0f, 1.0f}, {0.7f, 0.85f}, {1.0f, 0.15f}}),
        Ramp({{0.2f, 0.3f}, {0.5f, 0.3f}, {0.5f, 0.9f}, {0.8f, 0.1f}}, true),
        Ramp({{0.0f, 0.0f}, {0.3f, 1.0f}, {0.4f, 0.2f}, {0.9f, 0.7f}}),
        Ramp({{0.5f, 0.2f}, {0.5f, 0.6f}})};
    for (const Ramp& profile : profiles) {
        std::vector<float> wanted(set.pointCount());
        for (const std::uint32_t s : all)
            strandWidths(set.pointsOf(s), {&widths[s], 1}, profile, 1.0f,
                         std::span(wanted).subspan(s * n, n));
        std::vector<float> positions, values;
        for (const auto& [position, value] : profile.keys()) {
            positions.push_back(position);
            values.push_back(value);
        }
        const std::vector<float> slopes = rampSlopes(profile.keys());
        for (const SplineLanes lanes : {SplineLanes::Four, SplineLanes::Eight}) {
            std::vector<float> out(set.pointCount());
            const WidthJob job{&set.points()[0].x,
                               out.data(),
                               set.offsets().data(),
                               {positions.data(), values.data(), slopes.data(), positions.size(),
                                profile.linear()}};
            LaneScratch scratch;
            laneKernels(lanes).widths(job, all.data(), widths.data(), all.size(), n, scratch.of(n));
            EXPECT_EQ(out, wanted);
        }
    }
}

}  // namespace
}  // namespace corvelle
