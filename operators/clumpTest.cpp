#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/partData.h"
#include "model/polyline.h"
#include "model/testing/meshes.h"
#include "operators/clumpBinding.h"
#include "operators/clumpCenters.h"
#include "operators/previewStrands.h"
#include "operators/registerOperators.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

/// Wavy hair on a scalp, rooted where it says. Marks about one strand in four as "_preview".
struct HairSettings {
    std::size_t strands = 2000;
    std::size_t points = 9;
    std::uint64_t seed = 1;
    float length = 6.0f;
    bool marked = true;
    bool regions = false;  ///< two halves of the scalp, numbered 0 and 1
};

StrandSet growHair(const ScalpMesh& scalp, const HairSettings& settings) {
    const ScatterDensity density{.constant = float(double(settings.strands) / scalp.area())};
    const ScatterPoints roots =
        scatterCandidates(scalp, density, densityEnvelope(scalp, density), settings.seed, 1.0f);
    StrandSet out;
    std::vector<Vec3f> points(settings.points);
    for (std::size_t s = 0; s < roots.size(); ++s) {
        SplitMix random(roots.ids[s]);
        const Vec3f root = scalp.surfacePoint(roots.roots[s]);
        const Vec3f lean{random.nextRange(-0.4f, 0.4f), random.nextRange(-0.4f, 0.4f),
                         random.nextRange(-0.4f, 0.4f)};
        const Vec3f way = normalized(scalp.surfaceNormal(roots.roots[s]) + lean) *
                          (settings.length * random.nextRange(0.6f, 1.4f));
        const Vec3f side = anyPerpendicular(way) * (0.3f * random.nextFloat());
        for (std::size_t i = 0; i < points.size(); ++i) {
            const float t = float(i) / float(points.size() - 1);
            points[i] = root + way * t + side * std::sin(5.0f * t);
        }
        points[0] = root;
        out.addStrand(roots.ids[s], points, {}, roots.roots[s]);
    }
    if (settings.marked) {
        const auto marks = out.mutableStrandChannel("_preview", 1.0f);
        out.setStrandChannelDiscrete("_preview");
        for (std::size_t s = 0; s < marks.size(); ++s)
            marks[s] = unitHash(out.ids()[s]) < 0.25f ? 1.0f : 0.0f;
    }
    if (settings.regions) {
        const auto regions = out.mutableStrandChannel("region", -1.0f);
        out.setStrandChannelDiscrete("region");
        for (std::size_t s = 0; s < regions.size(); ++s)
            regions[s] = out.pointsOf(s).front().x < 0.0f ? 0.0f : 1.0f;
    }
    return out;
}

ScalpPtr sphere() { return std::make_shared<const ScalpMesh>(makeSphere(24, 48, 10.0f)); }

class ClumpTest : public testing::Test {
protected:
    ClumpTest() {
        setVerifyIncremental(true);
        bench.data.scalp = scalp;
    }
    ~ClumpTest() override { setVerifyIncremental(false); }
    StrandsPtr run(const StrandSet& strands) {
        bench.feed(strands);
        return bench.evaluate();
    }
    /// The strands of each clump, by its number.
    static std::map<float, std::vector<std::uint32_t>> clumpsOf(const StrandSet& strands,
                                                                const char* channel = "clumpId") {
        std::map<float, std::vector<std::uint32_t>> out;
        const auto& numbers = *strands.strandChannel(channel);
        for (std::uint32_t s = 0; s < numbers.size(); ++s) out[numbers[s]].push_back(s);
        return out;
    }
    static float spread(const StrandSet& strands, const std::vector<std::uint32_t>& members) {
        Vec3f middle;
        for (const std::uint32_t s : members) middle += strands.pointsOf(s).back();
        middle *= 1.0f / float(members.size());
        float sum = 0.0f;
        for (const std::uint32_t s : members) sum += distance(strands.pointsOf(s).back(), middle);
        return sum / float(members.size());
    }
    const ScalpPtr scalp = sphere();
    const StrandSet hair = growHair(*scalp, {});
    NodeBench bench{"Clump"};
};

// --- Picking -----------------------------------------------------------------------------------

