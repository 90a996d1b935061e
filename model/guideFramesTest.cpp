#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "model/guideFollow.h"
#include "model/hash.h"

namespace corvelle {
namespace {

std::vector<GuideFrame> framesOf(std::span<const Vec3f> points, Vec3f up) {
    std::vector<GuideFrame> frames(points.size());
    guideFrames(points, up, frames);
    return frames;
}

std::vector<Vec3f> wander(std::size_t count, std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<Vec3f> points{{random.nextRange(-50, 50), random.nextRange(-50, 50), 3}};
    while (points.size() < count) {
        const Vec3f step{random.nextRange(-1, 1), random.nextRange(-0.2f, 1),
                         random.nextRange(-1, 1)};
        points.push_back(points.back() + step);
    }
    return points;
}

void expectOrthonormal(const GuideFrame& frame) {
    EXPECT_NEAR(length(frame.T), 1.0f, 1e-6f);
    EXPECT_NEAR(length(frame.N), 1.0f, 1e-6f);
    EXPECT_NEAR(dot(frame.T, frame.N), 0.0f, 1e-6f);
    EXPECT_LT(distance(cross(frame.T, frame.N), frame.B), 1e-6f) << "not right-handed";
}

class GuideFramesTest : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, GuideFramesTest, testing::Range<std::uint64_t>(0, 30));

TEST_P(GuideFramesTest, AreOrthonormalAndLieAlongTheGuide) {
    std::vector<Vec3f> points = wander(12, GetParam());
    if (GetParam() % 3 == 1) points[5] = points[4];              // a dot
    if (GetParam() % 3 == 2) points[1] = points[2] = points[0];  // a late start
    if (GetParam() % 5 == 4) points[7] = points[5];              // a hairpin
    const std::vector<GuideFrame> frames = framesOf(points, {0.3f, 1.0f, -2.0f});
    for (const GuideFrame& frame : frames) expectOrthonormal(frame);
    if (GetParam() % 3 != 0 || GetParam() % 5 == 4) return;
    for (std::size_t i = 1; i + 1 < points.size(); ++i)
        EXPECT_LT(distance(frames[i].T, normalized(points[i + 1] - points[i - 1])), 1e-5f);
}

TEST_P(GuideFramesTest, TurnWithTheGuide) {
    const std::vector<Vec3f> points = wander(9, GetParam());
    const Vec3f up{1.0f, 0.2f, 0.1f};
    const Rotation turn =
        Rotation::about(normalized({1, 2, float(GetParam()) - 15.0f}), 0.3f * float(GetParam()));
    std::vector<Vec3f> turned;
    for (const Vec3f& point : points) turned.push_back(turn(point));
    const std::vector<GuideFrame> before = framesOf(points, up);
    const std::vector<GuideFrame> after = framesOf(turned, turn(up));
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_LT(distance(turn(before[i].N), after[i].N), 1e-3f);
        EXPECT_LT(distance(turn(before[i].T), after[i].T), 1e-3f);
    }
}

TEST(GuideFrames, DoNotTwistInAPlane) {
    std::vector<Vec3f> arc;
    for (int i = 0; i < 20; ++i) {
        const float a = 0.25f * float(i);
        arc.push_back({5.0f * std::cos(a), 5.0f * std::sin(a), 0.0f});
    }
    for (const GuideFrame& frame : framesOf(arc, {0, 0, 1}))
        EXPECT_LT(distance(frame.N, {0, 0, 1}), 1e-5f);
    for (const GuideFrame& frame :
         framesOf(std::vector<Vec3f>{{0, 0, 0}, {0, 1, 0}, {0, 3, 0}}, {1, 7, 0}))
        EXPECT_EQ(frame.N, (Vec3f{1, 0, 0}));
}

