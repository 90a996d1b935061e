#include <cmath>
#include <functional>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/graphError.h"
#include "graph/graphJson.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "session/detachedEvaluation.h"
#include "session/groomSessionFixture.h"

namespace corvelle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// ---- setters
// -------------------------------------------------------------------------------------

TEST_F(GroomSessionTest, EqualDataChangesNothing) {
    groom.setHierarchy(makeHierarchy(*scalp, {}));
    groom.evaluate(kPreview);
    const EvaluationResult first = groom.result();
    ASSERT_THAT(first.errors, IsEmpty());
    ASSERT_GT(first.strands->strandCount(), 500u);
    EXPECT_FALSE(first.changes) << "nothing came before: all of it";

    const std::uint64_t revision = groom.graphRevision();
    groom.setScalp(sphere());  // another object, the same data
    groom.updateScalpPoints({scalp->points().begin(), scalp->points().end()}, std::nullopt);
    groom.setGuides(makeGuides(*scalp, 40));
    groom.setHierarchy(makeHierarchy(*scalp, {}));
    groom.setHierarchyJson(std::string(groom.document().hierarchy));
    groom.setGraphJson(std::string(groom.document().graph));
    groom.setFollowScalp(false);
    groom.setFramesPerSecond(24.0);
    EXPECT_EQ(groom.scalp(), scalp);
    EXPECT_EQ(groom.graphRevision(), revision);

    EXPECT_EQ(evaluatedBy(groom), 0u);
    const EvaluationResult& second = groom.result();
    EXPECT_EQ(second.strands, first.strands);
    EXPECT_EQ(second.serial, first.serial);
    EXPECT_EQ(second.changesBase, first.serial);
    ASSERT_TRUE(second.changes);
    EXPECT_FALSE(second.changes->all);
    EXPECT_THAT(second.changes->strands, IsEmpty());
    EXPECT_EQ(second.displayRevision, first.displayRevision);
    EXPECT_EQ(second.boundsMax, first.boundsMax);
}

TEST_F(GroomSessionTest, AnyDatumOfTheScalpThatDiffersReplacesIt) {
    const auto differs = [&](const char* what, auto&& change) {
        ScalpMesh mesh = *sphere();
        change(mesh);
        groom.setScalp(std::make_shared<const ScalpMesh>(std::move(mesh)));
        EXPECT_NE(groom.scalp(), scalp) << what;
        groom.setScalp(scalp);
    };
    const std::size_t corners = 3 * scalp->triangles().size();
    differs("uvs", [&](ScalpMesh& m) { m.setUvs(std::vector<Vec2f>(corners)); });
    differs("colours", [&](ScalpMesh& m) { m.addColorSet("c", std::vector<Color4f>(corners)); });
    differs("rest", [&](ScalpMesh& m) { m.setRestPoints({m.points().begin(), m.points().end()}); });
    differs("polygons", [&](ScalpMesh& m) {
        m.setPolygons(std::vector<std::int32_t>(scalp->triangles().size(), 1));
    });
    EXPECT_EQ(
        errorOf([&] { groom.updateScalpPoints(std::vector<Vec3f>(3), std::nullopt); }),
        "updateScalpPoints: 3 points for a scalp of " + std::to_string(scalp->points().size()));
    EXPECT_EQ(
        errorOf([&] {
            groom.updateScalpPoints(shifted(scalp->points(), {1, 0, 0}), std::vector<Vec3f>(3));
        }),
        "updateScalpPoints: 3 points for a scalp of " + std::to_string(scalp->points().size()));
    EXPECT_EQ(groom.scalp(), scalp);
    GroomSession bare;
    EXPECT_EQ(errorOf([&] { bare.updateScalpPoints({}, std::nullopt); }),
              "updateScalpPoints: the session has no scalp");
}

