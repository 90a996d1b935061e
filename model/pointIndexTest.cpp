#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/pointIndex.h"

namespace corvelle {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

Vec3f randomPoint(SplitMix& random, float extent) {
    const float x = random.nextRange(-extent, extent);
    const float y = random.nextRange(-extent, extent);
    const float z = random.nextRange(-extent, extent);
    return {x, y, z};
}

/// Clouds of several kinds, by seed: even, on a coarse lattice (many equal distances), on a line,
/// and all in one place.
std::vector<Vec3f> cloudOf(std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<Vec3f> points(1 + random.nextU64() % 700);
    for (Vec3f& p : points) {
        p = randomPoint(random, 5.0f);
        if (seed % 4 == 1) p = {std::floor(p.x), std::floor(p.y), std::floor(p.z)};
        if (seed % 4 == 2) p = {p.x, 0.0f, 1000.0f};
        if (seed % 4 == 3 && seed % 8 == 3) p = {1.0f, 2.0f, 3.0f};
    }
    return points;
}

std::vector<Neighbor> plainNearest(const std::vector<Vec3f>& points, Vec3f p, float maxDistance) {
    std::vector<Neighbor> all;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const float d = lengthSquared(points[i] - p);
        if (d <= maxDistance * maxDistance) all.push_back({std::uint32_t(i), d});
    }
    std::sort(all.begin(), all.end());
    return all;
}

void expectSame(std::span<const Neighbor> a, std::span<const Neighbor> b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].index, b[i].index);
        EXPECT_EQ(a[i].distanceSquared, b[i].distanceSquared);
    }
}

class PointIndexTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const std::vector<Vec3f> points = cloudOf(GetParam());
    const PointIndex index{points};
};
INSTANTIATE_TEST_SUITE_P(Seeds, PointIndexTest, testing::Range<std::uint64_t>(0, 32));

TEST_P(PointIndexTest, FindsTheNeighboursThatSortingAllFinds) {
    SplitMix random(GetParam() + 99);
    for (int i = 0; i < 60; ++i) {
        const Vec3f p =
            i % 2 == 0 ? points[random.nextU64() % points.size()] : randomPoint(random, 7.0f);
        const float reach = i % 3 == 0 ? 4.0f * random.nextFloat() : kInfinity;
        std::vector<Neighbor> plain = plainNearest(points, p, reach);
        std::vector<Neighbor> within;
        if (std::isfinite(reach))
            index.forEachWithin(p, reach, [&](std::uint32_t at, float d) {
                within.push_back({at, d});
            });
        else
            within = plain;
        std::sort(within.begin(), within.end());
        expectSame(within, plain);

        std::vector<Neighbor> found(1 + random.nextU64() % 20);
        found.resize(index.nearest(p, found, reach));
        Neighbor one;
        ASSERT_EQ(index.nearestOne(p, one, reach), !plain.empty());
        if (!plain.empty()) expectSame(std::span(&one, 1), std::span(plain).first(1));
        plain.resize(std::min(plain.size(), found.size()));
        expectSame(found, plain);
    }
}

TEST_P(PointIndexTest, FindsForABucketWhatItFindsForEachOfItsPoints) {
    SplitMix random(GetParam() + 7);
    std::vector<Vec3f> others(random.nextU64() % 300);
    for (Vec3f& p : others) p = randomPoint(random, 8.0f);
    if (!others.empty()) others[0] = {kNan, 0.0f, 0.0f};
    const PointIndex elsewhere(others);
    PointIndex::BucketNeighbors near;
    for (const auto& [asking, places] :
         {std::pair(&index, &points),
          std::pair<const PointIndex*, decltype(&points)>(&elsewhere, &others)})
        for (const float reach : {kInfinity, 1.5f, 0.0f}) {
            std::vector<int> asked(places->size(), 0);
            const std::size_t count = 1 + random.nextU64() % PointIndex::kMostTogether;
            for (std::size_t b = 0; b < asking->bucketCount(); ++b) {
                index.nearestToBucket(*asking, b, count, reach, near);
                for (std::size_t q = 0; q < near.points; ++q) {
                    ++asked[near.index[q]];
                    std::vector<Neighbor> plain(count);
                    plain.resize(index.nearest((*places)[near.index[q]], plain, reach));
                    expectSame(std::span(near.near[q]).first(near.found[q]), plain);
                }
            }
            for (std::size_t i = 0; i < asked.size(); ++i)
                ASSERT_EQ(asked[i], isFinite((*places)[i]) ? 1 : 0);
        }
    PointIndex().nearestToBucket(index, 0, 3, kInfinity, near);
    EXPECT_EQ(near.points, std::min(points.size(), PointIndex::kBucket));
    EXPECT_EQ(near.found[0], 0u);
    index.nearestToBucket(index, 0, 3, kNan, near);
    EXPECT_EQ(near.found[0], 0u);
}

TEST_P(PointIndexTest, GivesAllPointsWhenMoreAreAskedFor) {
    std::vector<Neighbor> found(points.size() + 10);
    EXPECT_EQ(index.nearest({}, found), points.size());
}

TEST(PointIndex, HoldsWhatIsNotFiniteWithoutFindingIt) {
    const std::vector<Vec3f> points{{kNan, 0, 0}, {1, 0, 0}, {0, kInfinity, 0}, {2, 0, 0}};
    const PointIndex index(points);
    EXPECT_EQ(index.size(), 4u);
    std::vector<Neighbor> found(4);
    ASSERT_EQ(index.nearest({}, found), 2u);
    EXPECT_EQ(found[0].index, 1u);
    EXPECT_EQ(found[1].index, 3u);
    for (const Vec3f bad : {Vec3f{kNan, 0, 0}, Vec3f{0, kInfinity, 0}})
        EXPECT_EQ(index.nearest(bad, found), 0u);
    EXPECT_EQ(index.nearest({}, found, kNan), 0u);
    EXPECT_EQ(index.nearest({}, std::span<Neighbor>()), 0u);
    EXPECT_EQ(index.nearest({}, found, 1.0f), 1u) << "at the distance counts";
    Neighbor one;
    EXPECT_FALSE(PointIndex().nearestOne({}, one));
    EXPECT_FALSE(PointIndex(std::span(points).first(1)).nearestOne({}, one));
}

}  // namespace
}  // namespace corvelle