TEST_F(ClumpTest, PicksAboutTheCountItIsTold) {
    for (const double count : {50.0, 150.0, 400.0})
        for (const std::uint64_t seed : {1u, 2u, 3u}) {
            const auto core = previewStrands(hair);
            const auto picked =
                pickClumpCenters(hair, core, scalp.get(), {.count = count, .seed = seed}, {});
            EXPECT_NEAR(double(picked.size()), count, 0.12 * count) << seed;
        }
}

TEST_F(ClumpTest, PicksTheSameForAnyOrderOfStrandsAndAnyThreads) {
    std::vector<std::uint32_t> backwards(hair.strandCount());
    for (std::uint32_t s = 0; s < backwards.size(); ++s)
        backwards[s] = std::uint32_t(backwards.size()) - 1 - s;
    const StrandSet turned = hair.subset(backwards);
    std::set<std::vector<std::uint64_t>> results;
    const auto add = [&](const StrandSet& set) {
        std::vector<std::uint64_t> ids;
        for (const std::uint32_t s :
             pickClumpCenters(set, previewStrands(set), scalp.get(), {.count = 100}, {}))
            ids.push_back(set.ids()[s]);
        EXPECT_TRUE(std::ranges::is_sorted(ids));
        results.insert(ids);
    };
    add(hair);
    add(turned);
    for (const unsigned threads : {1u, 8u}) runWithThreads(threads, [&] { add(hair); });
    EXPECT_EQ(results.size(), 1u);
}

TEST_F(ClumpTest, ASpacingBarelyChangedIsTheSameSpacing) {
    const ClumpPickSettings settings{.count = 300};
    const double at = clumpSpacing(settings, 1000.0);
    std::size_t same = 0;
    for (int i = 0; i < 100; ++i) same += clumpSpacing(settings, 1000.0 + 0.05 * i) == at;
    EXPECT_GT(same, 40u);
    EXPECT_NE(clumpSpacing(settings, 1030.0), at);
    EXPECT_NEAR(at, std::sqrt(1000.0 / 300.0), 0.006 * at);
    EXPECT_EQ(clumpSpacing({.count = 0}, 1000.0), 0.0);
    EXPECT_EQ(clumpSpacing({.bySize = true, .size = 0.0}, 1000.0), 0.0);
    EXPECT_EQ(clumpSpacing({.count = 10}, std::nan("")), 0.0);
    EXPECT_EQ(clumpSpacing({.bySize = true, .size = 1e300}, 1.0), 0.0);
}

TEST_F(ClumpTest, BySizeAnEditOfTheScalpMovesOnlyClumpsNearIt) {
    const ClumpPickSettings settings{.bySize = true, .size = 1.5};
    std::vector<Vec3f> points(scalp->points().begin(), scalp->points().end());
    for (Vec3f& p : points)
        if (p.y > 8.0f) p *= 1.05f;
    const ScalpPtr edited = scalp->withPoints(points);
    const auto ids = [&](const ScalpMesh& mesh) {
        std::set<std::uint64_t> out;
        for (const std::uint32_t s :
             pickClumpCenters(hair, previewStrands(hair), &mesh, settings, {}))
            out.insert(hair.ids()[s]);
        return out;
    };
    const auto before = ids(*scalp), after = ids(*edited);
    std::size_t far = 0, moved = 0, all = 0;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const bool differs = before.count(hair.ids()[s]) != after.count(hair.ids()[s]);
        all += differs;
        if (hair.pointsOf(s).front().y > -3.0f) continue;  // eight clumps on: the spread settles
        far += before.count(hair.ids()[s]);
        moved += differs;
    }
    EXPECT_GT(far, 100u);
    EXPECT_GT(all, 0u) << "this edit is too small to prove anything";
    EXPECT_EQ(moved, 0u);
}

