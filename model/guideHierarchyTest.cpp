#include <cmath>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "model/guideFollow.h"
#include "model/guideHierarchy.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

float farthest(std::span<const Vec3f> a, std::span<const Vec3f> b) {
    EXPECT_EQ(a.size(), b.size());
    float most = 0.0f;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        most = std::max(most, distance(a[i], b[i]));
    return most;
}

std::vector<Vec3f> moved(std::span<const Vec3f> points, Vec3f by) {
    std::vector<Vec3f> out(points.begin(), points.end());
    for (Vec3f& point : out) point += by;
    return out;
}

std::vector<GuidePtr> inGroup(const GuideHierarchy& hierarchy, const std::string& name) {
    std::vector<GuidePtr> out;
    for (const GuidePtr& guide : hierarchy.guides())
        if (hierarchy.group(guide->group)->name == name) out.push_back(guide);
    return out;
}

std::uint32_t idOf(const GuideHierarchy& hierarchy, const std::string& group) {
    return hierarchy.groupNamed(group)->id;
}

/// A sphere bent out of shape, of the same triangles.
ScalpPtr posed(const ScalpMesh& scalp, std::uint64_t seed) {
    SplitMix random(seed);
    const Rotation turn = Rotation::about(normalized({1, random.nextFloat(), 2}), 0.8f);
    std::vector<Vec3f> points;
    for (const Vec3f& point : scalp.points()) {
        const Vec3f p = turn(point);
        points.push_back({p.x * 1.2f, p.y + 0.05f * p.x * p.x, p.z + 3.0f});
    }
    return scalp.withPoints(std::move(points));
}

class GuideHierarchyTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const ScalpMesh scalp = makeSphere(16, 24, 8.0f);
    const GuideHierarchy made = makeHierarchy(scalp, {.seed = GetParam()});
    /// What must hold at any time: followers are where their offsets put them, hashes are current.
    static void expectSound(const GuideHierarchy& hierarchy) {
        std::vector<Guide> records;
        for (const GuidePtr& guide : hierarchy.guides()) records.push_back(*guide);
        const GuideHierarchy again =
            GuideHierarchy::restore({hierarchy.groups().begin(), hierarchy.groups().end()}, records,
                                    hierarchy.scalpTopology());
        EXPECT_EQ(guidesToJson(again), guidesToJson(hierarchy));
        for (std::size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(again.guides()[i]->contentHash, records[i].contentHash) << records[i].id;
            EXPECT_EQ(*again.guides()[i]->detail, *records[i].detail) << records[i].id;
        }
        EXPECT_EQ(*again.all(), *hierarchy.all());
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, GuideHierarchyTest, testing::Range<std::uint64_t>(0, 12));

// Points and followers

TEST_P(GuideHierarchyTest, GivesBackThePointsThatWereSet) {
    GuideHierarchy guides = made;
    SplitMix random(GetParam());
    std::size_t followers = 0;
    for (const GuidePtr& guide : made.guides()) {
        std::vector<Vec3f> points =
            makeCurl(scalp, {std::int32_t(random.nextU64() % 500), 0.3f, 0.3f},
                     3 + random.nextU64() % 20, random.nextRange(1, 20), random.nextU64());
        guides.setPoints(guide->id, points);
        EXPECT_LT(farthest(guides.guide(guide->id)->points, points), 1e-5f);
        followers += guide->follows();
        for (const auto& [name, values] : guides.guide(guide->id)->pointAttributes)
            EXPECT_EQ(values.size(), points.size()) << "one value per point, still";
    }
    EXPECT_GT(followers, made.size() / 2);
    expectSound(guides);
}

TEST_P(GuideHierarchyTest, MovesWhatFollowsAndNothingElse) {
    const GuidePtr parent = inGroup(made, "hair")[GetParam() % 12];
    const Vec3f by{0.5f, -2.0f, 1.0f};
    GuideHierarchy guides = made;
    guides.setPoints(parent->id, moved(parent->points, by));
    std::set<std::uint64_t> led = {parent->id};
    std::size_t followed = 0, kept = 0;
    for (const GuidePtr& before : made.guides()) {  // parents come first
        const GuidePtr after = guides.guide(before->id);
        const bool follows = before->follows() && led.contains(before->parent);
        if (follows) led.insert(before->id);
        if (led.contains(before->id)) {
            EXPECT_LT(farthest(after->points, moved(before->points, by)), 1e-4f);
            EXPECT_NE(after->viewHash, before->viewHash);
            followed += follows;
        } else {
            EXPECT_EQ(after, before) << "not even copied";
            kept += before->locked && led.contains(before->parent);
        }
    }
    EXPECT_GT(followed, 3u);
    expectSound(guides);
}

