#include <cmath>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "session/scalpFollow.h"

namespace corvelle {
namespace {

std::vector<Vec3f> mapped(std::span<const Vec3f> points, auto&& map) {
    std::vector<Vec3f> out;
    for (const Vec3f& p : points) out.push_back(map(p));
    return out;
}

Vec3f turnedAboutY(Vec3f p) { return {0.6f * p.x + 0.8f * p.z, p.y, -0.8f * p.x + 0.6f * p.z}; }

class ScalpFollowTest : public testing::TestWithParam<std::uint64_t> {
protected:
    ScalpFollowTest() {
        StrandSet set = makeTuft({.strands = 900,
                                  .pointsPerStrand = 6,
                                  .seed = GetParam(),
                                  .uneven = true,
                                  .triangles = int(rest->triangles().size())});
        const char* names[] = {"vaneNormalX", "vaneNormalY", "vaneNormalZ"};
        for (int axis = 0; axis < 3; ++axis) {
            auto perStrand = set.mutableStrandChannel(names[axis], 0.0f);
            std::fill(perStrand.begin(), perStrand.end(), axis == 0 ? 1.0f : 0.0f);
            auto perPoint = set.mutablePointChannel(names[axis], 0.0f);
            std::fill(perPoint.begin(), perPoint.end(), axis == 2 ? 1.0f : 0.0f);
        }
        set.mutableRoots()[5] = StrandRoot{};               // unrooted
        set.mutableRoots()[6] = StrandRoot{1 << 20, 0, 0};  // of another mesh
        strands = std::make_shared<const StrandSet>(std::move(set));
    }
    const ScalpPtr rest = std::make_shared<const ScalpMesh>(makeSphere(8, 12, 10.0f));
    StrandsPtr strands;
};
INSTANTIATE_TEST_SUITE_P(Seeds, ScalpFollowTest, testing::Range<std::uint64_t>(0, 5));

TEST_P(ScalpFollowTest, AnUnmovedScalpKeepsEveryBit) {
    const StrandsPtr out = deformToScalp(
        strands, *rest, *rest->withPoints({rest->points().begin(), rest->points().end()}));
    EXPECT_EQ(out->contentHash(), strands->contentHash());
    EXPECT_TRUE(out->sharesWidths(*strands) && out->sharesIds(*strands) &&
                out->sharesOffsets(*strands));
    EXPECT_EQ(deformToScalp(nullptr, *rest, *rest), nullptr);
    const auto none = std::make_shared<const StrandSet>();
    EXPECT_EQ(deformToScalp(none, *rest, *rest), none);
}

TEST_P(ScalpFollowTest, ARigidMotionMovesTheHairRigidly) {
    const auto motion = [](Vec3f p) { return turnedAboutY(p) + Vec3f{3.0f, -2.0f, 7.0f}; };
    const ScalpPtr now = rest->withPoints(mapped(rest->points(), motion));
    const StrandsPtr out = deformToScalp(strands, *rest, *now);
    float worst = 0.0f;
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        const bool rooted = s != 5 && s != 6;
        for (std::size_t i = 0; i < out->pointCountOf(s); ++i) {
            const Vec3f from = strands->pointsOf(s)[i];
            worst = std::max(worst, length(out->pointsOf(s)[i] - (rooted ? motion(from) : from)));
        }
    }
    EXPECT_LT(worst, 1e-3f);
    // Vane normals turn along: x becomes (0.6, 0, -0.8), z becomes (0.8, 0, 0.6).
    EXPECT_NEAR((*out->strandChannel("vaneNormalX"))[0], 0.6f, 1e-4f);
    EXPECT_NEAR((*out->strandChannel("vaneNormalZ"))[0], -0.8f, 1e-4f);
    EXPECT_NEAR((*out->pointChannel("vaneNormalX"))[0], 0.8f, 1e-4f);
    EXPECT_EQ((*out->strandChannel("vaneNormalX"))[5], 1.0f);
    EXPECT_EQ((*out->strandChannel("tone")), *strands->strandChannel("tone"));
}

TEST_P(ScalpFollowTest, ThereAndBackIsWhereItWas) {
    const ScalpPtr now = rest->withPoints(jitteredPoints(*rest, 0.8f, GetParam()));
    const StrandsPtr there = deformToScalp(strands, *rest, *now),
                     back = deformToScalp(there, *now, *rest);
    float moved = 0.0f, off = 0.0f;
    for (std::size_t i = 0; i < strands->pointCount(); ++i) {
        moved = std::max(moved, length(there->points()[i] - strands->points()[i]));
        off = std::max(off, length(back->points()[i] - strands->points()[i]));
    }
    EXPECT_GT(moved, 0.5f) << "too easy to prove anything";
    EXPECT_LT(off, 2e-3f);
    // Segment lengths are kept: the motion of a strand is rigid.
    for (std::size_t s = 0; s < strands->strandCount(); ++s)
        for (std::size_t i = 1; i < strands->pointCountOf(s); ++i)
            EXPECT_NEAR(length(there->pointsOf(s)[i] - there->pointsOf(s)[i - 1]),
                        length(strands->pointsOf(s)[i] - strands->pointsOf(s)[i - 1]), 2e-4f);
}

TEST_P(ScalpFollowTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    const ScalpPtr now = rest->withPoints(jitteredPoints(*rest, 0.5f, GetParam()));
    std::uint64_t one = 0, many = 0;
    runWithThreads(1, [&] { one = deformToScalp(strands, *rest, *now)->contentHash(); });
    runWithThreads(8, [&] { many = deformToScalp(strands, *rest, *now)->contentHash(); });
    EXPECT_EQ(one, many);
}

TEST_P(ScalpFollowTest, KeepsTheFourNewestDeformations) {
    ScalpFollow follow;
    follow.following = true;
    follow.restScalp = rest;
    std::vector<ScalpPtr> scalps;
    std::vector<StrandsPtr> results;
    for (std::uint64_t i = 0; i < 4; ++i) {
        scalps.push_back(rest->withPoints(jitteredPoints(*rest, 0.3f, i)));
        results.push_back(follow.deformed(strands, follow.restScalp, scalps.back()));
    }
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(follow.deformed(strands, follow.restScalp, scalps[i]), results[i]) << i;
    follow.deformed(strands, follow.restScalp, rest->withPoints(jitteredPoints(*rest, 0.3f, 9)));  // the oldest goes: 0
    EXPECT_EQ(follow.deformed(strands, follow.restScalp, scalps[1]), results[1]);
    EXPECT_NE(follow.deformed(strands, follow.restScalp, scalps[0]), results[0]);
    follow.following = false;
    EXPECT_EQ(follow.deformed(strands, follow.restScalp, scalps[0]), strands);
}

TEST_P(ScalpFollowTest, GuidesAreRootedAtTheClosestPointAndCarriedAlike) {
    SplitMix random(GetParam());
    std::vector<GuideCurve> curves(40);
    for (std::size_t g = 0; g < curves.size(); ++g) {
        curves[g].id = 100 - g;
        const Vec3f d{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(0.1f, 1)};
        for (int i = 0; i < 4; ++i) curves[g].points.push_back(normalized(d) * (10.0f + float(i)));
    }
    const GuidesPtr rooted = rerootGuides(std::make_shared<const GuideSet>(curves), *rest);
    for (std::size_t g = 0; g < rooted->size(); ++g) {
        ASSERT_TRUE(rest->validRoot(rooted->roots()[g]));
        SurfaceHit hit;
        ASSERT_TRUE(rest->closestPoint(rooted->pointsOf(g).front(), ScalpMesh::kAnyDistance, hit));
        EXPECT_LT(length(rest->surfacePoint(rooted->roots()[g]) - hit.position), 1e-4f);
        EXPECT_TRUE(std::ranges::equal(rooted->pointsOf(g), curves[g].points));
    }
    EXPECT_EQ(*deformGuides(rooted, *rest, *rest), *rooted);
    const auto up = [](Vec3f p) { return p + Vec3f{0, 5, 0}; };
    const ScalpPtr now = rest->withPoints(mapped(rest->points(), up));
    const GuidesPtr carried = deformGuides(rooted, *rest, *now);
    for (std::size_t i = 0; i < carried->points().size(); ++i)
        EXPECT_LT(length(carried->points()[i] - up(rooted->points()[i])), 1e-3f);
    // A mesh without triangles roots nothing.
    const GuidesPtr bare = rerootGuides(rooted, ScalpMesh({{0, 0, 0}}, {}));
    EXPECT_EQ(bare->roots()[0].triangle, -1);
    EXPECT_EQ(rerootGuides(nullptr, *rest), nullptr);
}

}  // namespace
}  // namespace corvelle