TEST_F(ClumpTest, HairOnAPartOfTheScalpIsNotCrowdedAtItsBorder) {
    std::vector<std::uint32_t> top;
    for (std::uint32_t s = 0; s < hair.strandCount(); ++s)
        if (hair.pointsOf(s).front().y > 3.0f) top.push_back(s);
    const StrandSet cap = hair.subset(top);
    const auto picked = pickClumpCenters(cap, previewStrands(cap), scalp.get(),
                                         {.count = 200, .randomness = 0.0f}, {});
    const double spacing = clumpSpacing({.count = 200}, scalp->area());
    std::vector<Vec3f> positions;
    for (const std::uint32_t s : picked) positions.push_back(cap.pointsOf(s).front());
    const PointIndex index(positions);
    std::size_t close = 0;
    for (const Vec3f p : positions) {
        Neighbor two[2];
        ASSERT_EQ(index.nearest(p, two), 2u);
        close += std::sqrt(two[1].distanceSquared) < 0.4f * float(spacing);
    }
    EXPECT_GT(positions.size(), 40u);
    EXPECT_LT(close, positions.size() / 8);
}

TEST_F(ClumpTest, WithoutAScalpTheStrandsThemselvesAreThinned) {
    bench.data.scalp = nullptr;
    StrandSet loose;
    for (std::uint64_t i = 0; i < 3000; ++i) {
        SplitMix random(i);
        const Vec3f root{20.0f * random.nextFloat(), 0.0f, 20.0f * random.nextFloat()};
        const Vec3f points[] = {root, root + Vec3f{0, 3, 0}};
        loose.addStrand(i + 1, points, {}, {});
    }
    bench.op().set("count", 100.0);
    const std::size_t clumps = clumpsOf(*run(loose)).size();
    EXPECT_GT(clumps, 70u);
    EXPECT_LT(clumps, 140u);
}

TEST_F(ClumpTest, CentersStandWhereTheirWeightIs) {
    for (const bool byStrand : {false, true}) {
        NodeBench weighed("Clump");
        weighed.data.scalp = scalp;
        weighed.op().set("strength", 1.0);
        weighed.op().set("centerWeight",
                         MapSource{.kind = MapKind::Expression,
                                   .source = byStrand ? "step(6.5, length)" : "step(0, P.x)"});
        weighed.feed(hair);
        const StrandsPtr out = weighed.evaluate();
        // A center is its own axis: it stays where it grew.
        std::size_t centers = 0, allowed = 0;
        for (std::uint32_t s = 0; s < hair.strandCount(); ++s) {
            if (!std::ranges::equal(hair.pointsOf(s), out->pointsOf(s))) continue;
            ++centers;
            allowed += byStrand ? polylineLength(hair.pointsOf(s)) >= 6.49f
                                : hair.pointsOf(s).front().x >= -2.5f;
        }
        EXPECT_GT(centers, 60u);
        EXPECT_EQ(allowed, centers) << byStrand;
    }
}

TEST(ClumpNumbers, AreWholeAndDistinctAndFollowTheId) {
    std::vector<std::uint64_t> ids;
    for (std::uint64_t i = 1; i <= 20000; ++i) ids.push_back(3 * i);
    const std::vector<float> numbers = clumpNumbers(ids);
    EXPECT_EQ(std::set<float>(numbers.begin(), numbers.end()).size(), ids.size());
    std::size_t own = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(numbers[i], std::floor(numbers[i]));
        EXPECT_GE(numbers[i], 0.0f);
        own += numbers[i] == float(mix64(ids[i]) >> 40);
    }
    EXPECT_GT(own, ids.size() - 60);
    EXPECT_LT(own, ids.size()) << "no two collide: this proves nothing of rehashing";
}

// --- Pulling -----------------------------------------------------------------------------------

TEST_F(ClumpTest, GathersEachClumpOnItsCenterAndKeepsRoots) {
    bench.op().set("strength", 1.0);
    bench.op().set("count", 120.0);
    const StrandsPtr out = run(hair);
    ASSERT_TRUE(out->validate());
    for (std::size_t s = 0; s < hair.strandCount(); ++s)
        EXPECT_EQ(out->pointsOf(s).front(), hair.pointsOf(s).front());
    std::size_t seen = 0;
    for (const auto& [number, members] : clumpsOf(*out)) {
        EXPECT_GE(number, 0.0f);
        if (members.size() < 3) continue;
        ++seen;
        EXPECT_LT(spread(*out, members), 1e-4f) << "gather: all tips meet at the axis' tip";
        EXPECT_GT(spread(hair, members), 0.2f);
    }
    EXPECT_GT(seen, 80u);
    EXPECT_TRUE(out->strandChannels().at("clumpId").discrete);
    EXPECT_EQ(out->strandChannels().at("clumpId").defaultValue, -1.0f);
    EXPECT_TRUE(out->sharesWidths(hair));
    EXPECT_EQ(bench.warning(), "");
}