TEST_P(GuideHierarchyTest, WidensAndWringsFollowersWithTheTube) {
    const GuidePtr parent = inGroup(made, "hair").front();
    GuideHierarchy guides = made;
    guides.setTube(parent->id, {2.0f}, 0.0f);
    const GuideHierarchy narrow = guides;
    guides.setTube(parent->id, {4.0f}, 0.0f);
    std::size_t checked = 0;
    for (const GuidePtr& child : inGroup(narrow, "hair_1")) {
        if (child->parent != parent->id || !child->follows() ||
            child->points.size() != parent->points.size())
            continue;
        const GuidePtr wide = guides.guide(child->id);
        EXPECT_EQ(wide->offsets, child->offsets) << "what is stored stays";
        std::vector<GuideFrame> frames(parent->points.size());
        guideFrames(parent->points, parent->frameUp, frames);
        for (std::size_t i = 0; i < frames.size(); ++i) {
            const Vec3f before = child->points[i] - parent->points[i];
            const Vec3f after = wide->points[i] - parent->points[i];
            EXPECT_NEAR(dot(after, frames[i].N), 2.0f * dot(before, frames[i].N), 1e-4f);
            EXPECT_NEAR(dot(after, frames[i].B), 2.0f * dot(before, frames[i].B), 1e-4f);
            EXPECT_NEAR(dot(after, frames[i].T), dot(before, frames[i].T), 1e-4f);
        }
        ++checked;
    }
    EXPECT_GT(checked, 0u);
}

TEST_P(GuideHierarchyTest, SetsManyAtOnceAsOneAfterTheOther) {
    std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> edits;
    for (const GuidePtr& guide : made.guides())
        if (mix64(guide->id ^ GetParam()) % 3 == 0)
            edits.emplace_back(guide->id, moved(guide->points, {0, 0, float(edits.size() % 5)}));
    std::reverse(edits.begin(), edits.end());  // children first: the batch sorts that out
    GuideHierarchy batch = made, single = made;
    batch.setPoints(edits);
    for (std::size_t e = edits.size(); e-- > 0;)  // parents first
        single.setPoints(edits[e].first, edits[e].second);
    EXPECT_EQ(guidesToJson(batch), guidesToJson(single));
    EXPECT_EQ(batch.contentHash(), single.contentHash());
    for (const auto& [id, points] : edits)
        EXPECT_LT(farthest(batch.guide(id)->points, points), 1e-5f);
    expectSound(batch);
}

TEST_P(GuideHierarchyTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    std::string one, many;
    const auto run = [&](std::string& out) {
        GuideHierarchy guides = makeHierarchy(scalp, {.primaries = 90, .seed = GetParam()});
        guides.mirrorAll(0, 0.0f, true, &scalp);
        guides = guides.deformed(scalp, *posed(scalp, GetParam()));
        out = guidesToJson(guides) + std::to_string(guides.all()->contentHash());
    };
    runWithThreads(1, [&] { run(one); });
    runWithThreads(8, [&] { run(many); });
    EXPECT_EQ(one, many);
}

TEST_P(GuideHierarchyTest, LocksAndUnlocksWhereGuidesAre) {
    GuideHierarchy guides = made;
    const GuidePtr parent = inGroup(made, "hair").front();
    for (const GuidePtr& child : inGroup(made, "hair_1")) guides.setLocked(child->id, true);
    guides.setPoints(parent->id, moved(parent->points, {0, 5, 0}));
    for (const GuidePtr& child : inGroup(made, "hair_1"))
        EXPECT_EQ(guides.guide(child->id)->points, child->points);
    for (const GuidePtr& child : inGroup(made, "hair_1")) {
        guides.setLocked(child->id, false);
        EXPECT_TRUE(guides.guide(child->id)->follows());
        EXPECT_LT(farthest(guides.guide(child->id)->points, child->points), 1e-5f);
    }
    const std::uint64_t before = guides.contentHash();
    guides.setLocked(parent->id, true);  // follows nothing
    EXPECT_EQ(guides.contentHash(), before);
    expectSound(guides);
}

