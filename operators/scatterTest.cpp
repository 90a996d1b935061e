#include "operators/scatter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <set>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/blueNoise.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

ScalpPtr shared(ScalpMesh mesh) { return std::make_shared<const ScalpMesh>(std::move(mesh)); }

/// A field that is a function of the place.
class PlaceField final : public FieldValue {
public:
    explicit PlaceField(std::function<float(Vec3f)> function) : function_(std::move(function)) {}
    float sampleAt(Vec3f position) const override { return function_(position); }
    float maxValue() const override { return 1.0f; }

private:
    std::function<float(Vec3f)> function_;
};

class ScatterTest : public testing::Test {
protected:
    ScatterTest() {
        registerScatterOperator();
        op = OperatorRegistry::instance().create("Scatter");
        data.growSegments = 5;
    }
    StrandsPtr run() { return run(*op); }
    StrandsPtr run(Operator& node) {
        NodeInputs inputs;
        inputs.values = {MeshValue{scalp}, {}};
        inputs.connected = {true, bool(guides)};
        if (guides) inputs.values[1] = guides;
        return std::get<StrandsPtr>(node.evaluate(EvalContext(data), inputs));
    }
    std::string failure() {
        try {
            run();
        } catch (const GraphError& error) {
            return error.what();
        }
        return {};
    }
    static std::map<std::uint64_t, Vec3f> rootsOf(const StrandSet& set) {
        std::map<std::uint64_t, Vec3f> out;
        for (std::size_t s = 0; s < set.strandCount(); ++s)
            out[set.ids()[s]] = set.pointsOf(s).front();
        return out;
    }
    static GuidesPtr guidesAt(std::initializer_list<Vec3f> roots, float tip) {
        std::vector<GuideCurve> curves;
        for (const Vec3f root : roots)
            curves.push_back({.id = curves.size() + 1, .points = {root, root + Vec3f{0, tip, 0}}});
        return std::make_shared<const GuideSet>(std::move(curves));
    }

    ScalpPtr scalp = shared(makePlane(20, 20, 10.0f));
    GuidesPtr guides;
    EvaluationData data;
    OperatorPtr op;
};

TEST_F(ScatterTest, GrowsStraightStrandsAlongTheNormal) {
    op->set("length", 2.5);
    const StrandsPtr out = run();
    std::string error;
    EXPECT_TRUE(out->validate(&error)) << error;
    EXPECT_NEAR(double(out->strandCount()), 20000.0, 600.0);
    for (std::size_t s = 0; s < out->strandCount(); s += 37) {
        ASSERT_EQ(out->pointCountOf(s), 6u);
        EXPECT_EQ(out->pointsOf(s)[0], scalp->surfacePoint(out->roots()[s]));
        for (std::size_t i = 0; i < 6; ++i)
            EXPECT_NEAR(out->pointsOf(s)[i].y, 0.5f * float(i), 1e-5f);
    }
    EXPECT_EQ(out->widths()[0], 1.0f);
}

TEST_F(ScatterTest, PreviewsAreSubsetsWhoseMarksAreTheSameAtEveryDensity) {
    for (const double randomness : {1.0, 0.0, 0.4}) {
        op->set("randomness", randomness);
        data.density = 1.0f;
        const StrandsPtr whole = run();
        data.density = 0.6f;
        const StrandsPtr part = run();
        data.density = 0.0f;
        const StrandsPtr least = run();
        EXPECT_NEAR(double(part->strandCount()), 0.6 * double(whole->strandCount()), 400.0);
        EXPECT_NEAR(double(least->strandCount()), 0.25 * double(whole->strandCount()), 400.0);
        const auto all = rootsOf(*whole), some = rootsOf(*part);
        for (const auto& [id, place] : some) EXPECT_EQ(all.at(id), place);
        for (const auto& [id, place] : rootsOf(*least)) EXPECT_EQ(some.at(id), place);
        for (const StrandsPtr& set : {whole, part, least}) {
            const std::vector<float>* marks = set->strandChannel("_preview");
            ASSERT_TRUE(marks);
            EXPECT_TRUE(set->strandChannels().at("_preview").discrete);
            for (std::size_t s = 0; s < set->strandCount(); ++s)
                EXPECT_EQ((*marks)[s], unitHash(set->ids()[s]) < 0.25f ? 1.0f : 0.0f);
        }
    }
    op->set("density", 40.0);  // 4,000 strands: never thinned
    EXPECT_NEAR(double(run()->strandCount()), 4000.0, 200.0);
    EXPECT_FALSE(run()->strandChannel("_preview"));
    op->set("density", 200.0);
    op->set("previewAll", true);
    EXPECT_NEAR(double(run()->strandCount()), 20000.0, 600.0);
}

