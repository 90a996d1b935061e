#include <cmath>
#include <functional>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "graph/graph.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/partData.h"
#include "model/polyline.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "operators/interpolate.h"
#include "operators/interpolateBlend.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

/// A source that gives what the test holds.
template <class Value>
class Held final : public Operator {
public:
    Held(const Value* value, PortType port, std::function<std::uint64_t()> stamp)
        : value_(value), port_(port), stamp_(std::move(stamp)) {}
    std::string type() const override { return "Held"; }
    std::string category() const override { return "source"; }
    std::string description() const override { return {}; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"out", port_}; }
    std::uint64_t sourceHash() const override { return stamp_(); }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override { return *value_; }

private:
    const Value* value_;
    PortType port_;
    std::function<std::uint64_t()> stamp_;
};

/// Strands and guides on a bumpy scalp, fed into an Interpolate node of a graph.
struct Salon {
    ScalpPtr scalp;
    StrandsPtr strands;
    GuidesPtr guides;
    MeshValue mesh;
    Graph graph;
    NodeId node = 0;
    EvaluationData data;

    explicit Salon(std::uint64_t seed, std::size_t guideCount = 40,
                   std::size_t strandCount = 1500) {
        registerInterpolateOperator();
        ScalpMesh made = makeSphere(24, 48, 6.0f);
        std::vector<Color4f> paint(3 * made.triangles().size());
        for (std::size_t t = 0; t < made.triangles().size(); ++t)
            for (std::size_t c = 0; c < 3; ++c) {
                const Vec3f p = made.points()[std::size_t(made.triangles()[t][c])];
                paint[3 * t + c] = p.x > 0.5f ? Color4f{1, 0, 0, 1} : Color4f{0, 0, 1, 1};
            }
        made.addColorSet("areas", paint);
        scalp = std::make_shared<const ScalpMesh>(std::move(made));
        mesh = {scalp, -1.0f};
        data.scalp = scalp;
        SplitMix random(seed);
        std::vector<GuideCurve> curves;
        for (std::size_t g = 0; g < guideCount; ++g) {
            const StrandRoot root = randomRoot(random);
            auto detail = std::make_shared<GuideDetail>();
            detail->attributes["stiff"] = random.nextFloat();
            detail->pointAttributes["mask"] = {0.0f, 0.5f, 1.0f};
            curves.push_back(
                {.id = g + 1,
                 .root = root,
                 .points = makeCurl(*scalp, root, 3 + random.nextU64() % 6, 4.0f, seed + g),
                 .detail = detail});
            curves.back().points.front() = scalp->surfacePoint(root);
            detail->pointAttributes["mask"].resize(curves.back().points.size(), 1.0f);
        }
        guides = std::make_shared<const GuideSet>(curves);
        StrandSet set;
        for (std::size_t s = 0; s < strandCount; ++s) {
            const StrandRoot root = randomRoot(random);
            const Vec3f from = scalp->surfacePoint(root), normal = scalp->surfaceNormal(root);
            std::vector<Vec3f> points;
            const std::size_t count = s % 7 == 0 ? 5 : 9;
            for (std::size_t j = 0; j < count; ++j)
                points.push_back(from + normal * (0.3f * float(j)));
            set.addStrand(mix64(seed + s), points, {}, root);
        }
        strands = std::make_shared<const StrandSet>(std::move(set));
        const NodeId a = graph.addNode(std::make_unique<Held<StrandsPtr>>(
            &strands, PortType::Strands, [this] { return strands->contentHash(); }));
        const NodeId b = graph.addNode(std::make_unique<Held<GuidesPtr>>(
            &guides, PortType::Guides, [this] { return guides->contentHash(); }));
        const NodeId c = graph.addNode(std::make_unique<Held<MeshValue>>(
            &mesh, PortType::Mesh, [this] { return mesh.mesh->fullHash(); }));
        node = graph.addNode(OperatorRegistry::instance().create("Interpolate"));
        graph.connect(a, 0, node, 0);
        graph.connect(b, 0, node, 1);
        graph.connect(c, 0, node, 2);
    }
    Salon(const Salon&) = delete;

