#include <cstring>
#include <map>

#include <gmock/gmock.h>

#include "hosts/blender/helper/displayBuilder.h"
#include "model/parallel.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class DisplayBuilderTest : public testing::Test {
protected:
    DisplayBuilderTest() {
        source.scalp = std::make_shared<const ScalpMesh>(makeSphere(16, 24, 8.0f));
        source.hierarchy = std::make_shared<const GuideHierarchy>(
            makeHierarchy(*source.scalp, {.primaries = 6, .levels = 1, .children = 2, .seed = 3}));
        source.parts = std::make_shared<const PartData>(
            PartData{{PartLine{.name = "p", .points = {{40, 0.2f, 0.3f}, {41, 0.3f, 0.3f}}}}});
        FlowData flow;
        flow.pins.push_back(flowPin(*source.scalp, {50, 0.3f, 0.3f}, {1, 0.2f, 0.1f}));
        source.flow = std::make_shared<const FlowData>(flow);
        settings.tubes = true;
        pool.prepare(1 << 20);
    }
    /// Takes the settings over, brings the items up to date, and says which were sent for `have`.
    std::vector<std::string> changed() {
        display.setSettings(settings);
        display.build(source);
        std::vector<std::string> names;
        for (const auto& [name, entry] : items())
            if (entry["changed"].get<bool>()) names.push_back(name);
        return names;
    }
    std::map<std::string, Json> items() {
        pool.prepare(display.bytes(have));
        std::map<std::string, Json> out;
        for (const Json& item : display.itemsJson(pool, have)) {
            EXPECT_EQ(item.contains("arrays"), item["changed"].get<bool>());
            out[item["name"]] = item;
        }
        out["dots"] = display.dotsJson(pool, have);
        return out;
    }
    /// The host takes all it was sent.
    void keep() {
        for (const auto& [name, item] : items()) have[name] = item["version"];
    }
    std::vector<Vec3f> array(const Json& reference) const {
        std::vector<Vec3f> out(reference["shape"][0].get<std::size_t>());
        if (out.empty()) return out;
        std::memcpy(out.data(),
                    pool.region().bytes().data() + reference["offset"].get<std::size_t>(),
                    out.size() * sizeof(Vec3f));
        return out;
    }
    std::vector<Vec3f> pointsOf(const std::string& name) {
        have.erase(name);
        return array(items()[name]["arrays"]["positions"]);
    }
    std::shared_ptr<const GuideHierarchy> edited(std::uint64_t id) const {
        GuideHierarchy next = *source.hierarchy;
        std::vector<Vec3f> points = next.guide(id)->points;
        points.back().x += 1.0f;
        next.setPoints(id, points);
        return std::make_shared<const GuideHierarchy>(std::move(next));
    }

    DisplaySource source;
    DisplaySettings settings;
    DisplayBuilder display;
    AnswerPool pool{"displayBuilderTest"};
    Json have = Json::object();
};

TEST_F(DisplayBuilderTest, SendsWhatTheHostLacksAndNothingElse) {
    EXPECT_EQ(changed().size(), 8u) << "at first it has nothing";
    keep();
    const std::uint64_t builds = display.builds();
    EXPECT_THAT(changed(), IsEmpty());
    EXPECT_EQ(display.builds(), builds);
    EXPECT_EQ(display.bytes(have), 0u);
    have["guides"] = 999;
    have["parts"] = "a word";
    EXPECT_THAT(changed(), ElementsAre("guides", "parts"));
}

TEST_F(DisplayBuilderTest, BuildsOnlyWhatIsMadeFromWhatChanged) {
    changed();
    keep();
    source.frozen = std::make_shared<const GuideIds>(GuideIds{source.hierarchy->guides()[0]->id});
    std::uint64_t builds = display.builds();
    EXPECT_THAT(changed(), ElementsAre("dots", "guides"));
    EXPECT_EQ(display.builds(), builds + 2);
    keep();
    source.selection = std::make_shared<const GuideWeights>(
        GuideWeights{{source.hierarchy->guides()[1]->id, 1.0f}});
    EXPECT_THAT(changed(), ElementsAre("dots", "selection", "tubeWires", "tubes"));
    keep();
    source.toolLevel = 1;
    EXPECT_THAT(changed(), ElementsAre("tubeWires"));
    keep();
    PartData parts = *source.parts;
    parts.lines[0].points[0].u = 0.5f;
    source.parts = std::make_shared<const PartData>(parts);
    EXPECT_THAT(changed(), ElementsAre("parts"));
    keep();
    source.hierarchy = edited(source.hierarchy->guides()[0]->id);
    EXPECT_THAT(changed(), Not(Contains("parts")));
    keep();
    // Another object that says the same is looked at, and found to be the same.
    source.hierarchy = std::make_shared<const GuideHierarchy>(*source.hierarchy);
    builds = display.builds();
    EXPECT_THAT(changed(), IsEmpty());
    EXPECT_GT(display.builds(), builds);
    source.scalp = std::make_shared<const ScalpMesh>(makeSphere(16, 24, 8.5f));
    EXPECT_THAT(changed(), ElementsAre("flow", "parts"));
}

TEST_F(DisplayBuilderTest, VersionsRiseAndAnotherGroomStartsAnew) {
    changed();
    const std::uint64_t generation = display.generation();
    std::map<std::string, Json> before = items();
    const auto original = source.hierarchy;
    source.hierarchy = edited(original->guides()[0]->id);
    changed();
    source.hierarchy = original;
    changed();
    std::map<std::string, Json> after = items();
    EXPECT_EQ(after["guides"]["version"], before["guides"]["version"].get<int>() + 2)
        << "what was once sent under a number is never sent under it again";
    display.forget();
    EXPECT_EQ(display.generation(), generation + 1);
    display.build(source);
    for (const auto& [name, item] : items()) EXPECT_GT(item["version"], after[name]["version"]);
}

