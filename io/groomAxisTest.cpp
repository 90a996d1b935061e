#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "graph/operator.h"
#include "io/groomAxis.h"
#include "io/groomFileFixture.h"

namespace corvelle {
namespace {

using nlohmann::json;

/// A node with every kind of param that a turn looks at, and one that nests a graph.
class Axes final : public Operator {
public:
    std::string type() const override { return "TestAxes"; }
    std::string category() const override { return "test"; }
    std::string description() const override { return "Axes of every kind"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "direction", .defaultValue = Vec3f{1, 2, 3}, .worldDirection = true},
                {.name = "axis", .defaultValue = std::string("x"), .worldDirection = true},
                {.name = "local", .defaultValue = Vec3f{1, 2, 3}},
                {.name = "offset", .defaultValue = 0.0},
                {.name = "side", .defaultValue = std::string("positive")}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override { return StrandsPtr(); }
};

class GroomAxis : public testing::Test {
protected:
    GroomAxis() {
        OperatorRegistry::instance().add("TestAxes", [] { return std::make_unique<Axes>(); });
    }
    static json turned(const json& params, const char* from, const char* to) {
        GroomFile file;
        file.upAxis = from;
        file.graph =
            json{{"nodes", {{{"name", "n"}, {"type", "TestAxes"}, {"params", params}}}}}.dump();
        convertGroomFileUpAxis(file, to);
        return json::parse(file.graph)["nodes"][0]["params"];
    }
};

TEST_F(GroomAxis, TurnsWhatHasAPlaceAndLeavesTheRest) {
    GroomFile file = anyFile(3);
    file.upAxis = "Z";
    file.hierarchy =
        R"({"guides":[{"points":[1,2,3,0,5,-0.0,7],"frameUp":[0,0.5,1],"x":[1,2,3]},4]})";
    const GroomFile before = file;
    convertGroomFileUpAxis(file, "Y");
    EXPECT_EQ(file.upAxis, "Y");
    const auto turned = [](Vec3f v) { return Vec3f{v.x, v.z, -v.y}; };
    for (const auto& [mesh, was] : {std::pair{file.scalp, before.scalp},
                                    {file.scalps[1].second, before.scalps[1].second},
                                    {file.colliders["body"], before.colliders.at("body")}}) {
        for (std::size_t i = 0; i < was->points().size(); ++i) {
            EXPECT_EQ(mesh->points()[i], turned(was->points()[i]));
            EXPECT_EQ(mesh->restPoints()[i], turned(was->restPoints()[i]));
        }
        EXPECT_EQ(mesh->topologyHash(), was->topologyHash());
        EXPECT_EQ(mesh->extrasHash(), was->extrasHash());
    }
    EXPECT_EQ(file.guides->points()[7], turned(before.guides->points()[7]));
    EXPECT_EQ(file.guides->roots()[7].u, before.guides->roots()[7].u);
    EXPECT_EQ(file.hierarchy, R"({"guides":[{"frameUp":[0,1,-0.5],"points":[1,3,-2,0,-0.0,-5,7],)"
                              R"("x":[1,2,3]},4]})");
    EXPECT_EQ(file.prototypes["leaf"]->points, before.prototypes.at("leaf")->points);
    EXPECT_EQ(file.parts, before.parts);
    EXPECT_EQ(file.maps, before.maps);
}

TEST_F(GroomAxis, ComesBackToTheSameBits) {
    for (std::uint64_t seed = 0; seed < 5; ++seed) {
        GroomFile file = anyFile(seed);
        file.hierarchy = R"({"guides":[{"points":[1,2,3,0,5,-0.0,0,0,0]}]})";
        const GroomFile before = file;
        convertGroomFileUpAxis(file, "Z");
        EXPECT_NE(file.scalp->fullHash(), before.scalp->fullHash());
        convertGroomFileUpAxis(file, "Y");
        EXPECT_EQ(file.scalp->fullHash(), before.scalp->fullHash());
        EXPECT_EQ(file.guides->contentHash(), before.guides->contentHash());
        EXPECT_EQ(json::parse(file.hierarchy), json::parse(before.hierarchy));
    }
}

TEST_F(GroomAxis, TurnsTheDirectionsOfTheGraphWithTheirDefaults) {
    EXPECT_EQ(turned(json::object(), "Z", "Y"), (json{{"direction", {1, 3, -2}}}));
    EXPECT_EQ(turned({{"direction", {0, 1, 5}}, {"local", {1, 2, 3}}}, "Y", "Z"),
              (json{{"direction", {0, -5, 1}}, {"local", {1, 2, 3}}}));
    EXPECT_EQ(
        turned({{"axis", "y"}, {"offset", 2.5}, {"side", "positive"}}, "Z", "Y"),
        (json{{"axis", "z"}, {"direction", {1, 3, -2}}, {"offset", -2.5}, {"side", "negative"}}));
    EXPECT_EQ(
        turned({{"axis", "z"}, {"offset", 2.5}, {"side", "negative"}}, "Z", "Y"),
        (json{{"axis", "y"}, {"direction", {1, 3, -2}}, {"offset", 2.5}, {"side", "negative"}}));
    EXPECT_EQ(
        turned({{"axis", "z"}, {"offset", 0}, {"side", "negative"}}, "Y", "Z"),
        (json{{"axis", "y"}, {"direction", {1, -3, 2}}, {"offset", 0}, {"side", "positive"}}));
    EXPECT_EQ(turned({{"axis", "x"}}, "Y", "Z")["axis"], "x");
    // A side that the node leaves at its default turns round too.
    EXPECT_EQ(turned({{"axis", "z"}}, "Y", "Z"),
              (json{{"axis", "y"}, {"direction", {1, -3, 2}}, {"side", "negative"}}));
    EXPECT_EQ(turned({{"axis", "y"}}, "Y", "Z"), (json{{"axis", "z"}, {"direction", {1, -3, 2}}}));
}

TEST_F(GroomAxis, RefusesOtherAxesAndLeavesTheFileAlone) {
    GroomFile file = anyFile(3);
    const auto fault = [&](const std::string& axis) -> std::string {
        try {
            convertGroomFileUpAxis(file, axis);
            return "";
        } catch (const GroomFileError& error) {
            return error.what();
        }
    };
    const std::uint64_t scalp = file.scalp->fullHash();
    EXPECT_EQ(fault("X"), "groom file: upAxis is \"Y\" or \"Z\", not \"X\"");
    EXPECT_EQ(fault(""), "groom file: upAxis is \"Y\" or \"Z\", not \"\"");
    file.upAxis = " \t";
    EXPECT_EQ(fault("Y"), "") << "a blank axis of the file is Y";
    file.upAxis = "Y";
    file.graph = "{";
    EXPECT_EQ(fault("Z"), "") << "only blanks and braces are no graph at all";
    EXPECT_EQ(fault("Y"), "");
    file.graph = "{\"nodes\":";
    EXPECT_EQ(fault("Z"), "groom file: invalid graph JSON");
    EXPECT_EQ(file.scalp->fullHash(), scalp);
    EXPECT_EQ(file.upAxis, "Y");
    file.hierarchy = "[";
    EXPECT_EQ(fault("Z").rfind("groom file: invalid hierarchy JSON: ", 0), 0u);
}

}  // namespace
}  // namespace corvelle