    StrandRoot randomRoot(SplitMix& random) const {
        const auto triangle = std::int32_t(random.nextU64() % scalp->triangles().size());
        const float a = std::sqrt(random.nextFloat()), b = random.nextFloat();
        return {triangle, 1.0f - a, a * (1.0f - b)};
    }
    StrandsPtr evaluate() { return std::get<StrandsPtr>(graph.evaluate(node, data)); }
    void set(const std::string& name, ParamValue value) {
        graph.setParam(node, name, std::move(value));
    }
    void editGuide(std::size_t g, const std::function<void(GuideCurve&)>& edit) {
        std::vector<GuideCurve> curves = guides->curves();
        edit(curves[g]);
        guides = std::make_shared<const GuideSet>(curves);
    }
};

class InterpolateTest : public testing::TestWithParam<std::uint64_t> {
protected:
    void SetUp() override { setVerifyIncremental(true); }
    void TearDown() override { setVerifyIncremental(false); }
};
INSTANTIATE_TEST_SUITE_P(Seeds, InterpolateTest, testing::Range<std::uint64_t>(0, 6));

TEST_P(InterpolateTest, KeepsRootsLayoutAndTheGuidesMeanLength) {
    Salon salon(GetParam());
    salon.set("keepClearance", false);
    const StrandsPtr out = salon.evaluate();
    ASSERT_TRUE(out->sameLayout(*salon.strands));
    std::string error;
    EXPECT_TRUE(out->validate(&error)) << error;
    float least = 1e9f, most = 0.0f;
    for (std::size_t g = 0; g < salon.guides->size(); ++g) {
        const float length = polylineLength(salon.guides->pointsOf(g));
        least = std::min(least, length);
        most = std::max(most, length);
    }
    std::size_t turned = 0, kept = 0;
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        EXPECT_EQ(out->pointsOf(s)[0], salon.strands->pointsOf(s)[0]);
        turned += distance(out->pointsOf(s).back(), salon.strands->pointsOf(s).back()) > 0.1f;
        const float length = polylineLength(out->pointsOf(s));
        kept += length > 0.85f * least && length < 1.1f * most;  // smooth, then straight again
    }
    EXPECT_GT(turned, out->strandCount() * 9 / 10);
    EXPECT_GT(kept, out->strandCount() * 9 / 10);
}

TEST_P(InterpolateTest, GivesTheSameBitsOnAnyNumberOfThreadsAndInAThinnedView) {
    Salon salon(GetParam());
    salon.set("limitDistance", 1.5);
    salon.set("regionMap", std::string("areas"));
    StrandsPtr made[3];
    const unsigned threads[] = {1, 2, 8};
    for (int i = 0; i < 3; ++i) {
        Salon again(GetParam());
        again.set("limitDistance", 1.5);
        again.set("regionMap", std::string("areas"));
        runWithThreads(threads[i], [&] { made[i] = again.evaluate(); });
    }
    EXPECT_EQ(made[0]->contentHash(), made[1]->contentHash());
    EXPECT_EQ(made[0]->contentHash(), made[2]->contentHash());
    salon.strands = std::make_shared<const StrandSet>(salon.strands->thinned(0.3f));
    EXPECT_EQ(salon.evaluate()->contentHash(), made[0]->thinned(0.3f).contentHash());
}

