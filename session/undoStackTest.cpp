#include <gmock/gmock.h>

#include "session/graphMerge.h"
#include "session/groomSave.h"
#include "session/groomSessionFixture.h"
#include "session/undoStack.h"

namespace corvelle {
namespace {

UndoStep stepOf(const std::string& label, std::size_t bytes) {
    UndoStep step{.label = label};
    step.before.text(DocumentSlot::Parts) = std::make_shared<const std::string>();
    step.after.text(DocumentSlot::Parts) = std::make_shared<const std::string>(bytes, 'x');
    return step;
}

TEST(UndoStack, WalksBackAndForthAndForgetsTheFutureAtAPush) {
    UndoStack stack;
    EXPECT_EQ(stack.toUndo(), nullptr);
    for (const char* label : {"a", "b", "c"}) stack.push(stepOf(label, 10));
    stack.stepBack();
    stack.stepBack();
    EXPECT_EQ(stack.toUndo()->label, "a");
    EXPECT_EQ(stack.toRedo()->label, "b");
    EXPECT_EQ(stack.redoDepth(), 2u);
    stack.push(stepOf("d", 10));
    EXPECT_EQ(stack.toRedo(), nullptr);
    EXPECT_EQ(stack.undoDepth(), 2u);
    stack.stepBack();
    stack.stepForward();
    EXPECT_EQ(stack.toUndo()->label, "d");
    stack.clear();
    EXPECT_EQ(stack.bytes(), 0u);
}

TEST(UndoStack, DropsTheOldestPastItsLimits) {
    UndoStack few(4, 1 << 20);
    for (int i = 0; i < 10; ++i) few.push(stepOf(std::to_string(i), 10));
    EXPECT_EQ(few.undoDepth(), 4u);
    for (int i = 9; i > 5; --i, few.stepBack()) EXPECT_EQ(few.toUndo()->label, std::to_string(i));
    EXPECT_EQ(few.toUndo(), nullptr);

    UndoStack small(100, 100'000);
    for (int i = 0; i < 50; ++i) {
        small.push(stepOf(std::to_string(i), 20'000));
        EXPECT_LE(small.bytes(), 100'000u);
    }
    EXPECT_EQ(small.undoDepth(), 4u);
    small.push(stepOf("huge", 1'000'000));
    EXPECT_EQ(small.undoDepth(), 1u) << "the newest stays, whatever it takes";
    EXPECT_EQ(small.toUndo()->label, "huge");
}

json merged(const json& base, const json& ours, const json& theirs) {
    return json::parse(mergeGraphs(base.dump(), ours.dump(), theirs.dump()));
}

TEST(GraphMerge, TakesOutWhatAnEditAddedAndKeepsLaterEdits) {
    const json before = json::parse(chainOf({"scatter", "width"}, 1.0));
    json after = before;
    after["nodes"].push_back({{"name", "map1"}, {"type", "Map"}, {"params", {{"map", "width"}}}});
    for (json& node : after["nodes"])
        if (node["name"] == "width") node["paramInputs"] = {{"width", {{"from", "map1"}}}};
    EXPECT_EQ(merged(after, after, before), before);
    EXPECT_EQ(merged(before, before, after), after);

    json now = after;
    for (json& node : now["nodes"]) {
        if (node["name"] == "scatter") node["params"]["density"] = 77.0;
        if (node["name"] == "map1") node["params"]["map"] = "other";  // goes all the same
    }
    now["nodes"].push_back({{"name", "field"}, {"type", "Map"}, {"params", json::object()}});
    now["connections"].push_back({{"from", "map1"}, {"to", "field"}, {"input", "x"}});
    json expected = before;
    for (json& node : expected["nodes"])
        if (node["name"] == "scatter") node["params"]["density"] = 77.0;
    expected["nodes"].push_back({{"name", "field"}, {"type", "Map"}, {"params", json::object()}});
    EXPECT_EQ(merged(after, now, before), expected) << "and what hung on it is loose";
}

class GroomUndoTest : public GroomSessionTest {
protected:
    GroomUndoTest() : GroomSessionTest(1.0, true) {
        GuideHierarchy guides;
        const std::uint32_t group = guides.addGroup("primary", 0);
        const GuidesPtr flat = makeGuides(*scalp, 12);
        for (std::size_t g = 0; g < flat->size(); ++g)
            guides.addGuide(group, flat->roots()[g],
                            {flat->pointsOf(g).begin(), flat->pointsOf(g).end()}, 0, scalp.get());
        groom.setGuides(nullptr);
        groom.setHierarchy(std::move(guides));
    }
    /// Guide `id` leans aside.
    GuideHierarchy leant(std::uint64_t id, float by) const {
        GuideHierarchy next = *groom.hierarchy();
        std::vector<Vec3f> points = next.guide(id)->points;
        for (std::size_t i = 1; i < points.size(); ++i) points[i].x += by * float(i);
        next.setPoints(id, points);
        return next;
    }
    bool edit(GuideHierarchy next, const std::string& label) {
        DocumentState state;
        state.hierarchy = std::make_shared<const GuideHierarchy>(std::move(next));
        return groom.edit(std::move(state), label);
    }
};

TEST_F(GroomUndoTest, RestoresEverySlotByteForByte) {
    StrokeDocument stroke;
    GuideHierarchy guides = leant(3, 0.5f);
    stroke.set(DocumentSlot::Guides, guidesToJson(guides));
    stroke.set(
        DocumentSlot::Parts,
        R"({"parts": [{"name": "p", "points": [[0, 0.2, 0.2], [5, 0.2, 0.2]]}], "version": 1})");
    stroke.set(DocumentSlot::Flow, R"({"pins": [], "sinks": [], "version": 1})");
    stroke.set(DocumentSlot::Correctives, R"({"layers": []})");
    stroke.set(DocumentSlot::ScalpMaps, R"({"w": {"kind": "texture", "texture": "w.png"}})");
    stroke.set(DocumentSlot::Graph, graphOf(2.0).dump());
    const GroomFile before = groom.document();
    ASSERT_TRUE(groom.applyStroke(stroke, "comb"));
    const GroomFile after = groom.document();
    EXPECT_NE(after.hierarchy, before.hierarchy);
    EXPECT_TRUE(after.maps && after.maps->find("w"));
    const auto same = [](const GroomFile& a, const GroomFile& b) {
        static const MapCatalogValue kNone;
        return a.hierarchy == b.hierarchy && a.parts == b.parts && a.flow == b.flow &&
               a.correctives == b.correctives && a.graph == b.graph &&
               (a.maps ? *a.maps : kNone).hash() == (b.maps ? *b.maps : kNone).hash();
    };
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(groom.undo().done);
        EXPECT_TRUE(same(groom.document(), before));
        EXPECT_FALSE(groom.undo().done);
        EXPECT_TRUE(groom.redo().done);
        EXPECT_TRUE(same(groom.document(), after));
        EXPECT_FALSE(groom.redo().done);
    }
    EXPECT_FALSE(groom.applyStroke(stroke, "again")) << "nothing differs: no step";
    EXPECT_EQ(groom.undoStack().undoDepth(), 1u);
}

TEST_F(GroomUndoTest, SharesWhatDidNotChangeAndNeverGivesAnIdTwice) {
    const GuidePtr untouched = groom.hierarchy()->guide(1);
    ASSERT_TRUE(edit(leant(3, 0.5f), "comb"));
    GuideHierarchy more = *groom.hierarchy();
    const std::uint64_t id =
        more.addGuide(more.groups()[0].id, {0, 0.3f, 0.3f}, {{0, 0, 0}, {0, 1, 0}}, 0, scalp.get());
    ASSERT_TRUE(edit(more, "place"));
    groom.undo();
    groom.undo();
    EXPECT_EQ(groom.hierarchy()->guide(1), untouched) << "undo reads no text";
    EXPECT_GT(groom.hierarchy()->nextGuideId(), id);
}

TEST_F(GroomUndoTest, TakesTheGuidesOfAStrokeAsTheyAre) {
    const auto edited = std::make_shared<const GuideHierarchy>(leant(3, 0.5f));
    StrokeDocument stroke;
    stroke.set(DocumentSlot::Guides, guidesToJson(*edited));
    stroke.guides = edited;
    ASSERT_TRUE(groom.applyStroke(stroke, "comb"));
    EXPECT_EQ(groom.hierarchy()->guide(3), edited->guide(3)) << "the text was read";
    EXPECT_EQ(groom.document().hierarchy, guidesToJson(*groom.hierarchy()));
}

TEST_F(GroomUndoTest, AGraphEditedSinceKeepsItsEdits) {
    json wired = json::parse(groom.document().graph);
    wired["note"] = "wired";
    StrokeDocument stroke;
    stroke.set(DocumentSlot::Graph, wired.dump());
    ASSERT_TRUE(groom.applyStroke(stroke, "width"));
    setParam(groom, "scatter", "density", 3.0);
    EXPECT_TRUE(groom.undo().graphChanged);
    const json now = json::parse(groom.document().graph);
    EXPECT_FALSE(now.contains("note"));
    EXPECT_EQ(now, graphOf(3.0));
}

TEST_F(GroomUndoTest, LiveValuesShowAndGoWithoutATrace) {
    groom.evaluate(kPreview);
    const std::uint64_t before = contentOf(groom);
    const GroomFile document = groom.document();
    groom.setStroking(true);
    groom.setLiveHierarchy(std::make_shared<const GuideHierarchy>(leant(3, 2.0f)));
    groom.setLiveGraph(graphOf(2.0).dump());
    groom.evaluate(kPreview);
    EXPECT_NE(contentOf(groom), before);
    EXPECT_EQ(groomToSave(groom).graph, document.graph) << "a save under way keeps the document's";
    groom.setLiveHierarchy(nullptr);
    groom.setLiveGraph({});
    groom.setStroking(false);
    groom.evaluate(kPreview);
    EXPECT_EQ(contentOf(groom), before);
    EXPECT_EQ(groom.document().graph, document.graph);
    EXPECT_EQ(groom.document().hierarchy, document.hierarchy);
}

TEST_F(GroomUndoTest, AnEditInAnotherPoseMovesNothingElseByABit) {
    std::vector<Vec3f> bent(scalp->restPoints().begin(), scalp->restPoints().end());
    for (Vec3f& p : bent) p = {p.x + 0.1f * p.y, p.y * 1.1f, p.z - 0.2f * p.x};
    groom.updateScalpPoints(bent, std::nullopt);
    const auto shown = groom.activeHierarchy();
    ASSERT_NE(shown, groom.hierarchy());
    GuideHierarchy edited = *shown;
    std::vector<Vec3f> points = edited.guide(4)->points;
    points.back().y += 1.0f;
    edited.setPoints(4, points);
    const auto back = groom.toDocumentPose(std::make_shared<const GuideHierarchy>(edited));
    for (const GuidePtr& guide : groom.hierarchy()->guides())
        EXPECT_EQ(back->guide(guide->id) == guide, guide->id != 4) << guide->id;
    ASSERT_TRUE(edit(*back, "comb"));
    const std::vector<Vec3f>& again = groom.activeHierarchy()->guide(4)->points;
    for (std::size_t i = 0; i < points.size(); ++i) EXPECT_LT(length(again[i] - points[i]), 1e-3f);
}

TEST_F(GroomUndoTest, AnotherTopologyForgetsTheSteps) {
    ASSERT_TRUE(edit(leant(3, 0.5f), "comb"));
    groom.setScalp(std::make_shared<const ScalpMesh>(makeSphere(12, 20, 10.0f)));
    EXPECT_FALSE(groom.undo().done);
}

}  // namespace
}  // namespace corvelle
