#include <vector>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"

namespace corvelle {
namespace {

std::vector<Vec3f> randomPolyline(std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<Vec3f> points(1 + random.nextU64() % 12);
    Vec3f at{};
    for (Vec3f& p : points) {
        if (random.nextFloat() > 0.2f)  // else a doubled point
            at += {random.nextRange(-1, 1), random.nextRange(0, 2), random.nextRange(-1, 1)};
        p = at;
    }
    return points;
}

class Polyline : public testing::TestWithParam<std::uint64_t> {
protected:
    const std::vector<Vec3f> points = randomPolyline(GetParam());
    const float total = polylineLength(points);
};
INSTANTIATE_TEST_SUITE_P(Seeds, Polyline, testing::Range<std::uint64_t>(0, 60));

TEST_P(Polyline, LengthsAndSharesClimbFromRootToTip) {
    std::vector<float> lengths(points.size()), shares(points.size());
    polylineLengths(points, lengths);
    polylineShares(points, shares);
    EXPECT_EQ(lengths.front(), 0.0f);
    EXPECT_EQ(lengths.back(), total);
    EXPECT_EQ(shares.front(), 0.0f);
    if (points.size() > 1) {
        EXPECT_EQ(shares.back(), 1.0f);
    }
    for (std::size_t i = 1; i < points.size(); ++i) {
        EXPECT_GE(shares[i], shares[i - 1]);
        if (total > 0) {
            EXPECT_NEAR(shares[i] * total, lengths[i], 1e-5f * total);
        }
    }
}

TEST_P(Polyline, ResamplesOntoTheLineEvenlyByLength) {
    for (const std::size_t count : {2u, 3u, 17u, 200u}) {
        std::vector<Vec3f> out(count);
        resamplePolyline(points, out);
        EXPECT_EQ(out.front(), points.front());
        EXPECT_EQ(out.back(), points.back());
        const float step = total / float(count - 1);
        for (std::size_t i = 1; i < count; ++i)
            EXPECT_LE(distance(out[i - 1], out[i]), step * 1.001f + 1e-5f);
        if (count == 200) {
            EXPECT_NEAR(polylineLength(out), total, 0.05f * total);
        }
    }
}

TEST_P(Polyline, ResamplesAFractionAsACutOfTheWhole) {
    std::vector<Vec3f> whole(9), half(5);
    resamplePolyline(points, whole);
    resamplePolyline(points, half, 0.5f);
    for (std::size_t i = 0; i < half.size(); ++i) EXPECT_LE(distance(whole[i], half[i]), 1e-5f);
    std::vector<Vec3f> none(4);
    resamplePolyline(points, none, 0.0f);
    for (const Vec3f p : none) EXPECT_LE(distance(p, points.front()), 1e-6f);
}

TEST_P(Polyline, CatmullRomPassesThroughEveryPoint) {
    for (const int samples : {1, 4, 7}) {
        std::vector<Vec3f> out((points.size() - 1) * std::size_t(samples) + 1);
        catmullRom(points, samples, out);
        for (std::size_t i = 0; i < points.size(); ++i)
            EXPECT_EQ(out[i * std::size_t(samples)], points[i]);
        for (const Vec3f p : out) EXPECT_TRUE(isFinite(p));
        // Centripetal: the curve never strays far, however uneven the points.
        EXPECT_LE(polylineLength(out), 1.6f * total + 1e-5f);
    }
}

TEST(PolylineEdges, NoLengthIsReadByIndex) {
    const std::vector<Vec3f> same(4, Vec3f{1, 2, 3});
    std::vector<float> shares(4);
    polylineShares(same, shares);
    EXPECT_EQ(shares, (std::vector<float>{0.0f, 1.0f / 3.0f, 2.0f / 3.0f, 1.0f}));
    std::vector<Vec3f> out(7);
    resamplePolyline(same, out);
    for (const Vec3f p : out) EXPECT_EQ(p, same[0]);
    const std::vector<Vec3f> one = {{4, 5, 6}};
    resamplePolyline(one, out);
    for (const Vec3f p : out) EXPECT_EQ(p, one[0]);
    EXPECT_EQ(polylineLength({}), 0.0f);
}

TEST(PolylineEdges, AStraightLineStaysStraightAndEven) {
    const std::vector<Vec3f> line = {{0, 0, 0}, {0, 1, 0}, {0, 4, 0}};
    std::vector<Vec3f> out(5);
    resamplePolyline(line, out);
    for (std::size_t i = 0; i < 5; ++i) EXPECT_LE(distance(out[i], {0, float(i), 0}), 1e-6f);
    std::vector<Vec3f> curve(9);
    catmullRom(line, 4, curve);
    for (std::size_t i = 1; i < 9; ++i) {
        EXPECT_EQ(curve[i].x, 0.0f);
        EXPECT_GT(curve[i].y, curve[i - 1].y);
    }
    std::vector<Vec3f> two(5);
    catmullRom(std::span(line).first(2), 4, two);
    for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(two[i], (Vec3f{0, 0.25f * float(i), 0}));
}

TEST(PolylineEdges, RefusesSizesThatDoNotFit) {
    const std::vector<Vec3f> line = {{0, 0, 0}, {0, 1, 0}};
    std::vector<Vec3f> out(3);
    std::vector<float> values(3);
    EXPECT_THROW(catmullRom(line, 4, out), std::invalid_argument);
    EXPECT_THROW(catmullRom(line, 0, out), std::invalid_argument);
    EXPECT_THROW(polylineShares(line, values), std::invalid_argument);
    EXPECT_THROW(resamplePolyline({}, out), std::invalid_argument);
}

}  // namespace
}  // namespace corvelle