TEST(GuideFrames, HaveAnAnswerForWhatHasNoDirection) {
    const std::vector<std::vector<Vec3f>> degenerate = {
        {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}},            // a dot
        {{0, 0, 0}, {0, 1, 0}, {0, 0, 0}},            // there and back
        {{0, 0, 0}, {3e38f, 0, 0}, {-3e38f, 1, 1}},   // squares beyond 32 bits
        {{0, 0, 0}, {1e-30f, 0, 0}, {2e-30f, 0, 0}},  // squares below 32 bits
    };
    for (const std::vector<Vec3f>& points : degenerate)
        for (const Vec3f up : {Vec3f{0, 1, 0}, Vec3f{1, 0, 0}, Vec3f{}})
            for (const GuideFrame& frame : framesOf(points, up)) expectOrthonormal(frame);
}

TEST(GuideFrames, RefuseSizesThatDoNotFit) {
    const std::vector<Vec3f> points(3);
    std::vector<GuideFrame> frames(2);
    const auto message = [&](std::span<const Vec3f> given) -> std::string {
        try {
            guideFrames(given, {0, 1, 0}, frames);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(message(points), "frames: 2 for 3 points, give one per point");
    EXPECT_EQ(message({points.data(), 1}), "frames: a guide needs at least 2 points");
    EXPECT_EQ(frames[0].T, Vec3f());
}

TEST(TubeProfile, ReadsEvenlySpacedValues) {
    const std::vector<float> three = {1.0f, 3.0f, 2.0f};
    const struct {
        std::vector<float> radius;
        float share, expected;
    } rows[] = {{{}, 0.3f, 1.0f},     {{4.0f}, 0.9f, 4.0f}, {three, 0.0f, 1.0f},
                {three, 0.25f, 2.0f}, {three, 0.5f, 3.0f},  {three, 0.75f, 2.5f},
                {three, 1.0f, 2.0f},  {three, -5.0f, 1.0f}, {three, 9.0f, 2.0f}};
    for (const auto& row : rows) EXPECT_EQ(tubeProfile(row.radius, row.share), row.expected);
}

// Offsets are what files hold: their meaning is frozen.
TEST(ParentFrames, TurnsScalesAndPlacesOffsets) {
    Guide parent;
    parent.points = {{1, 0, 0}, {1, 2, 0}, {1, 4, 0}};
    parent.frameUp = {0, 0, 1};  // N = +z, B = T x N = +x
    parent.tubeRadius = {2.0f, 4.0f};
    parent.tubeTwist = std::numbers::pi_v<float>;  // a quarter turn at the middle, half at the tip
    Guide child;
    child.offsets = {{1, 0, 0}, {1, 0, 0.5f}, {0, 1, 0}};
    child.frameUpLocal = {0, 1, 0};
    const ParentFrames frames(parent, 3);
    frames.rebuild(child);
    const std::vector<Vec3f> expected = {{1, 0, 2}, {4, 2.5f, 0}, {-3, 4, 0}};
    for (std::size_t i = 0; i < 3; ++i) EXPECT_LT(distance(child.points[i], expected[i]), 1e-6f);
    EXPECT_EQ(child.frameUp, (Vec3f{1, 0, 0}));
    frames.capturePoints(child);
    EXPECT_LT(distance(child.rootLocal, {2, 0, 0}), 1e-6f) << "in (N, B, T), not divided";
}

TEST(ParentFrames, KeepsPointsOfATubeWithoutWidthFinite) {
    Guide parent;
    parent.points = {{0, 0, 0}, {0, 1, 0}};
    parent.frameUp = {1, 0, 0};
    parent.tubeRadius = {0.0f};
    Guide child;
    child.points = {{1, 0, 0}, {1, 1, 0}};
    const ParentFrames frames(parent, 2);
    frames.capturePoints(child);
    EXPECT_TRUE(allFinite(child.offsets));
    frames.rebuild(child);
    EXPECT_EQ(child.points[1], parent.points[1]) << "no width: followers lie on the parent";
}

}  // namespace
}  // namespace corvelle
