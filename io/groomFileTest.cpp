#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/testing/testOperators.h"
#include "io/groomFileFixture.h"
#include "io/groomPaths.h"
#include "io/groomReader.h"
#include "io/groomStamp.h"
#include "io/groomWriter.h"
#include "model/fileReplace.h"
#include "model/floatText.h"
#include "model/parallel.h"
#include "model/testing/tempFolder.h"
#include "model/utf8Path.h"

namespace corvelle {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

std::string readFault(const std::string& text) {
    try {
        readGroomFileText(text, "");
        return "";
    } catch (const GroomFileError& error) {
        return error.what();
    }
}

/// A file of nothing but these members.
std::string fileText(const std::string& members) {
    return R"({"format":"corvelle.groom","version":1)" + (members.empty() ? "" : "," + members) +
           "}";
}

class GroomFileTest : public testing::Test {
protected:
    GroomFileTest() { registerTestOperators(); }
};

class GroomFileSeeds : public GroomFileTest, public testing::WithParamInterface<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, GroomFileSeeds, testing::Range<std::uint64_t>(0, 12));

TEST_P(GroomFileSeeds, KeepsEveryBitOfEveryFloat) {
    const GroomFile file = anyFile(GetParam());
    const std::string text = groomFileText(file);
    const GroomFile read = readGroomFileText(text, "");
    EXPECT_EQ(groomFileText(read), text);
    EXPECT_EQ(read.scalp->fullHash(), file.scalp->fullHash());
    EXPECT_EQ(read.scalps.size(), 2u);
    EXPECT_EQ(read.scalps[1].second->fullHash(), file.scalps[1].second->fullHash());
    EXPECT_EQ(read.colliders.at("body")->fullHash(), file.colliders.at("body")->fullHash());
    EXPECT_EQ(read.guides->contentHash(), file.guides->contentHash());
    EXPECT_EQ(read.maps->hash(), file.maps->hash());
    EXPECT_EQ(read.controls, file.controls);
    EXPECT_EQ(read.topology, file.topology);
    EXPECT_EQ(read.followScalp, file.followScalp);
    EXPECT_EQ(read.scalpCache, file.scalpCache);
    EXPECT_EQ(read.simCaches, file.simCaches);
    EXPECT_EQ(read.framesPerSecond, file.framesPerSecond);
    EXPECT_EQ(read.source, file.source);
    EXPECT_EQ(read.searchPaths, file.searchPaths);
    EXPECT_EQ(read.prototypes.at("leaf")->uvs, file.prototypes.at("leaf")->uvs);
    EXPECT_NE(read.prototypes.at("leaf")->hash, 0u);
}