TEST_F(GroomSessionTest, AGraphThatDoesNotReadLeavesTheOldOne) {
    groom.evaluate(kPreview);
    const std::string text = groom.document().graph;
    const std::uint64_t evaluated = groom.nodesEvaluated();
    const std::string deep = R"({"nodes": [{"name": "s", "type": "Scalp"}], "output": "s", "x": )" +
                             std::string(100'000, '[') + std::string(100'000, ']') + "}";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\"nodes\"", "graph: invalid JSON: "},
        {"5", "graph JSON must be an object"},
        {R"({"version": 99})", "graph version 99 is newer than this Corvelle supports"},
        {R"({"nodes": []})", "graph JSON has no 'output' node"},
        {R"({"nodes": [{"name": "a", "type": "Beard"}], "output": "a"})",
         "unknown operator type 'Beard'"},
        {deep, "graph: nested deeper than 512 levels"},
    };
    for (const auto& [bad, message] : cases) {
        EXPECT_THAT(errorOf([&] { groom.setGraphJson(bad); }), StartsWith(message));
        EXPECT_EQ(groom.document().graph, text);
        EXPECT_EQ(groom.nodesEvaluated(), evaluated);
        EXPECT_EQ(evaluatedBy(groom), 0u);
    }
    for (const std::string blank : {"", " \n", "{}", "{ }"}) {
        groom.setGraphJson(blank);
        EXPECT_EQ(groom.graph(), nullptr);
        groom.evaluate(kPreview);
        EXPECT_FALSE(groom.result().strands);
        EXPECT_THAT(groom.result().errors, IsEmpty());
        EXPECT_EQ(groom.result().serial, 0u);
    }
}

// ---- serials and changes
// -------------------------------------------------------------------------

TEST_F(GroomSessionTest, ChangesNameEveryStrandThatDiffers) {
    groom.evaluate(kPreview);
    for (int step = 1; step < 6; ++step) {
        const EvaluationResult before = groom.result();
        groom.setGuides(makeGuides(*scalp, 40, std::size_t(step * 7), 0.2f * float(step)));
        const std::uint64_t incremental = groom.nodesIncremental();
        groom.evaluate(kPreview);
        const EvaluationResult& now = groom.result();
        ASSERT_THAT(now.errors, IsEmpty());
        EXPECT_GT(groom.nodesIncremental(), incremental);
        EXPECT_EQ(now.serial, before.serial + 1);
        EXPECT_EQ(now.changesBase, before.serial);
        ASSERT_TRUE(now.changes && !now.changes->all);
        const std::set<std::uint32_t> named(now.changes->strands.begin(),
                                            now.changes->strands.end());
        EXPECT_FALSE(named.empty());
        EXPECT_LT(named.size(), now.strands->strandCount()) << "too wide to prove anything";
        for (std::uint32_t s = 0; s < now.strands->strandCount(); ++s)
            if (!named.contains(s)) {
                EXPECT_TRUE(
                    std::ranges::equal(now.strands->pointsOf(s), before.strands->pointsOf(s)))
                    << s;
            }

        GroomSession fresh;
        fresh.setScalp(scalp);
        fresh.setGuides(groom.document().guides);
        fresh.setGraphJson(groom.document().graph);
        fresh.evaluate(kPreview);
        EXPECT_EQ(contentOf(fresh), contentOf(groom)) << "incremental and full differ";
        EXPECT_EQ(fresh.result().boundsMin, now.boundsMin);
        EXPECT_EQ(fresh.result().boundsMax, now.boundsMax);
    }
}

TEST_F(GroomSessionTest, AParamChangedAndChangedBackRunsNothing) {
    groom.evaluate(kPreview);
    const StrandsPtr first = groom.result().strands;
    setParam(groom, "noise", "amplitude", 0.7);
    EXPECT_GT(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands != first);
    setParam(groom, "noise", "amplitude", 0.2);
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands == first);
    EXPECT_EQ(groom.result().serial, 3u) << "to the host it is another result";
}

