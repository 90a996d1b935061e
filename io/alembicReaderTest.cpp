#include <fstream>
#include <sstream>

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>
#include <gmock/gmock.h>

#include "io/alembicReader.h"
#include "io/alembicWriter.h"
#include "io/testing/exportCases.h"
#include "model/utf8Path.h"

namespace corvelle {
namespace {

namespace Abc = Alembic::Abc;
namespace AbcG = Alembic::AbcGeom;

/// Writes curves with the bare library, as other programs do.
class AlembicReaderTest : public testing::Test {
protected:
    template <class Fill>
    void make(Fill fill) {
        AbcG::OArchive archive(Alembic::AbcCoreOgawa::WriteArchive(), path);
        fill(archive);
    }
    static AbcG::OCurvesSchema::Sample sampleOf(const std::vector<Abc::V3f>& points,
                                                const std::vector<std::int32_t>& counts) {
        return AbcG::OCurvesSchema::Sample(Abc::P3fArraySample(points),
                                           Abc::Int32ArraySample(counts));
    }
    ScratchFolder folder;
    const std::string path = folder.file("other.abc");
    const std::vector<Abc::V3f> points = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}, {5, 0, 0}, {5, 1, 0}};
    const std::vector<std::int32_t> counts = {3, 2};
};

TEST_F(AlembicReaderTest, BringsPointsThroughAllXformsAboveAtTheirTimes) {
    make([&](AbcG::OArchive& archive) {
        const auto frames = std::make_shared<Abc::TimeSampling>(1.0 / 24.0, 0.0);
        AbcG::OXform outer(archive.getTop(), "outer", frames);
        for (int f = 0; f < 3; ++f) {
            AbcG::XformSample sample;
            sample.setTranslation({10.0 * f, 0, 0});
            outer.getSchema().set(sample);
        }
        AbcG::OXform inner(outer, "inner");
        AbcG::XformSample turn;
        turn.setRotation({0, 0, 1}, 90.0);
        turn.setScale({2, 2, 2});
        inner.getSchema().set(turn);
        AbcG::OCurves curves(inner, "hairShape");
        curves.getSchema().set(sampleOf(points, counts));
    });
    const AlembicCurves file(path);
    const auto at = [&](double frame) {
        return file.read("", frame / 24.0).points[1];
    };  // (0, 1, 0)
    for (int f = 0; f < 3; ++f) {
        EXPECT_NEAR(at(f).x, 10.0f * float(f) - 2.0f, 1e-5f);
        EXPECT_NEAR(at(f).y, 0.0f, 1e-5f);
    }
    EXPECT_EQ(at(1.7), at(1.0));
    EXPECT_EQ(at(50.0), at(2.0));
    EXPECT_NE(file.samplesAt("", 0.0), file.samplesAt("", 1.0 / 24.0))
        << "an Xform's samples count too";
    EXPECT_EQ(file.samplesAt("", 0.0), file.samplesAt("", 0.5 / 24.0));
}

TEST_F(AlembicReaderTest, FindsObjectsByPathOrNameWithAndWithoutShape) {
    make([&](AbcG::OArchive& archive) {
        for (const char* group : {"front", "back"}) {
            AbcG::OXform xform(archive.getTop(), group);
            for (const char* name : {"aShape", "b"}) {
                AbcG::OCurves curves(xform, name);
                std::vector<Abc::V3f> moved = points;
                moved[0].z = std::string(group) == "front" ? 1.0f : 2.0f;
                moved[1].z = std::string(name) == "b" ? 1.0f : 2.0f;
                curves.getSchema().set(sampleOf(moved, counts));
            }
        }
    });
    const AlembicCurves file(path);
    EXPECT_THAT(file.objects(),
                testing::ElementsAre("/front/aShape", "/front/b", "/back/aShape", "/back/b"));
    for (const char* name : {"", "a", "aShape", "/front/a", "front/a", "/front/aShape"}) {
        EXPECT_EQ(file.read(name, 0).points[0].z, 1.0f) << name;
        EXPECT_EQ(file.read(name, 0).points[1].z, 2.0f) << name;
    }
    EXPECT_EQ(file.read("/back/a", 0).points[0].z, 2.0f);
    EXPECT_EQ(file.readUnder("", 0).counts.size(), 8u);
    EXPECT_EQ(file.readUnder("back", 0).counts.size(), 4u);
    EXPECT_EQ(file.readUnder("a", 0).counts.size(), 4u);
    EXPECT_EQ(file.readUnder("/back/b", 0).counts.size(), 2u);
    for (const char* name : {"c", "/a", "Shape", "fron", "/back/"}) {
        const std::string text = std::string("no curves named '") + name + "'";
        EXPECT_EQ(errorOf([&] { file.read(name, 0); }), text);
        EXPECT_EQ(errorOf([&] { file.readUnder(name, 0); }), text);
    }
}