TEST_F(ScatterTest, RandomnessMovesTheSameStrandsFromEvenToRandomAndBeyond) {
    op->set("density", 30.0);
    std::map<double, std::map<std::uint64_t, Vec3f>> roots;
    for (const double r : {0.0, 0.25, 1.0, 1.5}) {
        op->set("randomness", r);
        roots[r] = rootsOf(*run());
    }
    std::size_t moved = 0;
    for (const auto& [id, even] : roots[0.0]) {
        const Vec3f random = roots[1.0].at(id);
        EXPECT_LT(distance(roots[0.25].at(id), mix(even, random, 0.25f)), 1e-4f);
        if (std::fabs(random.x) < 4.0f && std::fabs(random.z) < 4.0f) {
            EXPECT_LT(distance(roots[1.5].at(id), mix(even, random, 1.5f)), 1e-4f);
        }
        moved += distance(even, random) > 0.01f;
    }
    EXPECT_GT(moved, roots[0.0].size() / 2);
    EXPECT_EQ(roots[1.5].size(), roots[0.0].size());
}

TEST_F(ScatterTest, GuideRadiusKeepsRootsNearGuides) {
    op->set("guideRadius", 1.0);
    EXPECT_GT(run()->strandCount(), 19000u);  // nothing connected: the whole scalp
    guides = guidesAt({{0, 0, 0}, {3, 0.5f, 3}}, 1.0f);
    const StrandsPtr near = run();
    EXPECT_NEAR(double(near->strandCount()), 200.0 * 3.14159 * (1.0 + 0.75), 120.0);
    for (const auto& [id, place] : rootsOf(*near))
        EXPECT_LE(std::min(length(place), distance(place, {3, 0.5f, 3})), 1.00001f);
    guides = std::make_shared<const GuideSet>();
    EXPECT_EQ(failure(), "Scatter: guideRadius needs guides on the guides input (a Guides node)");
}

TEST_F(ScatterTest, KeepsItsResultWhileOnlyGuideShapesChange) {
    EXPECT_FALSE(op->inputSelected(1));  // no stroke reaches it
    op->set("guideRadius", 1.0);
    EXPECT_TRUE(op->inputSelected(1));
    guides = guidesAt({{0, 0, 0}}, 1.0f);
    const StrandsPtr before = run();
    guides = guidesAt({{0, 0, 0}}, 2.0f);
    EXPECT_EQ(run(), before);  // the very same set

    std::vector<NodeValue> previous = {before};
    std::vector<SlotChanges> slots(2, SlotChanges{.kind = SlotChanges::Kind::None});
    slots[1] = {.kind = SlotChanges::Kind::Some,
                .changes = std::make_shared<const StrandChanges>(StrandChanges{false, {0}})};
    const auto update = [&](const GuidesPtr& now, bool own) {
        NodeInputs inputs;
        inputs.values = {MeshValue{scalp}, now};
        inputs.connected = {true, true};
        UpdateResult result;
        if (!op->update(EvalContext(data), inputs, {previous, slots, own}, result)) return false;
        EXPECT_EQ(std::get<StrandsPtr>(result.outputs[0]), before);
        EXPECT_TRUE(result.changes[0]->strands.empty() && !result.changes[0]->all);
        return true;
    };
    EXPECT_TRUE(update(guidesAt({{0, 0, 0}}, 3.0f), false));
    EXPECT_FALSE(update(guidesAt({{0, 0, 0}}, 3.0f), true));
    EXPECT_FALSE(update(guidesAt({{0.5f, 0, 0}}, 3.0f), false));
}

TEST_F(ScatterTest, RelaxesOncePerSpreadWhateverIsAskedAfter) {
    op->set("randomness", 0.0);
    const std::uint64_t start = relaxedSampleCount();
    const StrandsPtr first = run();
    const std::uint64_t once = relaxedSampleCount() - start;
    EXPECT_NEAR(double(once), 20000.0, 600.0);
    op->set("length", 3.0);
    data.density = 0.5f;
    run();
    op->set("randomness", 0.5);
    run();
    const OperatorPtr copy = OperatorRegistry::instance().create("Scatter");
    copy->copyParams(*op);
    copy->adoptState(*op);
    run(*copy);
    EXPECT_EQ(relaxedSampleCount() - start, once);
    op->set("randomness", 0.0);
    op->set("length", 1.0);
    data.density = 1.0f;
    EXPECT_EQ(run()->contentHash(), first->contentHash());
    EXPECT_EQ(relaxedSampleCount() - start, once);
    op->set("seed", 1.0);
    run();
    EXPECT_GT(relaxedSampleCount() - start, once);
}