TEST_F(ClumpTest, AStrandLongerThanItsAxisGathersOrGoesOn) {
    StrandSet three;  // the axis, a longer strand and a shorter one
    const auto straight = [](float x, float size) {
        std::vector<Vec3f> points;
        for (int i = 0; i <= 8; ++i) points.push_back({x, size * float(i) / 8.0f, 0.0f});
        return points;
    };
    three.addStrand(1, straight(0.0f, 4.0f), {}, {});
    three.addStrand(2, straight(0.5f, 8.0f), {}, {});
    three.addStrand(3, straight(-0.5f, 2.0f), {}, {});
    StrandSet centers;
    centers.addStrand(77, straight(0.0f, 4.0f), {}, {});
    NodeBench two("Clump");
    two.op().set("centersFrom", std::string("inputPoints"));
    two.op().set("strength", 1.0);
    two.op().set("profile", Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}));
    two.feed(three);
    two.feed(centers, 1);
    StrandsPtr out = two.evaluate();
    EXPECT_EQ(out->pointsOf(1).back(), (Vec3f{0, 4, 0}));
    EXPECT_EQ(out->pointsOf(2).back(), (Vec3f{0, 4, 0})) << "a shorter one goes by its share";
    EXPECT_EQ(out->pointsOf(1)[2], (Vec3f{0, 2, 0})) << "a longer one goes by its length";
    EXPECT_EQ(two.warning(), "");
    two.op().set("pastTip", std::string("extend"));
    out = two.evaluate();
    EXPECT_EQ(out->pointsOf(1).back(), (Vec3f{0, 8, 0}));
    EXPECT_EQ(out->pointsOf(2).back(), (Vec3f{0, 4, 0}));
}

TEST_F(ClumpTest, ANegativeStrengthPartsHairWithinTheRadiusAlone) {
    StrandSet fan;
    for (std::uint64_t i = 0; i < 40; ++i) {
        std::vector<Vec3f> points;
        for (int k = 0; k <= 8; ++k)
            points.push_back({0.05f + 0.1f * float(i), 0.25f * float(k), 0.0f});
        fan.addStrand(i + 1, points, {}, {});
    }
    StrandSet whisker;
    const Vec3f hairs[] = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}};
    whisker.addStrand(9, hairs, {}, {});
    NodeBench two("Clump");
    two.op().set("centersFrom", std::string("inputCurves"));
    two.op().set("strength", -1.0);
    two.op().set("repelRadius", 1.5);
    two.feed(fan);
    two.feed(whisker, 1);
    const StrandsPtr out = two.evaluate();
    for (std::size_t s = 0; s < fan.strandCount(); ++s) {
        const float x = fan.pointsOf(s).back().x;
        if (x < 1.5f)
            EXPECT_NEAR(out->pointsOf(s).back().x, 1.5f, 1e-4f);
        else
            EXPECT_TRUE(std::ranges::equal(out->pointsOf(s), fan.pointsOf(s)));
        EXPECT_EQ(out->pointsOf(s).front(), fan.pointsOf(s).front());
    }
    EXPECT_EQ(two.details(), "");
    two.op().set("centersFrom", std::string("inputPoints"));
    two.evaluate();
    EXPECT_EQ(two.details(),
              "parts the strands around the strands nearest its centers (centersFrom inputPoints); "
              "inputCurves parts them around the center curves themselves (whiskers, horns)");
    two.op().set("centersFrom", std::string("inputCurves"));
    two.evaluate();
    EXPECT_EQ(two.details(), "") << "of the result that was taken up again";
}

