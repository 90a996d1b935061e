#include <cmath>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "model/guideFollow.h"
#include "model/guideHierarchy.h"
#include "model/guideHierarchyFixture.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

using GuideHierarchyTest = GuideHierarchyFixture;
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
