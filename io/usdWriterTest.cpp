#include <bit>
#include <charconv>
#include <cmath>

#include <gmock/gmock.h>
#if !defined(_WIN32)
#include <sys/resource.h>
#endif

#include "io/testing/exportCases.h"
#include "io/testing/usdGrammar.h"
#include "io/usdText.h"
#include "io/usdWriter.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string layerText(const ExportCase& frames, const std::string& path) {
    UsdWriter writer(path, {.rootName = "hair", .source = "test", .version = "1.2"});
    double time = 1.0;
    for (const OwnedFrame& owned : frames.frames) writer.writeFrame(time++, owned.view());
    writer.close();
    return bytesOf(path);
}

class UsdCases : public testing::TestWithParam<std::size_t> {
protected:
    const ExportCase& exportCase() const {
        static const std::vector<ExportCase> cases = exportCases();
        return cases[GetParam()];
    }
    ScratchFolder folder;
};
INSTANTIATE_TEST_SUITE_P(Matrix, UsdCases, testing::Range<std::size_t>(0, exportCases().size()),
                         [](const auto& made) { return exportCases()[made.param].name; });

TEST_P(UsdCases, LayersPleaseConsumersAndHoldEveryBit) {
    std::string text, again;
    runWithThreads(1, [&] { text = layerText(exportCase(), folder.file("a.usda")); });
    runWithThreads(8, [&] { again = layerText(exportCase(), folder.file("a.usda")); });
    EXPECT_TRUE(text == again) << "the text differs with the thread count";
    EXPECT_EQ(folder.fileCount(), 1u) << "spools are left";
    const UsdLayer layer = parseUsd(text);
    EXPECT_THAT(usdFaults(layer), IsEmpty());
    const UsdPrim* strands = layer.at("/hair/strands");
    ASSERT_TRUE(strands);
    for (std::size_t f = 0; f < exportCase().frames.size(); ++f) {
        const OwnedFrame& owned = exportCase().frames[f];
        const auto& points = strands->attributes.at("points").samples.at(f);
        EXPECT_EQ(points.first, double(f + 1));
        ASSERT_EQ(points.second.count, owned.strands.pointCount());
        for (std::size_t i = 0; i < points.second.count; ++i)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(std::bit_cast<std::uint32_t>(
                              float(points.second.numbers[3 * i + std::size_t(c)])),
                          std::bit_cast<std::uint32_t>(owned.strands.points()[i][c]));
        const auto& ids = strands->attributes.at("primvars:strandId").samples.at(f).second.wholes;
        ASSERT_EQ(ids.size(), owned.strands.strandCount());
        for (std::size_t s = 0; s < ids.size(); ++s)
            ASSERT_EQ(std::uint64_t(ids[s]), owned.strands.ids()[s]);
    }
}

TEST(UsdText, NumbersAreShortestAndReadBack) {
    const auto text = [](auto value) {
        std::string out;
        appendUsd(out, value);
        return out;
    };
    EXPECT_EQ(text(1.0f), "1");
    EXPECT_EQ(text(-0.0f), "-0.0");
    EXPECT_EQ(text(1e-7), "1e-07");
    EXPECT_EQ(text(NAN), "nan");
    EXPECT_EQ(text(-INFINITY), "-inf");
    EXPECT_EQ(text(3.4028235e38f), "3.4028235e+38");
    EXPECT_EQ(text(std::int64_t(std::uint64_t(1) << 63)), "-9223372036854775808");
    SplitMix random(5);
    for (int i = 0; i < 20'000; ++i) {
        const float value = std::bit_cast<float>(std::uint32_t(random.nextU64()));
        if (!std::isfinite(value)) continue;
        const std::string out = text(value);
        double read = 0.0;  // as consumers do: a double first
        std::from_chars(out.data(), out.data() + out.size(), read);
        ASSERT_EQ(std::bit_cast<std::uint32_t>(float(read)), std::bit_cast<std::uint32_t>(value))
            << out;
    }
}

