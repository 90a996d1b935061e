#include <cmath>

#include <gtest/gtest.h>

#include "model/guideHierarchyFixture.h"

namespace corvelle {
namespace {

using GuideOperationsTest = GuideHierarchyFixture;
INSTANTIATE_TEST_SUITE_P(Seeds, GuideOperationsTest, testing::Range<std::uint64_t>(0, 12));

// Children

TEST(GenerateChildren, KeepsTheIdsThatGroomsDependOn) {
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    guides.addGuide(hair, {}, {{0, 0, 0}, {0, 1, 0}}, 1);
    guides.addGuide(hair, {}, {{5, 0, 0}, {5, 1, 0}}, 2);
    guides.generateChildren(hair, "fine", {.count = 2, .seed = 7}, nullptr, nullptr);
    std::vector<std::uint64_t> ids;
    for (const GuidePtr& guide : inGroup(guides, "fine")) ids.push_back(guide->id);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{0x357dd34f58eda9a2u, 0xa059e50940e2fcc0u,
                                               0xde586a96c0fca1d7u, 0xb5cfbe86287b3962u}));
    const Vec3f at = guides.guide(ids[0])->offsets[0];
    EXPECT_NEAR(at.x, 0.371189f, 1e-5f);
    EXPECT_NEAR(at.y, 0.755245f, 1e-5f);
    EXPECT_EQ(at.z, 0.0f);
}

TEST_P(GuideOperationsTest, GeneratesTheSameChildrenAgainAndTheirOwnForEachParent) {
    const std::uint32_t brow = idOf(made, "brow");
    const ChildSettings settings{.count = 5, .twist = 1.0f, .jitter = 0.3f, .seed = GetParam()};
    GuideHierarchy all = made, again = made, one = made;
    all.generateChildren(brow, "brow_children", settings, nullptr, &scalp);
    again.generateChildren(brow, "brow_children", settings, nullptr, &scalp);
    again.generateChildren(brow, "brow_children", settings, nullptr, &scalp);
    EXPECT_EQ(guidesToJson(again), guidesToJson(all));
    const std::vector<std::uint64_t> chosen = {inGroup(made, "brow")[2]->id};
    one.generateChildren(brow, "brow_children", settings, &chosen, &scalp);
    ASSERT_EQ(inGroup(one, "brow_children").size(), 5u);
    for (const GuidePtr& child : inGroup(one, "brow_children")) {
        ASSERT_TRUE(all.guide(child->id));
        EXPECT_EQ(all.guide(child->id)->contentHash, child->contentHash);
    }
    const GuideHierarchy before = all;
    all.generateChildren(brow, "brow_children", {.count = 0}, nullptr, &scalp);
    EXPECT_TRUE(inGroup(all, "brow_children").empty());
    EXPECT_EQ(all.size(), made.size());
    expectSound(before);
}

TEST_P(GuideOperationsTest, PutsChildrenInsideTheTubeAndOnTheScalp) {
    const std::uint32_t brow = idOf(made, "brow");
    GuideHierarchy free = made, rooted = made;
    const ChildSettings settings{.count = 40, .tipSpread = 0.5f, .seed = GetParam()};
    free.generateChildren(brow, "c", settings, nullptr, nullptr);
    rooted.generateChildren(brow, "c", settings, nullptr, &scalp);
    double sum = 0.0;
    for (const GuidePtr& child : inGroup(free, "c")) {
        const std::vector<Vec3f>& offsets = child->offsets;
        const float reach = std::hypot(offsets.front().x, offsets.front().y);
        EXPECT_LE(reach, 1.0f);
        EXPECT_NEAR(std::hypot(offsets.back().x, offsets.back().y), 0.5f * reach, 1e-5f);
        EXPECT_FALSE(child->root.rooted());
        sum += double(reach) * reach;

        const GuidePtr on = rooted.guide(child->id);
        SurfaceHit hit;
        ASSERT_TRUE(scalp.closestPoint(on->points.front(), ScalpMesh::kAnyDistance, hit));
        EXPECT_LT(hit.distance, 1e-4f);
        EXPECT_LT(distance(scalp.surfacePoint(on->root), on->points.front()), 1e-4f);
        EXPECT_LT(distance(on->points.back(), child->points.back()), 1e-5f) << "tips stay";
        EXPECT_EQ(on->attributes.count("stiff"), 1u);
    }
    // Even over the disc: r^2 is uniform.
    const auto count = double(inGroup(free, "c").size());
    EXPECT_NEAR(sum / count, 0.5, 0.1);
}

