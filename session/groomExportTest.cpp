#include <filesystem>

#include "io/alembicReader.h"
#include "io/testing/alembicRules.h"
#include "session/groomExport.h"
#include "session/groomSessionFixture.h"

namespace corvelle {
namespace {

class GroomExportTest : public GroomSessionTest {
protected:
    GroomExportTest() : GroomSessionTest(1.0, true) {}
    ~GroomExportTest() override { std::filesystem::remove(path); }
    ExportSettings settings(bool guides) const {
        return {
            .path = path, .name = "hair", .application = "test", .version = "1", .guides = guides};
    }
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("corvelleGroomExport" + std::to_string(::getpid()) + ".abc"))
                                 .string();
};

TEST_F(GroomExportTest, WritesTheGuidesWithTheStrandsAlsoWhileFollowing) {
    groom.setFollowScalp(true);
    GroomExport job(settings(true), groom.framesPerSecond());
    std::vector<std::vector<Vec3f>> written;
    for (int f = 1; f <= 3; ++f) {
        groom.updateScalpPoints(shifted(scalp->restPoints(), {0.0f, float(f), 0.0f}), std::nullopt);
        EXPECT_GT(job.writeFrame(groom, f, 1.0f), 100u);
        const auto points = groom.result().strands->points();
        written.emplace_back(points.begin(), points.end());
    }
    job.close();
    EXPECT_THAT(job.warnings(), testing::IsEmpty());
    EXPECT_THAT(alembicFaults(path, true), testing::IsEmpty());
    const AlembicCurves read(path);
    EXPECT_THAT(read.objects(), testing::ElementsAre("/hair/hairShape", "/hair/guides_0"));
    const auto rest = groom.document().guides;
    for (int f = 1; f <= 3; ++f) {
        EXPECT_EQ(read.read("hair", f / 24.0).points, written[std::size_t(f - 1)]);
        const CurveSet guides = read.read("guides_0", f / 24.0);
        ASSERT_EQ(guides.counts.size(), 40u);
        EXPECT_EQ(guides.ids[5], rest->ids()[5]);
    }
    // They go with the scalp: all frames alike, a step of one apart.
    const CurveSet first = read.read("guides_0", 1 / 24.0), third = read.read("guides_0", 3 / 24.0);
    for (std::size_t i = 0; i < first.points.size(); ++i)
        EXPECT_NEAR(third.points[i].y - first.points[i].y, 0.0f, 2.01f);
}

TEST_F(GroomExportTest, SharesAreTheGreatestWeightsOfInterpolate) {
    groom.evaluate({.computeBounds = false});
    const auto sharings = groom.guideSharings();
    ASSERT_EQ(sharings.size(), 1u);
    EXPECT_EQ(*sharings[0].guides, *groom.document().guides);
    ASSERT_EQ(sharings[0].rows.size(), groom.result().strands->strandCount());
    std::size_t shared = 0;
    for (const auto& row : sharings[0].rows) {
        float sum = 0.0f;
        for (std::size_t k = 0; k < 3; ++k) {
            sum += row.shares[k].weight;
            if (k > 0) {
                EXPECT_LE(row.shares[k].weight, row.shares[k - 1].weight);
            }
        }
        EXPECT_GT(sum, 0.3f);
        EXPECT_LE(sum, 1.0001f);
        shared += row.shares[1].weight > 0.0f;
    }
    EXPECT_GT(shared, 10u) << "every strand follows one guide alone: too easy";
    // A single neighbour: the nearest guide has it all.
    setParam(groom, "interpolate", "neighbors", 1);
    groom.evaluate({.computeBounds = false});
    const auto alone = groom.guideSharings();
    for (const auto& row : alone[0].rows) EXPECT_NEAR(row.shares[0].weight, 1.0f, 1e-6f);
}

TEST_F(GroomExportTest, DensityCountsInARenderToo) {
    setParam(groom, "scatter", "density", 10.0);  // small grooms are never thinned
    GroomExport job(settings(false), groom.framesPerSecond());
    const std::size_t all = job.writeFrame(groom, 1, 1.0f);
    const std::size_t half = job.writeFrame(groom, 2, 0.5f);
    EXPECT_NEAR(double(half), 0.5 * double(all), 0.05 * double(all));
    EXPECT_FALSE(groom.evaluationData().viewport);
    EXPECT_LT(job.writeFrame(groom, 3, 0.0f), all);
    EXPECT_EQ(errorOf([&] { job.writeFrame(groom, 3, 1.0f); }), "export frames must increase");
    setParam(groom, "scatter", "density", {{"expression", "nosuch"}});
    EXPECT_THROW(job.writeFrame(groom, 4, 1.0f), ExportEvaluationError);
    EXPECT_EQ(job.frames(), 3u);
    EXPECT_EQ(job.warnings().size(), 1u);
}

}  // namespace
}  // namespace corvelle
