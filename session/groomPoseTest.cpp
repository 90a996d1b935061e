// A session's groom as its scalp moves: following, the pose of the hierarchy, several scalps.

#include "session/groomSessionFixture.h"

namespace corvelle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- following
// -----------------------------------------------------------------------------------

class FollowingTest : public GroomSessionTest {
protected:
    FollowingTest() : GroomSessionTest(1.0, true) { groom.setFollowScalp(true); }
    void move(Vec3f by) { groom.updateScalpPoints(shifted(scalp->restPoints(), by), std::nullopt); }
};

TEST_F(FollowingTest, GrowsOnceAndDeforms) {
    groom.setRestGuides(groom.document().guides);
    groom.evaluate(kPreview);
    EXPECT_FALSE(groom.following()) << "at rest there is nothing to follow";
    const StrandsPtr rest = groom.result().strands;
    move({5, 0, 0});
    EXPECT_EQ(evaluatedBy(groom), 0u) << "the rest state is the one just grown";
    EXPECT_TRUE(groom.result().following);
    EXPECT_EQ(groom.result().rawStrands, rest);
    const EvaluationResult moved = groom.result();
    for (std::size_t i = 0; i < rest->pointCount(); ++i)
        EXPECT_LT(length(moved.strands->points()[i] - rest->points()[i] - Vec3f{5, 0, 0}), 1e-3f);

    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands == moved.strands) << "the same deformation object";
    EXPECT_EQ(groom.result().serial, moved.serial);
    ASSERT_TRUE(groom.result().changes);
    EXPECT_THAT(groom.result().changes->strands, IsEmpty());

    move({0, 7, 0});
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_FALSE(groom.result().changes) << "the scalp moved: everything did";
    EXPECT_GT(groom.result().serial, moved.serial);
    move({5, 0, 0});
    groom.evaluate(kPreview);
    EXPECT_TRUE(std::ranges::equal(groom.result().strands->points(), moved.strands->points()));
    groom.updateScalpPoints({scalp->restPoints().begin(), scalp->restPoints().end()}, std::nullopt);
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands == rest);
    EXPECT_FALSE(groom.result().rawStrands);
}

TEST_F(FollowingTest, AGuideEditWhileFollowingStatesItsChanges) {
    move({0, 3, 0});
    groom.setRestGuides(makeGuides(*scalp, 40));
    groom.evaluate(kPreview);
    const EvaluationResult before = groom.result();
    groom.setRestGuides(makeGuides(*scalp, 40, 12, 0.4f));
    groom.evaluate(kPreview);
    const EvaluationResult& now = groom.result();
    ASSERT_TRUE(now.changes && !now.changes->all);
    EXPECT_FALSE(now.changes->strands.empty());
    EXPECT_LT(now.changes->strands.size(), now.strands->strandCount());
    EXPECT_EQ(now.changesBase, before.serial);
}

TEST_F(FollowingTest, FlatGuidesOfTheCurrentPoseAreCarriedBack) {
    groom.evaluate(kPreview);
    const std::uint64_t rest = contentOf(groom);
    const ScalpPtr there = scalp->withPoints(shifted(scalp->points(), {64, 0, 0}));
    groom.setScalp(there);
    groom.setGuides(deformGuides(makeGuides(*scalp, 40), *scalp, *there));
    groom.evaluate(kPreview);
    ASSERT_TRUE(groom.result().following);
    ASSERT_NE(rest, 0u);
    const auto carried = groom.evaluationData().flatGuides->points();
    const GuidesPtr wanted = makeGuides(*scalp, 40);
    for (std::size_t i = 0; i < carried.size(); ++i)
        EXPECT_LT(length(carried[i] - wanted->points()[i]), 1e-4f);
    const GuidesPtr first = groom.evaluationData().flatGuides;
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.evaluationData().flatGuides, first) << "made once";
}