TEST(UsdText, NamesAndTextsAreSafe) {
    std::set<std::string, std::less<>> taken = {"st"};
    const auto name = [&](const char* given) { return usdIdentifier(given, taken); };
    EXPECT_EQ(name("st"), "st_2");
    EXPECT_EQ(name("st"), "st_3");
    EXPECT_EQ(name("a b"), "a_b");
    EXPECT_EQ(name("a-b"), "a_b_2");
    EXPECT_EQ(name("1st"), "_1st");
    EXPECT_EQ(name(""), "_");
    EXPECT_EQ(name("\xc3\xb6"), "__");
    EXPECT_EQ(usdQuoted("a \"b\" \\ c\nd\te\x01"), "\"a \\\"b\\\" \\\\ c\\nd e \"");
}

TEST(UsdText, RotationsAreUnitInHalfFloats) {
    const auto text = [](std::array<float, 4> q) {
        std::string out;
        appendUsdRotation(out, q);
        return out;
    };
    EXPECT_EQ(text({2, 0, 0, 0}), "(1, 0, 0, 0)");
    EXPECT_EQ(text({0, 0, 0, 0}), "(1, 0, 0, 0)");
    EXPECT_EQ(text({NAN, 0, 0, 1}), "(1, 0, 0, 0)");
    EXPECT_EQ(text({1, 1, 0, 0}), "(0.70703125, 0.70703125, 0, 0)");
}

class UsdWriterTest : public testing::Test {
protected:
    std::string written() { return bytesOf(path); }
    ScratchFolder folder;
    const std::string path = folder.file("hair.usda");
    const StrandSet tuft = makeTuft({.strands = 5, .pointsPerStrand = 3});
};

TEST_F(UsdWriterTest, ALayerWithoutFramesIsWholeAndSaysNoTimes) {
    UsdWriter writer(path, {.rootName = "my hair", .source = "Say \"hi\"\n", .version = "0.2"});
    EXPECT_FALSE(std::filesystem::exists(path));
    writer.close();
    writer.close();
    EXPECT_EQ(written(),
              "#usda 1.0\n(\n    defaultPrim = \"my_hair\"\n"
              "    doc = \"Corvelle 0.2: Say \\\"hi\\\"\\n\"\n"
              "    framesPerSecond = 24\n    timeCodesPerSecond = 24\n    metersPerUnit = 0.01\n"
              "    upAxis = \"Y\"\n)\n\n"
              "def Xform \"my_hair\" (\n    kind = \"component\"\n)\n{\n"
              "    def BasisCurves \"strands\"\n    {\n        uniform token type = \"linear\"\n"
              "        uniform token wrap = \"nonperiodic\"\n    }\n}\n");
    EXPECT_EQ(errorOf([&] { writer.writeFrame(1, {.strands = &tuft}); }), "writeFrame after close");
    EXPECT_THAT(usdFaults(parseUsd(written())), IsEmpty());
}

TEST_F(UsdWriterTest, BlocksStandAsConsumersExpectThem) {
    UsdWriter writer(path);
    const StrandSet one = lineStrands({{3, 2}});
    writer.writeFrame(1.5, {.strands = &one});
    writer.writeFrame(2, {.strands = std::make_unique<StrandSet>().get()});
    writer.close();
    const std::string text = written();
    EXPECT_THAT(text, testing::HasSubstr("    startTimeCode = 1.5\n    endTimeCode = 2\n"));
    EXPECT_THAT(text, testing::HasSubstr("        int[] curveVertexCounts.timeSamples = {\n"
                                         "        1.5: [2],\n        2: [],\n        }\n"));
    EXPECT_THAT(text, testing::HasSubstr(
                          "        float[] widths (\n            interpolation = \"vertex\"\n"
                          "        )\n        float[] widths.timeSamples = {\n"
                          "        1.5: [0.01, 0.005],\n"));
    EXPECT_THAT(text, testing::HasSubstr("2: [(3.4028235e+38, 3.4028235e+38, 3.4028235e+38), "
                                         "(-3.4028235e+38, -3.4028235e+38, -3.4028235e+38)],\n"));
}