TEST_F(GroomSessionTest, AnotherGraphStartsAnew) {
    groom.evaluate(kPreview);
    const std::uint64_t serial = groom.result().serial;
    groom.setGraphJson(chainOf({"scalp", "scatter"}, 1.0));
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.result().serial, serial + 1);
    EXPECT_FALSE(groom.result().changes);
    EXPECT_TRUE(groom.result().viewIsScatter);
}

TEST_F(GroomSessionTest, ARenamedNodeKeepsEverything) {
    groom.evaluate(kPreview);
    const std::uint64_t serial = groom.result().serial;
    json graph = json::parse(groom.document().graph);
    for (json& node : graph["nodes"])
        if (node["name"] == "scatter") node["name"] = "roots";
    for (json& c : graph["connections"])
        for (const char* end : {"from", "to"})
            if (c[end] == "scatter") c[end] = "roots";
    groom.setGraphJson(graph.dump(), {{"scatter", "roots"}});
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_EQ(groom.result().serial, serial);
}

// ---- what is shown
// -------------------------------------------------------------------------------

TEST_F(GroomSessionTest, AViewNodeIsShownWhenItGivesStrands) {
    const auto view = [&](const std::string& name) {
        EvaluateOptions options = kPreview;
        options.viewNode = name;
        groom.evaluate(options);
        EXPECT_THAT(groom.result().errors, IsEmpty());
        return groom.result().viewNode;
    };
    EXPECT_EQ(view("scatter"), "scatter");
    EXPECT_TRUE(groom.result().viewIsScatter);
    const std::uint64_t revision = groom.result().strandRevision;
    const std::size_t roots = groom.result().strands->strandCount();
    for (const char* other : {"nobody", "scalp", "guides", ""}) {
        EXPECT_EQ(view(other), "") << other;
        EXPECT_FALSE(groom.result().viewIsScatter);
        EXPECT_EQ(groom.result().strands->strandCount(), roots);
    }
    EXPECT_GT(groom.result().strandRevision, revision);
}

TEST_F(GroomSessionTest, BoundsHoldStrandsAndHierarchy) {
    groom.setHierarchy([&] {
        GuideHierarchy far;
        far.addGuide(far.addGroup("g", 0), {0, 0.3f, 0.3f}, {{0, 10, 0}, {0, 99, 0}}, 0,
                     scalp.get());
        return far;
    }());
    groom.evaluate({.preview = true, .computeBounds = false});
    EXPECT_FALSE(groom.result().hasBounds);
    groom.evaluate(kPreview);
    ASSERT_TRUE(groom.result().hasBounds) << "measured when it is asked for";
    EXPECT_EQ(groom.result().boundsMax.y, 99.0f);
    const StrandSet::Extent extent = groom.result().strands->extent();
    EXPECT_EQ(groom.result().boundsMin, extent.min);
    groom.setGraphJson("");
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.result().boundsMin, (Vec3f{0, 10, 0})) << "the guides alone";
    groom.setHierarchy(GuideHierarchy());
    groom.evaluate(kPreview);
    EXPECT_FALSE(groom.result().hasBounds);
}

// ---- failures
// ------------------------------------------------------------------------------------

TEST_F(GroomSessionTest, FailuresGoIntoTheListsInTheirOrder) {
    GroomFile file;
    file.graph = graphOf(1.0).dump();
    file.hierarchy = "{\"groups\": 5}";
    file.parts = "[";
    file.framesPerSecond = 29.97;
    GroomSession broken(file);
    EXPECT_EQ(broken.framesPerSecond(), 30000.0 / 1001.0);
    broken.evaluate(kPreview);
    const EvaluationResult first = broken.result();
    EXPECT_THAT(first.errors, ElementsAre(StartsWith("guideData: "), StartsWith("partData: "),
                                          HasSubstr("scalp")));
    ASSERT_EQ(first.messages.size(), 2u);
    EXPECT_EQ(first.messages[0], (EvaluationMessage{first.errors[0], true}));
    EXPECT_EQ(first.messages[1], (EvaluationMessage{first.errors[2], true}));
    EXPECT_FALSE(first.strands);
    EXPECT_EQ(first.serial, 0u);
    EXPECT_TRUE(broken.pendingException());
    EXPECT_EQ(broken.document().hierarchy, file.hierarchy) << "kept for the save";
    EXPECT_EQ(broken.document().parts, file.parts);
    EXPECT_THAT(broken.dataErrors(), ElementsAre(first.errors[0], first.errors[1]));

    broken.evaluate(kPreview);
    EXPECT_EQ(broken.result().errors, first.errors);
    EXPECT_EQ(broken.result().messages.size(), 1u) << "the text shows once, the node's each time";

    broken.setScalp(scalp);
    broken.setPartsJson("");
    broken.setHierarchy(makeHierarchy(*scalp, {}));
    broken.evaluate(kPreview);
    EXPECT_THAT(broken.result().errors, IsEmpty());
    EXPECT_FALSE(broken.pendingException());
    EXPECT_GT(broken.result().strands->strandCount(), 0u);
}

