#include <gmock/gmock.h>

#include "io/alembicReader.h"
#include "io/alembicWriter.h"
#include "io/testing/alembicRules.h"
#include "io/testing/exportCases.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

using testing::IsEmpty;

constexpr double kRate = 24.0;

std::vector<std::uint64_t> idsOf(const StrandSet& strands) {
    return {strands.ids().begin(), strands.ids().end()};
}

/// Where the strands of two sets differ, as text; empty when they are one and the same.
std::string difference(const CurveSet& read, const StrandSet& written) {
    if (!std::ranges::equal(read.points, written.points())) return "points";
    if (!std::ranges::equal(read.widths, written.widths())) return "widths";
    if (read.ids != idsOf(written) && !(read.ids.empty() && written.strandCount() == 0))
        return "ids";
    if (read.counts.size() != written.strandCount()) return "counts";
    for (std::size_t s = 0; s < read.counts.size(); ++s)
        if (std::size_t(read.counts[s]) != written.pointCountOf(s)) return "counts";
    return {};
}

class AlembicCases : public testing::TestWithParam<std::size_t> {
protected:
    const ExportCase& exportCase() const {
        static const std::vector<ExportCase> cases = exportCases();
        return cases[GetParam()];
    }
    ScratchFolder folder;
};
INSTANTIATE_TEST_SUITE_P(Matrix, AlembicCases, testing::Range<std::size_t>(0, exportCases().size()),
                         [](const auto& made) { return exportCases()[made.param].name; });

TEST_P(AlembicCases, PlainFilesPleaseConsumersAndComeBackWhole) {
    const std::string path = folder.file("plain.abc");
    StrandsAlembicWriter writer;
    writer.open(path, "hair", kRate);
    double frame = 10.0;
    for (const OwnedFrame& owned : exportCase().frames) writer.writeStrands(frame++, owned.view());
    writer.close();
    EXPECT_THAT(alembicFaults(path, false), IsEmpty());
    const AlembicCurves read(path);
    EXPECT_THAT(read.objects(), testing::ElementsAre("/hair/hairShape"));
    frame = 10.0;
    for (const OwnedFrame& owned : exportCase().frames) {
        const CurveSet curves = read.read("", frame++ / kRate);
        EXPECT_EQ(difference(curves, owned.strands), "") << "frame " << frame - 1;
        if (!exportCase().frames[0].uvs.empty() && !owned.uvs.empty()) {
            EXPECT_EQ(curves.uvs, owned.uvs);
        }
    }
}

TEST_P(AlembicCases, GroomFilesPleaseConsumersInGroupsWithGuidesAtAnyThreadCount) {
    const StrandSet guides = makeTuft({.strands = 6, .pointsPerStrand = 5, .seed = 9});
    const auto write = [&](const std::string& path, bool grouped) {
        GroomAlembicWriter writer;
        writer.open(path, "hair", kRate);
        double frame = 1.0;
        for (const OwnedFrame& owned : exportCase().frames) {
            const StrandFrame guideFrame{.strands = &guides};
            StrandFrame whole = owned.view();
            std::vector<GuideShares> shares(owned.strands.strandCount());
            for (std::size_t s = 0; s < shares.size(); ++s)
                shares[s] = {{guides.ids()[s % 6], guides.ids()[(s + 1) % 6], 0},
                             {0.75f, 0.25f, 0.0f}};
            whole.shares = shares;
            if (!grouped) {
                writer.writeGroom(frame++, whole, &guideFrame);
                continue;
            }
            // The second half of the strands is a group that comes with the second frame.
            std::vector<std::uint32_t> first, second;
            for (std::uint32_t s = 0; s < shares.size(); ++s)
                (2 * s < shares.size() ? first : second).push_back(s);
            const StrandSet a = owned.strands.subset(first), b = owned.strands.subset(second);
            std::vector<StrandGroup> groups = {{0, "hair", {.strands = &a}},
                                               {0, "hair", guideFrame, true}};
            if (frame > 1.0) groups.push_back({7, "tail/fan", {.strands = &b}});
            writer.writeGroomGroups(frame++, groups);
        }
        writer.close();
    };
    for (const bool grouped : {false, true}) {
        const std::string one = folder.file("one.abc"), many = folder.file("many.abc");
        runWithThreads(1, [&] { write(one, grouped); });
        runWithThreads(8, [&] { write(many, grouped); });
        EXPECT_THAT(alembicFaults(one, true), IsEmpty());
        EXPECT_TRUE(bytesOf(one) == bytesOf(many)) << "the files differ with the thread count";
        const AlembicCurves read(one);
        const std::vector<std::string> expected =
            grouped ? std::vector<std::string>{"/hair/hair", "/hair/guides_0", "/hair/tail_fan"}
                    : std::vector<std::string>{"/hair/hairShape", "/hair/guides_0"};
        EXPECT_EQ(read.objects(), expected);
        double frame = 1.0;
        for (const OwnedFrame& owned : exportCase().frames) {
            if (!grouped) {
                EXPECT_EQ(difference(read.read("hair", frame / kRate), owned.strands), "");
            }
            EXPECT_EQ(difference(read.read("guides_0", frame++ / kRate), guides), "");
        }
    }
}