TEST_P(InterpolateTest, UpdatesInProportionToTheGuidesThatChanged) {
    Salon salon(GetParam());
    SplitMix random(GetParam() + 99);
    if (GetParam() % 2) salon.set("limitDistance", 2.0);
    if (GetParam() % 3 == 1) salon.set("regionMap", std::string("areas"));
    if (GetParam() == 5) salon.set("take", std::string("length"));
    salon.evaluate();
    std::uint64_t incremental = salon.graph.nodesIncremental();
    for (int step = 0; step < 12; ++step) {
        const std::size_t g = random.nextU64() % salon.guides->size();
        salon.editGuide(g, [&](GuideCurve& curve) {
            for (std::size_t j = 1; j < curve.points.size(); ++j)
                curve.points[j] += Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), 0.2f};
            auto detail = std::make_shared<GuideDetail>(*curve.detail);
            detail->attributes["stiff"] = random.nextFloat();
            curve.detail = detail;
        });
        if (step % 4 == 3) {  // strands changed as well, their roots where they were
            StrandSet moved = *salon.strands;
            moved.mutablePoints()[moved.offsets()[10 + std::size_t(step)] + 2].x += 0.5f;
            salon.strands = std::make_shared<const StrandSet>(std::move(moved));
        }
        salon.evaluate();  // throws when the update differs from a full run
        EXPECT_GT(salon.graph.nodesIncremental(), incremental);
        incremental = salon.graph.nodesIncremental();
        const auto changes = salon.graph.node(salon.node).changes[0];
        ASSERT_TRUE(changes);
        EXPECT_LT(changes->strands.size(), salon.strands->strandCount() * 3 / 5);
    }
    // A root that moves, a guide that goes and a new attribute make everything anew.
    salon.editGuide(3, [&](GuideCurve& c) { c.points[0] += Vec3f{0.1f, 0, 0}; });
    salon.evaluate();
    salon.editGuide(2, [&](GuideCurve& c) {
        auto detail = std::make_shared<GuideDetail>(*c.detail);
        detail->attributes["fresh"] = 2.0f;
        c.detail = detail;
    });
    EXPECT_TRUE(salon.evaluate()->strandChannel("fresh"));
    salon.editGuide(2, [&](GuideCurve& c) {
        auto detail = std::make_shared<GuideDetail>(*c.detail);
        detail->attributes.erase("fresh");
        c.detail = detail;
    });
    EXPECT_FALSE(salon.evaluate()->strandChannel("fresh"));
}

TEST_P(InterpolateTest, OneGuideShapesAllAndOneNeighborMakesHardEdges) {
    Salon one(GetParam(), 1, 200);
    one.set("keepClearance", false);
    one.set("reach", 0.1);
    const StrandsPtr all = one.evaluate();
    const auto guide = one.guides->pointsOf(0);
    for (std::size_t s = 0; s < 200; ++s) {
        const Rotation turn = Rotation::shortest(one.scalp->surfaceNormal(one.guides->roots()[0]),
                                                 one.scalp->surfaceNormal(one.strands->roots()[s]));
        const Vec3f tip = all->pointsOf(s)[0] + turn(guide.back() - guide.front());
        EXPECT_LT(distance(all->pointsOf(s).back(), tip), 0.15f) << "up to the chords of the curve";
        EXPECT_EQ((*all->strandChannel("stiff"))[s], one.guides->attribute(0, "stiff"));
    }
    Salon hard(GetParam());
    hard.set("neighbors", 1.0);
    hard.set("followSurface", false);
    const StrandsPtr out = hard.evaluate();
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        std::size_t nearest = 0;
        for (std::size_t g = 1; g < hard.guides->size(); ++g)
            if (distance(hard.guides->pointsOf(g)[0], out->pointsOf(s)[0]) <
                distance(hard.guides->pointsOf(nearest)[0], out->pointsOf(s)[0]))
                nearest = g;
        EXPECT_EQ((*out->strandChannel("stiff"))[s], hard.guides->attribute(nearest, "stiff"));
    }
}

TEST_P(InterpolateTest, IdsOnGuidesAreTakenOverAndNeverMixed) {
    Salon salon(GetParam());
    std::vector<GuideCurve> curves = salon.guides->curves();
    for (std::size_t g = 0; g < curves.size(); ++g) {
        auto detail = std::make_shared<GuideDetail>(*curves[g].detail);
        detail->attributes["clumpId"] = float(1000 * (g + 1));
        curves[g].detail = std::move(detail);
    }
    salon.guides = std::make_shared<const GuideSet>(curves);
    const StrandsPtr out = salon.evaluate();
    const StrandSet::Channels& channels = out->strandChannels();
    EXPECT_TRUE(channels.find("clumpId")->second.discrete);
    EXPECT_FALSE(channels.find("stiff")->second.discrete);
    std::set<float> ids;
    for (const float id : *out->strandChannel("clumpId")) {
        EXPECT_EQ(std::fmod(id, 1000.0f), 0.0f);
        ids.insert(id);
    }
    EXPECT_GT(ids.size(), curves.size() / 2);
}

