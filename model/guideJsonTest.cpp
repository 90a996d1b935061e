#include <bit>
#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "model/floatText.h"
#include "model/guideHierarchy.h"
#include "model/hash.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

using testing::StartsWith;

std::string textOf(float value) {
    std::string text;
    appendFloat32(text, value);
    return text;
}

TEST(FloatText, IsTheShortestThatReadsBack) {
    const struct {
        float value;
        const char* text;
    } rows[] = {{0.0f, "0"},
                {-0.0f, "-0.0"},
                {1.0f, "1"},
                {-2.5f, "-2.5"},
                {0.1f, "0.1"},
                {1e20f, "1e+20"},
                {16777216.0f, "16777216"},
                {1.1754944e-38f, "1.1754944e-38"},
                {1e-45f, "1e-45"},
                {3.4028235e38f, "3.4028235e+38"},
                {100000.0f, "1e+05"},
                {123456.0f, "123456"}};
    for (const auto& row : rows) EXPECT_EQ(textOf(row.value), row.text);
}

TEST(FloatText, ReadsBackThroughDoublesWhateverTheBits) {
    SplitMix random(5);
    for (int i = 0; i < 300'000; ++i) {
        const float value = std::bit_cast<float>(std::uint32_t(random.nextU64()));
        if (!std::isfinite(value)) continue;
        const auto read = nlohmann::json::parse(textOf(value)).get<double>();
        ASSERT_EQ(std::bit_cast<std::uint32_t>(float(read)), std::bit_cast<std::uint32_t>(value))
            << textOf(value);
    }
    // Its shortest text lies so near the middle of two floats that narrowing the double it reads
    // as gives the other one: the digits of the double stand in.
    const float trap = std::bit_cast<float>(0x15ae43fdu);
    EXPECT_EQ(float(nlohmann::json::parse(textOf(trap)).get<double>()), trap);
    EXPECT_GT(textOf(trap).size(), 17u) << textOf(trap);
}

class GuideJsonTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const ScalpMesh scalp = makeSphere(12, 16, 8.0f);
    const GuideHierarchy hierarchy = makeHierarchy(scalp, {.seed = GetParam()});
};
INSTANTIATE_TEST_SUITE_P(Seeds, GuideJsonTest, testing::Range<std::uint64_t>(0, 12));

TEST_P(GuideJsonTest, GivesTheSameGuidesAndTheSameBytesBack) {
    const std::string text = guidesToJson(hierarchy);
    const GuideHierarchy read = guidesFromJson("\r\n\t " + text + " \n");
    EXPECT_EQ(guidesToJson(read), text);
    ASSERT_EQ(read.size(), hierarchy.size());
    std::size_t followers = 0;
    for (std::size_t i = 0; i < read.size(); ++i) {
        const Guide &a = *hierarchy.guides()[i], &b = *read.guides()[i];
        EXPECT_EQ(a.contentHash, b.contentHash) << a.id;
        EXPECT_EQ(a.points, b.points) << "followers are rebuilt to the same bits";
        followers += b.follows();
    }
    EXPECT_GT(followers, read.size() / 2);
    EXPECT_EQ(*read.all(), *hierarchy.all());
    EXPECT_EQ(read.nextGuideId(), hierarchy.nextGuideId());
    // What other writers do to a document - sorted keys, doubles - leaves it the same.
    EXPECT_EQ(guidesToJson(guidesFromJson(nlohmann::json::parse(text).dump())), text);
}

/// Any float but those that would carry a follower beyond the largest.
float anyFloat(SplitMix& random, bool follower) {
    for (;;) {
        const float value = std::bit_cast<float>(std::uint32_t(random.nextU64()));
        if (std::isfinite(value) && (!follower || std::abs(value) < 1e30f)) return value;
    }
}
Vec3f anyVector(SplitMix& random, bool follower) {
    return {anyFloat(random, follower), anyFloat(random, follower), anyFloat(random, follower)};
}