TEST_P(GuideHierarchyTest, RootsFollowersWhereTheyLand) {
    GuideHierarchy guides = made;
    const GuidePtr parent = inGroup(made, "hair").front();
    const Rotation turn = Rotation::about({0, 0, 1}, 0.6f);
    std::vector<Vec3f> points;
    for (const Vec3f& point : parent->points) points.push_back(turn(point));
    guides.setPoints(parent->id, points);
    guides.refreshRoots({{parent->id}}, scalp);
    std::size_t changed = 0;
    for (const GuidePtr& before : inGroup(made, "hair_1")) {
        const GuidePtr after = guides.guide(before->id);
        if (before->parent != parent->id || !before->follows()) continue;
        SurfaceHit hit;
        ASSERT_TRUE(scalp.closestPoint(after->points.front(), ScalpMesh::kAnyDistance, hit));
        EXPECT_LT(distance(scalp.surfacePoint(after->root), hit.position), 1e-4f);
        EXPECT_NEAR(length(after->rootLocal), distance(after->points.front(), points.front()),
                    1e-4f);
        changed += after->root != before->root;
    }
    EXPECT_GT(changed, 0u);
    expectSound(guides);
}

// Groups

TEST_P(GuideHierarchyTest, PromotesAndDemotesWithoutMovingAPoint) {
    GuideHierarchy guides = made;
    guides.promoteGroup(idOf(made, "hair_1"));
    for (const GuidePtr& before : made.guides()) {
        const GuidePtr after = guides.guide(before->id);
        EXPECT_EQ(after->points, before->points);
        if (after->group != idOf(made, "hair_1")) continue;
        EXPECT_EQ(after->parent, 0u);
        EXPECT_FALSE(after->locked);
        EXPECT_EQ(after->detail->level, 0);
    }
    EXPECT_EQ(guides.depthOf(idOf(made, "hair_2")), 1);
    EXPECT_EQ(inGroup(guides, "hair_2").front()->detail->level, 1);
    expectSound(guides);

    guides.demoteGroup(idOf(made, "hair_1"), idOf(made, "brow"));
    const std::vector<GuidePtr> leaders = inGroup(guides, "brow");
    for (const GuidePtr& before : made.guides()) {
        const GuidePtr after = guides.guide(before->id);
        EXPECT_LT(farthest(after->points, before->points), 2e-5f);
        if (after->group != idOf(made, "hair_1")) continue;
        EXPECT_TRUE(after->follows());
        const float own =
            distance(guides.guide(after->parent)->points.front(), before->points.front());
        for (const GuidePtr& leader : leaders)
            EXPECT_GE(distance(leader->points.front(), before->points.front()), own - 1e-5f);
    }
    EXPECT_EQ(guides.deepestLevel(), 2);
    expectSound(guides);
}

TEST_P(GuideHierarchyTest, ReparentsWithoutMovingAPoint) {
    GuideHierarchy guides = made;
    std::vector<std::uint64_t> ids;
    for (const GuidePtr& child : inGroup(made, "hair_1")) ids.push_back(child->id);
    const GuidePtr leader = inGroup(made, "hair")[GetParam() % 12];
    guides.reparent(ids, leader->id);
    for (const GuidePtr& before : made.guides()) {
        const GuidePtr after = guides.guide(before->id);
        EXPECT_LT(farthest(after->points, before->points), 1e-4f);
        EXPECT_LT(distance(after->frameUp, before->frameUp), 1e-5f);
        EXPECT_EQ(after->locked, before->locked);
        if (after->group == idOf(made, "hair_1")) {
            EXPECT_EQ(after->parent, leader->id);
        }
    }
    expectSound(guides);
}