TEST_P(GuideOperationsTest, RefillsAroundLockedChildrenAndKeepsTheirFollowers) {
    GuideHierarchy guides = made;
    std::size_t locked = 0, grandchildren = 0;
    guides.generateChildren(
        idOf(made, "hair"), "hair_1",
        {.count = 3, .tipSpread = 1.5f, .twist = 0.7f, .jitter = 0.4f, .seed = GetParam() + 1},
        nullptr, &scalp);
    for (const GuidePtr& child : inGroup(made, "hair_1")) {
        if (!child->locked) continue;
        EXPECT_EQ(guides.guide(child->id), child);
        ++locked;
    }
    EXPECT_GT(locked, 0u);
    EXPECT_EQ(inGroup(guides, "hair_1").size(), inGroup(made, "hair_1").size() + locked);
    // The seed is that of before, so the same children came back: what hangs off them stayed.
    EXPECT_EQ(inGroup(guides, "hair_2").size(), inGroup(made, "hair_2").size());
    guides.generateChildren(idOf(made, "hair"), "hair_1", {.count = 1, .seed = 999}, nullptr,
                            &scalp);
    for (const GuidePtr& guide : inGroup(guides, "hair_2")) {
        ASSERT_TRUE(guides.guide(guide->parent));
        EXPECT_TRUE(guides.guide(guide->parent)->locked);
        ++grandchildren;
    }
    EXPECT_GT(grandchildren, 0u);
    expectSound(guides);
}

// Mirror

TEST_P(GuideOperationsTest, MirrorsEachSideIntoTheOther) {
    GuideHierarchy once = made;
    const int axis = int(GetParam() % 3);
    const bool positive = GetParam() % 2 == 0;
    once.mirrorAll(axis, 0.0f, positive, nullptr);
    std::size_t sources = 0, copies = 0;
    const std::uint64_t firstCopy = made.nextGuideId();
    for (const GuidePtr& guide : once.guides()) {
        if (guide->parent != 0) continue;
        EXPECT_EQ((guide->points.front()[axis] > 0.0f) == positive,
                  made.guide(guide->id) != nullptr);
        (made.guide(guide->id) ? sources : copies) += 1;
    }
    EXPECT_GT(sources, 2u);
    EXPECT_EQ(copies, sources);
    // Copies stand in the order of their sources, a level at a time: match by reflected points.
    std::size_t matched = 0;
    for (const GuidePtr& copy : once.guides()) {
        if (made.guide(copy->id)) continue;
        EXPECT_GE(copy->id, firstCopy);
        for (const GuidePtr& source : made.guides()) {
            if (source->group != copy->group || source->points.size() != copy->points.size())
                continue;
            std::vector<Vec3f> reflected = source->points;
            for (Vec3f& point : reflected) point[axis] = -point[axis];
            if (farthest(reflected, copy->points) > 2e-4f) continue;
            EXPECT_EQ(copy->tubeTwist, -source->tubeTwist);
            EXPECT_EQ(copy->locked, source->locked);
            ++matched;
            break;
        }
    }
    EXPECT_EQ(matched, once.size() / 2) << "followers too are where the reflection puts them";
    expectSound(once);

    GuideHierarchy twice = once;
    twice.mirrorAll(axis, 0.0f, positive, nullptr);
    ASSERT_EQ(twice.size(), once.size());
    for (std::size_t i = 0; i < once.size(); ++i)
        EXPECT_EQ(twice.guides()[i]->points, once.guides()[i]->points) << "the same but for ids";
}

TEST_P(GuideOperationsTest, PutsMirroredRootsOnTheScalp) {
    GuideHierarchy guides = made;
    guides.mirrorGroup(idOf(made, "hair"), 2, 0.5f, false, &scalp);
    std::size_t copies = 0;
    for (const GuidePtr& guide : inGroup(guides, "hair")) {
        if (made.guide(guide->id)) continue;
        EXPECT_LT(distance(scalp.surfacePoint(guide->root), guide->points.front()), 1e-4f);
        ++copies;
    }
    EXPECT_GT(copies, 0u);
    EXPECT_EQ(inGroup(guides, "brow").size(), inGroup(made, "brow").size()) << "another group";
    for (const GuidePtr& guide : guides.guides()) {
        EXPECT_TRUE(guide->parent == 0 || made.guide(guide->id)) << "no children of copies";
        EXPECT_TRUE(guide->parent == 0 || guides.guide(guide->parent));
    }
    expectSound(guides);
}

