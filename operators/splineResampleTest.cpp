#include <bit>
#include <cmath>
#include <numeric>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/testing/tuft.h"
#include "operators/splineResample.h"
#include "operators/strandSpline.h"

namespace corvelle {
namespace {

/// Strands with two values a point, and where they go: strand s to wanted(s) points.
struct Load {
    StrandSet from, to;
    std::vector<float> values, marks;  ///< at each point given
    std::vector<std::uint32_t> strands;

    template <class Wanted>
    Load(StrandSet set, Wanted wanted) : from(std::move(set)) {
        std::vector<std::uint64_t> counts(from.strandCount());
        for (std::size_t s = 0; s < counts.size(); ++s) {
            counts[s] = wanted(s);
            if (from.pointCountOf(s) >= 2) strands.push_back(std::uint32_t(s));
        }
        to.allocate(counts);
        for (std::size_t p = 0; p < from.pointCount(); ++p) {
            values.push_back(unitHash(p));
            marks.push_back(float(mix64(p) % 5));
        }
    }

    /// The bits of all that comes out, by strands listed in runs of `step`.
    std::vector<std::uint32_t> run(SplineLanes lanes, std::span<const std::uint32_t> list,
                                   std::size_t step) {
        std::vector<float> points(3 * to.pointCount(), -1.0f), valuesOut(to.pointCount(), -1.0f),
            marksOut(to.pointCount(), -1.0f);
        const SplineJob::Array arrays[] = {{values.data(), valuesOut.data(), false},
                                           {marks.data(), marksOut.data(), true}};
        const SplineJob job{.from = &from.points()[0].x,
                            .to = points.data(),
                            .fromOffsets = from.offsets().data(),
                            .toOffsets = to.offsets().data(),
                            .arrays = arrays,
                            .arrayCount = std::size(arrays)};
        SplineResampler resampler(lanes);
        for (std::size_t k = 0; k < list.size(); k += step)
            resampler.run(job, list.subspan(k, std::min(step, list.size() - k)));
        std::copy_n(points.data(), points.size(), &to.mutablePoints()[0].x);
        points.insert(points.end(), valuesOut.begin(), valuesOut.end());
        points.insert(points.end(), marksOut.begin(), marksOut.end());
        std::vector<std::uint32_t> bits;
        for (const float f : points) bits.push_back(std::bit_cast<std::uint32_t>(f));
        return bits;
    }
};

class SplineResampleTest : public testing::TestWithParam<std::uint64_t> {
protected:
    Load uneven{makeTuft({.strands = 300,
                          .pointsPerStrand = 12,
                          .seed = GetParam(),
                          .uneven = true,
                          .degenerate = true}),
                [](std::size_t s) { return 2 + mix64(s) % 9; }};
};
INSTANTIATE_TEST_SUITE_P(Seeds, SplineResampleTest, testing::Range<std::uint64_t>(0, 8));

TEST_P(SplineResampleTest, GivesTheSameBitsInAnyGrouping) {
    const auto bits = uneven.run(SplineLanes::Four, uneven.strands, uneven.strands.size());
    EXPECT_EQ(uneven.run(SplineLanes::Four, uneven.strands, 1), bits);
    EXPECT_EQ(uneven.run(SplineLanes::Widest, uneven.strands, 37), bits);
    std::vector<std::uint32_t> other = uneven.strands;
    SplitMix random(GetParam());
    for (std::size_t k = other.size(); k > 1; --k)
        std::swap(other[k - 1], other[random.nextU64() % k]);
    EXPECT_EQ(uneven.run(SplineLanes::Four, other, 5), bits);
    for (const SplineLanes lanes : {SplineLanes::Eight, SplineLanes::Sixteen})
        EXPECT_EQ(uneven.run(lanes, other, 64), bits) << canResample(lanes);
}

TEST_P(SplineResampleTest, AgreesWithTheSplineOfOneStrand) {
    uneven.run(SplineLanes::Widest, uneven.strands, 100);
    StrandSpline spline;
    for (const std::uint32_t s : uneven.strands) {
        const auto out = uneven.to.pointsOf(s), given = uneven.from.pointsOf(s);
        std::vector<float> params(out.size());
        spline.build(given);
        spline.evenParams(params);
        for (std::size_t j = 0; j < out.size(); ++j)
            EXPECT_LT(distance(out[j], spline.at(params[j])), 1e-4f);
        EXPECT_EQ(out.front(), given.front());
        EXPECT_EQ(out.back(), given.back());
    }
}

TEST_P(SplineResampleTest, SpacesPointsEvenly) {
    Load smooth(makeTuft({.strands = 200, .pointsPerStrand = 16, .seed = GetParam()}),
                [](std::size_t) { return 33; });
    smooth.run(SplineLanes::Widest, smooth.strands, 256);
    for (const std::uint32_t s : smooth.strands) {
        const auto out = smooth.to.pointsOf(s);
        float total = 0.0f;
        for (std::size_t j = 1; j < out.size(); ++j) total += distance(out[j - 1], out[j]);
        for (std::size_t j = 1; j < out.size(); ++j)
            EXPECT_NEAR(distance(out[j - 1], out[j]) * 32.0f / total, 1.0f, 0.02f);
    }
}

TEST(SplineResample, StaysFiniteOnHostileStrands) {
    const std::vector<std::vector<Vec3f>> hostile = {
        {{1, 2, 3}, {1, 2, 3}},                                          // no length
        {{0, 0, 0}, {0, 0, 0}, {0, 1, 0}, {0, 1, 0}, {0, 1, 0}},         // doubled points
        {{0, 0, 0}, {1e-20f, 0, 0}, {2e-20f, 1e-20f, 0}},                // hardly any
        {{0, 0, 0}, {1e18f, 0, 0}, {0, 1e18f, 0}, {1, 1, 1}},            // there and back
        {{0, 0, 0}, {1e30f, 0, 0}, {0, 1e30f, 0}},                       // a length that overflows
        {{0, 0, 0}, {0, 5, 0}, {0, 5.0001f, 0}, {0, 9, 0}, {0, 0, 0}}};  // most uneven
    StrandSet set;
    for (const auto& points : hostile) set.addStrand(set.strandCount(), points, {}, {});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    set.addStrand(99, std::vector<Vec3f>{{0, 0, 0}, {nan, 0, 0}, {0, 2, 0}}, {}, {});
    Load load(std::move(set), [](std::size_t) { return 7; });
    load.run(SplineLanes::Widest, load.strands, 256);
    for (std::size_t s = 0; s < hostile.size(); ++s) {
        for (const Vec3f p : load.to.pointsOf(s)) EXPECT_TRUE(isFinite(p)) << s;
        EXPECT_EQ(load.to.pointsOf(s).back(), hostile[s].back());
    }
    EXPECT_EQ(load.to.pointsOf(hostile.size()).back(), (Vec3f{0, 2, 0}))
        << "a NaN stays where it is";
}

}  // namespace
}  // namespace corvelle