TEST_P(GuideJsonTest, KeepsEveryBitOfEveryFloat) {
    SplitMix random(GetParam());
    std::vector<Guide> guides;
    for (std::uint64_t id = 1; id <= 60; ++id) {
        Guide guide;
        const bool follower = id > 20;
        guide.id = id == 60 ? ~std::uint64_t(0) : id;
        guide.group = follower ? 0xffffffffu : 1;
        guide.parent = follower ? 1 + id % 4 : 0;
        guide.locked = id % 7 == 0 && follower;
        guide.root = {std::int32_t(random.nextU64()), anyFloat(random, false), -0.0f};
        guide.frameUp = anyVector(random, false);
        guide.tubeTwist = id % 5 == 0 ? -0.0f : anyFloat(random, false);
        const std::size_t count = 2 + random.nextU64() % 5;
        for (std::size_t i = 0; i < count; ++i) {
            // The four that lead stay near, so that followers stay within range.
            guide.points.push_back(id <= 4 ? Vec3f{float(i), random.nextFloat(), 1e-42f}
                                           : anyVector(random, false));
            guide.offsets.push_back(anyVector(random, true));
        }
        if (id <= 4)
            guide.tubeRadius = {random.nextFloat(), random.nextFloat()};
        else
            for (std::size_t i = 0; i < id % 4; ++i)
                guide.tubeRadius.push_back(anyFloat(random, false));
        guide.rootLocal = anyVector(random, true);
        guide.frameUpLocal = anyVector(random, true);
        guide.attributes["stiff \"\\\xc3\xa9\n"] = anyFloat(random, false);
        guide.pointAttributes["mask"].assign(count, anyFloat(random, false));
        guides.push_back(std::move(guide));
    }
    const GuideHierarchy made = GuideHierarchy::restore(
        {{.id = 0xffffffffu, .name = "child", .parent = 1}, {.id = 1, .name = "\xc3\xa9 \"root\""}},
        guides, ~std::uint64_t(0));
    const std::string text = guidesToJson(made);
    const GuideHierarchy read = guidesFromJson(text);
    EXPECT_EQ(guidesToJson(read), text);
    EXPECT_EQ(read.contentHash(), made.contentHash());
    for (std::size_t i = 0; i < guides.size(); ++i) {
        const Guide& guide = *read.guides()[i];
        const auto bits = [](Vec3f v) { return std::bit_cast<std::array<std::uint32_t, 3>>(v); };
        const bool follows = guides[i].follows();
        for (std::size_t p = 0; p < guides[i].points.size(); ++p)
            EXPECT_EQ(bits(follows ? guide.offsets[p] : guide.points[p]),
                      bits(follows ? guides[i].offsets[p] : guides[i].points[p]));
        if (follows) {
            EXPECT_EQ(bits(guide.rootLocal), bits(guides[i].rootLocal));
        }
    }
}

TEST(GuideJson, IsWrittenInItsOrder) {
    GuideHierarchy guides;
    const std::uint32_t hair = guides.addGroup("hair", 0);
    const std::uint32_t tips = guides.addGroup("tips", hair);
    guides.addGuide(hair, {4, 0.25f, 0.5f}, {{0, 0, 0}, {0, 1, -0.0f}}, 0);
    guides.setAttribute(1, "stiff", 0.3f);
    guides.setPointAttribute(1, "mask", {0.0f, 1.0f});
    guides.setFrameUp(1, {1, 0, 0});
    guides.addChildGuide(tips, 1, {{1, 0, 0}, {1, 1, 0}}, 0);
    guides.addChildGuide(tips, 1, {{2, 0, 0}, {2, 1, 0}}, 18446744073709551615u);
    guides.setLocked(18446744073709551615u, true);
    guides.setTube(1, {1.0f, 0.5f}, -0.1f);
    guides.setScalpTopology(18446744073709551614u);
    EXPECT_EQ(
        guidesToJson(guides),
        R"({"groups":[{"id":1,"name":"hair","parent":0},{"id":2,"name":"tips","parent":1}],)"
        R"("guides":[{"id":1,"group":1,"root":[4,0.25,0.5],"frameUp":[1,0,0],)"
        R"("tube":{"radius":[1,0.5],"twist":-0.1},"attributes":{"stiff":0.3},)"
        R"("pointAttributes":{"mask":[0,1]},"points":[0,0,0,0,1,-0.0]},)"
        R"({"id":2,"group":2,"root":[-1,0,0],"frameUp":[1,0,0],"parent":1,)"
        R"("attributes":{"stiff":0},)"
        R"("offsets":[1,0,0,1,0,0],"rootLocal":[1,0,0],"frameUpLocal":[1,0,0]},)"
        R"({"id":18446744073709551615,"group":2,"root":[-1,0,0],"frameUp":[1,0,0],"parent":1,)"
        R"("locked":true,"attributes":{"stiff":0},"points":[2,0,0,2,1,0]}],)"
        R"("scalpTopology":18446744073709551614,"version":1})");
    EXPECT_EQ(guidesToJson(GuideHierarchy()), R"({"groups":[],"guides":[],"version":1})");
}