TEST_P(GuideHierarchyTest, RemovesWhatHangsOffAGuide) {
    GuideHierarchy guides = made;
    const std::uint64_t next = guides.nextGuideId();
    const GuidePtr parent = inGroup(made, "hair").front();
    guides.removeGuides({{parent->id}});
    EXPECT_LT(guides.size(), made.size() - 3);
    for (const GuidePtr& guide : guides.guides()) {
        EXPECT_NE(guide->parent, parent->id);
        EXPECT_TRUE(guide->parent == 0 || guides.guide(guide->parent));
    }
    EXPECT_EQ(guides.nextGuideId(), next);
    expectSound(guides);
    guides.removeGroup(idOf(made, "hair_1"));
    EXPECT_FALSE(guides.groupNamed("hair_2"));
    EXPECT_EQ(guides.groups().size(), 2u);
    expectSound(guides);
}

TEST(GuideHierarchy, NeverGivesAnIdTwice) {
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    const std::vector<Vec3f> points = {{0, 0, 0}, {0, 1, 0}};
    EXPECT_EQ(guides.addGuide(hair, {}, points, 0), 1u);
    EXPECT_EQ(guides.addGuide(hair, {}, points, 40), 40u);
    EXPECT_EQ(guides.addGuide(hair, {}, points, std::uint64_t(1) << 60), std::uint64_t(1) << 60);
    EXPECT_EQ(guides.addGuide(hair, {}, points, 0), 41u) << "hashes do not raise the counter";
    GuideHierarchy undone = guides;
    guides.addGuide(hair, {}, points, 0);
    const std::uint32_t brow = guides.addGroup("brow", 0);
    undone.reserveIdsOf(guides);
    EXPECT_EQ(undone.addGuide(hair, {}, points, 0), 43u);
    EXPECT_GT(undone.addGroup("brow", 0), brow);
    undone.removeGuides({{43}});
    EXPECT_EQ(undone.addGuide(hair, {}, points, 0), 44u);
}