TEST(Interpolate, RestoresAShortBlendByAtMostTwiceItsLength) {
    // Two guides that lean apart, a strand between them.
    const auto plane = std::make_shared<const ScalpMesh>(makePlane(2, 2, 10.0f));
    const auto leaning = [&](float x, float lean) {
        SurfaceHit hit;
        EXPECT_TRUE(plane->closestPoint({x, 0, 0}, 1.0f, hit));
        return GuideCurve{.root = hit.root(), .points = {{x, 0, 0}, {x + lean, 1e-3f, 0}}};
    };
    for (const float lift : {1e-3f, 2.0f}) {
        GuideCurve a = leaning(-1, -1), b = leaning(1, 1);
        a.id = 1;
        b.id = 2;
        a.points[1].y = b.points[1].y = lift;
        const GuideSet guides({a, b});
        WeightTable weights;
        weights.offsets = {0, 2};
        weights.pairs = {{0, 0.5f}, {1, 0.5f}};
        weights.nearest = {1.0f};
        GuideShapeCache cache;
        const std::vector<Vec3f> up(2, Vec3f{0, 1, 0});
        const std::size_t counts[] = {2};
        const auto shapes = cache.shapes(guides, up, counts, true);
        StrandSet in;
        in.addStrand(5, std::vector<Vec3f>{{0, 0, 0}, {0, 1, 0}}, {}, {});
        std::vector<Vec3f> out(2);
        const std::uint32_t first[] = {0};
        blendStrands(in, first, {&weights, shapes, up}, {}, out);
        const float full = std::hypot(1.0f, lift);
        EXPECT_NEAR(out[1].y, std::min(full, 2.0f * lift), 1e-5f);
        blendStrands(in, first, {&weights, shapes, up}, {.preserveLength = false}, out);
        EXPECT_NEAR(out[1].y, lift, 1e-6f);
        blendStrands(in, first, {&weights, shapes, up}, {.takeLength = true}, out);
        EXPECT_NEAR(out[1].y, full, 1e-5f);
    }
}

TEST(Interpolate, TurnsGuidesByTheShortestArcAlsoTheWholeWayRound) {
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        SplitMix random(seed);
        const auto unit = [&] {
            return normalized(
                Vec3f{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)});
        };
        const Vec3f from = unit(), tip = unit();
        const Vec3f to = seed % 3 == 0   ? -from
                         : seed % 3 == 1 ? normalized(unit() * 1e-3f - from)
                                         : unit();
        const GuideSet guides(std::vector<GuideCurve>{{.id = 1, .points = {{0, 0, 0}, tip}}});
        WeightTable weights;
        weights.offsets = {0, 1};
        weights.pairs = {{0, 1.0f}};
        weights.nearest = {0.0f};
        GuideShapeCache cache;
        const std::size_t counts[] = {2};
        const auto shapes = cache.shapes(guides, {&from, 1}, counts, true);
        StrandSet in;
        in.addStrand(5, std::vector<Vec3f>{{0, 0, 0}, {0, 1, 0}}, {}, {});
        std::vector<Vec3f> out(2);
        const std::uint32_t first[] = {0};
        blendStrands(in, first, {&weights, shapes, {&to, 1}}, {}, out);
        EXPECT_LT(distance(out[1], Rotation::shortest(from, to)(tip)), 2e-3f) << seed;
    }
}

TEST(Interpolate, LimitsHowFarGuidesReach) {
    Salon salon(3, 12);
    salon.set("keepClearance", false);
    EXPECT_FALSE(salon.evaluate()->strandChannel("guideInfluence")) << "no limit, no channel";
    salon.set("limitDistance", 1.0);
    const StrandsPtr out = salon.evaluate();
    const std::vector<float>* influence = out->strandChannel("guideInfluence");
    ASSERT_TRUE(influence);
    std::size_t kept = 0, between = 0;
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        const float w = (*influence)[s];
        between += w > 0.0f && w < 1.0f;
        if (w != 0.0f) continue;
        ++kept;
        EXPECT_TRUE(std::ranges::equal(out->pointsOf(s), salon.strands->pointsOf(s)));
    }
    EXPECT_GT(kept, 100u);
    EXPECT_GT(between, 100u);
    salon.set("influenceChannel", std::string());
    EXPECT_FALSE(salon.evaluate()->strandChannel("guideInfluence"));
}