TEST_F(ClumpTest, ALockIsARoundStringOfItsRadius) {
    bench.op().set("strength", 1.0);
    bench.op().set("count", 30.0);
    bench.op().set("lockRadius", 0.4);
    bench.op().set("pastTip", std::string("extend"));
    const StrandsPtr out = run(hair);
    bench.op().set("lockRadius", 0.0);
    const StrandsPtr thin = run(hair);  // the axes themselves
    double inner = 0.0, all = 0.0;
    for (std::size_t s = 0; s < hair.strandCount(); ++s) {
        const float d = distance(out->pointsOf(s).back(), thin->pointsOf(s).back());
        EXPECT_LT(d, 0.4f * 1.001f);
        all += 1.0;
        inner += d < 0.4f * std::sqrt(0.5f);
    }
    // Half of a disc's area lies within 0.71 of its radius.
    EXPECT_NEAR(inner / all, 0.5, 0.2) << "filled from middle to rim";
}

TEST_F(ClumpTest, FlatnessMakesRibbonsAcrossTheWayItSays) {
    bench.op().set("strength", 0.5);
    bench.op().set("count", 40.0);
    bench.op().set("flatness", 1.0);
    bench.op().set("flatten", std::string("direction"));
    bench.op().set("flattenDirection", Vec3f{0, 1, 0});
    bench.op().set("pastTip", std::string("extend"));
    const StrandsPtr flat = run(hair);
    bench.op().set("flatness", 0.0);
    const StrandsPtr round = run(hair);
    const auto thickness = [&](const StrandSet& set) {
        double sum = 0.0;
        for (const auto& [number, members] : clumpsOf(set))
            for (const std::uint32_t s : members) {
                const Vec3f lean = set.pointsOf(members[0]).back() - set.pointsOf(s).back();
                sum += std::abs(lean.x) + std::abs(lean.z);
            }
        return sum;
    };
    EXPECT_LT(thickness(*flat), 0.9 * thickness(*round));
    for (const char* way : {"surface", "random"}) {
        bench.op().set("flatness", 0.8);
        bench.op().set("flatten", std::string(way));
        EXPECT_NE(run(hair)->contentHash(), round->contentHash());
    }
}

TEST_F(ClumpTest, VolumizeSpreadsClumpsAndCopiedShapesFlowTogether) {
    const auto fullness = [&](const StrandSet& set) {
        double sum = 0.0;
        for (const auto& [number, members] : clumpsOf(set)) sum += spread(set, members);
        return sum;
    };
    bench.op().set("strength", 0.5);
    bench.op().set("count", 100.0);
    bench.op().set("volumizeProfile", Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}));
    const double plain = fullness(*run(hair));
    bench.op().set("volumize", 0.5);
    EXPECT_NEAR(fullness(*run(hair)) / plain, 1.5, 0.05);

    bench.op().set("volumize", 0.0);
    bench.op().set("strength", 1.0);
    const auto centers =
        pickClumpCenters(hair, previewStrands(hair), scalp.get(), {.count = 100}, {});
    const auto unrest = [&](const StrandSet& set) {  // how the axes of neighbours differ
        std::vector<Vec3f> roots, ways;
        for (const std::uint32_t s : centers) {
            roots.push_back(set.pointsOf(s).front());
            ways.push_back(normalized(set.pointsOf(s).back() - roots.back()));
        }
        const PointIndex index(roots);
        double sum = 0.0;
        for (std::size_t i = 0; i < roots.size(); ++i) {
            Neighbor near[4];
            index.nearest(roots[i], near);
            for (const Neighbor& n : near) sum += distance(ways[i], ways[n.index]);
        }
        return sum;
    };
    const double loose = unrest(*run(hair));
    bench.op().set("copyAmount", 0.9);
    bench.op().set("copyNeighbors", 6.0);
    EXPECT_LT(unrest(*run(hair)), 0.8 * loose);
}

TEST_F(ClumpTest, RandomSharesVaryPerClumpWithinTheirBounds) {
    bench.op().set("count", 60.0);
    bench.op().set("strength", 1.0);
    bench.op().set("strengthRandom", 0.5);
    bench.op().set("profile", Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}));
    const StrandsPtr out = run(hair);
    std::set<int> shares;
    for (const auto& [number, members] : clumpsOf(*out)) {
        if (members.size() < 4) continue;
        const float share = spread(*out, members) / spread(hair, members);
        EXPECT_LT(share, 0.75f);
        shares.insert(int(10.0f * share));
    }
    EXPECT_GT(shares.size(), 3u);
}

// --- Who belongs to whom -----------------------------------------------------------------------

