#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "expr/expressionFunctions.h"
#include "expr/expressionMap.h"
#include "expr/expressionTestTools.h"
#include "expr/mapSource.h"
#include "model/hash.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

using namespace testing_;

constexpr float kNotANumber = std::numeric_limits<float>::quiet_NaN();

std::vector<float> perStrand(const std::string& text, const StrandSet& set,
                             const ExpressionEnvironment& environment = {}) {
    std::vector<float> out(set.strandCount());
    const ExpressionMap::Bound bound =
        ExpressionMap(text, environment, true).bind(set, environment);
    bound.strands(allOf(set), out);
    for (std::size_t s = 0; s < out.size(); ++s)
        EXPECT_EQ(bitsOf(bound.strand(s)), bitsOf(out[s])) << text << " of strand " << s;
    return out;
}
std::vector<float> perPoint(const std::string& text, const StrandSet& set,
                            const ExpressionEnvironment& environment = {}) {
    std::vector<float> out(set.pointCount());
    const ExpressionMap::Bound bound =
        ExpressionMap(text, environment, true).bind(set, environment);
    bound.points(allOf(set), out);
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        for (std::size_t p = 0; p < set.pointCountOf(s); ++p)
            EXPECT_EQ(bitsOf(bound.point(s, p)), bitsOf(out[set.offsets()[s] + p]))
                << text << " of point " << p << " of strand " << s;
    return out;
}
using Floats = std::vector<float>;

TEST(ExpressionVariables, MeasureStrands) {
    const StrandSet set = threeStrands();  // bent: 1 up, 2 over; straight: 2 along z; a dot
    EXPECT_EQ(perStrand("x + 10 * y + 100 * z", set), (Floats{321, 0, 555}));
    EXPECT_EQ(perStrand("index", set), (Floats{0, 1, 2}));
    EXPECT_EQ(perStrand("length", set), (Floats{3, 2, 0}));
    EXPECT_EQ(perStrand("longest", set), (Floats{3, 3, 3}));
    EXPECT_EQ(perStrand("reach", set), (Floats{length(Vec3f{2, 1, 0}), 2, 0}));
    EXPECT_EQ(perStrand("straightness", set), (Floats{length(Vec3f{2, 1, 0}) / 3.0f, 1, 0}));
    EXPECT_EQ(perStrand("tipx + 10 * tip.y + 100 * tipz", set), (Floats{333, 200, 555}));
    // Without a scalp N is the direction of the first segment.
    EXPECT_EQ(perStrand("nx + 10 * ny + 100 * N.z", set), (Floats{10, 100, 0}));
    EXPECT_EQ(perStrand("lift", set), (Floats{normalized(Vec3f{2, 1, 0}).y, 1, 0}));
    EXPECT_EQ(perStrand("u + v", set), (Floats{0, 0, 0}));
    // Point variables of a whole strand are those of its root.
    EXPECT_EQ(perStrand("t + pt + pointIndex + pointP.x", set), (Floats{1, 0, 5}));
}

TEST(ExpressionVariables, MeasurePoints) {
    const StrandSet set = threeStrands();
    EXPECT_EQ(perPoint("t", set), (Floats{0, 1.0f / 3.0f, 1, 0, 1, 0, 1}));  // by index on a dot
    EXPECT_EQ(perPoint("pt", set), (Floats{0, 0.5f, 1, 0, 1, 0, 1}));
    EXPECT_EQ(perPoint("pointIndex", set), (Floats{0, 1, 2, 0, 1, 0, 1}));
    EXPECT_EQ(perPoint("px + 10 * py + 100 * pz", set), (Floats{321, 331, 333, 0, 200, 555, 555}));
    EXPECT_EQ(perPoint("length * t + index", set), (Floats{0, 1, 3, 1, 3, 2, 2}));
    EXPECT_EQ(perPoint("index", set), (Floats{0, 0, 0, 1, 1, 2, 2}));
}

TEST(ExpressionVariables, TellTheTime) {
    ExpressionEnvironment environment;
    environment.frame = 12.0;
    environment.time = 0.5;
    EXPECT_EQ(valueOf("frame + time", environment), 12.5f);
}