TEST_F(GroomSessionTest, AFailureInBetweenForgetsNothing) {
    groom.evaluate(kPreview);
    const EvaluationResult good = groom.result();
    const std::string text = groom.document().graph;
    setParam(groom, "noise", "amplitude", {{"expression", "nosuch("}});
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().errors, ElementsAre(HasSubstr("noise")));
    EXPECT_FALSE(groom.result().strands);
    EXPECT_FALSE(groom.result().changes);
    groom.setGraphJson(text);
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands == good.strands);
    EXPECT_EQ(groom.result().serial, good.serial);
}

TEST_F(GroomSessionTest, PointsThatAreNoNumbersAreFoundAndTheirMakerNamed) {
    groom.setGraphJson(chainOf({"scalp", "scatter", "noise", "output"}, 1.0));
    groom.evaluate(kPreview);
    setParam(groom, "noise", "amplitude", {{"expression", "u < 0.5 ? 3e38 : 0.1"}});
    setParam(groom, "scatter", "length", 3e38);
    for (const bool bounds : {true, false, true}) {  // asked for a box or not
        groom.evaluate({.preview = true, .computeBounds = bounds});
        const std::string text =
            "node 'noise' makes the strands have points that are not numbers (NaN or infinite)";
        EXPECT_THAT(groom.result().errors, ElementsAre(text));
        EXPECT_THAT(groom.result().messages, ElementsAre(EvaluationMessage{text, true}));
        EXPECT_FALSE(groom.result().hasBounds);
        EXPECT_TRUE(groom.result().strands) << "they are there to look at";
    }
    setParam(groom, "noise", "amplitude", 0.1);
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().errors, IsEmpty());
    EXPECT_TRUE(groom.result().hasBounds);
}

// ---- strokes
// -------------------------------------------------------------------------------------

class DenseTest : public GroomSessionTest {  // enough strands for a preview to thin
protected:
    DenseTest() : GroomSessionTest(20.0) {}
};