TEST_F(FollowingTest, AScalpWithoutARestPoseIsToldOnce) {
    groom.setScalp(sphere(false));
    groom.updateScalpPoints(shifted(scalp->points(), {1, 0, 0}), std::nullopt);
    const EvaluationMessage told{
        "followScalp: the scalp has no rest pose (give the groom a rest mesh); the groom evaluates "
        "on the "
        "scalp as it is",
        false};
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().messages, ElementsAre(told));
    EXPECT_THAT(groom.result().errors, IsEmpty());
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().messages, IsEmpty());
    EXPECT_FALSE(groom.following());
    groom.setScalp(scalp);  // a rest pose, and away from it
    move({2, 0, 0});
    groom.evaluate(kPreview);
    EXPECT_TRUE(groom.following());
    groom.setScalp(sphere(false));
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().messages, ElementsAre(told)) << "a new loss is told again";
}

// ---- the hierarchy's pose
// ------------------------------------------------------------------------

TEST_F(GroomSessionTest, TheHierarchyRidesFromItsBindPoseAndComesHomeBitForBit) {
    groom.setHierarchy(makeHierarchy(*scalp, {.seed = 4}));
    const std::string home = guidesToJson(*groom.activeHierarchy());
    EXPECT_EQ(groom.activeHierarchy(), groom.hierarchy()) << "no arithmetic at all";
    groom.updateScalpPoints(shifted(scalp->points(), {0, 6, 0}), std::nullopt);
    const auto active = groom.activeHierarchy();
    EXPECT_EQ(groom.activeHierarchy(), active) << "cached";
    EXPECT_EQ(guidesToJson(*groom.hierarchy()), home) << "the document did not move";
    for (std::size_t g = 0; g < active->size(); ++g)
        for (std::size_t i = 0; i < active->guides()[g]->points.size(); ++i)
            EXPECT_LT(length(active->guides()[g]->points[i] -
                             groom.hierarchy()->guides()[g]->points[i] - Vec3f{0, 6, 0}),
                      2e-3f);
    groom.evaluate(kPreview);
    const std::uint64_t revision = groom.result().guideRevision;
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.result().guideRevision, revision);
    groom.setScalp(sphere());
    EXPECT_EQ(guidesToJson(*groom.activeHierarchy()), home);
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.result().guideRevision, revision + 1);

    // What is set lies as the scalp is now, unless its pose is given.
    const ScalpPtr there = scalp->withPoints(shifted(scalp->points(), {3, 0, 0}));
    groom.setScalp(there);
    groom.setHierarchy(makeHierarchy(*there, {.seed = 5}));
    EXPECT_EQ(groom.activeHierarchy(), groom.hierarchy());
    groom.setHierarchy(makeHierarchy(*scalp, {.seed = 6}), scalp);
    EXPECT_EQ(groom.hierarchyPose(), scalp);
    EXPECT_NE(groom.activeHierarchy(), groom.hierarchy());
}

TEST_F(GroomSessionTest, WithRestPointsTheHierarchyIsInTheRestPose) {
    groom.setHierarchy(makeHierarchy(*scalp, {.seed = 1}));
    const auto before = groom.hierarchy();
    // The scalp gets a rest pose that lies elsewhere: the document's guides go there.
    const std::vector<Vec3f> rest = shifted(scalp->points(), {0, 0, 8});
    groom.updateScalpPoints({scalp->points().begin(), scalp->points().end()}, rest);
    EXPECT_TRUE(std::ranges::equal(groom.hierarchyPose()->points(), rest));
    for (std::size_t g = 0; g < before->size(); ++g) {
        EXPECT_LT(length(groom.hierarchy()->guides()[g]->points[1] -
                         before->guides()[g]->points[1] - Vec3f{0, 0, 8}),
                  2e-3f);
        EXPECT_LT(length(groom.activeHierarchy()->guides()[g]->points[1] -
                         before->guides()[g]->points[1]),
                  4e-3f);
    }
}