TEST(ExpressionVariables, FindTheLongestOfThoseThatEveryPreviewHolds) {
    StrandSet set = threeStrands();
    const auto marks = set.mutableStrandChannel("_preview", 0.0f);
    EXPECT_EQ(perStrand("longest", set), (Floats{3, 3, 3})) << "no mark: all strands count";
    marks[1] = 1.0f;
    marks[2] = 0.5f;
    EXPECT_EQ(perStrand("longest", set), (Floats{2, 2, 2}));
}

TEST(ExpressionVariables, ReadTheScalpAtTheRootAndCloseToIt) {
    const auto scalp = std::make_shared<const ScalpMesh>(makePlane(4, 4, 8.0f));
    ExpressionEnvironment environment;
    environment.scalp = scalp;
    StrandSet set = makeTuft({.strands = 50, .radius = 3.0f, .triangles = 32});
    const auto roots = set.mutableRoots();
    for (std::size_t s = 0; s < 25; ++s) roots[s] = {};  // found by position
    roots[30].triangle = 1000;
    const Floats u = perStrand("u", set, environment), v = perStrand("v", set, environment);
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        StrandRoot root = set.roots()[s];
        SurfaceHit hit;
        if (!scalp->validRoot(root)) {
            ASSERT_TRUE(scalp->closestPoint(set.pointsOf(s)[0], ScalpMesh::kAnyDistance, hit));
            root = hit.root();
        }
        EXPECT_EQ(u[s], scalp->surfaceUv(root).x);
        EXPECT_EQ(v[s], scalp->surfaceUv(root).y);
    }
    EXPECT_EQ(perStrand("N.y", set, environment), Floats(50, 1.0f));
}

TEST(ExpressionVariables, AreReadAtBarePlacesWithoutStrands) {
    ExpressionEnvironment environment;
    environment.scalp = std::make_shared<const ScalpMesh>(makePlane(4, 4, 8.0f));
    environment.frame = 3.0;
    const std::vector<StrandRoot> roots(700);
    std::vector<Vec3f> positions(700);
    for (std::size_t i = 0; i < 700; ++i) positions[i] = {-3.5f + 0.01f * float(i), 1.0f, 0.5f};
    Floats out(700);
    ExpressionMap("x + 10 * N.y + 100 * u + frame", environment, false)
        .atRoots(roots, positions, environment, out);
    for (std::size_t i = 0; i < 700; ++i)
        EXPECT_NEAR(out[i], positions[i].x + 10.0f + 100.0f * (positions[i].x + 4.0f) / 8.0f + 3.0f,
                    1e-3f);
    ExpressionMap("length + rand + index + tone + tipx + t + 7", environment, true)
        .atRoots(roots, positions, environment, out);
    EXPECT_EQ(out, Floats(700, 7.0f));
    EXPECT_THROW(ExpressionMap("1", environment, true)
                     .atRoots(roots, std::span(positions).first(3), environment, out),
                 std::invalid_argument);
}