TEST_F(ScatterTest, ADrivingFieldThinsAndGridsTakeItAsOdds) {
    const auto half = std::make_shared<const PlaceField>([](Vec3f p) { return p.x > 0.0f ? 1.0f : 0.0f; });
    op->drive("density", Operator::DrivenField{half, 200.0f});
    for (const double randomness : {1.0, 0.0}) {
        op->set("randomness", randomness);
        const StrandsPtr out = run();
        EXPECT_NEAR(double(out->strandCount()), 10000.0, 500.0);
        for (const auto& [id, place] : rootsOf(*out)) EXPECT_GT(place.x, -0.5f);
    }
    op->set("layout", std::string("uvGrid"));
    EXPECT_EQ(run()->strandCount(), 5000u);
    const auto none = std::make_shared<const PlaceField>([](Vec3f) { return 0.0f; });
    op->drive("density", Operator::DrivenField{none, 200.0f});
    EXPECT_EQ(run()->strandCount(), 0u);
    op->clearDriven();
    EXPECT_EQ(run()->strandCount(), 10000u);
    op->set("density", 0.0);  // a constant does not thin a grid
    EXPECT_EQ(run()->strandCount(), 10000u);
    op->set("layout", std::string("random"));
    EXPECT_EQ(run()->strandCount(), 0u);
}

TEST_F(ScatterTest, AMappedLengthIsEachStrandsOwn) {
    op->set("density", 10.0);
    op->drive("length", Operator::DrivenField{std::make_shared<const PlaceField>([](Vec3f p) {
                                                  return 6.0f + p.x;
                                              }),
                                              1.0f});
    const StrandsPtr out = run();
    for (std::size_t s = 0; s < out->strandCount(); ++s)
        EXPECT_NEAR(out->pointsOf(s).back().y, 6.0f + out->pointsOf(s)[0].x, 1e-4f);
    EXPECT_EQ(run(), out);
    op->drive("length", Operator::DrivenField{
                            std::make_shared<const PlaceField>([](Vec3f p) { return p.x; }), 1.0f});
    const StrandsPtr half = run();
    std::size_t flat = 0;
    for (std::size_t s = 0; s < half->strandCount(); ++s) {
        const float y = half->pointsOf(s).back().y, x = half->pointsOf(s)[0].x;
        EXPECT_NEAR(y, std::max(x, 0.0f), 1e-4f) << "a strand does not grow inward";
        flat += x < 0.0f;
    }
    EXPECT_GT(flat, half->strandCount() / 4);
}

TEST_F(ScatterTest, SaysWhatItCannotDo) {
    op->set("density", 1e30);
    EXPECT_EQ(failure(), "Scatter: density would create more than 50M strands");
    op->set("density", 1e39);
    EXPECT_EQ(failure(), "Scatter: the density (or the scalp's area) is not a finite number");
    op->set("density", 400000.0);
    data.growSegments = 99;
    EXPECT_EQ(failure(),
              "Scatter: 4000M points (strands x 100) is more than memory holds: lower the density or "
              "the Resample's segments");
    data.density = 0.1f;
    EXPECT_EQ(failure(),
              "Scatter: the preview would have 400M points (4000k strands x 100): lower the preview "
              "density, density or the Resample's segments");
    op->set("layout", std::string("uvGrid"));
    op->set("gridRows", 20000.0);
    op->set("gridColumns", 1e9);  // clamped to 20,000
    EXPECT_EQ(failure(), "Scatter: the grid would create more than 50M strands");
    scalp = shared(makeIcosphere(2, 1.0f));
    EXPECT_EQ(failure(), "Scatter: the uvGrid layout needs the scalp's UVs");
    scalp = nullptr;
    EXPECT_EQ(failure(), "Scatter: input scalp is not connected");
}

TEST_F(ScatterTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    for (const char* layout : {"random", "uvGrid"}) {
        std::set<std::uint64_t> hashes;
        for (const unsigned threads : {1u, 2u, 8u}) {
            const OperatorPtr fresh = OperatorRegistry::instance().create("Scatter");
            fresh->set("randomness", 0.3);
            fresh->set("layout", std::string(layout));
            runWithThreads(threads, [&] { hashes.insert(run(*fresh)->contentHash()); });
        }
        EXPECT_EQ(hashes.size(), 1u) << layout;
    }
}

}  // namespace
}  // namespace corvelle