TEST_F(ClumpTest, RegionsKeepToThemselvesAndOnesWithoutACenterStayAsTheyAre) {
    StrandSet parted = growHair(*scalp, {.regions = true});
    bench.op().set("strength", 1.0);
    bench.op().set("count", 60.0);
    StrandsPtr out = run(parted);
    const auto& regions = *parted.strandChannel("region");
    for (const auto& [number, members] : clumpsOf(*out))
        for (const std::uint32_t s : members) EXPECT_EQ(regions[s], regions[members[0]]);

    // Centers of one region alone: those of the other have none.
    bench.op().set("centerWeight",
                   MapSource{.kind = MapKind::Expression, .source = "step(0.5, region)"});
    out = run(parted);
    std::size_t loose = 0;
    for (std::size_t s = 0; s < parted.strandCount(); ++s) {
        const bool unclumped = (*out->strandChannel("clumpId"))[s] == -1.0f;
        EXPECT_EQ(unclumped, regions[s] == 0.0f);
        EXPECT_TRUE(!unclumped || std::ranges::equal(out->pointsOf(s), parted.pointsOf(s)));
        loose += unclumped;
    }
    EXPECT_GT(loose, 100u);
    bench.op().set("regionChannel", std::string("nothing of that name"));
    out = run(parted);
    EXPECT_EQ(std::ranges::count(*out->strandChannel("clumpId"), -1.0f), 0);
}

/// A part all round the scalp, where x is 0.
std::shared_ptr<const PartLines> partRound(const ScalpPtr& scalp) {
    PartLine line{.name = "middle", .points = {}};
    for (int i = 0; i <= 72; ++i) {
        const float angle = 6.2831853f * float(i) / 72.0f;
        SurfaceHit hit;
        scalp->closestPoint({0.0f, 10.0f * std::cos(angle), 10.0f * std::sin(angle)},
                            ScalpMesh::kAnyDistance, hit);
        line.points.push_back(hit.root());
    }
    return partLinesOn({.lines = {line}}, scalp);
}

TEST_F(ClumpTest, NoClumpReachesAcrossAPart) {
    bench.data.parts = partRound(scalp);
    bench.op().set("count", 40.0);
    const auto mixed = [](const StrandSet& set) {
        std::size_t both = 0;
        for (const auto& [number, members] : clumpsOf(set))
            for (const std::uint32_t s : members)
                both += (set.pointsOf(s).front().x < 0.0f) !=
                        (set.pointsOf(members[0]).front().x < 0.0f);
        return both;
    };
    EXPECT_EQ(mixed(*run(hair)), 0u);
    bench.op().set("respectParts", false);
    EXPECT_GT(mixed(*run(hair)), 0u);
}

TEST_F(ClumpTest, GuidesServeAsCentersWithTheirOwnRegions) {
    const StrandSet parted = growHair(*scalp, {.regions = true});
    std::vector<GuideCurve> curves;
    for (std::uint64_t g = 0; g < 12; ++g) {
        const std::size_t s = std::size_t(g) * parted.strandCount() / 12;
        auto detail = std::make_shared<GuideDetail>();
        detail->attributes["region"] = 1.0f;  // whatever side they stand on
        const auto points = parted.pointsOf(s);
        curves.push_back({.id = g + 1,
                          .root = parted.roots()[s],
                          .points = {points.begin(), points.end()},
                          .detail = std::move(detail)});
    }
    NodeBench two("Clump");
    two.data.scalp = scalp;
    two.op().set("centersFrom", std::string("inputCurves"));
    two.feed(parted);
    two.connect(1, "Guides");
    two.data.flatGuides = std::make_shared<const GuideSet>(curves);
    const StrandsPtr out = two.evaluate();
    const auto& regions = *parted.strandChannel("region");
    const auto& numbers = *out->strandChannel("clumpId");
    for (std::size_t s = 0; s < parted.strandCount(); ++s)
        EXPECT_EQ(numbers[s] >= 0.0f, regions[s] == 1.0f);
}

// --- Promises of every node --------------------------------------------------------------------