TEST(AlembicWriter, RefusesWrongCallsAndBadFramesAndStaysUsable) {
    ScratchFolder folder;
    const StrandSet tuft = makeTuft({.strands = 4});
    const StrandFrame good{.strands = &tuft};
    const std::vector<StrandGroup> groups = {{1, "a", good}, {2, "b", good}};

    StrandsAlembicWriter strands;
    EXPECT_EQ(errorOf([&] { strands.writeStrands(1, good); }), "writer is closed");
    EXPECT_EQ(errorOf([&] { strands.writeScales(1, {}); }), "writer is closed");
    EXPECT_EQ(errorOf([&] { strands.open(folder.file("x.abc"), "x", 24, 0.0); }),
              "the scale must be positive");
    EXPECT_EQ(errorOf([&] { strands.open(folder.file("x.abc"), "x", 24, -1.0); }),
              "the scale must be positive");
    const std::string nowhere = folder.file("none/x.abc");
    EXPECT_EQ(errorOf([&] { strands.open(nowhere, "x", 24); }), "cannot create '" + nowhere + "'");

    const std::string path = folder.file("strands.abc");
    strands.open(path, "hair", kRate);
    const StrandSet bad = lineStrands({{1, 3}, {2, 1}});
    EXPECT_EQ(errorOf([&] { strands.writeStrands(1, {.strands = &bad}); }),
              "strands need at least 2 points");
    strands.writeStrands(1, good);
    EXPECT_EQ(errorOf([&] { strands.writeStrandGroups(2, groups); }),
              "the strands were written without groups");
    EXPECT_EQ(errorOf([&] { strands.writeStrands(1, good); }), "frames must increase");
    const std::vector<Vec2f> few(3);
    EXPECT_EQ(errorOf([&] { strands.writeStrands(2, {.strands = &tuft, .rootUvs = few}); }),
              "root uvs: 3 values for 4");
    strands.writeStrands(2, good);
    strands.close();
    strands.close();
    EXPECT_EQ(AlembicCurves(path).range("").samples, 2u) << "a refused frame left a sample";

    const std::vector<StrandGroup> sameName = {{1, "a", good}, {2, "a", good}};
    strands.open(path, "hair", kRate);
    EXPECT_EQ(errorOf([&] { strands.writeStrandGroups(1, sameName); }), "two groups named 'a'");
    strands.writeStrandGroups(1, groups);
    EXPECT_EQ(errorOf([&] { strands.writeStrands(2, good); }),
              "the strands were written in groups");
    strands.close();
    EXPECT_THAT(alembicFaults(path, false), IsEmpty());

    GroomAlembicWriter groom;
    groom.open(path, "hair", kRate);
    const std::vector<StrandGroup> sameId = {{1, "a", good}, {1, "b", good}};
    EXPECT_EQ(errorOf([&] { groom.writeGroomGroups(1, sameId); }), "two groups with the id 1");
    groom.writeGroomGroups(1, sameName);  // other ids: the second object gets a name of its own
    EXPECT_EQ(errorOf([&] { groom.writeGroom(2, good); }), "the groom was written in groups");
    groom.close();
    EXPECT_THAT(AlembicCurves(path).objects(), testing::ElementsAre("/hair/a", "/hair/a_2"));
    groom.open(path, "hair", kRate);
    groom.writeGroom(1, good);
    EXPECT_EQ(errorOf([&] { groom.writeGroomGroups(2, groups); }),
              "the groom was written without groups");
    groom.close();
    EXPECT_THAT(alembicFaults(path, true), IsEmpty());
}

