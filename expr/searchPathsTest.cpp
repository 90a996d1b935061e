#include <chrono>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include "expr/searchPaths.h"
#include "expr/testing/pictures.h"
#include "expr/texture.h"

namespace corvelle {
namespace {

void setVariable(const char* name, const std::string& value) {
#ifdef _WIN32
    _putenv_s(name, value.c_str());
#else
    setenv(name, value.c_str(), 1);
#endif
}

TEST(ExpandVariables, KnowsThreeSpellingsAndLeavesTheRest) {
    setVariable("CORVELLE_TEST_DIR", "maps");
    const struct {
        const char* text;
        const char* expanded;
    } kCases[] = {
        {"$CORVELLE_TEST_DIR/a.png", "maps/a.png"},
        {"${CORVELLE_TEST_DIR}x.png", "mapsx.png"},
        {"%CORVELLE_TEST_DIR%/a.png", "maps/a.png"},
        {"a/%(UDIM)d.png", "a/%(UDIM)d.png"},
        {"$CORVELLE_TEST_NOT_SET/a", "$CORVELLE_TEST_NOT_SET/a"},
        {"%CORVELLE_TEST_NOT_SET%", "%CORVELLE_TEST_NOT_SET%"},
        {"${CORVELLE_TEST_DIR", "${CORVELLE_TEST_DIR"},
        {"%CORVELLE_TEST_DIR", "%CORVELLE_TEST_DIR"},
        {"100% $ $9 %", "100% $ $9 %"},
        {"", ""},
        {"$CORVELLE_TEST_DIR$CORVELLE_TEST_DIR", "mapsmaps"},
    };
    for (const auto& c : kCases) EXPECT_EQ(expandVariables(c.text), c.expanded) << c.text;
}

TEST(TilePath, PutsTheNumberInEveryMarker) {
    EXPECT_EQ(tilePath("a.<UDIM>.png", 1042), "a.1042.png");
    EXPECT_EQ(tilePath("<udim>/a.%(UDIM)d.png", 1001), "1001/a.1001.png");
    EXPECT_EQ(tilePath("a.png", 1001), "a.png");
    EXPECT_TRUE(hasUdimMarker("a.%(UDIM)d.exr"));
    EXPECT_FALSE(hasUdimMarker("a.<Udim>.png"));
}

class SearchPathTest : public testing::Test {
protected:
    const TempFolder folder;
    SearchPathTest() {
        for (const char* name :
             {"groom/both.png", "groom/sub/own.png", "one/both.png", "one/deep/a.png", "two/a.png",
              "two/deep/a.png", "two/t.1011.png", "three/b.png", "groom/rel/c.png", "one/Ž.png"})
            writeBytes(folder.file(name), name);
    }
    std::string at(const std::string& name) const { return folder.file(name); }
    std::string found(const std::string& path, std::vector<std::string> searchPaths,
                      bool inGroom = true) const {
        const PathResolver resolve =
            searchPathResolver(inGroom ? at("groom") : std::string(), std::move(searchPaths));
        const std::string result = resolve(path);
        if (result == path) return result;
        const std::u8string below =
            std::filesystem::relative(utf8Path(result), utf8Path(folder.path())).generic_u8string();
        return std::string(below.begin(), below.end());
    }
};

TEST_F(SearchPathTest, TakesTheFirstThatExists) {
    const std::vector<std::string> both = {at("one"), at("two")};
    EXPECT_EQ(found("both.png", both), "groom/both.png") << "the groom's own folder comes first";
    EXPECT_EQ(found("sub/own.png", both), "groom/sub/own.png");
    EXPECT_EQ(found("both.png", both, false), "one/both.png");
    EXPECT_EQ(found("deep/a.png", both), "one/deep/a.png") << "the joined path";
    EXPECT_EQ(found("deep/a.png", {at("two")}), "two/deep/a.png");
    EXPECT_EQ(found("far/away/a.png", both), "two/a.png") << "the bare name";
    EXPECT_EQ(found("t.<UDIM>.png", both), "two/t.<UDIM>.png")
        << "a pattern exists when a tile does";
    EXPECT_EQ(found("x/t.%(UDIM)d.png", both), "two/t.%(UDIM)d.png");
    EXPECT_EQ(found("c.png", {"rel"}), "groom/rel/c.png")
        << "a relative search path is the groom's";
    EXPECT_EQ(found("Ž.png", both), "one/Ž.png");
}

TEST_F(SearchPathTest, LeavesWhatItDoesNotFind) {
    const std::vector<std::string> all = {at("one"), at("two"), "", at("nowhere")};
    EXPECT_EQ(found("none.png", all), "none.png");
    EXPECT_EQ(found("u.<UDIM>.png", all), "u.<UDIM>.png");
    EXPECT_EQ(found("", all), "");
    EXPECT_EQ(found("deep", all), "deep") << "a folder is no picture";
    const std::string absolute = at("elsewhere/none.png");
    EXPECT_EQ(searchPathResolver(at("groom"), all)(absolute), absolute);
}

TEST_F(SearchPathTest, ExpandsPathsAndSearchPaths) {
    setVariable("CORVELLE_TEST_ROOT", folder.path());
    setVariable("CORVELLE_TEST_SUB", "deep");
    EXPECT_EQ(searchPathResolver({}, {})("$CORVELLE_TEST_ROOT/three/b.png"),
              folder.path() + "/three/b.png");
    EXPECT_EQ(found("$CORVELLE_TEST_SUB/a.png", {at("one")}), "one/deep/a.png");
    EXPECT_EQ(found("b.png", {"${CORVELLE_TEST_ROOT}/three"}), "three/b.png");
}

TEST_F(SearchPathTest, SignsFilesOnly) {
    EXPECT_NE(fileSignature(at("two/a.png")), 0u);
    EXPECT_NE(fileSignature(at("two/a.png")), fileSignature(at("two/deep/a.png")));
    EXPECT_EQ(fileSignature(at("two")), 0u);
    EXPECT_EQ(fileSignature(at("two/none.png")), 0u);
    EXPECT_EQ(fileSignature(""), 0u);
}

TEST_F(SearchPathTest, SignsAFileAnewWithinTheSecondItWasWritten) {
    writeBytes(at("same.png"), "abcd");
    const std::uint64_t before = fileSignature(at("same.png"));
    EXPECT_EQ(fileSignature(at("same.png")), before);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // past the file system's own tick
    writeBytes(at("same.png"), "abce");
    EXPECT_NE(fileSignature(at("same.png")), before);
}

}  // namespace
}  // namespace corvelle