TEST_F(DisplayBuilderTest, DrawsTheGuidesThatAreShown) {
    settings.guideSmoothing = false;
    settings.guidePoints = "all";
    changed();
    std::size_t segments = 0, points = 0, ends = 0;
    for (const GuidePtr& guide : source.hierarchy->guides()) {
        segments += guide->points.size() - 1;
        points += guide->points.size();
        ends += 2;
    }
    EXPECT_EQ(items()["guides"]["vertexCount"], 2 * segments);
    EXPECT_EQ(items()["dots"]["count"], points);
    settings.guidePoints = "ends";
    settings.guideSmoothing = true;
    settings.guideDisplaySegments = 3;
    changed();
    EXPECT_EQ(items()["guides"]["vertexCount"], 6 * segments);
    EXPECT_EQ(items()["dots"]["count"], ends);

    settings.guideDisplaySegments = 1;
    const Guide& first = *source.hierarchy->guides()[0];
    source.solo = {first.id};
    changed();
    const std::vector<Vec3f> alone = pointsOf("guides");
    ASSERT_EQ(alone.size(), 2 * (first.points.size() - 1));
    EXPECT_EQ(alone.front(), source.space.pointToHost(first.points.front()));
    EXPECT_EQ(alone.back(), source.space.pointToHost(first.points.back()));
    source.solo.clear();

    const auto countOf = [&](const auto& wanted) {
        std::size_t count = 0;
        for (const GuidePtr& guide : source.hierarchy->guides())
            if (wanted(source.hierarchy->group(guide->group)->name))
                count += 2 * (guide->points.size() - 1);
        return count;
    };
    settings.hiddenGuideGroups = {"hair"};
    changed();
    EXPECT_EQ(items()["guides"]["vertexCount"],
              countOf([](const std::string& name) { return name == "brow"; }))
        << "what hangs below a hidden group is hidden";
    settings.hiddenGuideGroups.clear();
    settings.displayLevel = 1;
    changed();
    EXPECT_EQ(items()["guides"]["vertexCount"],
              countOf([](const std::string& name) { return name == "hair_1"; }));
    settings.guides = settings.tubes = settings.flow = false;
    changed();
    for (const char* name : {"guides", "tubes", "tubeWires", "flow", "selection"}) {
        EXPECT_FALSE(items()[name]["shown"]) << name;
        EXPECT_EQ(items()[name]["vertexCount"], 0) << name;
    }
    EXPECT_TRUE(items()["parts"]["shown"]);
}

TEST_F(DisplayBuilderTest, ColoursSayWhatIsFrozenSelectedAndPainted) {
    settings.guideColorMode = "layer";
    settings.guideColorLayer = "stiff";
    GuideHierarchy painted = *source.hierarchy;
    const std::uint64_t cold = painted.guides()[0]->id, hot = painted.guides()[1]->id,
                        frozen = painted.guides()[2]->id;
    painted.setAttribute(cold, "stiff", 0.0f);
    painted.setAttribute(hot, "stiff", 1.0f);
    painted.setAttribute(frozen, "freeze", 1.0f);
    source.hierarchy = std::make_shared<const GuideHierarchy>(std::move(painted));
    const auto colorOf = [&](std::uint64_t id, const std::string& item) {
        source.solo = {id};
        changed();
        have.erase(item);
        return array(items()[item]["arrays"]["colors"]).front();
    };
    EXPECT_EQ(colorOf(cold, "guides"), (Vec3f{0, 0, 1}));
    EXPECT_EQ(colorOf(hot, "guides"), (Vec3f{1, 0, 0}));
    const Rgb& ice = settings.theme.frozen;
    EXPECT_EQ(colorOf(frozen, "guides"), (Vec3f{ice[0], ice[1], ice[2]}));
    source.selection =
        std::make_shared<const GuideWeights>(GuideWeights{{hot, 1.0f}, {cold, 0.5f}});
    const Rgb &hard = settings.theme.selected, &soft = settings.theme.softSelected;
    EXPECT_EQ(colorOf(hot, "selection"), (Vec3f{hard[0], hard[1], hard[2]}));
    EXPECT_EQ(colorOf(cold, "selection"), 0.5f * (Vec3f{soft[0], soft[1], soft[2]}));
    settings.guideColorMode = "group";
    settings.guideGroupColors["hair"] = {0.25f, 0.5f, 0.75f};
    EXPECT_EQ(colorOf(hot, "guides"), (Vec3f{0.25f, 0.5f, 0.75f}));
}

TEST_F(DisplayBuilderTest, TheSameBitsAtAnyThreadCount) {
    source.hierarchy = std::make_shared<const GuideHierarchy>(
        makeHierarchy(*source.scalp, {.primaries = 300, .seed = 5}));
    std::vector<std::vector<Vec3f>> drawn;
    for (const int threads : {1, 2, 8}) {
        setThreadLimit(unsigned(threads));
        DisplayBuilder fresh;
        fresh.setSettings(settings);
        fresh.build(source);
        pool.prepare(fresh.bytes(Json::object()));
        std::vector<Vec3f> all;
        for (const Json& item : fresh.itemsJson(pool, Json::object())) {
            const std::vector<Vec3f> points = array(item["arrays"]["positions"]);
            all.insert(all.end(), points.begin(), points.end());
        }
        drawn.push_back(std::move(all));
    }
    setThreadLimit(0);
    EXPECT_GT(drawn[0].size(), 10000u);
    EXPECT_EQ(drawn[0], drawn[1]);
    EXPECT_EQ(drawn[0], drawn[2]);
}

}  // namespace
}  // namespace corvelle