TEST(Mirror, LeavesGuidesOnThePlane) {
    const ScalpMesh plane = makePlane(10, 10, 10.0f);
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    for (const float x : {-2.0f, -0.001f, 0.0f, 0.0014f, 0.002f, 3.0f}) {
        SurfaceHit hit;
        ASSERT_TRUE(plane.closestPoint({x, 0, 1}, ScalpMesh::kAnyDistance, hit));
        guides.addGuide(hair, hit.root(), {{x, 0, 1}, {x, 1, 1}}, 0, &plane);
    }
    guides.mirrorAll(0, 0.0f, true, &plane);  // the diagonal is 14.1
    std::vector<std::uint64_t> ids;
    for (const GuidePtr& guide : guides.guides()) ids.push_back(guide->id);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{2, 3, 4, 5, 6, 7, 8}));
    EXPECT_NEAR(guides.guide(8)->points[1].x, -3.0f, 1e-5f);
}

// Poses and scalps

TEST_P(GuideOperationsTest, DeformsThereAndBack) {
    const ScalpPtr bent = posed(scalp, GetParam());
    const GuideHierarchy there = made.deformed(scalp, *bent);
    const GuideHierarchy back = there.deformed(*bent, scalp);
    for (const GuidePtr& before : made.guides()) {
        const GuidePtr after = there.guide(before->id), again = back.guide(before->id);
        EXPECT_GT(farthest(after->points, before->points), 0.1f) << "an easy pose proves nothing";
        EXPECT_LT(farthest(again->points, before->points), 2e-4f);
        EXPECT_LT(distance(again->frameUp, before->frameUp), 1e-4f);
        EXPECT_EQ(after->root, before->root);
        if (!before->follows()) {
            EXPECT_LT(distance(after->points.front(), bent->surfacePoint(before->root)), 1e-3f);
        }
    }
    expectSound(there);
}

TEST_P(GuideOperationsTest, DeformsNothingWhereThePoseIsTheSame) {
    const ScalpPtr same = scalp.withPoints({scalp.points().begin(), scalp.points().end()});
    const GuideHierarchy after = made.deformed(scalp, *same);
    for (std::size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(after.guides()[i], made.guides()[i]) << "not even copied";
    EXPECT_EQ(guidesToJson(after), guidesToJson(made));
}

TEST_P(GuideOperationsTest, TransfersToTheSameTrianglesByCarrying) {
    const ScalpPtr bent = posed(scalp, GetParam());
    GuideHierarchy guides = made;
    guides.transfer(&scalp, *bent, {});
    const GuideHierarchy deformed = made.deformed(scalp, *bent);
    for (const GuidePtr& guide : deformed.guides()) {
        EXPECT_LT(farthest(guides.guide(guide->id)->points, guide->points), 1e-5f);
        if (!guide->follows()) {
            EXPECT_EQ(guides.guide(guide->id)->root, guide->root);
        }
    }
    expectSound(guides);
}

TEST_P(GuideOperationsTest, TransfersToAnotherScalpAtItsScale) {
    const ScalpMesh big = makeIcosphere(4, 20.0f);
    const Vec3f centre{0, 0, 0};
    GuideHierarchy guides = made;
    guides.transfer(&scalp, big, {.a = centre, .s = 2.5f, .b = centre});
    EXPECT_EQ(guides.scalpTopology(), big.topologyHash());
    for (const GuidePtr& before : made.guides()) {
        const GuidePtr after = guides.guide(before->id);
        std::vector<Vec3f> scaled = before->points;
        for (Vec3f& point : scaled) point *= 2.5f;
        EXPECT_LT(farthest(after->points, scaled), 5e-4f) << "followers scale with their parents";
        SurfaceHit hit;
        ASSERT_TRUE(big.closestPoint(after->points.front(), ScalpMesh::kAnyDistance, hit));
        EXPECT_LT(distance(big.surfacePoint(after->root), hit.position), 1e-3f);
    }
    expectSound(guides);
}

}  // namespace
}  // namespace corvelle
