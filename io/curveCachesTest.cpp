#include <fstream>

#include <gmock/gmock.h>

#include "io/alembicWriter.h"
#include "io/curveCaches.h"
#include "io/testing/exportCases.h"

namespace corvelle {
namespace {

class CurveCachesTest : public testing::Test {
protected:
    void write(const std::string& to, int frames, std::size_t strands = 6, int first = 1) {
        StrandsAlembicWriter writer;
        writer.open(to, "guides", 24);
        for (int f = 0; f < frames; ++f) {
            const OwnedFrame owned = at(first + f, strands);
            writer.writeStrands(first + f, owned.view());
        }
        writer.close();
    }
    static OwnedFrame at(int frame, std::size_t strands = 6) {
        return ownedFrame(makeTuft({.strands = strands, .pointsPerStrand = 5}), frame);
    }
    ScratchFolder folder;
    const std::string path = folder.file("guides.abc");
};

TEST_F(CurveCachesTest, TheReaderSharesWhatStaysAndSeesAFileThatChanged) {
    AlembicCurveReader reader;
    EXPECT_EQ(reader.stamp(path, "", 0.0), 0u);
    write(path, 3);
    const auto second = reader.curves(path, "", 2.0 / 24.0);
    EXPECT_EQ(second->points[1], at(2).strands.points()[1]);
    EXPECT_EQ(reader.curves(path, "", 2.5 / 24.0), second) << "the same sample is read twice";
    EXPECT_EQ(reader.stamp(path, "", 2.0 / 24.0), reader.stamp(path, "", 2.5 / 24.0));
    EXPECT_NE(reader.stamp(path, "", 2.0 / 24.0), reader.stamp(path, "", 3.0 / 24.0));
    EXPECT_NE(reader.stamp(path, "", 2.0 / 24.0), reader.stamp(path, "guides", 2.0 / 24.0));
    const std::uint64_t before = reader.stamp(path, "", 0.0);
    write(path, 3, 7);
    EXPECT_NE(reader.stamp(path, "", 0.0), before);
    EXPECT_EQ(reader.curves(path, "", 0.0)->counts.size(), 7u);
    std::ofstream(path) << "broken now";
    EXPECT_EQ(errorOf([&] { reader.curves(path, "", 0.0); }), path + ": not an Alembic file");
    EXPECT_NE(reader.stamp(path, "", 0.0), 0u);
}

TEST_F(CurveCachesTest, AGuideCachePlaysAndKeepsTheRootsThatAreKnown) {
    write(path, 3);
    AlembicGuideCache cache(path, "");
    const OwnedFrame first = at(1);
    std::vector<GuideCurve> known(1);
    known[0] = {first.strands.ids()[2], {4, 0.5f, 0.25f}, {{0, 0, 0}, {0, 1, 0}}, {}};
    const auto held = std::make_shared<const GuideSet>(known);
    const GuidesPtr guides = cache.guidesAt(2.0 / 24.0, held);
    ASSERT_EQ(guides->size(), 6u);
    EXPECT_TRUE(std::ranges::equal(guides->ids(), first.strands.ids()));
    EXPECT_TRUE(std::ranges::equal(guides->points(), at(2).strands.points()));
    EXPECT_EQ(guides->roots()[2], known[0].root);
    EXPECT_FALSE(guides->roots()[3].rooted());
    EXPECT_EQ(cache.guidesAt(2.0 / 24.0, guides), guides)
        << "played once more, it is the same object";
    EXPECT_NE(cache.guidesAt(3.0 / 24.0, guides), guides);
    EXPECT_EQ(errorOf([&] { AlembicGuideCache(path, "hair"); }), "no curves named 'hair'");
}

TEST_F(CurveCachesTest, ABakeMovesTheGuidesItHoldsById) {
    write(path, 4, 6, 10);
    const auto bake = readSimulationCache({path, "", 77}, 24.0);
    EXPECT_EQ(bake->stamp(), 77u);
    const OwnedFrame rest = at(0);
    std::vector<GuideCurve> curves(2);  // two of the six, in another order
    for (std::size_t g = 0; g < 2; ++g) {
        const auto points = rest.strands.pointsOf(4 - g);
        curves[g] = {rest.strands.ids()[4 - g], {}, {points.begin(), points.end()}, {}};
    }
    const auto groomed = std::make_shared<const GuideSet>(curves);
    for (int f = 10; f < 14; ++f) {
        const OwnedFrame baked = at(f);
        const GuidesPtr guides = bake->guidesAt(f, groomed);
        EXPECT_TRUE(std::ranges::equal(guides->pointsOf(0), baked.strands.pointsOf(4)));
        EXPECT_TRUE(std::ranges::equal(guides->pointsOf(1), baked.strands.pointsOf(3)));
    }
    EXPECT_EQ(bake->guidesAt(9, groomed), groomed);
    EXPECT_EQ(bake->guidesAt(14, groomed), groomed);
    curves[0].points.pop_back();
    const std::string id = std::to_string(curves[0].id);
    EXPECT_EQ(errorOf([&] { bake->guidesAt(10, std::make_shared<const GuideSet>(curves)); }),
              path + ": the bake holds guide " + id + " with 5 points, not 4");
    curves[0].id = 1;
    EXPECT_EQ(errorOf([&] { bake->guidesAt(10, std::make_shared<const GuideSet>(curves)); }),
              path + ": the bake does not hold guide 1");
}

TEST_F(CurveCachesTest, OpeningAGroomGoesOnWithoutTheCachesThatDoNotOpen) {
    write(path, 2);
    GroomFile groom;
    groom.directory = folder.file("");
    groom.guideCache = {"guides.abc", ""};
    groom.simCaches["good"] = {path, "", 1};
    groom.simCaches["none"] = {"", "", 1};
    groom.simCaches["gone"] = {"gone.abc", "", 1};
    std::vector<std::string> errors;
    GroomCaches caches = openCaches(groom, errors);
    EXPECT_TRUE(caches.guides);
    EXPECT_EQ(caches.bakes.size(), 1u);
    const std::string gone = "cannot open '" + folder.file("") + "gone.abc'";
    EXPECT_THAT(errors, testing::ElementsAre("the simulation bake of gone did not open: " + gone));
    errors.clear();
    groom.guideCache = {"gone.abc", ""};
    groom.simCaches.clear();
    EXPECT_FALSE(openCaches(groom, errors).guides);
    EXPECT_THAT(errors, testing::ElementsAre("the guide cache did not open: " + gone));
}

}  // namespace
}  // namespace corvelle