TEST_F(DenseTest, AStrokeThinsAGraphOfItsOwn) {
    groom.evaluate(kPreview);
    const StrandsPtr full = groom.result().strands;
    ASSERT_GT(full->strandCount(), 20'000u);
    groom.setStroking(true);
    EvaluateOptions options = kPreview;
    EXPECT_EQ(evaluatedBy(groom, options), 0u) << "without a factor there is one graph";
    options.sculptDensity = 0.5f;
    groom.evaluate(options);
    const StrandsPtr thin = groom.result().strands;
    EXPECT_NE(groom.lastGraph(), groom.graph());
    EXPECT_EQ(groom.result().density, 0.5f);
    EXPECT_NEAR(double(thin->strandCount()), 0.5 * double(full->strandCount()),
                0.02 * double(full->strandCount()));
    const std::set<std::uint64_t> ids(full->ids().begin(), full->ids().end());
    for (const std::uint64_t id : thin->ids()) EXPECT_TRUE(ids.contains(id));
    EXPECT_GT(groom.result().serial, 1u);

    // The live guides of the stroke move; the main graph hears nothing of it.
    GuideHierarchy live;
    live.addGuide(live.addGroup("g", 0), {0, 0.3f, 0.3f}, {{0, 10, 0}, {3, 14, 0}}, 0, scalp.get());
    groom.setGuides(nullptr);
    groom.setLiveHierarchy(std::make_shared<const GuideHierarchy>(live));
    groom.evaluate(options);
    EXPECT_THAT(groom.result().errors, IsEmpty());
    EXPECT_NE(contentOf(groom), thin->contentHash());

    groom.setGuides(makeGuides(*scalp, 40));
    groom.setLiveHierarchy(nullptr);
    groom.setStroking(false);
    EXPECT_EQ(evaluatedBy(groom, options), 0u) << "back to a warm graph";
    EXPECT_TRUE(groom.result().strands == full);
    EXPECT_EQ(groom.result().density, 1.0f);
    const std::uint64_t evaluated = groom.nodesEvaluated();
    setParam(groom, "noise", "seed", 3);  // drops the stroke's graph
    EXPECT_EQ(groom.nodesEvaluated(), evaluated) << "counts never fall";
}

TEST_F(DenseTest, RenderIsFullWhateverThePreviewWas) {
    EvaluateOptions thin = kPreview;
    thin.density = 0.3f;
    groom.evaluate(thin);
    const EvaluationResult preview = groom.result();
    groom.evaluate({.pointBudget = 100});
    EXPECT_GT(groom.result().strands->strandCount(), 2 * preview.strands->strandCount());
    EXPECT_GT(groom.result().serial, preview.serial);
    groom.evaluate(thin);
    EXPECT_TRUE(groom.result().strands == preview.strands) << "both results stay cached";
    EXPECT_GT(groom.result().serial, preview.serial + 1);
}

// ---- detached evaluations
// ------------------------------------------------------------------------

TEST_F(GroomSessionTest, ADetachedEvaluationGivesWhatTheSessionWould) {
    const auto detached = groom.startDetachedEvaluation(kPreview);
    ASSERT_TRUE(detached);
    EXPECT_FALSE(groom.adoptDetached(detached)) << "not done";
    std::thread worker([&] { runDetached(*detached); });
    worker.join();
    EXPECT_TRUE(detached->done);
    EXPECT_GE(detached->milliseconds, 0.0);
    EXPECT_GT(detached->nodesEvaluated, 5u);
    ASSERT_TRUE(groom.adoptDetached(detached));
    EXPECT_TRUE(groom.result().strands == detached->strands);
    EXPECT_EQ(groom.nodesEvaluated(), detached->nodesEvaluated);
    EXPECT_EQ(evaluatedBy(groom), 0u);

    GroomSession plain;
    plain.setScalp(scalp);
    plain.setGuides(groom.document().guides);
    plain.setGraphJson(groom.document().graph);
    plain.evaluate(kPreview);
    EXPECT_EQ(contentOf(plain), contentOf(groom));

    // One behind the other: the second runs on the warm graph of the first.
    groom.setGuides(makeGuides(*scalp, 40, 3, 0.5f));
    const auto first = groom.startDetachedEvaluation(kPreview);
    const auto early = groom.startDetachedEvaluation(kPreview, first);
    const auto second = groom.startDetachedEvaluation(kPreview, first);
    runDetached(*early);
    EXPECT_EQ(errorOf([&] { groom.adoptDetached(early); }),
              "a detached evaluation ran before the one it follows");
    runDetached(*first);
    const std::uint64_t ran = first->nodesEvaluated;
    runDetached(*second);
    EXPECT_EQ(second->nodesEvaluated, ran) << "nothing left to do, the earlier one's counted in";
    EXPECT_EQ(second->strands, first->strands);
    EXPECT_TRUE(groom.adoptDetached(second));
}

TEST_F(GroomSessionTest, ADetachedEvaluationStartsOnlyWhereItCan) {
    const auto held = groom.startDetachedEvaluation(kPreview);
    runDetached(*held);
    EvaluateOptions view = kPreview;
    view.viewNode = "scatter";
    EXPECT_FALSE(groom.startDetachedEvaluation(view));
    groom.setStroking(true);
    EXPECT_FALSE(groom.startDetachedEvaluation(kPreview));
    groom.setStroking(false);
    groom.setLiveHierarchy(std::make_shared<const GuideHierarchy>());
    EXPECT_FALSE(groom.startDetachedEvaluation(kPreview));
    groom.setLiveHierarchy(nullptr);
    setParam(groom, "noise", "amplitude", {{"expression", "nosuch("}});
    EXPECT_FALSE(groom.startDetachedEvaluation(kPreview, held)) << "of another graph";
    EXPECT_FALSE(groom.adoptDetached(held));
    const auto failing = groom.startDetachedEvaluation(kPreview);
    runDetached(*failing);
    const auto behind = groom.startDetachedEvaluation(kPreview, failing);
    runDetached(*behind);
    EXPECT_THAT(errorOf([&] { groom.adoptDetached(failing); }), HasSubstr("noise"));
    EXPECT_THAT(errorOf([&] { groom.adoptDetached(behind); }), HasSubstr("noise"));
    groom.setGraphJson("");
    EXPECT_FALSE(groom.startDetachedEvaluation(kPreview));
}

// ---- what else nodes read
// ------------------------------------------------------------------------

TEST_F(GroomSessionTest, ControlsAndCollidersReachTheNodesThatReadThem) {
    json graph = json::parse(groom.document().graph);
    graph["nodes"].push_back(
        {{"name", "knob"}, {"type", "Control"}, {"params", {{"name", "wave"}, {"default", 0.5}}}});
    graph["nodes"].push_back(
        {{"name", "hat"}, {"type", "ColliderMesh"}, {"params", {{"name", "hat"}}}});
    graph["nodes"].push_back({{"name", "collide"}, {"type", "Collide"}});
    for (json& node : graph["nodes"])
        if (node["name"] == "noise")
            node["paramInputs"] = {{"amplitude", {{"from", "knob"}, {"scale", 1}}}};
    for (json& c : graph["connections"])
        if (c["to"] == "output") c["from"] = "collide";
    graph["connections"].push_back({{"from", "resample"}, {"to", "collide"}, {"input", "strands"}});
    graph["connections"].push_back({{"from", "hat"}, {"to", "collide"}, {"input", "collider"}});
    groom.setGraphJson(graph.dump());
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().errors,
                ElementsAre(HasSubstr("ColliderMesh: no collider named 'hat' on this groom")));
    groom.setCollider("hat", std::make_shared<const ScalpMesh>(makeIcosphere(3, 12.0f)));
    groom.evaluate(kPreview);
    ASSERT_THAT(groom.result().errors, IsEmpty());
    const StrandsPtr first = groom.result().strands;
    groom.setControl("wave", 0.0f);
    groom.evaluate(kPreview);
    EXPECT_FALSE(groom.result().strands == first);
    groom.setControl("wave", 0.5f);  // what the node says without one
    groom.evaluate(kPreview);
    EXPECT_EQ(contentOf(groom), first->contentHash());
    groom.setControl("other", 3.0f);
    EXPECT_EQ(evaluatedBy(groom), 0u) << "no one reads it";
    groom.setCollider("hat", nullptr);
    groom.evaluate(kPreview);
    EXPECT_EQ(groom.result().errors.size(), 1u);
}