TEST(GuideJson, ReadsWhatMayBeLeftOut) {
    EXPECT_TRUE(guidesFromJson(" \t\r\n").empty());
    const GuideHierarchy read = guidesFromJson(
        R"({"guides":[{"id":5,"group":8,"root":[-1,0,0],"frameUp":[0,0,1],"extra":[],
            "points":[0,0,0, 0,1,0]}],
            "groups":[{"name":"a","id":7},{"name":"b"}]})");
    EXPECT_EQ(read.groupNamed("b")->id, 8u) << "the next free id";
    EXPECT_EQ(read.nextGuideId(), 6u);
    EXPECT_EQ(read.scalpTopology(), 0u);
}

// A document of two groups and a guide in each, with the places of a few faults.
std::string document(const std::string& groups, const std::string& guides,
                     const std::string& rest = "") {
    return R"({"groups":[{"id":1,"name":"a"},{"id":2,"name":"b","parent":1})" + groups +
           R"(],"guides":[{"id":1,"group":1,"root":[0,0,0],"frameUp":[1,0,0],)"
           R"("points":[0,0,0,0,1,0]})" +
           guides + "]" + rest + "}";
}
std::string guideWith(const std::string& fields) {
    return R"(,{"id":7,"group":1,"root":[0,0,0],"frameUp":[1,0,0],)" + fields + "}";
}
std::string childWith(const std::string& fields) {
    return R"(,{"id":7,"group":2,"root":[0,0,0],"frameUp":[1,0,0],"rootLocal":[0,0,0],)"
           R"("frameUpLocal":[1,0,0],)" +
           fields + "}";
}