TEST_F(GroomSessionTest, OtherTrianglesRootTheHierarchyAgainAndSaySoOnce) {
    groom.setHierarchy(makeHierarchy(*scalp, {}));
    EXPECT_FALSE(groom.hierarchyStale());
    groom.evaluate(kPreview);
    const auto before = groom.hierarchy();
    const ScalpPtr other = std::make_shared<const ScalpMesh>(makeIcosphere(3, 10.0f));
    groom.setScalp(other);
    EXPECT_FALSE(groom.hierarchyStale());
    EXPECT_EQ(groom.hierarchy()->scalpTopology(), other->topologyHash());
    EXPECT_EQ(groom.activeHierarchy(), groom.hierarchy());
    for (std::size_t g = 0; g < before->size(); ++g) {
        const Guide& guide = *groom.hierarchy()->guides()[g];
        EXPECT_TRUE(other->validRoot(guide.root));
        if (guide.parent == 0) {
            EXPECT_EQ(guide.points, before->guides()[g]->points) << "points stay";
        }
    }
    const EvaluationMessage told{
        "the scalp's vertex order or triangles differ from the groom's: strands are rooted again "
        "by position",
        false};
    // A detached evaluation in between does not swallow what is to be told.
    ASSERT_TRUE(groom.startDetachedEvaluation(kPreview));
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().messages, ElementsAre(told));
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().messages, IsEmpty());
}

TEST_F(GroomSessionTest, ANonEmptyFlatListWinsAndTheHierarchyStepsIn) {
    groom.setHierarchy(makeHierarchy(*scalp, {}));
    groom.evaluate(kPreview);
    const std::uint64_t flat = contentOf(groom);
    groom.setGuides(std::make_shared<const GuideSet>());
    EXPECT_FALSE(groom.document().guides);
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().errors, IsEmpty());
    EXPECT_NE(contentOf(groom), flat);
    groom.setGuides(makeGuides(*scalp, 40));
    groom.evaluate(kPreview);
    EXPECT_EQ(contentOf(groom), flat);
}

// ---- several scalps
// ------------------------------------------------------------------------------

TEST(SeveralScalps, AreOneMeshOwnFirst) {
    GroomFile file;
    file.scalp = sphere(true);
    file.scalps = {{"beard", std::make_shared<const ScalpMesh>(makePlane(4, 4, 6.0f))},
                   {"brow", std::make_shared<const ScalpMesh>(makeIcosphere(1, 2.0f))}};
    file.graph = chainOf({"scalp", "scatter"}, 5.0);
    GroomSession groom(file);
    const ScalpPtr whole = groom.evaluationScalp();
    EXPECT_EQ(groom.evaluationScalp(), whole);
    ASSERT_EQ(whole->scalps().size(), 3u);
    EXPECT_EQ(whole->scalps()[0].name, "scalp");
    EXPECT_EQ(whole->scalps()[2].firstTriangle, file.scalp->triangles().size() + 32);
    EXPECT_TRUE(std::ranges::equal(whole->triangles().first(file.scalp->triangles().size()),
                                   file.scalp->triangles()));
    EXPECT_EQ(whole->restPoints().size(), whole->points().size());
    EXPECT_EQ(whole->uvs().size(), 3 * whole->triangles().size());

    groom.evaluate(kPreview);
    for (const StrandRoot& root : groom.result().strands->roots())
        EXPECT_LT(std::size_t(root.triangle), file.scalp->triangles().size());
    setParam(groom, "scalp", "input", "beard");
    groom.evaluate(kPreview);
    ASSERT_GT(groom.result().strands->strandCount(), 100u);
    for (const StrandRoot& root : groom.result().strands->roots()) {
        EXPECT_GE(std::size_t(root.triangle), whole->scalps()[1].firstTriangle);
        EXPECT_LT(std::size_t(root.triangle), whole->scalps()[2].firstTriangle);
    }
    setParam(groom, "scalp", "input", "tail");
    groom.evaluate(kPreview);
    EXPECT_THAT(
        groom.result().errors,
        ElementsAre(HasSubstr("Scalp: no scalp named 'tail' on this groom: nothing to grow on")));

    // Both poses of a following groom are assembled once, not anew each frame.
    setParam(groom, "scalp", "input", "scalp");
    groom.setFollowScalp(true);
    groom.updateScalpPoints(shifted(file.scalp->points(), {1, 0, 0}), std::nullopt);
    groom.evaluate(kPreview);
    const ScalpPtr rest = groom.evaluationData().scalp,
                   current = groom.evaluationData().currentScalp;
    EXPECT_NE(rest, current);
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.evaluationData().scalp, rest);
    EXPECT_EQ(groom.evaluationData().currentScalp, current);
}

}  // namespace
}  // namespace corvelle