TEST(Interpolate, KeepsWithinPaintedRegions) {
    Salon salon(4);
    salon.set("regionMap", std::string("areas"));
    const StrandsPtr out = salon.evaluate();
    ASSERT_TRUE(out->strandChannel("region"));
    EXPECT_TRUE(out->strandChannels().find("region")->second.discrete);
    std::size_t counts[3] = {};
    for (const float r : *out->strandChannel("region")) ++counts[int(r) + 1];
    EXPECT_GT(counts[1], 300u);
    EXPECT_GT(counts[2], 300u);
    salon.set("regionMap", std::string("nothing of that name"));
    try {
        salon.evaluate();
        FAIL();
    } catch (const GraphError& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr(
                                      "Interpolate: no map or image named 'nothing of that name'"));
    }
}

TEST(Interpolate, DoesNotBlendAcrossDrawnParts) {
    Salon salon(5);
    PartData part{{{"middle", {}}}};
    SurfaceHit hit;
    for (int i = 0; i <= 40; ++i) {  // once round the sphere, in the plane x = 0.3
        const float angle = 6.2831853f * float(i) / 40.0f;
        ASSERT_TRUE(
            salon.scalp->closestPoint({0.3f, 6 * std::cos(angle), 6 * std::sin(angle)}, 3.0f, hit));
        part.lines[0].points.push_back(hit.root());
    }
    salon.data.parts = partLinesOn(part, salon.scalp);
    std::vector<GuideCurve> curves = salon.guides->curves();
    for (GuideCurve& curve : curves) {
        auto detail = std::make_shared<GuideDetail>(*curve.detail);
        detail->attributes["stiff"] = curve.points[0].x > 0.3f ? 1.0f : 0.0f;
        curve.detail = detail;
    }
    salon.guides = std::make_shared<const GuideSet>(curves);
    const auto mixed = [&] {
        const StrandsPtr out = salon.evaluate();
        std::size_t count = 0;
        for (std::size_t s = 0; s < out->strandCount(); ++s) {
            const float x = out->pointsOf(s)[0].x;
            if (std::abs(x - 0.3f) > 0.05f)
                count +=
                    std::abs((*out->strandChannel("stiff"))[s] - (x > 0.3f ? 1.0f : 0.0f)) > 1e-4f;
        }
        return count;
    };
    EXPECT_EQ(mixed(), 0u);
    salon.set("respectParts", false);
    EXPECT_GT(mixed(), 100u);
}

TEST(Interpolate, SaysWhatIsMissing) {
    Salon salon(6, 5, 10);
    salon.guides = std::make_shared<const GuideSet>();
    EXPECT_EQ(salon.evaluate(), salon.strands);
    EXPECT_EQ(salon.graph.warnings().at(salon.node),
              "no guides: place some with the guide tools; the strands keep their incoming shape");
    const auto fails = [&](const char* text) {
        try {
            salon.evaluate();
            ADD_FAILURE() << "no error";
        } catch (const GraphError& error) {
            EXPECT_THAT(error.what(), testing::EndsWith(text));
        }
    };
    salon.set("take", std::string("colour"));
    fails("Interpolate: take must be shape or length");
    salon.graph.disconnect(salon.node, 0);
    fails("Interpolate: strands input not connected");
}

TEST(Interpolate, CarriesAttributesByTheGuidesArcLength) {
    Salon salon(7, 1, 20);
    salon.editGuide(0, [](GuideCurve& c) {
        auto detail = std::make_shared<GuideDetail>(*c.detail);
        c.points = {c.points[0], c.points[0] + Vec3f{0, 1, 0}, c.points[0] + Vec3f{0, 4, 0}};
        detail->pointAttributes["mask"] = {0.0f, 1.0f, 1.0f};
        c.detail = detail;
    });
    const StrandsPtr out = salon.evaluate();
    const std::vector<float>* mask = out->pointChannel("mask");
    ASSERT_TRUE(mask);
    const std::size_t first = std::size_t(out->offsets()[1]);  // 9 points, half a cm apart
    EXPECT_NEAR((*mask)[first + 1], 0.5f, 1e-4f);
    EXPECT_NEAR((*mask)[first + 2], 1.0f, 1e-4f);
    EXPECT_EQ((*mask)[first + 8], 1.0f);
}