TEST(GuideHierarchy, CopiesLiveTheirOwnLives) {
    const ScalpMesh scalp = makeSphere(8, 12, 8.0f);
    GuideHierarchy a = makeHierarchy(scalp, {});
    const GuideHierarchy b = a;
    const std::string before = guidesToJson(b);
    const std::uint32_t extra = a.addGroup("extra", 0);
    a.addGuide(extra, {}, {{0, 0, 0}, {0, 1, 0}}, 77'777);
    a.setPoints(1, {{0, 0, 0}, {0, 1, 0}});
    a.removeGuides({{2}});
    EXPECT_EQ(guidesToJson(b), before);
    EXPECT_FALSE(b.guide(77'777));
    EXPECT_FALSE(b.group(extra));
}

TEST(GuideHierarchy, GivesPrimariesAnUpAlongTheirTriangle) {
    const ScalpMesh plane = makePlane(2, 2, 4.0f);
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    const StrandRoot root{3, 0.2f, 0.3f};
    const Vec3f at = plane.surfacePoint(root);
    guides.addGuide(hair, root, {at, at + Vec3f{0, 1, 0}}, 1, &plane);
    const Triangle corners = plane.triangles()[3];
    EXPECT_LT(
        distance(guides.guide(1)->frameUp, normalized(plane.points()[std::size_t(corners[1])] -
                                                      plane.points()[std::size_t(corners[0])])),
        1e-6f);
    guides.addGuide(hair, {}, {{0, 0, 0}, {0, 2, 0}}, 2);
    EXPECT_NEAR(length(guides.guide(2)->frameUp), 1.0f, 1e-6f);
    EXPECT_EQ(guides.guide(2)->frameUp.y, 0.0f);
}

TEST(GuideHierarchy, DeclaresAttributesOnEveryGuide) {
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    guides.addGuide(hair, {}, {{0, 0, 0}, {0, 1, 0}}, 1);
    guides.addAttribute("stiff", 0.5f);
    guides.addGuide(hair, {}, {{0, 0, 0}, {0, 1, 0}}, 2);
    guides.setPointAttribute(2, "mask", {0, 1});
    EXPECT_EQ(guides.guide(1)->attributes.at("stiff"), 0.5f);
    EXPECT_EQ(guides.guide(2)->attributes.at("stiff"), 0.5f);
    const GuideHierarchy read = guidesFromJson(guidesToJson(guides));
    EXPECT_TRUE(read.declaredAttributes().contains("stiff"));
    EXPECT_EQ(read.flatten()->pointAttribute(1, "mask", 0.5f), 0.5f);
    guides.removeAttribute("mask");
    guides.removeAttribute("stiff");
    EXPECT_TRUE(guides.guide(2)->attributes.empty());
    EXPECT_TRUE(guides.guide(2)->pointAttributes.empty());
}

TEST(GuideHierarchy, FlattensWithoutBaldAreas) {
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0), brow = guides.addGroup("brow", 0);
    const std::uint32_t fine = guides.addGroup("fine", hair),
                        finer = guides.addGroup("finer", fine);
    guides.addGroup("empty", brow);
    const std::vector<Vec3f> points = {{0, 0, 0}, {0, 1, 0}};
    guides.addGuide(hair, {}, points, 1);
    guides.addGuide(brow, {}, points, 2);
    guides.addChildGuide(fine, 1, points, 3);
    guides.addChildGuide(finer, 3, points, 4);
    guides.addGuide(hair, {}, points, 5);
    using Ids = std::vector<std::uint64_t>;
    const auto ids = [](const GuidesPtr& set) { return Ids(set->ids().begin(), set->ids().end()); };
    EXPECT_EQ(ids(guides.flatten(0)), (Ids{1, 5, 2}));
    EXPECT_EQ(ids(guides.flatten(1)), (Ids{2, 3}));
    EXPECT_EQ(ids(guides.flatten(2)), (Ids{2, 4}));
    EXPECT_EQ(ids(guides.flatten(-1)), (Ids{2, 4}));
    EXPECT_EQ(ids(guides.flatten(5)), (Ids{2, 4}));
    EXPECT_EQ(ids(guides.flatten(0, {{brow}})), (Ids{1, 5}));
    EXPECT_EQ(ids(guides.flatten(-1, {{hair}})), (Ids{2})) << "with its child groups";
    EXPECT_EQ(ids(guides.flattenGroups({{fine, hair, fine}})), (Ids{1, 5, 3}));
    EXPECT_EQ(ids(guides.flattenGroups({{fine, brow}}, {{hair}})), (Ids{2}));
    EXPECT_EQ(ids(guides.all()), (Ids{1, 5, 2, 3, 4}));
    const GuidesPtr all = guides.all();
    EXPECT_EQ(all->detail(4).level, 2);
    EXPECT_EQ(all->detail(4).parent, 3u);
    EXPECT_EQ(GuideSet(all->curves()), *all) << "the hashes guides keep are those of a set";
}

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

TEST_P(GuideHierarchyTest, GeneratesTheSameChildrenAgainAndTheirOwnForEachParent) {
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

TEST_P(GuideHierarchyTest, PutsChildrenInsideTheTubeAndOnTheScalp) {
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

TEST_P(GuideHierarchyTest, RefillsAroundLockedChildrenAndKeepsTheirFollowers) {
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

TEST_P(GuideHierarchyTest, MirrorsEachSideIntoTheOther) {
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

TEST_P(GuideHierarchyTest, PutsMirroredRootsOnTheScalp) {
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

TEST_P(GuideHierarchyTest, DeformsThereAndBack) {
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

TEST_P(GuideHierarchyTest, DeformsNothingWhereThePoseIsTheSame) {
    const ScalpPtr same = scalp.withPoints({scalp.points().begin(), scalp.points().end()});
    const GuideHierarchy after = made.deformed(scalp, *same);
    for (std::size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(after.guides()[i], made.guides()[i]) << "not even copied";
    EXPECT_EQ(guidesToJson(after), guidesToJson(made));
}

TEST_P(GuideHierarchyTest, TransfersToTheSameTrianglesByCarrying) {
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

TEST_P(GuideHierarchyTest, TransfersToAnotherScalpAtItsScale) {
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

// Failures

TEST(GuideHierarchy, RefusesWithItsWordsAndStaysAsItWas) {
    const ScalpMesh scalp = makeSphere(8, 12, 8.0f);
    GuideHierarchy guides = makeHierarchy(scalp, {.primaries = 6});
    const std::uint32_t hair = idOf(guides, "hair"), brow = idOf(guides, "brow");
    const std::uint32_t fine = idOf(guides, "hair_1"), finer = idOf(guides, "hair_2");
    const std::uint32_t bald = guides.addGroup("bald", 0);
    const std::uint64_t child = inGroup(guides, "hair_1").front()->id;
    const std::uint64_t browGuide = inGroup(guides, "brow").front()->id;
    const std::vector<Vec3f> two = {{0, 0, 0}, {0, 1, 0}}, one = {{0, 0, 0}};
    const std::vector<Vec3f> nan = {{0, 0, 0}, {0, kNan, 0}},
                             far = {{3e38f, 3e38f, 3e38f}, {-3e38f, -3e38f, -3e38f}};
    const std::vector<std::uint64_t> notHair = {1, browGuide};
    const std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> twice = {{1, two}, {1, two}},
                                                                    half = {{1, two}, {999, two}};
    using Edit = std::function<void(GuideHierarchy&)>;
    const struct {
        std::string text;
        Edit edit;
    } rows[] = {
        {"addGroup: group 'hair' exists", [&](auto& g) { g.addGroup("hair", 0); }},
        {"addGroup: unknown parent group", [&](auto& g) { g.addGroup("new", 99); }},
        {"a guide group needs a name", [&](auto& g) { g.addGroup("", 0); }},
        {"a guide group needs a name", [&](auto& g) { g.renameGroup(hair, ""); }},
        {"a guide group named 'brow' exists", [&](auto& g) { g.renameGroup(hair, "brow"); }},
        {"no such guide group", [&](auto& g) { g.renameGroup(99, "x"); }},
        {"no such guide group", [&](auto& g) { g.removeGroup(99); }},
        {"addGuide: unknown group", [&](auto& g) { g.addGuide(99, {}, two, 0); }},
        {"addGuide: primary guides belong in root groups",
         [&](auto& g) { g.addGuide(fine, {}, two, 0); }},
        {"addGuide: duplicate guide id", [&](auto& g) { g.addGuide(hair, {}, two, 1); }},
        {"addGuide: a guide needs at least 2 points",
         [&](auto& g) { g.addGuide(hair, {}, one, 0); }},
        {"addGuide: a point holds a NaN or an infinity",
         [&](auto& g) { g.addGuide(hair, {}, nan, 0); }},
        {"addChildGuide: not a child group", [&](auto& g) { g.addChildGuide(hair, 1, two, 0); }},
        {"addChildGuide: not a child group", [&](auto& g) { g.addChildGuide(99, 1, two, 0); }},
        {"addChildGuide: the parent must be in the group's parent group",
         [&](auto& g) { g.addChildGuide(fine, browGuide, two, 0); }},
        {"addChildGuide: the parent must be in the group's parent group",
         [&](auto& g) { g.addChildGuide(fine, 999, two, 0); }},
        {"addChildGuide: a guide needs at least 2 points",
         [&](auto& g) { g.addChildGuide(fine, 1, one, 0); }},
        {"addChildGuide: duplicate guide id",
         [&](auto& g) { g.addChildGuide(fine, 1, two, child); }},
        {"removeGuides: unknown guide",
         [&](auto& g) {
             g.removeGuides({{1, 999}});
         }},
        {"reparent: unknown guide", [&](auto& g) { g.reparent(999, 1); }},
        {"reparent: unknown parent guide", [&](auto& g) { g.reparent(child, 999); }},
        {"reparent: the new parent must be in the guide's parent group",
         [&](auto& g) { g.reparent(child, browGuide); }},
        {"reparent: the new parent must be in the guide's parent group",
         [&](auto& g) { g.reparent(1, browGuide); }},
        {"setLocked: unknown guide", [&](auto& g) { g.setLocked(999, true); }},
        {"promoteGroup: unknown group", [&](auto& g) { g.promoteGroup(99); }},
        {"promoteGroup: 'hair' is already a root group", [&](auto& g) { g.promoteGroup(hair); }},
        {"demoteGroup: unknown group", [&](auto& g) { g.demoteGroup(99, hair); }},
        {"demoteGroup: the new parent group must be a sibling of 'hair'",
         [&](auto& g) { g.demoteGroup(hair, hair); }},
        {"demoteGroup: the new parent group must be a sibling of 'brow'",
         [&](auto& g) { g.demoteGroup(brow, fine); }},
        {"demoteGroup: the new parent group must be a sibling of 'brow'",
         [&](auto& g) { g.demoteGroup(brow, 99); }},
        {"demoteGroup: 'bald' has no guides to follow",
         [&](auto& g) { g.demoteGroup(hair, bald); }},
        {"setPoints: unknown guide", [&](auto& g) { g.setPoints(999, two); }},
        {"setPoints: a guide needs at least 2 points", [&](auto& g) { g.setPoints(1, one); }},
        {"setPoints: a point holds a NaN or an infinity", [&](auto& g) { g.setPoints(1, nan); }},
        {"setPoints: unknown guide", [&](auto& g) { g.setPoints(half); }},
        {"setPoints: guide 1 is given twice", [&](auto& g) { g.setPoints(twice); }},
        {"setRoot: the root holds a NaN or an infinity",
         [&](auto& g) {
             g.setRoot(1, {0, kNan, 0});
         }},
        {"setTube: a value is a NaN or an infinity", [&](auto& g) { g.setTube(1, {kNan}, 0); }},
        {"setTube: the value is a NaN or an infinity", [&](auto& g) { g.setTube(1, {}, kNan); }},
        {"setTube: a radius is a number from 0 up", [&](auto& g) { g.setTube(1, {-1.0f}, 0); }},
        {"setFrameUp: the direction holds a NaN or an infinity",
         [&](auto& g) {
             g.setFrameUp(1, {0, kNan, 0});
         }},
        {"setAttribute: unknown guide", [&](auto& g) { g.setAttribute(999, "stiff", 1); }},
        {"setAttribute: the value is a NaN or an infinity",
         [&](auto& g) { g.setAttribute(1, "new", kNan); }},
        {"a guide attribute needs a name", [&](auto& g) { g.setAttribute(1, "", 1); }},
        {"setPointAttribute: 3 values for 8 points, give one per point",
         [&](auto& g) {
             g.setPointAttribute(1, "mask", {1, 2, 3});
         }},
        {"a guide attribute named 'stiff' already exists",
         [&](auto& g) { g.addAttribute("stiff", 0); }},
        {"no guide attribute named 'none'", [&](auto& g) { g.removeAttribute("none"); }},
        {"generateChildren: unknown parent group",
         [&](auto& g) { g.generateChildren(99, "x", {}, nullptr, nullptr); }},
        {"generateChildren: guide " + std::to_string(browGuide) + " is not in the parent group",
         [&](auto& g) { g.generateChildren(hair, "hair_1", {}, &notHair, nullptr); }},
        {"generateChildren: group 'hair_2' belongs to another parent group",
         [&](auto& g) { g.generateChildren(hair, "hair_2", {}, nullptr, nullptr); }},
        {"a guide group needs a name",
         [&](auto& g) { g.generateChildren(hair, "", {}, nullptr, nullptr); }},
        {"generateChildren: count is 0 to 1000",
         [&](auto& g) { g.generateChildren(hair, "x", {.count = 1001}, nullptr, nullptr); }},
        {"generateChildren: count is 0 to 1000",
         [&](auto& g) { g.generateChildren(hair, "x", {.count = -1}, nullptr, nullptr); }},
        {"generateChildren: jitter is 0 to 1",
         [&](auto& g) { g.generateChildren(hair, "x", {.jitter = 2}, nullptr, nullptr); }},
        {"generateChildren: childTubeScale is a number from 0 up",
         [&](auto& g) { g.generateChildren(hair, "x", {.childTubeScale = -1}, nullptr, nullptr); }},
        {"generateChildren: a setting is a NaN or an infinity",
         [&](auto& g) { g.generateChildren(hair, "x", {.twist = kNan}, nullptr, nullptr); }},
        {"mirrorAll: axis must be 0, 1 or 2", [&](auto& g) { g.mirrorAll(3, 0, true, &scalp); }},
        {"mirrorAll: the plane's place is a NaN or an infinity",
         [&](auto& g) { g.mirrorAll(0, kNan, true, &scalp); }},
        {"mirrorGroup: unknown group", [&](auto& g) { g.mirrorGroup(99, 0, 0, true, &scalp); }},
        {"mirrorGroup: axis must be 0, 1 or 2",
         [&](auto& g) { g.mirrorGroup(hair, -1, 0, true, &scalp); }},
        {"mirrorGroup: mirror root groups (then regenerate children)",
         [&](auto& g) { g.mirrorGroup(finer, 0, 0, true, &scalp); }},
        {"transfer: the new scalp has no faces",
         [&](auto& g) { g.transfer(&scalp, ScalpMesh(), {}); }},
        {"transfer: the mapping holds a NaN or an infinity",
         [&](auto& g) { g.transfer(&scalp, scalp, {.s = kNan}); }},
        {"transfer: the mapping's scale is a number above 0",
         [&](auto& g) { g.transfer(&scalp, scalp, {.s = 0}); }},
        {"deformed: the two poses of the scalp differ in triangles",
         [&](auto& g) { g = g.deformed(scalp, makePlane(2, 2, 1)); }},
        {"flatten: unknown group", [&](auto& g) { (void)g.flattenGroups({{99}}); }},
    };
    const std::uint64_t hash = guides.contentHash();
    const std::string text = guidesToJson(guides);
    const std::uint64_t next = guides.nextGuideId();
    for (const auto& row : rows) {
        try {
            row.edit(guides);
            ADD_FAILURE() << "went through: " << row.text;
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(error.what(), row.text);
        }
        ASSERT_EQ(guides.contentHash(), hash) << row.text;
        ASSERT_EQ(guidesToJson(guides), text) << row.text;
        ASSERT_EQ(guides.nextGuideId(), next) << row.text;
    }
    // Where a parent may stand but its followers may not, nothing moves.
    try {
        guides.setPoints(1, far);
        EXPECT_TRUE(allFinite(inGroup(guides, "hair_2").front()->points));
    } catch (const std::invalid_argument& error) {
        EXPECT_NE(std::string(error.what()).find("would leave the range of 32-bit floats"),
                  std::string::npos);
        EXPECT_EQ(guides.contentHash(), hash);
    }
    EXPECT_EQ(guides.childGroupName(hair), "hair_1");
    EXPECT_EQ(guides.childGroupName(brow), "brow_children");
}

TEST_P(GuideHierarchyTest, StaysSoundUnderRandomEdits) {
    GuideHierarchy guides = made;
    SplitMix random(GetParam());
    const auto any = [&] { return guides.guides()[random.nextU64() % guides.size()]; };
    for (int step = 0; step < 60 && guides.size() > 8; ++step) {
        const GuidePtr guide = any();
        const std::uint64_t before = guides.contentHash();
        try {
            switch (random.nextU64() % 12) {
                case 0:
                    guides.setPoints(guide->id, moved(guide->points, {0.1f, 0, 0.3f}));
                    break;
                case 1:
                    guides.setTube(guide->id, {random.nextFloat(), 1}, random.nextFloat());
                    break;
                case 2:
                    guides.setLocked(guide->id, !guide->locked);
                    break;
                case 3:
                    guides.reparent(guide->id, any()->id);
                    break;
                case 4:
                    guides.removeGuides({{guide->id}});
                    break;
                case 5:
                    guides.promoteGroup(guide->group);
                    break;
                case 6:
                    guides.demoteGroup(guide->group, any()->group);
                    break;
                case 7:
                    guides.addChildGuide(guide->group, any()->id, guide->points, 0);
                    break;
                case 8:
                    guides.setFrameUp(guide->id, {random.nextFloat(), 1, 0});
                    break;
                case 9:
                    guides.setAttribute(guide->id, "wet", random.nextFloat());
                    break;
                case 10:
                    guides.mirrorGroup(guide->group, 0, 0, true, &scalp);
                    break;
                default:
                    guides.generateChildren(guide->group, guides.childGroupName(guide->group),
                                            {.count = 2, .seed = random.nextU64()}, nullptr,
                                            &scalp);
            }
        } catch (const std::invalid_argument&) {
            EXPECT_EQ(guides.contentHash(), before);
        }
        if (guides.size() > 400) break;
    }
    expectSound(guides);
}

}  // namespace
}  // namespace corvelle
