#include <cmath>
#include <numbers>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/partData.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

std::string errorOf(const char* text) {
    try {
        readPartData(text);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

TEST(PartData, ReadsBackWhatItWrites) {
    const PartData data{{{"middle", {{3, 0.25f, 0.1f}, {4, -0.0f, 1e-7f}}},
                         {"\"left\"\n", {{0, 1, 0}, {-1, 0, 0}}}}};
    const std::string text = partDataJson(data);
    EXPECT_THAT(text, testing::StartsWith(
                          R"({"parts":[{"name":"middle","points":[[3,0.25,0.1],[4,-0.0,1e-07]]})"));
    EXPECT_THAT(text, testing::EndsWith(R"("version":1})"));
    EXPECT_EQ(readPartData(text), data);
    EXPECT_EQ(partDataJson({}), "");
    EXPECT_TRUE(readPartData(" \t\r\n").lines.empty());
    EXPECT_TRUE(readPartData(R"({"version":1,"parts":[]})").lines.empty());
}

TEST(PartData, NamesWhatIsWrong) {
    const char* newer = "part data version is newer than this Corvelle supports";
    EXPECT_EQ(errorOf(R"({"version":2,"parts":[]})"), newer);
    EXPECT_EQ(errorOf(R"({"version":18446744073709551615,"parts":[]})"), newer);
    EXPECT_EQ(errorOf(R"({"version":0,"parts":[]})"), "part data version is not valid, write 1");
    EXPECT_EQ(errorOf(R"({"version":1})"), "key 'parts' not found: part data");
    EXPECT_EQ(errorOf("[]"), "part data is a JSON object");
    EXPECT_EQ(errorOf(R"({"parts":[{"points":[]}]})"), "key 'name' not found: part number 0");
    EXPECT_EQ(errorOf(R"({"parts":[{"name":"a","points":[[1,0,0]]}]})"),
              "a part needs at least two points on the scalp");
    EXPECT_EQ(errorOf(R"({"parts":[{"name":"a","points":[[1,0],[1,0,0]]}]})"),
              "part 'a': 'points' is a list of [triangle, u, v]");
    for (const char* triangle : {"1.5", "-2", "2147483648", "\"1\"", "1e300"})
        EXPECT_EQ(
            errorOf((R"({"parts":[{"name":"a","points":[[)" + std::string(triangle) + ",0,0]]}]}")
                        .c_str()),
            "part 'a': a point's triangle is a whole number from -1 to 2147483647");
    EXPECT_EQ(errorOf(R"({"parts":[{"name":"a","points":[[1,1e39,0]]}]})"),
              "part 'a': 'points' holds no 32-bit float");
    EXPECT_THAT(errorOf("{"), testing::HasSubstr("parse error"));
    const std::string whole = partDataJson({{{"m", {{3, 0.25f, 0.1f}, {4, 0.5f, 0.5f}}}}});
    for (std::size_t cut = 1; cut < whole.size(); ++cut)
        EXPECT_NE(errorOf(whole.substr(0, cut).c_str()), "no error") << cut;
}

PartLine ring(const ScalpMesh& mesh, float height, float radius, int points) {
    PartLine line{"ring", {}};
    for (int i = 0; i <= points; ++i) {
        const float angle = 2.0f * std::numbers::pi_v<float> * float(i) / float(points);
        SurfaceHit hit;
        EXPECT_TRUE(mesh.closestPoint({radius * std::cos(angle), height, radius * std::sin(angle)},
                                      5.0f, hit));
        line.points.push_back(hit.root());
    }
    return line;
}

TEST(PartLines, SeparateTheTwoSidesOfALineRoundAHead) {
    const auto sphere = std::make_shared<const ScalpMesh>(makeIcosphere(5, 10.0f));
    for (const int points : {12, 40, 300}) {
        const auto parts = partLinesOn({{ring(*sphere, 0.0f, 10.0f, points)}}, sphere);
        EXPECT_FALSE(parts->empty());
        std::size_t wrong = 0, crossing = 0, tested = 0;
        for (std::uint64_t seed = 0; seed < 20000; ++seed) {
            SplitMix random(seed);
            const auto at = [&] {
                const float y = random.nextRange(-4.0f, 4.0f), angle = random.nextRange(0.0f, 0.8f);
                const float r = std::sqrt(100.0f - y * y);
                return Vec3f{r * std::cos(angle), y, r * std::sin(angle)};
            };
            const Vec3f a = at(), b = at();
            if (std::abs(a.y) < 0.2f || std::abs(b.y) < 0.2f) continue;
            ++tested;
            const bool apart = (a.y > 0.0f) != (b.y > 0.0f);
            crossing += apart;
            EXPECT_EQ(parts->separates(a, b), parts->separates(b, a));
            wrong += parts->separates(a, b) != apart;
        }
        EXPECT_GT(crossing, tested / 3);
        EXPECT_EQ(wrong, 0u) << points << " points";
    }
}

TEST(PartLines, SayNothingOfRootsFarBelowThemOrBeside) {
    const auto sphere = std::make_shared<const ScalpMesh>(makeIcosphere(5, 10.0f));
    PartLine line{"top", {}};
    for (int i = -10; i <= 10; ++i) {
        SurfaceHit hit;
        ASSERT_TRUE(sphere->closestPoint({0.3f * float(i), 9.9f, 0.0f}, 5.0f, hit));
        line.points.push_back(hit.root());
    }
    const auto parts = partLinesOn({{line}}, sphere);
    EXPECT_TRUE(parts->separates({0, 10, 1}, {0, 10, -1}));
    EXPECT_FALSE(parts->separates({0, -10, 1}, {0, -10, -1})) << "on the other side of the head";
    EXPECT_FALSE(parts->separates({6, 8, 1}, {6, 8, -1})) << "past its end";
    EXPECT_FALSE(parts->separates({0, 10, 1}, {1, 10, 1.5f})) << "on one side";
    EXPECT_FALSE(parts->separates({0, 10, 1}, {0, 10, 1}));
    EXPECT_FALSE(parts->separates({NAN, 10, 1}, {0, 10, -1}));

    EXPECT_TRUE(partLinesOn({}, sphere)->empty());
    EXPECT_TRUE(partLinesOn({{line}}, nullptr)->empty());
    EXPECT_FALSE(partLinesOn({}, nullptr)->separates({0, 0, 1}, {0, 0, -1}));
    for (StrandRoot& root : line.points) root.triangle = 1 << 30;  // drawn on another mesh
    EXPECT_TRUE(partLinesOn({{line}}, sphere)->empty());
    EXPECT_NE(partLinesOn({{line}}, sphere)->hash(), parts->hash());
}

TEST(PartLines, FindTheNearestPlaceOfAPart) {
    const auto sphere = std::make_shared<const ScalpMesh>(makeIcosphere(5, 10.0f));
    PartData data{{ring(*sphere, 0.0f, 10.0f, 200), ring(*sphere, 6.0f, 8.0f, 60),
                   ring(*sphere, -6.0f, 8.0f, 60)}};
    data.lines[1].name = "upper";
    const auto parts = partLinesOn(data, sphere);
    EXPECT_EQ(parts->find("ring"), 0) << "both of that name";
    EXPECT_EQ(parts->find("upper"), 1);
    EXPECT_EQ(parts->find("lower"), -1);
    SplitMix random(4);
    std::size_t found = 0, missed = 0;
    for (int i = 0; i < 3000; ++i) {
        const Vec3f at{random.nextRange(-9, 9), random.nextRange(-9, 9), random.nextRange(-9, 9)};
        for (const int part : {-1, 0, 1}) {
            float least = 1e9f;
            for (const PartLine& line : data.lines) {
                if (part >= 0 && parts->find(line.name) != part) continue;
                for (std::size_t k = 1; k < line.points.size(); ++k) {
                    const Vec3f a = sphere->surfacePoint(line.points[k - 1]);
                    const Vec3f ab = sphere->surfacePoint(line.points[k]) - a;
                    const float t = std::clamp(dot(at - a, ab) / lengthSquared(ab), 0.0f, 1.0f);
                    least = std::min(least, distance(at, a + ab * t));
                }
            }
            PartPlace place;
            const bool any = parts->nearest(at, part, 4.0f, place);
            EXPECT_EQ(any, least <= 4.0f);
            ++(any ? found : missed);
            if (!any) continue;
            EXPECT_NEAR(place.distance, least, 1e-4f);
            EXPECT_NEAR(distance(place.position, at), least, 1e-4f);
            EXPECT_NEAR(length(place.along), 1.0f, 1e-5f);
            EXPECT_NEAR(place.along.y, 0.0f, 0.2f) << "rings run level";
        }
    }
    EXPECT_GT(found, 1000u);
    EXPECT_GT(missed, 1000u);
    PartPlace place;
    EXPECT_FALSE(parts->nearest({NAN, 0, 0}, -1, 100.0f, place));
    EXPECT_FALSE(partLinesOn({}, sphere)->nearest({0, 0, 0}, -1, 100.0f, place));
    std::swap(data.lines[0].name, data.lines[1].name);
    EXPECT_NE(partLinesOn(data, sphere)->hash(), parts->hash()) << "names tell parts apart";
}

TEST(PartTransfer, MovesLinesToAnotherMeshOfTheSameShape) {
    const ScalpMesh from = makeIcosphere(4, 10.0f), to = makeSphere(48, 64, 10.0f);
    PartData data{{ring(from, 3.0f, 9.5f, 50), {"short", {{3, 0.2f, 0.2f}, {-1, 0, 0}}}}};
    const PartData moved = transferParts(data, from, to);
    ASSERT_EQ(moved.lines.size(), 1u) << "one point is no part";
    ASSERT_EQ(moved.lines[0].points.size(), 51u);
    for (std::size_t i = 0; i < 51; ++i)
        EXPECT_LT(distance(to.surfacePoint(moved.lines[0].points[i]),
                           from.surfacePoint(data.lines[0].points[i])),
                  0.1f);
    EXPECT_THROW(transferParts(data, from, ScalpMesh()), std::invalid_argument);
}

}  // namespace
}  // namespace corvelle