TEST(GuideJson, RefusesDocumentsThatDoNotHold) {
    const std::string points = R"("points":[0,0,0,0,1,0])", offsets = R"("offsets":[0,0,0,0,0,0])";
    const struct {
        std::string text, error;
    } rows[] = {
        {"[]", "guide data is a JSON object"},
        {"null", "guide data is a JSON object"},
        {"{", "[json.exception.parse_error"},
        {"{\"groups\":[],\"guides\":[],\"x\":NaN}", "[json.exception.parse_error"},
        {"{\"groups\":[1e999],\"guides\":[]}", "[json.exception.out_of_range.406]"},
        {"{\"guides\":[]}", "key 'groups' not found"},
        {"{\"groups\":[]}", "key 'guides' not found"},
        {"{\"groups\":{},\"guides\":[]}", "guide data: 'groups' is a list"},
        {"{\"groups\":[],\"guides\":3}", "guide data: 'guides' is a list"},
        {document("", "", ",\"version\":1.5"), "guide data version 1.5 is not a whole number"},
        {document("", "", ",\"version\":\"1\""), "guide data version \"1\" is not a whole number"},
        {document("", "", ",\"version\":2"),
         "guide data version 2 is newer than this Corvelle supports (1); update Corvelle to open "
         "it"},
        {document("", "", ",\"version\":18446744073709551615"),
         "guide data version 18446744073709551615 is newer than"},
        {document("", "", ",\"version\":0"), "guide data version 0 is not valid"},
        {document("", "", ",\"version\":-3"), "guide data version -3 is not valid"},
        {document("", "", ",\"scalpTopology\":-1"),
         "guide data: 'scalpTopology' is a whole number from 0 to 18446744073709551615"},
        // Groups
        {document(",7", ""), "guide group number 2: a group is an object"},
        {document(",{\"id\":3}", ""), "key 'name' not found: guide group number 2"},
        {document(",{\"id\":3,\"name\":[]}", ""), "guide group number 2: 'name' is a text"},
        {document(",{\"id\":3,\"name\":\"\"}", ""), "a guide group needs a name"},
        {document(",{\"id\":3,\"name\":\"a\"}", ""), "a guide group named 'a' exists"},
        {document(",{\"id\":2,\"name\":\"c\"}", ""), "guide group 'c': group id 2 is given twice"},
        {document(",{\"id\":0,\"name\":\"c\"}", ""), "guide group 'c': 'id' is a positive integer"},
        {document(",{\"id\":4294967296,\"name\":\"c\"}", ""),
         "guide group 'c': 'id' is a whole number from 0 to 4294967295"},
        {document(",{\"id\":4294967295,\"name\":\"c\"},{\"name\":\"d\"}", ""),
         "guide group 'd': no group id is left, give 'id'"},
        {document(",{\"id\":3,\"name\":\"c\",\"parent\":9}", ""),
         "guide group 'c': its parent 9 is no group"},
        {document(",{\"id\":3,\"name\":\"c\",\"parent\":3}", ""),
         "guide group 'c': it is its own ancestor"},
        {document(",{\"id\":3,\"name\":\"c\",\"parent\":4},{\"id\":4,\"name\":\"d\",\"parent\":3}",
                  ""),
         "guide group 'c': it is its own ancestor"},
        // Guides
        {document("", ",true"), "guide number 1: a guide is an object"},
        {document("", ",{\"group\":1}"), "key 'id' not found: guide number 1"},
        {document("", ",{\"id\":-1}"), "guide number 1: 'id' is a whole number from 0 to"},
        {document("", ",{\"id\":1.0}"), "guide number 1: 'id' is a whole number from 0 to"},
        {document("", ",{\"id\":18446744073709551616}"),
         "guide number 1: 'id' is a whole number from 0 to 18446744073709551615"},
        {document("", ",{\"id\":0}"), "guide number 1: a guide ID is a positive integer"},
        {document("", ",{\"id\":7}"), "key 'group' not found: guide 7"},
        {document("", ",{\"id\":7,\"group\":1}"), "key 'root' not found: guide 7"},
        {document("", ",{\"id\":7,\"group\":1,\"root\":[0,0]}"),
         "guide 7: 'root' is three numbers: triangle, u, v"},
        {document("", ",{\"id\":7,\"group\":1,\"root\":[0.5,0,0]}"),
         "guide 7: 'root' is a whole number from -2147483648 to 2147483647"},
        {document("", ",{\"id\":7,\"group\":1,\"root\":[2147483648,0,0]}"),
         "guide 7: 'root' is a whole number"},
        {document("", guideWith("\"locked\":false")), "key 'points' not found: guide 7"},
        {document("", guideWith("\"points\":[0,0,0,1]")),
         "point array length is not a multiple of 3: guide 7, 'points'"},
        {document("", guideWith("\"points\":[0,0,0]")),
         "guide 7: 'points' needs at least 2 points"},
        {document("", guideWith("\"points\":[]")), "guide 7: 'points' needs at least 2 points"},
        {document("", guideWith("\"points\":[0,0,0,0,1,null]")),
         "guide 7: 'points' holds something that is not a number"},
        {document("", guideWith("\"points\":{}")),
         "guide 7: 'points' is a list of numbers, three per point"},
        {document("", guideWith("\"points\":[0,0,0,0,1,1e39]")),
         "guide 7: 'points' holds a number beyond the range of 32-bit floats"},
        {document("", ",{\"id\":7,\"group\":1,\"root\":[0,0,0]," + points + "}"),
         "key 'frameUp' not found: guide 7"},
        {document("", guideWith(points + ",\"frameUp\":[1,0]")),
         "guide 7: 'frameUp' is three numbers"},
        {document("", guideWith(points + ",\"locked\":1")), "guide 7: 'locked' is true or false"},
        {document("", guideWith(points + ",\"tube\":[]")), "guide 7: 'tube' is an object"},
        {document("", guideWith(points + ",\"tube\":{\"radius\":1}")),
         "guide 7: 'tube.radius' is a list of numbers"},
        {document("", guideWith(points + ",\"tube\":{\"twist\":\"a\"}")),
         "guide 7: 'tube.twist' holds something that is not a number"},
        {document("", guideWith(points + ",\"attributes\":[]")),
         "guide 7: 'attributes' is an object"},
        {document("", guideWith(points + ",\"attributes\":{\"k\":[]}")),
         "guide 7: 'attributes.k' holds something that is not a number"},
        {document("", guideWith(points + ",\"pointAttributes\":{\"k\":1}")),
         "guide 7: 'pointAttributes.k' is a list of numbers"},
        {document("", guideWith(points + ",\"pointAttributes\":{\"k\":[1]}")),
         "guide 7: 'pointAttributes.k' has 1 values for 2 points, give one per point"},
        {document("", guideWith(points) + guideWith(points)), "guide 7: its ID is given twice"},
        {document("", guideWith(points + ",\"group\":9")), "guide 7: its group 9 does not exist"},
        {document("", guideWith(points + ",\"parent\":1,\"locked\":true")),
         "guide 7: it has a parent, but 'a' is a root group"},
        // Followers
        {document("", childWith(points)),
         "guide 7: its parent 0 does not exist, and 'b' is a "
         "child group"},
        {document("", childWith(points + ",\"parent\":1")), "key 'offsets' not found: guide 7"},
        {document("", childWith(offsets + ",\"parent\":7")),
         "guide 7: its parent 7 is not in the parent group of 'b'"},
        {document("", childWith(offsets + ",\"parent\":99")),
         "guide 7: its parent 99 does not exist"},
        {document("", childWith(offsets + ",\"parent\":-1")),
         "guide 7: 'parent' is a whole number from 0 to"},
        {document("", ",{\"id\":7,\"group\":2,\"parent\":1,\"root\":[0,0,0],\"frameUp\":[1,0,0]," +
                          offsets + "}"),
         "key 'rootLocal' not found: guide 7"},
        {document("", childWith("\"offsets\":[0,0,0,0],\"parent\":1")),
         "point array length is not a multiple of 3: guide 7, 'offsets'"},
        {document(R"(,{"id":3,"name":"c","parent":2})",
                  childWith("\"offsets\":[3e38,3e38,3e38,3e38,3e38,3e38],\"parent\":1") +
                      R"(,{"id":8,"group":3,"parent":7,"root":[0,0,0],"frameUp":[1,0,0],)"
                      R"("rootLocal":[0,0,0],"frameUpLocal":[1,0,0],)"
                      R"("offsets":[3e38,3e38,3e38,3e38,3e38,3e38]})"),
         "guide data: guide 8 would leave the range of 32-bit floats as it follows its parent"},
    };
    for (const auto& row : rows) {
        try {
            (void)guidesFromJson(row.text);
            ADD_FAILURE() << "was read: " << row.text;
        } catch (const std::exception& error) {
            EXPECT_THAT(error.what(), StartsWith(row.error)) << row.text;
        }
    }
}