TEST_F(GroomSessionTest, RemembersTheScalpOfTheNewest49Frames) {
    EvaluateOptions options = kPreview;
    for (int frame = 0; frame < 60; ++frame) {
        options.seconds = frame / 24.0;
        groom.updateScalpPoints(shifted(scalp->points(), {float(frame), 0, 0}), std::nullopt);
        groom.evaluate(options);
    }
    const auto history = groom.evaluationData().scalpHistory;
    ASSERT_EQ(history->entries.size(), 49u);
    EXPECT_EQ(history->entries.front().frame, 11);
    EXPECT_EQ(history->entries.back().frame, 59);
    EXPECT_EQ(history->entries.back().mesh, groom.scalp());
    groom.evaluate(options);
    EXPECT_EQ(groom.evaluationData().scalpHistory, history) << "the same frame, the same scalp";
    groom.setScalp(scalp);
    groom.evaluate(options);
    EXPECT_EQ(groom.evaluationData().scalpHistory->entries.size(), 49u);
    EXPECT_EQ(groom.evaluationData().scalpHistory->entries.back().mesh, scalp);
    EXPECT_EQ(history->entries.back().mesh == scalp, false) << "published histories do not change";
}

// ---- more than one session, and reports
// ----------------------------------------------------------

TEST_F(GroomSessionTest, TwoSessionsDoNotTouchEachOther) {
    GroomSession other;
    other.setScalp(scalp);
    other.setGuides(groom.document().guides);
    other.setGraphJson(groom.document().graph);
    groom.evaluate(kPreview);
    other.evaluate(kPreview);
    const EvaluationResult before = groom.result();
    EXPECT_EQ(contentOf(other), contentOf(groom));
    other.setScalp(std::make_shared<const ScalpMesh>(makePlane(3, 3, 20.0f)));
    other.setGuides(nullptr);
    other.setHierarchy(makeHierarchy(*other.scalp(), {}));
    other.setFramesPerSecond(60.0);
    setParam(other, "scatter", "seed", 9);
    other.setStroking(true);
    other.evaluate(kPreview);
    EXPECT_EQ(evaluatedBy(groom), 0u);
    EXPECT_TRUE(groom.result().strands == before.strands);
    EXPECT_EQ(groom.result().serial, before.serial);
    EXPECT_EQ(groom.framesPerSecond(), 24.0);
}