TEST_F(AlembicReaderTest, TakesWidthsOfAnyScopeAndLeavesOutWhatLeadsAstray) {
    struct Row {
        std::vector<float> values, expected;
    };
    const std::vector<float> spread = {1, 1, 1, 2, 2}, each = {1, 2, 3, 4, 5};
    for (const Row& row :
         {Row{{3}, {3, 3, 3, 3, 3}}, Row{{1, 2}, spread}, Row{each, each}, Row{{1, 2, 3}, {}}}) {
        make([&](AbcG::OArchive& archive) {
            AbcG::OCurves curves(archive.getTop(), "c");
            auto sample = sampleOf(points, counts);
            sample.setWidths({Abc::FloatArraySample(row.values), AbcG::kVertexScope});
            curves.getSchema().set(sample);
        });
        EXPECT_EQ(readCurves(path, "", 0).widths, row.expected);
    }
    for (const std::uint32_t last : {0u, 7u}) {  // indices, good ones and one out of range
        const std::vector<std::uint32_t> indices = {1, last};
        const std::vector<float> values = {4, 8};
        make([&](AbcG::OArchive& archive) {
            AbcG::OCurves curves(archive.getTop(), "c");
            auto sample = sampleOf(points, counts);
            sample.setWidths({Abc::FloatArraySample(values), Abc::UInt32ArraySample(indices),
                              AbcG::kUniformScope});
            curves.getSchema().set(sample);
        });
        const std::vector<float> expected = {8, 8, 8, 4, 4};
        EXPECT_EQ(readCurves(path, "", 0).widths, last == 0 ? expected : std::vector<float>());
    }
}

TEST_F(AlembicReaderTest, SaysWhatIsWrongWithASample) {
    struct Row {
        std::vector<std::int32_t> counts;
        std::string text;
    };
    for (const Row& row :
         {Row{{3, -1}, ": curve 1 has a negative vertex count"},
          Row{{3, 3}, ": the vertex counts add up to 6 points but the sample holds 5"},
          Row{{2147483647, 2147483647, 2147483647},
              ": the vertex counts add up to 6442450941 points but the sample holds 5"}}) {
        make([&](AbcG::OArchive& archive) {
            AbcG::OCurves curves(archive.getTop(), "c");
            curves.getSchema().set(sampleOf(points, row.counts));
        });
        EXPECT_EQ(errorOf([&] { readCurves(path, "", 0); }), path + row.text);
    }
    make([&](AbcG::OArchive& archive) { AbcG::OCurves curves(archive.getTop(), "c"); });
    EXPECT_EQ(errorOf([&] { readCurves(path, "", 0); }),
              path + ": a curves sample has no positions or vertex counts");
    make([&](AbcG::OArchive& archive) { AbcG::OXform xform(archive.getTop(), "x"); });
    EXPECT_EQ(errorOf([&] { readCurves(path, "", 0); }), "no curves in " + path);
    const std::string nowhere = folder.file("none.abc");
    EXPECT_EQ(errorOf([&] { readCurves(nowhere, "", 0); }), "cannot open '" + nowhere + "'");
    std::ofstream(folder.file("text.abc")) << "this is a text, and a long one at that";
    EXPECT_EQ(errorOf([&] { readCurves(folder.file("text.abc"), "", 0); }),
              folder.file("text.abc") + ": not an Alembic file");
    const std::string parent = utf8Text(utf8Path(nowhere).parent_path());
    EXPECT_THAT(errorOf([&] { readCurves(parent, "", 0); }), testing::HasSubstr(parent));
}

TEST_F(AlembicReaderTest, SurvivesEveryTruncationAndAnyChangedByte) {
    GroomAlembicWriter writer;
    const StrandSet tuft = makeTuft({.strands = 4, .pointsPerStrand = 3});
    writer.open(path, "hair", 24);
    for (int f = 1; f < 4; ++f) {
        const OwnedFrame owned = ownedFrame(tuft, f);
        writer.writeGroom(f, owned.view());
    }
    writer.close();
    const std::string whole = bytesOf(path);
    const auto outcome = [&](const std::string& bytes) {
        return errorOf([&] {
            const AlembicCurves file(std::make_unique<std::istringstream>(bytes), "bytes");
            for (int f = 0; f < 5; ++f) file.readUnder("", f / 24.0);
            file.range("");
        });
    };
    ASSERT_EQ(outcome(whole), "no error");
    for (std::size_t size = 0; size < whole.size(); size += 1 + size / 200)
        EXPECT_NE(outcome(whole.substr(0, size)), "no error") << size;
    SplitMix random(11);
    std::size_t refused = 0;
    for (int i = 0; i < 4000; ++i) {
        std::string bytes = whole;
        for (int k = 0; k <= i % 3; ++k) {
            const std::size_t at = random.nextU64() % bytes.size();
            const std::uint64_t how = random.nextU64();
            bytes[at] = how % 4 == 0   ? char(0xff)
                        : how % 4 == 1 ? char(bytes[at] ^ (1 << how / 4 % 8))
                                       : char(how >> 8);
        }
        refused += outcome(bytes) != "no error";
    }
    EXPECT_GT(refused, 200u) << "the changes were too easy to prove anything";
}

}  // namespace
}  // namespace corvelle