TEST_P(GuideJsonTest, SurvivesDamagedDocuments) {
    const std::string text =
        guidesToJson(makeHierarchy(scalp, {.primaries = 4, .pointsPerGuide = 3, .seed = 3}));
    SplitMix random(GetParam());
    const std::string spare = "{}[]\",:-+.eE0123456789truefalsn \xff";
    std::size_t read = 0;
    for (int round = 0; round < 120; ++round) {
        std::string damaged = text;
        for (std::uint64_t edits = 1 + random.nextU64() % 3; edits > 0; --edits) {
            const std::size_t at = random.nextU64() % damaged.size();
            switch (random.nextU64() % 3) {
                case 0:
                    damaged[at] = spare[random.nextU64() % spare.size()];
                    break;
                case 1:
                    damaged.erase(at, 1 + random.nextU64() % 40);
                    break;
                default:
                    damaged.insert(at, 1, spare[random.nextU64() % spare.size()]);
            }
        }
        try {
            const GuideHierarchy guides = guidesFromJson(damaged);
            const std::string again = guidesToJson(guides);
            EXPECT_EQ(guidesToJson(guidesFromJson(again)), again);
            ++read;
        } catch (const std::invalid_argument&) {
        } catch (const nlohmann::json::exception&) {
        }
    }
    EXPECT_GT(read, 0u) << "the damage is too heavy to prove anything";
}

TEST(GuideJson, ReadsDeepAndWideDocumentsInTheirTime) {
    std::string groups = "{\"id\":1,\"name\":\"g1\"}", guides;
    for (int g = 2; g <= 20'000; ++g)
        groups += ",{\"id\":" + std::to_string(g) + ",\"name\":\"g" + std::to_string(g) +
                  "\",\"parent\":" + std::to_string(g - 1) + "}";
    const GuideHierarchy deep = guidesFromJson("{\"groups\":[" + groups + "],\"guides\":[]}");
    EXPECT_EQ(deep.deepestLevel(), 19'999);
    // One long parent, followers of all lengths: the parent is not resampled for each.
    std::string parent = "0,0,0", children;
    for (int i = 1; i < 20'000; ++i) parent += ",0," + std::to_string(i) + ",0";
    for (int c = 0; c < 20'000; ++c)
        children += ",{\"id\":" + std::to_string(c + 2) +
                    ",\"group\":2,\"parent\":1,\"root\":[-1,0,0],\"frameUp\":[1,0,0],"
                    "\"rootLocal\":[0,0,0],\"frameUpLocal\":[1,0,0],\"offsets\":[1,0,0,1,0,0" +
                    (c % 2 ? std::string(",1,0,0") : std::string()) + "]}";
    const GuideHierarchy wide = guidesFromJson(
        "{\"groups\":[{\"id\":1,\"name\":\"a\"},{\"id\":2,\"name\":\"b\",\"parent\":1}],"
        "\"guides\":[{\"id\":1,\"group\":1,\"root\":[-1,0,0],\"frameUp\":[1,0,0],\"points\":[" +
        parent + "]}" + children + "]}");
    EXPECT_EQ(wide.guide(20'001)->points.size(), 3u);
    EXPECT_LT(distance(wide.guide(20'001)->points[1], {1, 9999.5f, 0}), 0.1f);
}

}  // namespace
}  // namespace corvelle