const std::vector<std::function<void(Operator&)>>& tellingSettings() {
    static const std::vector<std::function<void(Operator&)>> all = {
        [](Operator&) {},
        [](Operator& op) {
            op.set("strength", MapSource{.kind = MapKind::Expression, .source = "t * rand"});
            op.set("lockRadius", 0.2);
            op.set("lockRadiusRandom", 0.5);
            op.set("pastTip", std::string("extend"));
            op.set("flatness", 0.5);
        },
        [](Operator& op) {
            op.set("strength", -0.8);
            op.set("clumpBy", std::string("size"));
            op.set("size", 2.0);
            op.set("randomness", 1.5);
            op.set("volumize", MapSource{.kind = MapKind::Expression, .source = "rand"});
            op.set("strengthRandom", 0.4);
        },
        [](Operator& op) {
            op.set("copyAmount", 0.5);
            op.set("copyNeighbors", 3.0);
            op.set("flatness", 1.0);
            op.set("flatten", std::string("random"));
        },
    };
    return all;
}

TEST_F(ClumpTest, AStrandInAThinnedPreviewHasThePointsItHasInTheWhole) {
    for (const auto& settings : tellingSettings()) {
        bench.op().set("count", 100.0);  // fewer than half of the marked ones
        settings(bench.op());
        if (bench.op().number("size") > 1.0) bench.op().set("size", 4.0);
        const StrandsPtr whole = run(hair);
        const StrandsPtr preview = run(hair.thinned(0.4f));
        EXPECT_GT(preview->strandCount(), 500u);
        EXPECT_EQ(whole->thinned(0.4f).contentHash(), preview->contentHash());
    }
}

TEST_F(ClumpTest, GivesTheSameBitsOnAnyNumberOfThreads) {
    for (const auto& settings : tellingSettings()) {
        std::set<std::uint64_t> hashes;
        for (const unsigned threads : {1u, 2u, 8u}) {
            NodeBench fresh("Clump");
            fresh.data.scalp = scalp;
            settings(fresh.op());
            fresh.feed(hair);
            runWithThreads(threads, [&] { hashes.insert(fresh.evaluate()->contentHash()); });
        }
        EXPECT_EQ(hashes.size(), 1u);
    }
}

StrandSet bent(const StrandSet& from, const std::vector<std::uint32_t>& changed,
               std::uint64_t seed) {
    StrandSet out = from;
    SplitMix random(seed);
    const auto points = out.mutablePoints();
    for (const std::uint32_t s : changed)
        for (std::uint64_t p = out.offsets()[s] + 1; p < out.offsets()[s + 1]; ++p)
            points[p] +=
                Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
    return out;
}

TEST_F(ClumpTest, UpdatesChangedStrandsAndTheClumpsTheyLeadWithTheBitsOfAFullRun) {
    std::size_t setting = 0;
    for (const auto& settings : tellingSettings()) {
        NodeBench fresh("Clump");
        fresh.data.scalp = scalp;
        settings(fresh.op());
        fresh.feed(hair);
        fresh.evaluate();
        StrandSet edited = hair;
        SplitMix random(9);
        std::size_t incremental = 0;
        for (int round = 0; round < 8; ++round) {
            std::vector<std::uint32_t> changed;
            for (std::uint32_t s = 0; s < edited.strandCount(); ++s)
                if (random.nextFloat() < (round % 2 ? 0.002f : 0.03f)) changed.push_back(s);
            edited = bent(edited, changed, random.nextU64());
            // The verify switch compares with a full run, and throws on a difference.
            fresh.feedChanged(edited, changed);
            fresh.evaluate();
            incremental += fresh.status().starts_with("incremental ");
        }
        // Copied shapes go on to neighbours when an axis moves: then a full run is right.
        EXPECT_TRUE(incremental == 8 || setting == 3);
        ++setting;
        // A root that moves may change who belongs to whom.
        edited.mutablePoints()[edited.offsets()[5]] += Vec3f{1, 0, 0};
        fresh.feedChanged(edited, {5});
        fresh.evaluate();
        EXPECT_TRUE(fresh.status().starts_with("full")) << fresh.status();
    }
}