TEST_P(GroomFileSeeds, WritesTheSameOnAnyNumberOfThreads) {
    GroomFile file = anyFile(GetParam());
    SplitMix random(GetParam());
    auto collider =
        std::make_shared<ScalpMesh>(anyFloats<Vec3f>(30'000, random), std::vector<Triangle>());
    file.colliders["cloud"] = collider;
    std::string one, many;
    runWithThreads(1, [&] { one = groomFileText(file); });
    runWithThreads(8, [&] { many = groomFileText(file); });
    EXPECT_EQ(one, many);
    std::uint64_t oneHash = 0, manyHash = 0;
    runWithThreads(1, [&] { oneHash = readGroomFileText(one, "").colliders["cloud"]->fullHash(); });
    runWithThreads(8,
                   [&] { manyHash = readGroomFileText(one, "").colliders["cloud"]->fullHash(); });
    EXPECT_EQ(oneHash, collider->fullHash());
    EXPECT_EQ(manyHash, collider->fullHash());
}

/// The blocks of a tree of the library, put in for strings that nothing else prints like.
struct PlainWriter {
    std::vector<std::string> blocks;

    template <class Values>
    json block(const Values& values) {
        std::string text = "[";
        for (const auto& value : values)
            for (const float f : std::bit_cast<std::array<float, sizeof value / 4>>(value)) {
                if (text.size() > 1) text += ',';
                appendFloat32(text, f);
            }
        blocks.push_back(text + "]");
        return "\x7f block " + std::to_string(blocks.size() - 1);
    }
    json mesh(const ScalpMesh& mesh, bool scalp) {
        json out = {{"points", block(mesh.points())},
                    {"restPoints", block(mesh.restPoints())},
                    {"polygons", std::vector<int>(mesh.polygons().begin(), mesh.polygons().end())},
                    {"subdivision", mesh.subdivision()},
                    {"subdivisionFrom", mesh.subdivisionFrom()}};
        for (const Triangle& t : mesh.triangles())
            for (const std::int32_t index : t) out["triangles"].push_back(index);
        if (!scalp) return out;
        out["uvs"] = block(mesh.uvs());
        for (const auto& [name, colors] : mesh.colorSets()) out["colorSets"][name] = block(colors);
        out["topology"] = stampText(mesh.topologyHash());
        return out;
    }
    std::string splice(std::string text) const {
        for (std::size_t b = blocks.size(); b-- > 0;) {
            const std::string mark = "\"\x7f block " + std::to_string(b) + "\"";
            text.replace(text.find(mark), mark.size(), blocks[b]);
        }
        return text;
    }
};

TEST_P(GroomFileSeeds, WritesTheBytesThatTheLibraryWouldAroundItsFloats) {
    const GroomFile file = anyFile(GetParam());
    PlainWriter plain;
    json tree = {{"format", "corvelle.groom"},
                 {"version", 1},
                 {"units", "cm"},
                 {"upAxis", "Y"},
                 {"source", file.source},
                 {"framesPerSecond", file.framesPerSecond},
                 {"hierarchy", json::parse(file.hierarchy)},
                 {"parts", json::parse(file.parts)},
                 {"correctives", json::parse(file.correctives)},
                 {"flow", json::parse(file.flow)},
                 {"guideCache", nullptr},
                 {"scalpCache", {{"file", "/caches/head.abc"}, {"object", "/head"}}},
                 {"searchPaths", file.searchPaths},
                 {"cardBake", {{"prefix", "/cards/hair_"}, {"strands", "all"}}}};
    tree["graph"] = json::parse(groomFileText(file))["graph"];  // its defaults are tested below
    if (file.followScalp) tree["followScalp"] = true;
    tree["simCaches"]["simulate"] = {
        {"file", "/caches/sim.abc"}, {"object", "/sim/simShape"}, {"stamp", "fedcba9876543210"}};
    for (const auto& [name, value] : file.controls) tree["controls"][name] = double(value);
    tree["scalp"] = plain.mesh(*file.scalp, true);
    for (const auto& [name, mesh] : file.scalps) {
        tree["scalps"].push_back(plain.mesh(*mesh, true));
        tree["scalps"].back()["name"] = name;
    }
    tree["colliders"]["body"] = plain.mesh(*file.colliders.at("body"), false);
    for (std::size_t g = 0; g < file.guides->size(); ++g) {
        const StrandRoot& root = file.guides->roots()[g];
        tree["guides"].push_back({{"id", file.guides->ids()[g]},
                                  {"points", plain.block(file.guides->pointsOf(g))},
                                  {"root", {root.triangle, double(root.u), double(root.v)}}});
    }
    json& maps = tree["maps"];
    maps["skin"] = {{"kind", "texture"}, {"texture", "maps/skin.png"}};
    maps["curl"] = {{"kind", "guides"}, {"texture", ""}, {"layer", "curliness"}};
    maps["density"] = {{"kind", "vertices"}, {"texture", ""}, {"vertices", 40}};
    maps["density"]["values"] = plain.block(*file.maps->find("density")->values);
    maps["tint"] = {{"kind", "vertices"}, {"texture", ""}, {"vertices", 10}, {"channels", 4}};
    maps["tint"]["values"] = plain.block(*file.maps->find("tint")->values);
    const GroomFilePrototype& leaf = *file.prototypes.at("leaf");
    tree["prototypes"]["leaf"] = {{"points", plain.block(leaf.points)},
                                  {"normals", plain.block(leaf.normals)},
                                  {"uvs", plain.block(leaf.uvs)},
                                  {"triangles", {0, 1, 2, 0, 2, 3}}};
    EXPECT_EQ(groomFileText(file), plain.splice(tree.dump()));
}

TEST_F(GroomFileTest, WritesAnEmptyGroomWithItsNineteenAnswers) {
    EXPECT_EQ(groomFileText({}),
              R"({"format":"corvelle.groom","framesPerSecond":24.0,"graph":{},"guideCache":null,)"
              R"("guides":[],"hierarchy":null,"scalp":null,"scalpCache":null,"source":"",)"
              R"("units":"cm","upAxis":"Y","version":1})");
    GroomFile blank;
    blank.units = blank.upAxis = "";
    blank.graph = " \n";
    EXPECT_EQ(groomFileText(blank), groomFileText({}));
    EXPECT_EQ(readGroomFileText(groomFileText({}), "").guides, nullptr);
}

TEST_F(GroomFileTest, GivesNodesTheirVersionsAndDefaults) {
    GroomFile file;
    file.graph = R"({"output":"w","nodes":[{"type":"TestWidth","name":"w","color":7}],"zoom":2})";
    const json graph = json::parse(groomFileText(file))["graph"];
    EXPECT_EQ(graph["zoom"], 2);
    EXPECT_EQ(graph["nodes"][0]["color"], 7);
    EXPECT_EQ(graph["nodes"][0]["version"], 1);
    EXPECT_TRUE(graph["nodes"][0]["params"].contains("width"));
    EXPECT_EQ(graph["nodes"][0]["type"], "TestWidth");
}

TEST_F(GroomFileTest, PrintsZerosAndWholeNumbersShort) {
    GroomFile file;
    file.scalp = std::make_shared<const ScalpMesh>(
        std::vector<Vec3f>{{-0.0f, 0.0f, 1.0f}, {0.1f, 1e20f, 1e-7f}}, std::vector<Triangle>());
    file.controls["c"] = 0.1f;
    const std::string text = groomFileText(file);
    EXPECT_THAT(text, HasSubstr(R"("points":[-0.0,0,1,0.1,1e+20,1e-07])"));
    EXPECT_THAT(text, HasSubstr(R"("c":0.10000000149011612)"));
    EXPECT_TRUE(std::signbit(readGroomFileText(text, "").scalp->points()[0].x));
}

TEST_F(GroomFileTest, RefusesToWriteWhatCouldNotBeReadAgain) {
    const auto fault = [](const auto& change) -> std::string {
        GroomFile file = anyFile(1);
        change(file);
        try {
            groomFileText(file);
            return "";
        } catch (const GroomFileError& error) {
            return error.what();
        }
    };
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(
        fault([](GroomFile& f) {
            f.guides = std::make_shared<const GuideSet>(std::vector<GuideCurve>{
                {.id = 1, .root = {}, .points = {{0, 0, 0}, {0, 1, kNan}}, .detail = nullptr}});
        }),
        "groom file: 'guides.points' holds a non-finite value at index 5");
    EXPECT_EQ(fault([](GroomFile& f) {
                  std::vector<Vec3f> points(f.scalp->points().begin(), f.scalp->points().end());
                  points[1].y = INFINITY;
                  f.scalps[0].second = f.scalps[0].second->withPoints(points);
              }),
              "groom file: 'scalps.brows.points' holds a non-finite value at index 4");
    EXPECT_EQ(fault([](GroomFile& f) { f.controls["c"] = kNan; }),
              "groom file: 'controls.c' holds a non-finite value at index 0");
    for (const char* axis : {"X", " "})
        EXPECT_EQ(fault([&](GroomFile& f) { f.upAxis = axis; }),
                  "groom file: upAxis is \"Y\" or \"Z\", not \"" + std::string(axis) + "\"");
    EXPECT_THAT(fault([](GroomFile& f) { f.parts = "{"; }),
                StartsWith("groom file: invalid parts JSON: [json.exception.parse_error.101]"));
    EXPECT_THAT(fault([](GroomFile& f) { f.graph = "nodes"; }),
                StartsWith("groom file: invalid graph JSON: "));
    EXPECT_EQ(fault([](GroomFile& f) { f.graph = R"({"nodes":[{"name":"n","type":"None"}]})"; }),
              "groom file: unknown operator type 'None'");
    EXPECT_THAT(fault([](GroomFile& f) { f.flow = std::string(512, '[') + std::string(512, ']'); }),
                StartsWith("groom file: invalid flow JSON: nested deeper than 511"));
    GroomFile bytes;
    bytes.source = "\xff";
    EXPECT_THROW(groomFileText(bytes), json::exception);
}

TEST_F(GroomFileTest, SaysWhatIsWrongWithAFile) {
    const std::string points = R"("points":[0,0,0,1,0,0,0,1,0])";
    const std::string mesh = points + R"(,"triangles":[0,1,2])";
    const auto scalp = [](const std::string& members) {
        return fileText("\"scalp\":{" + members + "}");
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"",
         "groom file: invalid JSON: [json.exception.parse_error.101] parse error at line 1, "
         "column 1: attempting to parse an empty input; check that your input string or stream "
         "contains the expected JSON"},
        {std::string(513, '['), "groom file: invalid JSON: nested deeper than 512"},
        {"[]", "not a Corvelle groom file"},
        {"{}", "not a Corvelle groom file"},
        {R"({"format":"other"})", "not a Corvelle groom file"},
        {R"({"format":"corvelle.groom","version":2})",
         "groom file version 2 is newer than this Corvelle supports (1); update Corvelle to open "
         "it"},
        {R"({"format":"corvelle.groom","version":1.5})",
         "groom file version 1.5 is not a whole number"},
        {R"({"format":"corvelle.groom","version":"1"})",
         "groom file version \"1\" is not a whole number"},
        {R"({"format":"corvelle.groom","version":0})", "groom file version 0 is not valid"},
        {R"({"format":"corvelle.groom","version":-7})", "groom file version -7 is not valid"},
        {R"({"format":"corvelle.groom"})", ""},
        {fileText(R"("upAxis":"X")"), "groom file: upAxis is \"Y\" or \"Z\", not \"X\""},
        {fileText(R"("upAxis":"")"), "groom file: upAxis is \"Y\" or \"Z\", not \"\""},
        {fileText(R"("units":5)"),
         "groom file: [json.exception.type_error.302] type must be string, "
         "but is number"},
        {scalp(R"("points":[1,2],"triangles":[])"),
         "groom file: 'scalp.points' must be an array of 3-tuples"},
        {scalp(R"("points":7,"triangles":[])"),
         "groom file: 'scalp.points' must be an array of 3-tuples"},
        {scalp(R"("points":[1,2,"3"],"triangles":[])"),
         "groom file: 'scalp.points' must hold numbers"},
        {scalp(R"("points":[1,2,1e39],"triangles":[])"),
         "groom file: 'scalp.points' must hold numbers"},
        {scalp(R"("points":[[1,2,3],[4,5,6],[7,8,9]],"triangles":[])"),
         "groom file: 'scalp.points' must hold numbers"},
        {scalp(R"("points":["a,b,c",2,3],"triangles":[])"),
         "groom file: 'scalp.points' must hold numbers"},
        {scalp(R"("triangles":[])"), "groom file: 'scalp.points' must be an array of 3-tuples"},
        {fileText(R"("prototypes":{"leaf":{"triangles":[]}})"),
         "groom file: 'prototypes.points' must be an array of 3-tuples"},
        {scalp(points), "groom file: bad scalp.triangles"},
        {scalp(points + R"(,"triangles":[0,1])"), "groom file: bad scalp.triangles"},
        {scalp(points + R"(,"triangles":[0,1,3])"),
         "groom file: bad scalp.triangles: ScalpMesh: triangle index out of range"},
        {scalp(points + R"(,"triangles":[0,1,1e300])"),
         "groom file: bad scalp.triangles: ScalpMesh: triangle index out of range"},
        {scalp(points + R"(,"triangles":[0,1,null])"),
         "groom file: bad scalp.triangles: [json.exception.type_error.302] type must be number, "
         "but "
         "is null"},
        {scalp(mesh + R"(,"polygons":[2])"),
         "groom file: bad scalp.polygons: ScalpMesh: the polygons' triangles (2) are not the "
         "mesh's "
         "(1)"},
        {scalp(mesh + R"(,"restPoints":[0,0,0])"),
         "groom file: bad scalp.restPoints: ScalpMesh: rest points must match the mesh's point "
         "count"},
        {scalp(mesh + R"(,"uvs":[0])"), "groom file: 'scalp.uvs' must be an array of 2-tuples"},
        {scalp(mesh + R"(,"colorSets":{"a":[1,1,1]})"),
         "groom file: 'scalp.colorSets' must be an array of 4-tuples"},
        {fileText(R"("guides":[{"id":1,"root":[0,0,0]}])"),
         "groom file: [json.exception.out_of_range.403] key 'points' not found"},
        {fileText(R"("guides":[{"id":1,"points":[1,2]}])"),
         "groom file: 'guides.points' must be an array of 3-tuples"},
        {fileText(R"("guides":[{"points":[]}])"),
         "groom file: [json.exception.out_of_range.403] key 'id' not found"},
        {fileText(R"("guides":[{"id":1,"points":[]}])"),
         "groom file: [json.exception.out_of_range.403] key 'root' not found"},
        {fileText(R"("guides":[{"id":-1,"points":[],"root":[0,0,0]}])"),
         "groom file: a whole number beyond its range"},
        {fileText(R"("scalpCache":{})"),
         "groom file: [json.exception.out_of_range.403] key 'file' not found"},
        {fileText(R"("simCaches":[])"), "simCaches: not an object of Simulate nodes' bakes"},
        {fileText(R"("simCaches":{"a":1})"), "simCaches: not an object of Simulate nodes' bakes"},
        {fileText(R"("simCaches":{"a":{}})"),
         "simCaches: [json.exception.out_of_range.403] key 'file' not found"},
        {fileText(R"("simCaches":null,"controls":7,"colliders":[],"prototypes":null)"), ""},
        {fileText(R"("controls":{"a":"b"})"),
         "groom file: [json.exception.type_error.302] type must be "
         "number, but is string"},
        {fileText(R"("maps":{"m":{"kind":"stone"}})"),
         "groom file: scalpMaps: map 'm' has unknown kind 'stone'"},
        {fileText(R"("maps":{"m":{"channels":4,"values":[1]}})"),
         "groom file: 'maps.m.values' must be an array of 4-tuples"},
        {fileText(R"("scalps":[{"name":"scalp",)" + mesh + "}]"),
         "groom file: bad scalps name 'scalp'"},
        {fileText(R"("scalps":[{)" + mesh + "}]"), "groom file: bad scalps name ''"},
        {fileText(R"("prototypes":{"p":{)" + points + R"(,"triangles":[0,1]}})"),
         "groom file: bad prototypes.triangles"},
        {fileText(R"("prototypes":{"p":{)" + points + R"(,"triangles":[0,1,3]}})"),
         "groom file: a prototype's triangle names a point it does not have"},
        {fileText(R"("prototypes":{"p":{)" + points + R"(,"triangles":[0,1,-1]}})"),
         "groom file: a prototype's triangle names a point it does not have"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(readFault(text), expected) << text;
}

TEST_F(GroomFileTest, ReadsWhatOtherProgramsWriteLoosely) {
    const GroomFile file = readGroomFileText(
        "\xef\xbb\xbf { \"scalp\" : {\"points\": [ null , 1e0,2.50,\n -0 "
        ",1E1,0.1e-1],\"triangles\":"
        "[0.9,1,1],\"topology\":\"00000000000000000\"}, \"format\":\"corvelle.groom\", "
        "\"guides\":[],"
        "\"maps\":{\"m\":{\"channels\":3,\"values\":[0.5,1]},\"n\":{}},\"followScalp\":false,"
        "\"format\":\"corvelle.\\u0067room\",\"unknown\":{\"a\":[1]}}",
        "");
    EXPECT_EQ(file.scalp->points()[0], (Vec3f{0.0f, 1.0f, 2.5f}));
    EXPECT_EQ(file.scalp->points()[1], (Vec3f{0.0f, 10.0f, 0.01f}));
    EXPECT_EQ(file.scalp->triangles()[0], (Triangle{0, 1, 1}));
    EXPECT_EQ(file.topology, file.scalp->topologyHash()) << "17 digits are not known";
    EXPECT_EQ(file.maps->find("m")->channels, 1);
    EXPECT_EQ(file.maps->find("m")->vertices, 2u);
    EXPECT_EQ(file.maps->find("n")->values, nullptr) << "left to the session";
    EXPECT_EQ(file.graph, "{}");
    EXPECT_EQ(file.guides, nullptr);
}

TEST_F(GroomFileTest, KeepsDataTextsThatMeanNothing) {
    const std::string text = fileText(
        R"("correctives":[1],"flow":"none","graph":5,"hierarchy":{"version":99,"later":[1.5]},)"
        R"("parts":true)");
    const GroomFile file = readGroomFileText(text, "");
    EXPECT_EQ(file.hierarchy, R"({"later":[1.5],"version":99})");
    EXPECT_EQ(file.parts, "true");
    const json written = json::parse(groomFileText(file)), before = json::parse(text);
    for (const char* key : {"correctives", "flow", "graph", "hierarchy", "parts"})
        EXPECT_EQ(written[key], before[key]) << key;
}

TEST(GroomStamp, ReadsHexadecimalDigitsAndNothingElse) {
    EXPECT_EQ(stampText(0xabcu), "0000000000000abc");
    for (const std::uint64_t value : {0ull, 1ull, 0xfedcba9876543210ull})
        EXPECT_EQ(stampFromText(stampText(value)), value);
    EXPECT_EQ(stampFromText("aBc"), 0xabcu);
    for (const char* bad : {"", "x", "12 ", "-1", "0x1", "00000000000000001"})
        EXPECT_EQ(stampFromText(bad), 0u) << bad;
}

TEST(GroomPaths, AreResolvedAndRebased) {
    EXPECT_EQ(resolveGroomPath("a/../b.abc", "/grooms"), "/grooms/b.abc");
    EXPECT_EQ(resolveGroomPath("../b.abc", "/grooms"), "/b.abc");
    EXPECT_EQ(resolveGroomPath("/x/../b.abc", "/grooms"), "/x/../b.abc");
    EXPECT_EQ(resolveGroomPath("", "/grooms"), "");
    EXPECT_EQ(resolveGroomPath("b.abc", ""), "b.abc");
    EXPECT_EQ(resolveCachePath("$SHOW/b.abc", "/grooms"), "$SHOW/b.abc");
    EXPECT_EQ(resolveCachePath("b.abc", "/grooms"), "/grooms/b.abc");
    EXPECT_EQ(rebaseGroomPath("c/b.abc", "/a/x", "/a/y"), "../x/c/b.abc");
    EXPECT_EQ(rebaseGroomPath("c/b.abc", "/a", "/a"), "c/b.abc");
    EXPECT_EQ(rebaseGroomPath("$SHOW/b.abc", "/a", "/b"), "$SHOW/b.abc");
    EXPECT_EQ(rebaseGroomPath("/c/b.abc", "/a", "/b"), "/c/b.abc");
    EXPECT_EQ(rebaseGroomPath("b.abc", "", "/b"), "b.abc");
}

TEST_F(GroomFileTest, ReadsAFileAndTheCachesBesideIt) {
    const TempFolder folder;
    const std::string path = folder.file("grüße/hair.groom");
    writeBytes(path, fileText(R"("guideCache":{"file":"c/g.abc"},"cardBake":{"prefix":"x"})"));
    const GroomFile file = readGroomFile(path);
    const std::string home = folder.path() + "/grüße";
    EXPECT_EQ(utf8Path(file.directory), utf8Path(home));  // separators are the system's own
    EXPECT_EQ(utf8Path(file.guideCache.file), utf8Path(home + "/c/g.abc"));
    EXPECT_EQ(utf8Path(file.cardBakePrefix), utf8Path(home + "/x"));
    EXPECT_THAT(groomFileText(file), HasSubstr(file.guideCache.file));
    try {
        readGroomFile(path + "x");
        ADD_FAILURE();
    } catch (const GroomFileError& error) {
        EXPECT_EQ(error.what(), "cannot read '" + path + "x'");
    }
}

TEST_F(GroomFileTest, LeavesTheOldFileWhenTheDocumentOrTheDiskFails) {
    const TempFolder folder;
    const std::string path = folder.file("hair.groom");
    writeGroomFile(path, anyFile(1));
    const std::string before = readWholeFile(path);
    GroomFile bad = anyFile(2);
    bad.controls["c"] = NAN;
    EXPECT_THROW(writeGroomFile(path, bad), GroomFileError);
    EXPECT_EQ(readWholeFile(path), before);
    try {
        writeGroomFile(folder.path() + "/none/hair.groom", anyFile(1));
        ADD_FAILURE();
    } catch (const GroomFileError& error) {
        EXPECT_EQ(error.what(), "cannot write '" + folder.path() + "/none/hair.groom'");
    }
}

}  // namespace
}  // namespace corvelle