TEST_F(UsdWriterTest, RefusesFramesThatDoNotFitAndLeavesNothingOfThem) {
    UsdWriter writer(path);
    const StrandFrame good{.strands = &tuft};
    const std::vector<Vec3f> few(2);
    EXPECT_EQ(errorOf([&] { writer.writeFrame(1, {.strands = &tuft, .colors = few}); }),
              "colors: 2 values for 5");
    writer.writeFrame(1, good);
    EXPECT_EQ(errorOf([&] { writer.writeFrame(1, good); }), "frames must increase");
    EXPECT_EQ(errorOf([&] { writer.writeFrame(NAN, good); }), "frame times must be finite");
    const std::vector<std::int32_t> protos = {1};
    const std::vector<Vec3f> places(1);
    const std::vector<std::array<float, 4>> turns(1);
    const std::vector<Prototype> leaf = {{"leaf", {}}};
    const InstancesFrame bad{leaf, protos, places, turns, places};
    EXPECT_EQ(errorOf([&] { writer.writeFrame(2, good, &bad); }),
              "prototype index 1 is out of range");
    EXPECT_EQ(writer.frameCount(), 1u);
    writer.close();
    EXPECT_EQ(parseUsd(written()).at("/groom/strands")->attributes.at("points").samples.size(), 1u);
}

TEST_F(UsdWriterTest, TheFirstFrameFixesTheAttributesAndDefaultsFillTheRest) {
    UsdWriter writer(path);
    OwnedFrame first = ownedFrame(tuft);
    StrandSet other = makeTuft({.strands = 5, .pointsPerStrand = 3, .channels = false});
    other.mutableStrandChannel("late", 3.0f);
    writer.writeFrame(1, first.view());
    writer.writeFrame(2, {.strands = &other});
    writer.close();
    const UsdLayer layer = parseUsd(written());
    EXPECT_THAT(usdFaults(layer), IsEmpty());
    const auto& attributes = layer.at("/groom/strands")->attributes;
    EXPECT_FALSE(attributes.contains("primvars:late"));
    EXPECT_THAT(attributes.at("primvars:tone").samples[1].second.numbers,
                ElementsAre(0.5, 0.5, 0.5, 0.5, 0.5));
    EXPECT_EQ(attributes.at("primvars:clumpId").samples[1].second.numbers[0], -1.0);
    EXPECT_EQ(attributes.at("primvars:displayColor").samples[1].second.numbers[0], 0.5);
    EXPECT_EQ(attributes.at("primvars:share").interpolation, "vertex");
}