TEST_F(ClumpTest, AMovedCenterCurveChangesItsClumpAlone) {
    NodeBench two("Clump");
    two.data.scalp = scalp;
    two.op().set("centersFrom", std::string("inputCurves"));
    two.op().set("lockRadius", 0.1);
    std::vector<std::uint32_t> some;
    for (std::uint32_t s = 0; s < hair.strandCount(); s += 40) some.push_back(s);
    const StrandSet centers = hair.subset(some);
    two.feed(hair);
    two.feed(centers, 1);
    const StrandsPtr before = two.evaluate();
    two.feedChanged(bent(centers, {7}, 3), {7}, 1);
    const StrandsPtr after = two.evaluate();
    EXPECT_TRUE(two.status().starts_with("incremental ")) << two.status();
    std::size_t moved = 0;
    for (std::uint32_t s = 0; s < hair.strandCount(); ++s)
        moved += !std::ranges::equal(before->pointsOf(s), after->pointsOf(s));
    EXPECT_GT(moved, 5u);
    EXPECT_LT(moved, 200u);
}

TEST_F(ClumpTest, NothingToDoSharesThePointsAndStillNumbersTheClumps) {
    bench.op().set("strength", 0.0);
    StrandsPtr out = run(hair);
    EXPECT_TRUE(out->sharesPoints(hair));
    EXPECT_GT(clumpsOf(*out).size(), 100u);
    bench.op().set("clumpChannel", std::string(""));
    out = run(hair);
    EXPECT_FALSE(out->strandChannel("clumpId"));
    bench.op().set("clumpChannel", std::string("lockId"));
    EXPECT_TRUE(run(hair)->strandChannel("lockId"));
}

TEST_F(ClumpTest, SaysWhatIsMissing) {
    using Set = std::function<void(Operator&)>;
    struct Case {
        bool connected;
        Set set;
        const char* warning;
        bool passes;
    };
    const Case cases[] = {
        {true, [](Operator&) {},
         "centers are connected but centersFrom is pick (it picks its own): set centersFrom to "
         "inputPoints or inputCurves to clump by them",
         false},
        {false, [](Operator& op) { op.set("centersFrom", std::string("inputPoints")); },
         "no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands "
         "pass through",
         true},
        {false, [](Operator& op) { op.set("centersFrom", std::string("inputCurves")); },
         "no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands "
         "pass through",
         true},
        {false, [](Operator& op) { op.set("count", 0.0); },
         "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers "
         "connected); the strands pass through",
         true},
        {false,
         [](Operator& op) {
             op.set("clumpBy", std::string("size"));
             op.set("size", 0.0);
         },
         "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers "
         "connected); the strands pass through",
         true},
        {false, [](Operator&) {}, "", false},
    };
    for (const Case& each : cases) {
        NodeBench node("Clump");
        node.data.scalp = scalp;
        each.set(node.op());
        node.feed(hair);
        if (each.connected) node.feed(hair, 1);
        const StrandsPtr out = node.evaluate();
        EXPECT_EQ(node.warning(), each.warning);
        EXPECT_EQ(out->contentHash() == hair.contentHash(), each.passes) << each.warning;
    }
    const auto failure = [&](const char* param, const char* value) {
        NodeBench node("Clump");
        node.op().set(param, std::string(value));
        node.feed(hair);
        return node.error();
    };
    EXPECT_EQ(failure("centersFrom", "above"),
              "node 'node': Clump: unknown centersFrom 'above' (pick, inputPoints or inputCurves)");
    EXPECT_EQ(failure("pastTip", "above"), "node 'node': Clump: pastTip must be gather or extend");
}

TEST_F(ClumpTest, SurvivesDegenerateStrands) {
    StrandSet odd;
    const Vec3f one[] = {{1, 2, 3}};
    const Vec3f same[] = {{0, 10, 0}, {0, 10, 0}, {0, 10, 0}};
    odd.addStrand(1, {}, {}, {});
    odd.addStrand(2, one, {}, {});
    odd.addStrand(3, same, {}, {0, 0.2f, 0.2f});
    odd.append(growHair(*scalp, {.strands = 200, .marked = false}));
    for (const auto& settings : tellingSettings()) {
        settings(bench.op());
        const StrandsPtr out = run(odd);
        EXPECT_TRUE(out->validate());
        EXPECT_TRUE(out->extent().finite);
        EXPECT_EQ(run(StrandSet())->strandCount(), 0u);
    }
}

}  // namespace
}  // namespace corvelle