TEST_F(GroomSessionTest, StatsAndLookTellWhatIsThere) {
    GroomSession empty;
    const json none = empty.stats();
    for (const char* count :
         {"strands", "points", "guides", "hairColor", "renderData", "colorNodes", "frames"})
        EXPECT_EQ(none.at(count), 0) << count;
    EXPECT_EQ(none.at("view"), "");
    const json bare = empty.hairLook();
    EXPECT_EQ(bare.at("colorsByRgb"), false);
    EXPECT_EQ(bare.at("colorNodes"), json::array());

    groom.evaluate(kPreview);
    groom.evaluate(kPreview);
    const json stats = groom.stats();
    EXPECT_EQ(stats.at("view"), "output");
    EXPECT_EQ(stats.at("strands"), groom.result().strands->strandCount());
    EXPECT_EQ(stats.at("points"), groom.result().strands->pointCount());
    EXPECT_EQ(stats.at("guides"), 40);
    EXPECT_EQ(stats.at("hairColor"), 1);
    EXPECT_EQ(stats.at("runs").at("scatter"), 1);
    EXPECT_EQ(stats.at("frames"), 2);
    EXPECT_EQ(stats.at("details"), json::object());
    for (const json& name : stats.at("channels")) EXPECT_NE(name, "_preview");

    const auto byRgb = [&](const char* param, const json& value) {
        const std::string text = groom.document().graph;
        setParam(groom, "color", param, value);
        const bool rgb = groom.hairLook().at("colorsByRgb");
        groom.setGraphJson(text);
        return rgb;
    };
    EXPECT_FALSE(byRgb("melanin", 0.3));
    EXPECT_TRUE(byRgb("hueRandom", 0.2));
    EXPECT_TRUE(byRgb("hueShift", 0.2));
    EXPECT_TRUE(byRgb("tipStrength", {{"expression", "t"}}));
    EXPECT_TRUE(byRgb("colorSource", "rgb"));
    EXPECT_EQ(groom.hairLook().at("colorNodes"), json::array({"color"}));
    EXPECT_EQ(groom.hairLook().at("hairColorParams").at("colorSource"), "auto");
}

}  // namespace
}  // namespace corvelle