TEST(AlembicWriter, PlaysAnyStepAndGapAtTheRightTimes) {
    ScratchFolder folder;
    for (const std::vector<double>& frames :
         std::vector<std::vector<double>>{{1}, {0, 0.5, 1, 1.5}, {1, 2, 5, 9.25}, {-3, 4}}) {
        const std::string path = folder.file("times.abc");
        StrandsAlembicWriter writer;
        writer.open(path, "hair", 24000.0 / 1001.0, 2.0);
        const StrandSet tuft = makeTuft({.strands = 3});
        for (const double frame : frames) {
            OwnedFrame owned = ownedFrame(tuft, int(10 * frame));
            writer.writeStrands(frame, owned.view());
        }
        writer.close();
        EXPECT_THAT(alembicFaults(path, false), IsEmpty());
        const AlembicCurves read(path);
        for (const double frame : frames) {
            const OwnedFrame owned = ownedFrame(tuft, int(10 * frame));
            for (const double late : {0.0, 0.2}) {  // between samples: the one before
                const CurveSet curves = read.read("", (frame + late) * 1001.0 / 24000.0);
                EXPECT_EQ(curves.points[1], owned.strands.points()[1] * 2.0f) << frame;
                EXPECT_EQ(curves.widths[1], owned.strands.widths()[1] * 2.0f);
            }
        }
        const OwnedFrame first = ownedFrame(tuft, int(10 * frames.front()));
        EXPECT_EQ(read.read("", -100.0).points[1], first.strands.points()[1] * 2.0f);
    }
}

TEST(AlembicWriter, WritesPlatesAsAMeshOfTheirOwn) {
    ScratchFolder folder;
    const std::string path = folder.file("scales.abc");
    const std::vector<std::int32_t> counts = {4, 3}, indices = {0, 1, 2, 3, 2, 1, 4};
    const std::vector<Vec3f> points = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 0, 1}};
    const std::vector<Vec2f> uvs(5, Vec2f{0.25f, 0.5f});
    const std::vector<Vec3f> normals(5, Vec3f{0, 0, 1}), colors(2, Vec3f{1, 0, 0});
    const std::vector<float> ids = {1, 2};
    const std::vector<std::int32_t> variants = {3, 4};
    ScaleMesh scales{.mesh = {counts, indices, points, normals, uvs}};
    GroomAlembicWriter writer;
    writer.open(path, "skin", kRate);
    writer.writeGroom(1, {.strands = std::make_unique<StrandSet>().get()});
    writer.writeScales(1, scales);
    scales.look = {.color = colors, .id = ids, .variant = variants};  // late: defaults before
    writer.writeScales(2, scales);
    const std::vector<std::int32_t> wrong = {0, 1, 2, 3, 2, 1, 9};
    EXPECT_EQ(errorOf([&] {
                  writer.writeScales(3, {.mesh = {counts, wrong, points, {}, {}}});
              }),
              "cannot write the scales: face index 9 is out of range");
    writer.close();
    EXPECT_THAT(alembicFaults(path, true), IsEmpty());
}

TEST(AlembicWriter, TellsOfADiskThatIsFull) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP();
    StrandsAlembicWriter writer;
    const StrandSet tuft = makeTuft({.strands = 100});
    writer.open("/dev/full", "hair", kRate);
    writer.writeStrands(1, {.strands = &tuft});
    EXPECT_EQ(errorOf([&] { writer.close(); }), "cannot write '/dev/full'");
    EXPECT_FALSE(writer.isOpen());
}

TEST(AlembicWriter, AFileThatWasDroppedIsNoneToReaders) {
    ScratchFolder folder;
    const std::string path = folder.file("dropped.abc");
    {
        StrandsAlembicWriter writer;
        writer.open(path, "hair", kRate);
        const StrandSet tuft = makeTuft({.strands = 10});
        writer.writeStrands(1, {.strands = &tuft});
    }
    EXPECT_EQ(errorOf([&] { readCurves(path, "", 0); }),
              path + ": the file is not whole: its writer did not finish");
}

}  // namespace
}  // namespace corvelle