TEST(ExpressionChannels, PreferStrandsAndReadNothingAsZero) {
    StrandSet set = threeStrands();
    const auto points = set.mutablePointChannel("wet", 0.0f);
    for (std::size_t i = 0; i < points.size(); ++i) points[i] = float(i + 1);
    EXPECT_EQ(perPoint("wet", set), (Floats{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(perStrand("wet", set), (Floats{1, 4, 6})) << "per strand: at the root";
    EXPECT_EQ(perPoint("nothing + 1", set), Floats(7, 1.0f));
    set.mutableStrandChannel("wet", 9.0f);
    EXPECT_EQ(perPoint("wet", set), Floats(7, 9.0f));
}

TEST(ExpressionChannels, DecideWhetherABoundExpressionVaries) {
    StrandSet set = makeTuft({.strands = 3});
    const ExpressionEnvironment none;
    const auto varies = [&](const char* text, bool allowed) {
        return ExpressionMap(text, none, allowed).bind(set, none).perPoint();
    };
    EXPECT_TRUE(varies("share", true));
    EXPECT_TRUE(varies("t", true));
    EXPECT_FALSE(varies("tone", true));
    EXPECT_FALSE(varies("x + missing", true));
    EXPECT_FALSE(varies("share", false));
    Floats out(set.pointCount());
    ExpressionMap("share + 1", none, false).bind(set, none).points(allOf(set), out);
    EXPECT_EQ(out, Floats(set.pointCount(), 1.0f));
}

TEST(ExpressionChannels, MayHoldAnythingAndResultsStayFinite) {
    StrandSet set = threeStrands();
    const auto values = set.mutableStrandChannel("odd", 0.0f);
    values[0] = kNotANumber;
    values[1] = std::numeric_limits<float>::infinity();
    values[2] = -std::numeric_limits<float>::infinity();
    for (const ExpressionFunction& f : expressionFunctions()) {
        if (f.family == ExpressionFamily::Map) continue;
        const bool keys =
            f.family == ExpressionFamily::Curve || f.family == ExpressionFamily::Spline;
        std::string text(f.name);
        for (std::size_t k = 0; k < f.least; ++k)
            text += std::string(k ? ", " : "(") + (k < f.vectors   ? "[odd, odd, odd]"
                                                   : keys && k > 0 ? "1"
                                                                   : "odd");
        for (const float value : perStrand(text + (f.vectorResult ? ").x" : ")"), set))
            EXPECT_TRUE(std::isfinite(value)) << text;
    }
    for (const char* text : {"odd", "-odd", "odd + 1", "odd / 0", "odd ^ 2", "odd ? odd : odd",
                             "[odd, 1, odd].z", "odd < 1", "(-[odd, odd, odd] * 2).x"})
        for (const float value : perStrand(text, set)) EXPECT_TRUE(std::isfinite(value)) << text;
}

TEST(ExpressionMapQuestions, AreAnsweredFromTheText) {
    const ExpressionEnvironment none;
    const auto map = [&](const char* text) { return ExpressionMap(text, none, true); };
    EXPECT_TRUE(map("t").perPoint());
    EXPECT_FALSE(map("x").perPoint());
    for (const char* text : {"length", "rand", "rand(1)", "index", "lift", "tip.x", "tone", "t"})
        EXPECT_TRUE(map(text).readsStrands()) << text;
    for (const char* text : {"x", "u", "N.y", "frame", "hash(1)", "noise(P)"})
        EXPECT_FALSE(map(text).readsStrands()) << text;
    EXPECT_TRUE(map("length / longest").readsWholeSet());
    EXPECT_FALSE(map("length").readsWholeSet());
    EXPECT_TRUE(map("time * 2").readsTime());
    EXPECT_TRUE(map("frame").readsTime());
    EXPECT_FALSE(map("t").readsTime());
    const ExpressionMap channels = map("b + a * b - sin + rand(c)");
    EXPECT_EQ(
        std::vector<std::string>(channels.channelNames().begin(), channels.channelNames().end()),
        (std::vector<std::string>{"b", "a", "sin", "c"}));
    EXPECT_NE(map("1").number(), map("1").number());
}

// ---- maps ----

/// A colour per strand root: r is the root's x, g is twice that.
class XMap final : public NamedMap {
public:
    explicit XMap(std::string channel = {}) : channel_(std::move(channel)) {}
    float at(const StrandRoot&, Vec3f position, MapComponent component) const override {
        const Color4f c = colorAt({}, position);
        const std::array<float, 5> values = {c.r, c.g, c.b, c.a, luminance(c.r, c.g, c.b)};
        return values[std::size_t(component)];
    }
    Color4f colorAt(const StrandRoot&, Vec3f p) const override {
        return {p.x, 2.0f * p.x, kNotANumber, 0.25f};
    }
    std::string channel() const override { return channel_; }
    std::uint64_t hash() const override { return 1; }

private:
    std::string channel_;
};

ExpressionEnvironment withMaps() {
    ExpressionEnvironment environment;
    environment.findMap = [](const std::string& name) -> NamedMapPtr {
        if (name == "hair") return std::make_shared<XMap>();
        if (name == "layer") return std::make_shared<XMap>("layerChannel");
        if (name == "bare")
            throw ExpressionError("map(\"bare\"): the texture map has no image file yet");
        return nullptr;
    };
    return environment;
}

TEST(ExpressionMaps, AreReadAtRoots) {
    const StrandSet set = threeStrands();
    const ExpressionEnvironment environment = withMaps();
    EXPECT_EQ(perStrand("map(\"hair\", \"r\")", set, environment), (Floats{1, 0, 5}));
    EXPECT_EQ(perStrand("map('hair', 1)", set, environment), (Floats{2, 0, 10}));
    EXPECT_EQ(perStrand("map(\"hair\", \"a\")", set, environment), Floats(3, 0.25f));
    EXPECT_EQ(perStrand("map(\"hair\")", set, environment), Floats(3, 0.0f)) << "no numbers: 0";
    EXPECT_EQ(perStrand("cmap(\"hair\").g", set, environment), (Floats{2, 0, 10}));
    EXPECT_EQ(perPoint("map(\"hair\", 0) + t * 0 + cmap(\"hair\").r", set, environment),
              (Floats{2, 2, 2, 0, 0, 10, 10}));
    Floats out(1);
    ExpressionMap("map(\"hair\", \"r\") * 2", environment, false)
        .atRoots(std::vector<StrandRoot>(1), std::vector<Vec3f>{{4, 0, 0}}, environment, out);
    EXPECT_EQ(out[0], 8.0f);
}

TEST(ExpressionMaps, OfGuidesReadTheChannelThatCarriesThem) {
    StrandSet set = threeStrands();
    const ExpressionEnvironment environment = withMaps();
    EXPECT_EQ(perStrand("map(\"layer\", \"g\")", set, environment), (Floats{2, 0, 10}));
    const auto points = set.mutablePointChannel("layerChannel", 0.0f);
    for (std::size_t i = 0; i < points.size(); ++i) points[i] = float(i);
    EXPECT_EQ(perPoint("map(\"layer\")", set, environment), (Floats{0, 1, 2, 3, 4, 5, 6}));
    set.mutableStrandChannel("layerChannel", 0.5f);
    EXPECT_EQ(perStrand("map(\"layer\", \"g\")", set, environment), Floats(3, 0.5f));
    EXPECT_EQ(perStrand("map(\"layer\", \"a\")", set, environment), Floats(3, 1.0f));
    EXPECT_EQ(perStrand("cmap(\"layer\").b", set, environment), Floats(3, 0.5f));
    EXPECT_TRUE(ExpressionMap("map(\"layer\")", environment, true).channelNames().empty());
}

TEST(ExpressionMaps, ThatAreUnfitSayWhy) {
    EXPECT_EQ(
        errorOf("2 * map(\"bare\")", true, ExpressionMap::Shape::Number, withMaps()),
        "expression '2 * map(\"bare\")': map(\"bare\"): the texture map has no image file yet "
        "at position 9");
}

// ---- the compile cache ----

TEST(CompileCache, GivesTheSameMapForTheSameMeaning) {
    ExpressionEnvironment a, b;
    a.variables = {{"k", 1.0f}};
    b.variables = {{"k", 2.0f}};
    const auto compile = [](const char* text, const ExpressionEnvironment& environment,
                            bool perPointAllowed = true) {
        return compileExpression(text, environment, perPointAllowed);
    };
    EXPECT_EQ(compile("x * 3", a), compile("x * 3", b)) << "reads no variable";
    EXPECT_NE(compile("x * 3", a), compile("x * 3", a, false));
    EXPECT_EQ(compile("x * $k", a), compile("x * $k", a));
    EXPECT_NE(compile("x * $k", a), compile("x * $k", b));
    EXPECT_THROW(compile("x *", a), ExpressionError);
    EXPECT_THROW(compile("x *", a), ExpressionError);
    EXPECT_EQ(compileExpression("P", a, true, ExpressionMap::Shape::Vector),
              compileExpression("P", a, true, ExpressionMap::Shape::Vector));
}

TEST(CompileCache, AsksForMapsAnewAndKeepsNone) {
    std::weak_ptr<const NamedMap> last;
    ExpressionEnvironment environment;
    int asked = 0;
    environment.findMap = [&](const std::string&) -> NamedMapPtr {
        ++asked;
        const auto map = std::make_shared<XMap>();
        last = map;
        return map;
    };
    compileExpression("map(\"anew\")", environment, true);
    const ExpressionPtr held = compileExpression("map(\"anew\")", environment, true);
    EXPECT_EQ(asked, 2);
    EXPECT_FALSE(last.expired());
    environment.findMap = nullptr;
    EXPECT_THROW(compileExpression("map(\"anew\")", environment, true), ExpressionError);
    EXPECT_TRUE(held->readsMaps());
}

TEST(CompileCache, HoldsOnThroughManyTexts) {
    const ExpressionEnvironment none;
    const ExpressionPtr first = compileExpression("x + 12345", none, true);
    for (int k = 0; k < 2000; ++k)
        EXPECT_EQ(compileExpression("x + " + std::to_string(k), none, true)->text(),
                  "x + " + std::to_string(k));
    EXPECT_NE(compileExpression("x + 12345", none, true), first) << "old texts leave";
}

// ---- the variables of Expression nodes ----

TEST(ExpressionVariablesJson, ReadsNumbersAndVectors) {
    const auto variables =
        expressionVariables(R"({"amount": 2, "axis": [1, 0.5, -1], "_3": 1e-3})");
    ASSERT_EQ(variables.size(), 3u);
    EXPECT_EQ(std::get<float>(variables.at("amount")), 2.0f);
    EXPECT_EQ(std::get<Vec3f>(variables.at("axis")), (Vec3f{1, 0.5f, -1}));
    EXPECT_TRUE(expressionVariables("{}").empty());
    EXPECT_TRUE(expressionVariables(" \n").empty());
}

TEST(ExpressionVariablesJson, RefusesTheRestByName) {
    const auto errorOfJson = [](const std::string& json) -> std::string {
        try {
            expressionVariables(json);
        } catch (const ExpressionError& error) {
            return error.what();
        }
        return "";
    };
    const std::string notAnObject = "variables are a JSON object of numbers and vectors";
    for (const std::string json : {"[1]", "3", "{", "null", "{\"a\": }", "hair"})
        EXPECT_EQ(errorOfJson(json), notAnObject) << json;
    EXPECT_EQ(errorOfJson(R"({"a b": 1})"), "'a b' is not a variable name (letters, digits and _)");
    EXPECT_EQ(errorOfJson(R"({"": 1})"), "'' is not a variable name (letters, digits and _)");
    for (const std::string value :
         {"\"x\"", "true", "null", "[1, 2]", "[1, 2, 3, 4]", "[1, 2, \"3\"]", "1e300", "{}"})
        EXPECT_EQ(errorOfJson("{\"k\": " + value + "}"),
                  "k is neither a number nor a vector of three")
            << value;
    EXPECT_NE(errorOfJson(std::string(100'000, '[')), "");
}

TEST(MapSource, HashesAllThatItHolds) {
    const MapSource source{.source = "x"};
    for (MapSource other :
         {MapSource{.kind = MapKind::Texture, .source = "x"}, MapSource{.source = "y"},
          MapSource{.source = "x", .component = MapComponent::R},
          MapSource{.source = "x", .low = 0.5f}, MapSource{.source = "x", .high = 2}}) {
        EXPECT_NE(source.hash(), other.hash());
        EXPECT_NE(source, other);
    }
    EXPECT_EQ(source.hash(), MapSource{.source = "x"}.hash());
    EXPECT_STREQ(mapKindKey(MapKind::GuideLayer), "guide");
    EXPECT_STREQ(mapKindKey(MapKind::ColorSet), "colorSet");
    EXPECT_STREQ(mapComponentWord(MapComponent::Luminance), "luminance");
}

}  // namespace
}  // namespace corvelle
