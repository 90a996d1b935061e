#include <algorithm>
#include <set>

#include <gmock/gmock.h>

#include "graph/curveReader.h"
#include "graph/graph.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

/// A file of two samples a second, held in memory; counts how often it is read.
class FakeReader final : public CurveReader {
public:
    CurveSetPtr curves(const std::string& path, const std::string& object,
                       double seconds) override {
        ++readings;
        if (path != "curves.abc") throw std::runtime_error("cannot open '" + path + "'");
        if (!object.empty() && object != "hair")
            throw std::runtime_error("no curves named '" + object + "'");
        auto out = std::make_shared<CurveSet>(set);
        for (Vec3f& p : out->points) p.x += float(int(seconds * 2));
        return out;
    }
    std::uint64_t stamp(const std::string& path, const std::string& object,
                        double seconds) noexcept override {
        return 1 + std::uint64_t(seconds * 2) + 100 * object.size() + 10000 * path.size();
    }
    CurveSet set{.points = {{0, 0, 0}, {0, 1, 0}, {0, 3, 0}, {9, 9, 9}, {5, 0, 0}, {5, 2, 0}},
                 .counts = {3, 1, 2},
                 .widths = {3, 2, 0, 7, 4, 2},
                 .uvs = {},
                 .ids = {70, 8, 90}};
    int readings = 0;
};

class ImportCurvesTest : public testing::Test {
protected:
    ImportCurvesTest() {
        registerOperators();
        node = graph.addNode(OperatorRegistry::instance().create("ImportCurves"));
        graph.node(node).op->name = "curves";
        graph.setParam(node, "path", std::string("curves.abc"));
        data.curves = reader;
    }
    StrandsPtr strands() {
        graph.setParam(node, "as", std::string("strands"));
        return std::get<StrandsPtr>(graph.evaluate(node, data));
    }
    GuidesPtr guides() {
        graph.setParam(node, "as", std::string("guides"));
        return std::get<GuidesPtr>(graph.evaluate(node, data));
    }
    std::string error() {
        try {
            graph.evaluate(node, data);
        } catch (const std::exception& e) {
            return e.what();
        }
        return "no error";
    }
    std::shared_ptr<FakeReader> reader = std::make_shared<FakeReader>();
    Graph graph;
    EvaluationData data;
    NodeId node = 0;
};

TEST_F(ImportCurvesTest, KeepsCurvesAsReadOrResamplesThemToRootAndTip) {
    graph.setParam(node, "samples", 0.0);
    const StrandsPtr kept = strands();
    ASSERT_EQ(kept->strandCount(), 2u);
    EXPECT_THAT(std::vector(kept->ids().begin(), kept->ids().end()), testing::ElementsAre(70, 90));
    EXPECT_THAT(std::vector(kept->widths().begin(), kept->widths().end()),
                testing::ElementsAre(3, 2, 0, 4, 2));
    EXPECT_EQ(kept->pointsOf(1)[1], (Vec3f{5, 2, 0}));
    EXPECT_THAT(graph.warnings().at(node),
                testing::HasSubstr("1 curves of fewer than 2 points are left out"));

    graph.setParam(node, "samples", 7.0);
    const StrandsPtr even = strands();
    for (std::size_t s = 0; s < 2; ++s) {
        ASSERT_EQ(even->pointCountOf(s), 7u);
        EXPECT_EQ(even->pointsOf(s).front(), kept->pointsOf(s).front());
        EXPECT_EQ(even->pointsOf(s).back(), kept->pointsOf(s).back());
    }
    EXPECT_NEAR(even->pointsOf(0)[2].y, 1.0f, 1e-5f);
    EXPECT_NEAR(even->widths()[2], 2.0f, 1e-4f);
    EXPECT_NEAR(even->pointsOf(1)[3].y, 1.0f, 1e-5f);
    std::string fault;
    EXPECT_TRUE(even->validate(&fault)) << fault;
    graph.setParam(node, "samples", 1.0);
    EXPECT_EQ(strands()->pointCountOf(0), 2u);

    graph.setParam(node, "samples", 24.0);
    const GuidesPtr asGuides = guides();
    ASSERT_EQ(asGuides->size(), 2u);
    EXPECT_EQ(asGuides->pointsOf(0).size(), 24u);
    EXPECT_EQ(asGuides->ids()[1], 90u);
    reader->set.ids = {70, 8, 70};  // not good as names: by order
    graph.setParam(node, "object", std::string("hair"));
    EXPECT_THAT(std::vector(guides()->ids().begin(), guides()->ids().end()),
                testing::ElementsAre(1, 3));
}

TEST_F(ImportCurvesTest, RunsAgainOnlyForAnotherSampleOfTheFile) {
    strands();
    const int first = reader->readings;
    data.seconds = 0.4;
    const StrandsPtr same = strands();
    EXPECT_EQ(reader->readings, first);
    data.seconds = 0.5;
    const StrandsPtr other = strands();
    EXPECT_EQ(reader->readings, first + 1);
    EXPECT_EQ(other->points()[0].x, same->points()[0].x + 1.0f);
    EXPECT_TRUE(graph.readsTime(node, false));
}

TEST_F(ImportCurvesTest, RootsCurvesWhereTheScalpIsClosest) {
    const auto scalp = std::make_shared<const ScalpMesh>(makeSphere(8, 12, 2.0f));
    data.scalp = scalp;
    EXPECT_FALSE(strands()->roots()[0].rooted());
    const NodeId source = graph.addNode(OperatorRegistry::instance().create("Scalp"));
    graph.connect(source, 0, node, 0);
    const StrandsPtr rooted = strands();
    for (std::size_t s = 0; s < 2; ++s) {
        SurfaceHit hit;
        ASSERT_TRUE(scalp->closestPoint(rooted->pointsOf(s).front(), ScalpMesh::kAnyDistance, hit));
        EXPECT_EQ(rooted->roots()[s], hit.root());
        EXPECT_EQ(rooted->pointsOf(s).front().x, s == 0 ? 0.0f : 5.0f) << "points stay";
    }
    EXPECT_TRUE(guides()->roots()[0].rooted());
}

TEST_F(ImportCurvesTest, SaysWhatIsWrong) {
    graph.setParam(node, "object", std::string("fur"));
    EXPECT_EQ(error(), "node 'curves': ImportCurves: no curves named 'fur'");
    graph.setParam(node, "path", std::string("none.abc"));
    EXPECT_EQ(error(), "node 'curves': ImportCurves: cannot open 'none.abc'");
    graph.setParam(node, "path", std::string());
    EXPECT_EQ(error(), "node 'curves': ImportCurves: path names no file");
}

TEST_F(ImportCurvesTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    reader->set = {};
    for (std::uint32_t c = 0; c < 3000; ++c) {
        reader->set.counts.push_back(std::int32_t(c % 7));
        for (std::uint32_t i = 0; i < c % 7; ++i)
            reader->set.points.push_back({float(c), float(i * i), float(c % (i + 2))});
    }
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u}) {
        graph.setParam(node, "object", threads == 1 ? std::string() : std::string("hair"));
        runWithThreads(threads, [&] { hashes.insert(strands()->contentHash()); });
        graph.setParam(node, "samples", 12.0 + threads);  // let go of what was kept
        strands();
        graph.setParam(node, "samples", 14.0 + threads);
        strands();
        graph.setParam(node, "samples", 24.0);
    }
    EXPECT_EQ(hashes.size(), 1u);
}

}  // namespace
}  // namespace corvelle
