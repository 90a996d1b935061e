#include "session/groomSessionFixture.h"
#include "session/scalpRefinement.h"

namespace corvelle {
namespace {

ScalpPtr cageOf(ScalpMesh mesh, int levels, bool rest = false) {
    mesh.setSubdivision(levels, "its smooth preview");
    if (rest) mesh.setRestPoints({mesh.points().begin(), mesh.points().end()});
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

StrandRoot anyRoot(const ScalpMesh& mesh, SplitMix& random) {
    const float a = random.nextFloat(), b = random.nextFloat();
    const bool outside = a + b > 1.0f;
    return {std::int32_t(random.nextU64() % mesh.triangles().size()), outside ? 1.0f - a : a,
            outside ? 1.0f - b : b};
}

class RefinedRoots : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Levels, RefinedRoots, testing::Values(1, 2, 3));

TEST_P(RefinedRoots, KeepTheirPlaceInThePolygon) {
    ScalpMesh single = makeSphere(6, 9, 10.0f);  // quads whose triangles stand alone
    single.setPolygons({});
    ScalpMesh fan = makeFan(7, 5.0f);
    std::vector<Vec2f> uvs;
    for (const Triangle& triangle : fan.triangles())
        for (const std::int32_t v : triangle)
            uvs.push_back({fan.points()[std::size_t(v)].x, fan.points()[std::size_t(v)].z});
    fan.setUvs(uvs);
    SplitMix random(3);
    for (const ScalpMesh& mesh : {makeSphere(6, 9, 10.0f), makePlane(5, 4, 10.0f), single, fan}) {
        const ScalpPtr cage = cageOf(mesh, GetParam());
        ScalpRefinement refinement;
        const ScalpPtr refined = refinement.mesh(cage);
        refinement.setCages(cage, {});
        EXPECT_GT(refined->triangles().size(), 2 * cage->triangles().size());
        for (int i = 0; i < 500; ++i) {
            const StrandRoot root = anyRoot(*cage, random), place = refinement.root(root);
            ASSERT_TRUE(refined->validRoot(place));
            ASSERT_GE(std::min({place.u, place.v, 1.0f - place.u - place.v}), -1e-5f);
            // UVs are refined linearly: on triangles and regular polygons they are the place
            // itself.
            const Vec2f before = cage->surfaceUv(root), after = refined->surfaceUv(place);
            ASSERT_NEAR(before.x, after.x, 1e-4f);
            ASSERT_NEAR(before.y, after.y, 1e-4f);
        }
    }
}

TEST(ScalpRefinement, LeavesWhatHasNoLevelsAlone) {
    const ScalpPtr mesh = sphere();
    ScalpRefinement refinement;
    EXPECT_EQ(refinement.mesh(mesh), mesh);
    EXPECT_EQ(refinement.mesh(nullptr), nullptr);
    refinement.setCages(mesh, {});
    const GuidesPtr guides = makeGuides(*mesh, 5);
    EXPECT_EQ(refinement.guides(guides), guides);
    EXPECT_FALSE(refinement.refines());
    const MapCatalogPtr maps = std::make_shared<const MapCatalogValue>();
    EXPECT_EQ(refinement.maps(maps), maps);
}

TEST(ScalpRefinement, NumbersSeveralScalpsOneBehindTheOther) {
    const ScalpPtr own = cageOf(makePlane(2, 2, 10.0f), 1),
                   plain = cageOf(makePlane(3, 3, 4.0f), 0),
                   last = cageOf(makePlane(1, 1, 4.0f), 2);
    ScalpRefinement refinement;
    refinement.setCages(own, {{"plain", plain}, {"last", last}});
    const auto refinedOwn = std::int32_t(refinement.mesh(own)->triangles().size());
    EXPECT_EQ(refinement.root({8, 0.25f, 0.5f}), (StrandRoot{refinedOwn, 0.25f, 0.5f}));
    EXPECT_EQ(refinement.root({25, 0.25f, 0.5f}).triangle, refinedOwn + 17);
    EXPECT_GE(refinement.root({26, 0.3f, 0.3f}).triangle, refinedOwn + 18);
    EXPECT_EQ(refinement.root({28, 0.3f, 0.3f}).triangle, -1);
    EXPECT_EQ(refinement.root({-1, 0.0f, 0.0f}).triangle, -1);
}

TEST(ScalpRefinement, TakesGuidesThatAStrokeLeftAloneFromTheLastAnswer) {
    const ScalpPtr cage = cageOf(makeSphere(8, 12, 10.0f), 1);
    ScalpRefinement refinement;
    refinement.setCages(cage, {});
    auto first =
        std::make_shared<const GuideHierarchy>(makeHierarchy(*cage, {.primaries = 6, .seed = 3}));
    const auto before = refinement.hierarchy(first);
    EXPECT_EQ(refinement.hierarchy(first), before);
    GuideHierarchy edited = *first;
    const GuidePtr& moved = edited.guides()[2];
    const std::uint64_t id = moved->id;
    std::vector<Vec3f> points = moved->points;
    points.back().y += 1.0f;
    edited.setPoints(id, points);
    const auto second = std::make_shared<const GuideHierarchy>(edited);
    const auto after = refinement.hierarchy(second);
    ScalpRefinement fresh;
    fresh.setCages(cage, {});
    EXPECT_EQ(after->contentHash(), fresh.hierarchy(second)->contentHash());
    std::size_t shared = 0;
    for (std::size_t i = 0; i < after->size(); ++i) {
        shared += after->guides()[i] == before->guides()[i];
        EXPECT_EQ(after->guides()[i]->points, second->guides()[i]->points);
        EXPECT_EQ(after->guides()[i]->root, refinement.root(second->guides()[i]->root));
    }
    EXPECT_GT(shared, 0u);
    EXPECT_LT(shared, after->size());
}

TEST(ScalpRefinement, GrowsHairOnTheSurfaceThatRendersDraw) {
    for (const bool following : {false, true}) {
        GroomFile file;
        file.scalp = cageOf(makeSphere(6, 9, 10.0f), 2, true);
        file.guides = makeGuides(*file.scalp, 12);
        file.followScalp = following;
        json graph = graphOf(0.5);
        graph["nodes"][2]["params"]["density"] = {{"expression", "map(\"m\") * 0.5"}};
        file.graph = graph.dump();
        auto maps = std::make_shared<MapCatalogValue>();
        PaintedMap map;
        map.vertices = file.scalp->points().size();
        map.values = std::make_shared<const std::vector<float>>(map.vertices, 1.0f);
        maps->maps["m"] = map;
        file.maps = maps;
        GroomSession groom(file);
        if (following)
            groom.updateScalpPoints(shifted(file.scalp->points(), {0, 30, 0}), std::nullopt);
        const EvaluationResult& result = groom.evaluate({});
        EXPECT_THAT(result.errors, testing::IsEmpty());
        ASSERT_TRUE(result.strands);
        EXPECT_GT(result.strands->strandCount(), 200u);
        EXPECT_EQ(groom.following(), following);
        const ScalpPtr drawn = groom.evaluationScalp();
        EXPECT_GT(drawn->triangles().size(), 10 * groom.scalp()->triangles().size());
        std::size_t offCage = 0;
        for (std::size_t s = 0; s < result.strands->strandCount(); ++s) {
            const Vec3f root = result.strands->pointsOf(s).front();
            SurfaceHit hit;
            ASSERT_TRUE(drawn->closestPoint(root, 1.0f, hit));
            ASSERT_LT(hit.distance, 1e-3f);
            offCage += !groom.scalp()->closestPoint(root, 0.01f, hit);
        }
        EXPECT_GT(offCage, result.strands->strandCount() / 2);
        EXPECT_THAT(groom.graph()->warnings().begin()->second,
                    testing::HasSubstr("faces (match render: its smooth preview)"));
    }
}

}  // namespace
}  // namespace corvelle