TEST_F(UsdWriterTest, InstancesAndPlatesPleaseConsumers) {
    const std::vector<std::int32_t> counts = {3}, indices = {0, 1, 2};
    const std::vector<Vec3f> points = {{0, 0, 0}, {1, 0, 0}, {0, 2, 0}}, up(3, Vec3f{0, 0, 1}),
                             one = {{0.2f, 0.4f, 0.6f}};
    const std::vector<Vec2f> uvs(3);
    const MeshView leaf{counts, indices, points, up, uvs};
    const std::vector<Prototype> firstSet = {{"leaf 1", leaf}, {"bead", {}}},
                                 secondSet = {{"bead", {}}, {"leaf-1", leaf}};
    const std::vector<std::int32_t> protos = {0, 1};
    const std::vector<Vec3f> places = {{1, 2, 3}, {4, 5, 6}}, sizes = {{1, 1, 1}, {2, 3, 4}};
    const std::vector<std::array<float, 4>> turns = {{0.7f, 0.7f, 0, 0}, {0, 0, 3, 0}};
    const std::vector<float> ids = {1, 2};
    InstancesFrame instances{firstSet, protos, places, turns, sizes, true};
    ScalesFrame scales{ScaleMesh{leaf, {}, {.color = one}},
                       ScaleInstances{{firstSet, protos, places, turns, sizes}, {.id = ids}}};
    UsdWriter writer(path);
    writer.writeFrame(1, {.strands = &tuft}, &instances, &scales);
    instances.prototypes = secondSet;
    writer.writeFrame(2, {.strands = &tuft}, &instances, &scales);
    writer.writeFrame(3, {.strands = &tuft});
    writer.close();
    const UsdLayer layer = parseUsd(written());
    EXPECT_THAT(usdFaults(layer), IsEmpty());
    const UsdPrim* instancer = layer.at("/groom/instances");
    ASSERT_TRUE(instancer);
    EXPECT_THAT(
        instancer->relationships.at("prototypes"),
        ElementsAre("/groom/instances/prototypes/leaf_1", "/groom/instances/prototypes/bead",
                    "/groom/instances/prototypes/leaf_1_2"));
    EXPECT_THAT(instancer->attributes.at("protoIndices").samples[1].second.wholes,
                ElementsAre(1, 2));
    EXPECT_EQ(instancer->attributes.at("positions").samples[2].second.count, 0u);
    EXPECT_EQ(layer.at("/groom/instances/prototypes/bead")->type, "Xform");
    EXPECT_EQ(layer.at("/groom/instances/prototypes/bead")->metadata.at("doc"),
              "Corvelle prototype 'bead': reference its geometry here");
    EXPECT_EQ(layer.at("/groom/scaleInstances/prototypes/leaf_1")->metadata.at("doc"),
              "Corvelle prototype 'leaf 1'");
    EXPECT_EQ(layer.at("/groom/strands")->attributes.at("visibility").token, "invisible");
    EXPECT_EQ(layer.at("/groom/scales")
                  ->attributes.at("primvars:scaleRootColor")
                  .samples[0]
                  .second.numbers[0],
              0.5);
    // The box holds what stands there, turned and scaled: a quarter turn about x lays y along z.
    const auto& box = instancer->attributes.at("extent").samples[0].second.numbers;
    EXPECT_NEAR(box[5], 6.0, 1e-4);
    EXPECT_NEAR(box[2], 3.0, 1e-4);
}

TEST_F(UsdWriterTest, TellsWhatItCannotWriteAndCleansUpWhenDropped) {
    const std::string nowhere = folder.file("none/hair.usda");
    {
        UsdWriter writer(nowhere);
        EXPECT_EQ(errorOf([&] { writer.writeFrame(1, {.strands = &tuft}); }),
                  "cannot write '" + nowhere + ".spool0'");
        EXPECT_EQ(errorOf([&] { writer.close(); }), "cannot write '" + nowhere + "'");
    }
    {
        UsdWriter writer(path);
        writer.writeFrame(1, {.strands = &tuft});
        EXPECT_GT(folder.fileCount(), 5u);
    }
    EXPECT_EQ(folder.fileCount(), 0u) << "a dropped writer leaves its spools";
    if (!std::filesystem::exists("/dev/full")) return;
    std::filesystem::create_symlink("/dev/full", path + ".spool1");
    const StrandSet many = makeTuft({.strands = 20'000});
    UsdWriter writer(path);
    EXPECT_EQ(errorOf([&] { writer.writeFrame(1, {.strands = &many}); }),
              "cannot write '" + path + ".spool1'");
}

#if !defined(_WIN32)  // which tells a process's peak in another way
TEST_F(UsdWriterTest, KeepsNoMemoryOfTheFramesBefore) {
    const auto peak = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;  // KiB
    };
    const StrandSet many = makeTuft({.strands = 400, .pointsPerStrand = 8});
    UsdWriter writer(path);
    long before = 0;
    for (int f = 0; f < 1000; ++f) {
        writer.writeFrame(f, {.strands = &many});
        if (f == 20) before = peak();
    }
    EXPECT_LT(peak() - before, 2048);  // the frames are 150 MB of text
    writer.close();
    EXPECT_LT(peak() - before, 4096);
    EXPECT_GT(std::filesystem::file_size(path), 100'000'000u) << "too small to prove anything";
}
#endif

}  // namespace
}  // namespace corvelle
