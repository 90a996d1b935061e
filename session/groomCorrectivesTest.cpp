// Corrective layers in a session: shown at their frames, on top of the guides, in every pose.

#include "model/correctiveApply.h"
#include "session/groomSessionFixture.h"

namespace corvelle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class GroomCorrectives : public GroomSessionTest {
protected:
    GroomCorrectives() : GroomSessionTest(0.3, true) {
        groom.setGuides(nullptr);
        groom.setHierarchy(makeHierarchy(*scalp, {.primaries = 30, .seed = 4}));
        layers.layers.push_back({.name = "smile", .time = 10.0, .fadeIn = 4.0, .fadeOut = 4.0});
        for (std::size_t g = 0; g < 5; ++g) {
            const Guide& guide = *groom.hierarchy()->guides()[g];
            std::vector<Vec3f>& offsets = layers.layers[0].offsets[guide.id];
            for (std::size_t i = 0; i < guide.points.size(); ++i)
                offsets.push_back({0.2f * float(i), 0.0f, 0.1f * float(i)});
        }
    }
    std::uint64_t at(double frame) {
        EvaluateOptions options = kPreview;
        options.seconds = frame / groom.framesPerSecond();
        const EvaluationResult& result = groom.evaluate(options);
        EXPECT_THAT(result.errors, ElementsAre());
        return contentOf(groom);
    }
    Correctives layers;
};

TEST_F(GroomCorrectives, ShowAtTheirFramesAndLeaveTheOthersAlone) {
    const std::uint64_t bare = at(10.0);
    groom.setCorrectivesJson(correctivesJson(layers));
    EXPECT_EQ(at(5.0), bare);
    const std::uint64_t half = at(8.0), full = at(10.0);
    EXPECT_NE(half, bare);
    EXPECT_NE(full, bare);
    EXPECT_NE(full, half);
    EXPECT_EQ(at(8.0), half);
    EXPECT_EQ(at(15.0), bare);
    EXPECT_EQ(groom.hierarchy()->contentHash(), groom.activeHierarchy()->contentHash())
        << "the document's guides stay as they are";
    layers.layers[0].enabled = false;
    groom.setCorrectivesJson(correctivesJson(layers));
    EXPECT_EQ(at(10.0), bare);
    EXPECT_FALSE(groom.correctives()->layers[0].offsets.empty());
    groom.setCorrectivesJson("");
    EXPECT_EQ(at(10.0), bare);
}

TEST_F(GroomCorrectives, UntouchedGuidesAndFramesCostNothing) {
    groom.setCorrectivesJson(correctivesJson(layers));
    at(10.0);
    const auto shown = groom.correctedHierarchy();
    EXPECT_EQ(groom.correctedHierarchy(), shown);
    EXPECT_EQ(evaluatedBy(groom, {.seconds = 10.0 / groom.framesPerSecond(), .preview = true}), 0u);
    std::size_t kept = 0;
    for (std::size_t g = 0; g < shown->size(); ++g)
        kept += shown->guides()[g] == groom.hierarchy()->guides()[g];
    EXPECT_GT(kept, shown->size() / 2);
    EXPECT_LT(kept, shown->size());
    at(30.0);
    EXPECT_EQ(groom.correctedHierarchy(), groom.activeHierarchy());
}

TEST_F(GroomCorrectives, FollowTheScalp) {
    groom.setCorrectivesJson(correctivesJson(layers));
    at(10.0);
    const auto box = [&] { return groom.result().boundsMax - groom.result().boundsMin; };
    const Vec3f before = box();
    const StrandsPtr still = groom.result().strands;
    groom.setFollowScalp(true);
    groom.updateScalpPoints(shifted(scalp->points(), {5.0f, 0.0f, 0.0f}), std::nullopt);
    at(10.0);
    ASSERT_TRUE(groom.following());
    EXPECT_LT(distance(box(), before), 1e-2f);
    ASSERT_EQ(groom.result().strands->points().size(), still->points().size());
    for (std::size_t p = 0; p < still->points().size(); p += 97)
        EXPECT_LT(distance(groom.result().strands->points()[p],
                           still->points()[p] + Vec3f{5.0f, 0.0f, 0.0f}),
                  1e-2f);
}

TEST_F(GroomCorrectives, LiveGuidesOfAStrokeInALayerAreShownAsTheyAre) {
    groom.setCorrectivesJson(correctivesJson(layers));
    const std::uint64_t shown = at(10.0);
    // Outside a layer the live guides are the document's: the layers go on top.
    groom.setLiveHierarchy(groom.activeHierarchy());
    EXPECT_EQ(at(10.0), shown);
    groom.setActiveCorrective(0);
    groom.setLiveHierarchy(groom.correctedHierarchy());
    EXPECT_EQ(at(10.0), shown);
    groom.setLiveHierarchy(nullptr);
    EXPECT_EQ(at(10.0), shown);
    EXPECT_THROW(groom.setActiveCorrective(1), std::out_of_range);
    EXPECT_EQ(groom.activeCorrective(), 0u);
    groom.setCorrectivesJson("");
    EXPECT_EQ(groom.activeCorrective(), std::nullopt);
}

TEST_F(GroomCorrectives, ATextThatDoesNotReadIsKeptAndShown) {
    const std::uint64_t bare = at(10.0);
    const std::string text = R"({"layers":[{"name":"a","offsets":{"x":[]}}]})";
    groom.setCorrectivesJson(text);
    groom.evaluate(kPreview);
    EXPECT_THAT(groom.result().errors, ElementsAre("correctiveData: invalid stoull argument"));
    EXPECT_THAT(groom.dataErrors(), ElementsAre("correctiveData: invalid stoull argument"));
    EXPECT_EQ(groom.document().correctives, text);
    EXPECT_EQ(contentOf(groom), bare);
    GroomSession opened(groom.document());
    EXPECT_THAT(opened.dataErrors(), ElementsAre("correctiveData: invalid stoull argument"));
}

TEST_F(GroomCorrectives, MapsOfOldAndOfOtherScalpsAreSeenOnOpening) {
    GroomFile file;
    file.scalp = scalp;
    auto maps = std::make_shared<MapCatalogValue>();
    maps->maps["new"] = {.kind = PaintedMap::Kind::Vertices};
    maps->maps["other"] = {.kind = PaintedMap::Kind::Vertices,
                           .values = std::make_shared<const std::vector<float>>(3, 0.5f),
                           .vertices = 3};
    file.maps = maps;
    GroomSession opened(file);
    EXPECT_EQ(opened.document().maps->find("new")->vertices, scalp->points().size());
    std::vector<std::string> texts;
    for (const EvaluationMessage& message : opened.evaluate(kPreview).messages)
        texts.push_back(message.text);
    EXPECT_THAT(texts,
                Contains("map 'other' was painted on a scalp with 3 vertices; this one has " +
                         std::to_string(scalp->points().size()) +
                         " (convert it to a texture or guide layer on the old scalp, or fill it "
                         "anew)"));
}

}  // namespace
}  // namespace corvelle
