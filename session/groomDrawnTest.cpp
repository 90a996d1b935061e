// What is drawn on a session's scalp: parts and flow, from their texts to the strands.

#include "model/flowData.h"
#include "model/partData.h"
#include "session/groomSessionFixture.h"

namespace corvelle {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

/// Scalp, Scatter, then the node and the output.
std::string shortGraph(const std::string& type) {
    json graph = json::parse(chainOf({"scalp", "scatter", "noise", "output"}, 1.0));
    for (json& node : graph["nodes"])
        if (node["name"] == "noise")
            node = {{"name", "noise"}, {"type", type}, {"params", json::object()}};
    return graph.dump();
}

class GroomDrawnTest : public GroomSessionTest {
protected:
    GroomDrawnTest() : GroomSessionTest(1.0, true) { groom.setGraphJson(shortGraph("Flow")); }
    /// Pins that go round the y axis of the scalp.
    FlowData roundTheAxis(const ScalpMesh& mesh) const {
        FlowData data;
        for (std::int32_t t = 40; t < std::int32_t(mesh.triangles().size()) - 40; t += 5)
            data.pins.push_back(
                flowPin(mesh, {t, 0.3f, 0.3f}, cross(Vec3f{0, 1, 0}, mesh.faceNormal(t))));
        return data;
    }
    /// Mean of how far strands near the equator go round the axis, 1 all the way.
    double round() const {
        const StrandSet& set = *groom.result().strands;
        const ScalpMesh& mesh = *groom.scalp();
        double sum = 0.0, count = 0.0;
        for (std::size_t s = 0; s < set.strandCount(); ++s) {
            const Vec3f normal = mesh.surfaceNormal(set.roots()[s]);
            if (std::abs(normal.y) > 0.5f) continue;
            const Vec3f chord = normalized(set.pointsOf(s).back() - set.pointsOf(s).front());
            sum += dot(chord, normalized(cross(Vec3f{0, 1, 0}, normal)));
            ++count;
        }
        EXPECT_GT(count, 50.0);
        return sum / count;
    }
    std::string flowWarning() const {
        for (const auto& [id, text] : groom.graph()->warnings()) return text;
        return {};
    }
};

TEST_F(GroomDrawnTest, FlowLaysTheHair) {
    groom.evaluate(kPreview);
    EXPECT_THAT(flowWarning(), StartsWith("no flow arrows"));
    const std::string text = flowDataJson(roundTheAxis(*scalp));
    groom.setFlowJson(text);
    EXPECT_EQ(evaluatedBy(groom), 2u) << "the Flow node and the output";
    EXPECT_GT(round(), 0.9);
    EXPECT_EQ(flowWarning(), "");
    EXPECT_EQ(groom.document().flow, text);

    const auto field = groom.evaluationData().flow;
    groom.setFlowJson(" " + text);
    EXPECT_EQ(evaluatedBy(groom), 0u) << "the same pins, written another way";
    EXPECT_EQ(groom.evaluationData().flow, field) << "not made again";
    groom.setFlowJson("");
    groom.evaluate(kPreview);
    EXPECT_THAT(flowWarning(), StartsWith("no flow arrows"));
}

TEST_F(GroomDrawnTest, FlowAndPartsFollowThePose) {
    groom.setFlowJson(flowDataJson(roundTheAxis(*scalp)));
    groom.evaluate(kPreview);
    const StrandsPtr rest = groom.result().strands;
    const Vec3f by{50, 0, 0};
    groom.updateScalpPoints(shifted(scalp->points(), by), std::nullopt);
    groom.evaluate(kPreview);
    EXPECT_GT(round(), 0.9) << "on the scalp as it is";
    EXPECT_LT(distance(groom.result().strands->points()[9], rest->points()[9] + by), 1e-3f);
    groom.setFollowScalp(true);
    const auto atRest = [&] { return groom.evaluationData().flow; };
    groom.evaluate(kPreview);
    const auto field = atRest();
    groom.updateScalpPoints(shifted(scalp->points(), {0, 30, 0}), std::nullopt);
    EXPECT_EQ(evaluatedBy(groom), 0u) << "the rest pose is as it was";
    EXPECT_EQ(atRest(), field);
}

TEST_F(GroomDrawnTest, ATextThatDoesNotReadIsKeptAndShownEachTime) {
    GroomFile file;
    file.graph = shortGraph("Flow");
    file.scalp = scalp;
    file.parts = R"({"version":2,"parts":[]})";
    file.flow = R"({"version":2})";
    GroomSession broken(file);
    for (int times = 0; times < 2; ++times) {
        broken.evaluate(kPreview);
        EXPECT_THAT(
            broken.result().errors,
            ElementsAre("flowData: flow data version is newer than this Corvelle supports",
                        "partData: part data version is newer than this Corvelle supports"));
        EXPECT_TRUE(broken.result().strands) << "the rest goes on";
    }
    EXPECT_EQ(broken.document().flow, file.flow);
    EXPECT_EQ(broken.dataErrors().size(), 2u);
    broken.setFlowJson("");
    broken.setPartsJson("");
    EXPECT_TRUE(broken.evaluate(kPreview).errors.empty());
}

TEST_F(GroomDrawnTest, AnotherScalpTakesPartsAndFlowOver) {
    groom.setFlowJson(flowDataJson(roundTheAxis(*scalp)));
    PartData parts{{{"middle", {{100, 0.3f, 0.3f}, {160, 0.3f, 0.3f}}}}};
    groom.setPartsJson(partDataJson(parts));
    const Vec3f before = scalp->surfacePoint(parts.lines[0].points[1]);
    const auto other = std::make_shared<const ScalpMesh>(makeSphere(24, 40, 10.0f));
    groom.setScalp(other);
    groom.evaluate(kPreview);
    EXPECT_TRUE(groom.result().errors.empty());
    EXPECT_GT(round(), 0.9);
    const PartData moved = readPartData(groom.document().parts);
    ASSERT_EQ(moved.lines.size(), 1u);
    EXPECT_LT(distance(other->surfacePoint(moved.lines[0].points[1]), before), 0.3f);
    EXPECT_EQ(readFlowData(groom.document().flow).pins.size(), roundTheAxis(*scalp).pins.size());
    groom.setScalp(std::make_shared<const ScalpMesh>());
    EXPECT_FALSE(readFlowData(groom.document().flow).empty()) << "no faces: kept as they are";
}

}  // namespace
}  // namespace corvelle