/// A sheet with a bump in its middle; four guides that lie low over the flat part around it.
struct Bump {
    ScalpPtr scalp;
    GuidesPtr guides;
    StrandsPtr strands;
    EvaluationData data;
    NodeInputs inputs;
    OperatorPtr op;

    static Vec3f lifted(Vec3f p) {
        return {p.x, 1.5f * std::exp(-(p.x * p.x + p.z * p.z) / 2.0f), p.z};
    }
    explicit Bump(bool deformed = false) {
        const ScalpMesh plane = makePlane(40, 40, 20.0f);
        std::vector<Vec3f> points;
        for (const Vec3f p : plane.points()) points.push_back(lifted(p));
        ScalpMesh bumpy(points, {plane.triangles().begin(), plane.triangles().end()});
        if (deformed) {  // carried off and turned on its side since
            bumpy.setRestPoints(points);
            for (Vec3f& p : points) p = Vec3f{-p.y, p.x, p.z} + Vec3f{50, 0, 0};
            scalp = std::make_shared<const ScalpMesh>(std::move(bumpy))->withPoints(points);
        } else {
            scalp = std::make_shared<const ScalpMesh>(std::move(bumpy));
        }
        const auto place = [&](Vec3f p) {
            return deformed ? Vec3f{-p.y, p.x, p.z} + Vec3f{50, 0, 0} : p;
        };
        const auto strand = [&](Vec3f from, std::size_t count, StrandRoot& root) {
            SurfaceHit hit;
            EXPECT_TRUE(scalp->closestPoint(place(lifted(from)), 1.0f, hit));
            root = hit.root();
            std::vector<Vec3f> out{hit.position};
            for (std::size_t j = 1; j < count; ++j)  // lies along x, 0.3 above the flat
                out.push_back(
                    place(Vec3f{from.x + 6.0f * float(j) / float(count - 1), 0.3f, from.z}));
            return out;
        };
        std::vector<GuideCurve> curves;
        for (const float z : {-8.0f, -7.0f, 7.0f, 8.0f}) {
            GuideCurve curve{.id = curves.size() + 1};
            curve.points = strand({-3, 0, z}, 7, curve.root);
            curves.push_back(std::move(curve));
        }
        guides = std::make_shared<const GuideSet>(curves);
        StrandSet set;
        for (int i = 0; i < 60; ++i) {
            StrandRoot root;
            const auto made = strand({-3, 0, -8.0f + 16.0f * float(i) / 59.0f}, 13, root);
            set.addStrand(std::uint64_t(i + 1), made, {}, root);
        }
        strands = std::make_shared<const StrandSet>(std::move(set));
        registerInterpolateOperator();
        op = OperatorRegistry::instance().create("Interpolate");
        data.scalp = scalp;
        inputs.values = {strands, guides, MeshValue{scalp, -1.0f}};
        inputs.connected = {true, true, true};
        inputs.hashes = {1, 2, 3};
    }
    StrandsPtr evaluate() { return std::get<StrandsPtr>(op->evaluate(EvalContext(data), inputs)); }
    float lowest(const StrandSet& set) const {
        const ExactDistance exact(scalp);
        float least = 1e9f;
        for (std::size_t s = 0; s < set.strandCount(); ++s)
            for (std::size_t j = 3; j < set.pointCountOf(s); ++j) {
                DistanceSample sample;
                std::int32_t near = -1;
                if (exact.sample(set.pointsOf(s)[j], 100.0f, near, sample))
                    least = std::min(least, sample.distance);
            }
        return least;
    }
};

