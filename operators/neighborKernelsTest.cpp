#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/simd4.h"
#include "model/testing/tuft.h"
#include "operators/blendNeighbors.h"
#include "operators/curveTable.h"
#include "operators/laneRuns.h"
#include "operators/neighborKernels.h"
#include "operators/neighborLanes.h"
#include "operators/pointCountOrder.h"
#include "operators/restoreLength.h"
#include "operators/strandOperator.h"
#include "operators/tangle.h"
#include "operators/twist.h"

namespace corvelle {
namespace {

/// Those that this processor does not take come as narrower ones.
constexpr SplineLanes kWidths[] = {SplineLanes::Four, SplineLanes::Eight, SplineLanes::Sixteen};

const Ramp kRise({{0.0f, -0.2f}, {0.4f, 0.7f}, {1.0f, 1.4f}});

/// Strands of every point count from 2 to `most`, some with points on top of one another, some of
/// no length, in an order of their own.
class NeighborKernelsTest : public testing::TestWithParam<std::size_t> {
protected:
    NeighborKernelsTest() {
        const std::size_t most = GetParam();
        set = makeTuft({.strands = 150, .pointsPerStrand = most, .seed = most, .uneven = true});
        const auto points = set.mutablePoints();
        for (std::size_t s = 0; s < set.strandCount(); s += 7)
            for (std::size_t i = s % 2; i + 1 < set.pointCountOf(s); i += 2)
                points[set.offsets()[s] + i + 1] = points[set.offsets()[s] + i];
        for (std::uint32_t s = 0; s < set.strandCount(); ++s) all.push_back(s);
        std::ranges::sort(all, {}, [&](std::uint32_t s) { return mix64(s); });
        std::ranges::stable_sort(all, {}, [&](std::uint32_t s) { return set.pointCountOf(s); });
        SplitMix random(most);
        for (std::size_t k = 0; k < all.size(); ++k)
            numbers.push_back(std::min(1.0f, 1.3f * random.nextFloat()));
    }
    std::span<Vec3f> of(std::vector<Vec3f>& points, std::uint32_t s) const {
        return std::span(points).subspan(set.offsets()[s], set.pointCountOf(s));
    }
    /// What the kernel makes of all strands, by runs of one point count.
    template <class Job>
    std::vector<Vec3f> deformed(LaneDeform<Job> kernel, Job job) {
        std::vector<Vec3f> out(set.pointCount());
        job.points = lanePoints(set, all, out);
        LaneScratch scratch;
        for (std::size_t k = 0; k < all.size();) {
            const std::size_t n = set.pointCountOf(all[k]);
            std::size_t end = k + 1;
            while (end < all.size() && end < k + 21 && set.pointCountOf(all[end]) == n) ++end;
            kernel(job, k, end - k, n, scratch.of(n));
            k = end;
        }
        return out;
    }
    StrandSet set;
    std::vector<std::uint32_t> all;
    std::vector<float> numbers;
};
INSTANTIATE_TEST_SUITE_P(Points, NeighborKernelsTest,
                         testing::Values<std::size_t>(2, 3, 6, 16, 40));

TEST_P(NeighborKernelsTest, MeasureOnceWhatAllRead) {
    for (const SplineLanes lanes : kWidths) {
        const NeighborKernels& kernels = neighborKernels(lanes);
        const CurveTable table(set, all, kernels);
        const CurveRows rows = table.rows();
        EXPECT_EQ(rows.byComponent, GetParam() <= kernels.mostByComponent);
        for (std::size_t seat = 0; seat < all.size(); ++seat) {
            const auto points = set.pointsOf(all[seat]);
            const std::size_t n = points.size();
            std::vector<float> shares(n);
            EXPECT_EQ(rows.lengths[seat], polylineShares(points, shares));
            const float* const own = rows.rows + 4 * rows.starts[seat];
            for (std::size_t i = 0; i < n; ++i) {
                const auto number = [&](std::size_t x) {
                    return rows.byComponent ? own[x * n + i] : own[4 * i + x];
                };
                EXPECT_EQ((Vec3f{number(0), number(1), number(2)}), points[i]);
                EXPECT_EQ(number(3), shares[i]);
            }
        }
    }
}

TEST_P(NeighborKernelsTest, BlendWithTheBitsOfOneStrandAlone) {
    // Neighbours of any point counts, 1 to 5 of them.
    std::vector<std::vector<std::uint32_t>> others(all.size());
    std::vector<const std::uint32_t*> lists;
    std::vector<std::uint32_t> counts, seats;
    for (std::size_t k = 0; k < all.size(); ++k) {
        for (std::size_t j = 0; j <= mix64(k) % 5; ++j)
            others[k].push_back(std::uint32_t(mix64(9 * k + j) % all.size()));
        seats.push_back(std::uint32_t(k));
        lists.push_back(others[k].data());
        counts.push_back(std::uint32_t(others[k].size()));
    }
    const LaneRamp rise(kRise);
    for (const bool keeps : {false, true}) {
        std::vector<Vec3f> wanted(set.pointCount());
        for (std::size_t k = 0; k < all.size(); ++k) {
            const auto points = set.pointsOf(all[k]);
            std::vector<float> shares(points.size()), theirs;
            std::vector<Vec3f> shape(points.size());
            const float length = polylineShares(points, shares);
            for (const std::uint32_t seat : others[k]) {
                const std::uint32_t other = all[seat];
                theirs.resize(set.pointCountOf(other));
                polylineShares(set.pointsOf(other), theirs);
                addShape({set.pointsOf(other), theirs}, shares, shape);
            }
            for (Vec3f& place : shape) place *= 1.0f / float(others[k].size());
            kRise.sample(shares, shares);
            for (float& amount : shares) amount = clampShare(amount * numbers[k]);
            blendToward(points, shape, shares, keeps ? length : 0.0f, of(wanted, all[k]));
        }
        for (const SplineLanes lanes : kWidths) {
            const NeighborKernels& kernels = neighborKernels(lanes);
            const CurveTable table(set, all, kernels);
            EXPECT_EQ(deformed<BlendJob>(kernels.blend, {{},
                                                         table.rows(),
                                                         seats.data(),
                                                         lists.data(),
                                                         counts.data(),
                                                         numbers.data(),
                                                         rise.keys(),
                                                         keeps}),
                      wanted);
        }
    }
}

TEST_P(NeighborKernelsTest, StickWithTheBitsOfOneStrandAlone) {
    std::vector<std::uint32_t> partners;
    std::vector<float> spans;
    for (std::size_t k = 0; k < all.size(); ++k) {
        std::size_t at = mix64(k) % all.size();
        while (set.pointCountOf(all[at]) != set.pointCountOf(all[k])) at = (at + 1) % all.size();
        partners.push_back(all[at]);
        const float begin = 0.5f * unitHash(k);
        spans.insert(spans.end(), {begin, begin + 0.1f + 0.4f * unitHash(~k), numbers[k], 0.0f});
    }
    for (const float reach : {0.0f, 6.0f}) {
        std::vector<Vec3f> wanted(set.pointCount());
        std::size_t stuck = 0;
        for (std::size_t k = 0; k < all.size(); ++k) {
            const auto points = set.pointsOf(all[k]), theirs = set.pointsOf(partners[k]);
            std::vector<float> lengths(points.size()), partnerLengths(theirs.size());
            polylineLengths(points, lengths);
            polylineLengths(theirs, partnerLengths);
            stuck += stickStrand(points, lengths, theirs, partnerLengths,
                                 {spans[4 * k], spans[4 * k + 1]}, spans[4 * k + 2], reach,
                                 of(wanted, all[k]));
        }
        if (GetParam() > 6) {
            EXPECT_GT(stuck, all.size() / 5) << "too few to prove anything";
        }
        for (const SplineLanes lanes : kWidths)
            EXPECT_EQ(deformed<StickJob>(neighborKernels(lanes).stick,
                                         {{}, partners.data(), spans.data(), reach}),
                      wanted);
    }
}

TEST_P(NeighborKernelsTest, TwistWithTheBitsOfOneStrandAlone) {
    std::vector<std::uint32_t> ofStrand;
    const TwistAxes axes = clumpAxes(set, *set.strandChannel("clumpId"), ofStrand);
    std::vector<std::uint32_t> listed;
    for (const std::uint32_t s : all) listed.push_back(ofStrand[s]);
    std::vector<float> turns;
    for (std::size_t k = 0; k < all.size(); ++k)
        turns.push_back(k % 9 == 0 ? 1e8f * (numbers[k] - 0.5f) : 2.0f * numbers[k] - 1.0f);
    std::vector<Vec3f> wanted(set.pointCount());
    for (std::size_t k = 0; k < all.size(); ++k) {
        const auto points = set.pointsOf(all[k]);
        std::vector<float> shares(points.size());
        polylineShares(points, shares);
        twistStrand(points, shares, axes, listed[k], turns[k], of(wanted, all[k]));
    }
    for (const SplineLanes lanes : kWidths)
        EXPECT_EQ(deformed<TwistJob>(
                      neighborKernels(lanes).twist,
                      {{}, axes.rows.data(), axes.offsets.data(), listed.data(), turns.data()}),
                  wanted);
}

TEST_P(NeighborKernelsTest, RestoreWithTheBitsOfOneStrandAlone) {
    // A third are as long as they should be, to a millionth.
    std::vector<Vec3f> references(set.points().begin(), set.points().end());
    SplitMix random(2);
    std::vector<const float*> starts;
    for (const std::uint32_t s : all) {
        for (Vec3f& p : of(references, s)) {
            p = p + Vec3f{1, 2, 3};
            if (s % 3 != 0) p = p * (1.0f + random.nextFloat());
        }
        starts.push_back(&of(references, s)[0].x);
    }
    std::vector<Vec3f> wanted(set.pointCount());
    for (const std::uint32_t s : all)
        restoreSegments(set.pointsOf(s), of(references, s), of(wanted, s));
    for (const SplineLanes lanes : kWidths) {
        std::vector<std::uint8_t> again(all.size());
        std::vector<Vec3f> out =
            deformed<RestoreJob>(neighborKernels(lanes).restore, {{}, starts.data(), again.data()});
        std::size_t lanesDid = 0;
        for (std::size_t k = 0; k < all.size(); ++k) {
            lanesDid += !again[k];
            if (!again[k]) {
                EXPECT_TRUE(std::ranges::equal(of(out, all[k]), of(wanted, all[k]))) << k;
            }
        }
        EXPECT_GT(lanesDid, all.size() / 2) << "too few to prove anything";
    }
}

TEST_P(NeighborKernelsTest, SpaceOutEvenlyWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const StrandSet same =
        makeTuft({.strands = kEvenSums, .pointsPerStrand = n, .seed = 3, .channels = false});
    std::vector<std::uint32_t> block(kEvenSums);
    for (std::uint32_t s = 0; s < kEvenSums; ++s) block[s] = s;
    for (const std::size_t m : {std::size_t(2), n, n + 5}) {
        std::vector<float> wanted(3 * m * kEvenSums), scratch(2 * n), even(3 * m);
        for (std::size_t s = 0; s < kEvenSums; ++s) {
            evenAcross(&same.pointsOf(s)[0].x, n, scratch.data(), scratch.data() + n, even.data(),
                       m);
            std::vector<Vec3f> plain(m);
            resamplePolyline(same.pointsOf(s), plain);
            for (std::size_t i = 0; i < 3 * m; ++i) {
                EXPECT_NEAR(even[i], plain[i / 3][int(i % 3)], 5e-5f);
                wanted[i * kEvenSums + s] = 1.0f + even[i];
            }
        }
        for (const SplineLanes lanes : kWidths) {
            LaneScratch lanesOf, sumsOf;
            float* const sums = sumsOf.of(m);
            std::fill_n(sums, wanted.size(), 1.0f);
            neighborKernels(lanes).even({&same.points()[0].x, same.offsets().data(), m, sums},
                                        block.data(), n, lanesOf.of(n + m));
            EXPECT_TRUE(std::equal(wanted.begin(), wanted.end(), sums)) << m;
        }
    }
}

TEST(PointCountOrderTest, PutsStrandsOfOneCountTogetherAndNamesEachOnce) {
    const StrandSet set = makeTuft({.strands = 200, .pointsPerStrand = 9, .uneven = true});
    std::vector<std::uint32_t> listed;
    for (std::uint32_t s = 0; s < 200; s += 1 + s % 3) listed.push_back(s);
    std::vector<bool> seen(listed.size(), false);
    std::size_t before = 0;
    for (const std::uint32_t k : PointCountOrder(set, listed)) {
        EXPECT_FALSE(seen[k]);
        seen[k] = true;
        EXPECT_GE(set.pointCountOf(listed[k]), before);
        before = set.pointCountOf(listed[k]);
    }
    EXPECT_TRUE(std::ranges::all_of(seen, [](bool b) { return b; }));
}

}  // namespace
}  // namespace corvelle
