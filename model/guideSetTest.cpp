#include <functional>

#include <gtest/gtest.h>

#include "model/guideSet.h"
#include "model/hash.h"

namespace corvelle {
namespace {

std::vector<GuideCurve> someCurves(std::size_t count, std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<GuideCurve> curves(count);
    for (std::size_t i = 0; i < count; ++i) {
        GuideCurve& curve = curves[i];
        curve.id = i % 2 ? random.nextU64() | 1 : 2 * i + 2;
        curve.root = {std::int32_t(i), random.nextFloat(), 0.25f};
        curve.points.resize(2 + random.nextU64() % 9);
        for (Vec3f& point : curve.points)
            point = {random.nextFloat(), random.nextFloat(), random.nextFloat()};
        if (i % 3 == 0) continue;  // a plain guide
        auto detail = std::make_shared<GuideDetail>();
        detail->group = std::uint32_t(i % 3);
        detail->attributes["stiff"] = random.nextFloat();
        if (i % 3 == 2) detail->pointAttributes["mask"] = {0.0f, 1.0f, 0.0f};
        curve.detail = std::move(detail);
    }
    return curves;
}

class GuideSetTest : public testing::TestWithParam<std::uint64_t> {
protected:
    const std::vector<GuideCurve> curves = someCurves(150, GetParam());
    const GuideSet set{curves};
};
INSTANTIATE_TEST_SUITE_P(Seeds, GuideSetTest, testing::Range<std::uint64_t>(0, 10));

TEST_P(GuideSetTest, HoldsTheCurvesItWasGiven) {
    ASSERT_EQ(set.size(), curves.size());
    for (std::size_t i = 0; i < curves.size(); ++i) {
        EXPECT_EQ(set.ids()[i], curves[i].id);
        EXPECT_EQ(set.roots()[i], curves[i].root);
        EXPECT_EQ(std::vector<Vec3f>(set.pointsOf(i).begin(), set.pointsOf(i).end()),
                  curves[i].points);
        EXPECT_EQ(set.indexOf(curves[i].id), i);
    }
    EXPECT_EQ(set.indexOf(0), set.size());
    EXPECT_EQ(set.indexOf(mix64(GetParam()) & ~std::uint64_t(1)), set.size());
    EXPECT_EQ(GuideSet(set.curves()), set);
    EXPECT_EQ(set.attributeNames(), std::vector<std::string>{"stiff"});
    EXPECT_EQ(set.pointAttributeNames(), std::vector<std::string>{"mask"});
}

TEST_P(GuideSetTest, TellsWhichGuideChangedWhateverChanged) {
    using Change = std::function<void(GuideCurve&, GuideDetail&)>;
    const std::vector<Change> changes = {
        [](GuideCurve& c, GuideDetail&) { c.id += 1'000'000; },
        [](GuideCurve& c, GuideDetail&) { c.root.u += 0.5f; },
        [](GuideCurve& c, GuideDetail&) { c.points.back().y = -c.points.back().y; },
        [](GuideCurve& c, GuideDetail&) { c.points.push_back({}); },
        [](GuideCurve&, GuideDetail& d) { d.parent = 9; },
        [](GuideCurve&, GuideDetail& d) { d.group = 9; },
        [](GuideCurve&, GuideDetail& d) { d.level = 9; },
        [](GuideCurve&, GuideDetail& d) { d.frameUp.z = -0.0f; },
        [](GuideCurve&, GuideDetail& d) { d.tubeRadius.push_back(2.0f); },
        [](GuideCurve&, GuideDetail& d) { d.tubeTwist += 1.0f; },
        [](GuideCurve&, GuideDetail& d) { d.attributes["other"] = 0.0f; },
        [](GuideCurve&, GuideDetail& d) {
            d.pointAttributes["mask"] = {0.0f, 1.0f};
        },
    };
    for (std::size_t change = 0; change < changes.size(); ++change) {
        std::vector<GuideCurve> edited = curves;
        const std::size_t at = (GetParam() * 31 + change * 7) % curves.size();
        auto detail = std::make_shared<GuideDetail>();
        if (edited[at].detail) *detail = *edited[at].detail;
        changes[change](edited[at], *detail);
        edited[at].detail = detail;
        const GuideSet after(edited);
        EXPECT_NE(after, set) << change;
        for (std::size_t i = 0; i < curves.size(); ++i)
            EXPECT_EQ(after.hashes()[i] == set.hashes()[i], i != at) << change;
        EXPECT_EQ(after.rootsHash() == set.rootsHash(), change > 1) << change;
    }
}

TEST_P(GuideSetTest, TrustsTheHashesOfViewsAndAgreesWithThem) {
    std::vector<GuideView> views;
    for (std::size_t i = 0; i < set.size(); ++i)
        views.push_back({.id = set.ids()[i],
                         .root = set.roots()[i],
                         .points = set.pointsOf(i),
                         .detail = curves[i].detail,
                         .hash = set.hashes()[i]});
    EXPECT_EQ(GuideSet(std::span<const GuideView>(views)), set);
}

TEST(GuideSet, ReadsAttributesWhereThereAreAny) {
    auto detail = std::make_shared<GuideDetail>();
    detail->attributes["stiff"] = 0.5f;
    detail->pointAttributes["mask"] = {0.0f, 1.0f, 3.0f};
    const GuideSet set(
        std::vector<GuideCurve>{{.id = 1, .points = {{}, {0, 1, 0}, {0, 2, 0}}, .detail = detail},
                                {.id = 2, .points = {{}, {0, 1, 0}}}});
    EXPECT_TRUE(set.hasAttribute("stiff"));
    EXPECT_TRUE(set.hasAttribute("mask"));
    EXPECT_FALSE(set.hasAttribute("mas"));
    EXPECT_EQ(set.attribute(0, "stiff"), 0.5f);
    EXPECT_EQ(set.attribute(1, "stiff"), 0.0f);
    EXPECT_EQ(set.pointAttribute(1, "mask", 0.5f), 0.0f);
    const float shares[] = {-1.0f, 0.0f, 0.25f, 0.5f, 0.75f, 1.0f, 2.0f};
    const float expected[] = {0.0f, 0.0f, 0.5f, 1.0f, 2.0f, 3.0f, 3.0f};
    for (std::size_t i = 0; i < std::size(shares); ++i)
        EXPECT_EQ(set.pointAttribute(0, "mask", shares[i]), expected[i]);
}

TEST(GuideSet, OfNothingEqualsTheDefault) {
    EXPECT_EQ(GuideSet(), GuideSet(std::vector<GuideCurve>{}));
    EXPECT_TRUE(GuideSet().empty());
    EXPECT_EQ(GuideSet().indexOf(1), 0u);
    EXPECT_EQ(GuideSet().offsets().size(), 1u);
}

TEST(GuideSet, RefusesWhatCannotBeAGuide) {
    const std::vector<Vec3f> two(2), one(1);
    const struct {
        std::vector<GuideCurve> curves;
        const char* text;
    } rows[] = {
        {{{.id = 0, .points = two}}, "guides: a guide ID is a positive integer"},
        {{{.id = 7, .points = one}}, "guides: guide 7 has 1 points, give at least 2"},
        {{{.id = 7, .points = two}, {.id = 8, .points = two}, {.id = 7, .points = two}},
         "guides: guide ID 7 is given twice"},
    };
    for (const auto& row : rows) {
        try {
            const GuideSet set(row.curves);
            ADD_FAILURE() << row.text;
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), row.text);
        }
    }
}

}  // namespace
}  // namespace corvelle