TEST(Interpolate, LiftsOutWhatWouldSinkIntoABump) {
    for (const bool deformed : {false, true}) {
        Bump bump(deformed);
        const StrandsPtr kept = bump.evaluate();
        EXPECT_EQ(bump.op->takeDetails(),
                  deformed ? "it keeps clearance over a deformed scalp" : "");
        bump.op->set("keepClearance", false);
        const StrandsPtr sunk = bump.evaluate();
        EXPECT_EQ(bump.op->takeDetails(), "it does not keep clearance");
        EXPECT_LT(bump.lowest(*sunk), -0.5f) << "this bump is too low to prove anything";
        EXPECT_GT(bump.lowest(*kept), 0.15f);
        std::size_t same = 0;
        for (std::size_t s = 0; s < kept->strandCount(); ++s) {
            EXPECT_EQ(kept->pointsOf(s)[0], bump.strands->pointsOf(s)[0]);
            EXPECT_NEAR(polylineLength(kept->pointsOf(s)), polylineLength(sunk->pointsOf(s)),
                        1e-3f);
            same += std::ranges::equal(kept->pointsOf(s), sunk->pointsOf(s));
        }
        EXPECT_GT(same, 5u) << "strands away from the bump are let be";
        EXPECT_LT(same, 55u);
    }
}

TEST(Interpolate, SaysWhyAScalpKeepsNoClearance) {
    Bump bump;
    const auto flat = std::make_shared<const ScalpMesh>(std::vector<Vec3f>(3, Vec3f{1, 1, 1}),
                                                        std::vector<Triangle>{{0, 1, 2}});
    bump.inputs.values[2] = MeshValue{flat, -1.0f};
    bump.evaluate();
    EXPECT_EQ(bump.op->takeDetails(), "its scalp has no size");
    const auto huge =
        std::make_shared<const ScalpMesh>(std::vector<Vec3f>{{0, 0, 0}, {1e7f, 0, 0}, {0, 0, 1e7f}},
                                          std::vector<Triangle>{{0, 1, 2}});
    bump.inputs.values[2] = MeshValue{huge, -1.0f};
    bump.evaluate();
    EXPECT_EQ(bump.op->takeDetails(), "its scalp is too big for the clearance field's grid");
    bump.inputs.values[2] = NodeValue{};
    bump.evaluate();
    EXPECT_EQ(bump.op->takeDetails(), "it does not keep clearance");
}

TEST(Interpolate, FollowsOtherPointCountsOnTheSameRoots) {
    Salon salon(8);
    salon.evaluate();
    StrandSet finer;
    for (std::size_t s = 0; s < salon.strands->strandCount(); ++s) {
        std::vector<Vec3f> points(s % 3 == 0 ? 12 : 3 + s % 20);
        resamplePolyline(salon.strands->pointsOf(s), points);
        finer.addStrand(salon.strands->ids()[s], points, {}, salon.strands->roots()[s]);
    }
    salon.strands = std::make_shared<const StrandSet>(std::move(finer));
    const StrandsPtr after = salon.evaluate();
    Salon fresh(8);
    fresh.strands = salon.strands;
    EXPECT_EQ(after->contentHash(), fresh.evaluate()->contentHash());
}

TEST(Interpolate, KeepsItsCachesWhenAParamRebuildsIt) {
    Bump bump;
    const StrandsPtr made = bump.evaluate();
    const OperatorPtr next = OperatorRegistry::instance().create("Interpolate");
    next->adoptState(*bump.op);
    next->adoptState(*next);
    const SlotChanges none{.kind = SlotChanges::Kind::None};
    const auto change = std::make_shared<StrandChanges>(StrandChanges{.strands = {1}});
    const SlotChanges slots[] = {none, {.kind = SlotChanges::Kind::Some, .changes = change}, none};
    std::vector<NodeValue> held = {made};
    UpdateResult result;  // works from the weights alone, which only the first node made
    EXPECT_TRUE(next->update(EvalContext(bump.data), bump.inputs,
                             {.previous = held, .inputs = slots}, result));
    EXPECT_EQ(std::get<StrandsPtr>(result.outputs[0])->contentHash(), made->contentHash());
}

}  // namespace
}  // namespace corvelle
