#include <cmath>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/collide.h"
#include "operators/collideKernels.h"
#include "operators/laneRuns.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

ScalpPtr shared(ScalpMesh mesh) { return std::make_shared<const ScalpMesh>(std::move(mesh)); }

CollideSurface byField(const ScalpPtr& mesh) { return {sharedDistanceField(mesh, 0.05f), nullptr}; }
CollideSurface byMesh(const ScalpPtr& mesh) { return {nullptr, sharedExactDistance(mesh)}; }

/// Strands rooted on a sphere of radius 10 that lean far over: some dip under it, some do not.
StrandsPtr makeLeaning(std::size_t strands, std::uint64_t seed, std::size_t points = 12) {
    StrandSet set;
    for (std::size_t s = 0; s < strands; ++s) {
        SplitMix random(hashCombine(seed, std::uint64_t(s)));
        const Vec3f out = normalized(
            {random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1) + 0.01f});
        const Vec3f side = anyPerpendicular(out);
        const float lean = random.nextRange(-0.5f, 3.0f), size = random.nextRange(0.5f, 4.0f);
        std::vector<Vec3f> p;
        for (std::size_t i = 0; i < points; ++i) {
            const float t = float(i) / float(points - 1);
            p.push_back(out * 10.0f + (out * lean + side) * (t * size) - out * (t * t * size));
        }
        set.addStrand(random.nextU64(), p, {}, {});
    }
    return std::make_shared<const StrandSet>(std::move(set));
}

class CollideTest : public testing::TestWithParam<bool> {  // by field, or exact
protected:
    const ScalpPtr sphere = shared(makeSphere(64, 128, 10.0f));
    const StrandsPtr strands = makeLeaning(2000, 4);
    const CollideSettings settings{};
    std::vector<CollideSurface> surfaces() const {
        return {GetParam() ? byField(sphere) : byMesh(sphere)};
    }
};
INSTANTIATE_TEST_SUITE_P(Methods, CollideTest, testing::Bool());

TEST_P(CollideTest, KeepsRootsAndLengthsAndLiftsStrandsOut) {
    const StrandsPtr out = collide(strands, surfaces(), settings);
    std::size_t moved = 0, untouched = 0, under = 0, before = 0;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const auto a = strands->pointsOf(s), b = out->pointsOf(s);
        EXPECT_EQ(a[0], b[0]);
        const bool same = std::memcmp(a.data(), b.data(), a.size_bytes()) == 0;
        EXPECT_EQ(same, !strandTouches(a, surfaces(), settings));
        (same ? untouched : moved)++;
        for (std::size_t i = 1; i < a.size(); ++i) {
            EXPECT_NEAR(distance(b[i], b[i - 1]), distance(a[i], a[i - 1]), 2e-5f);
            before += length(a[i]) < 9.95f;
            under += length(b[i]) < 9.95f;
        }
    }
    EXPECT_GT(moved, 300u);
    EXPECT_GT(untouched, 300u) << "nothing here could stay as it was";
    EXPECT_LT(under, before / 50);
    EXPECT_TRUE(out->sharesWidths(*strands) && out->sharesIds(*strands) &&
                out->sharesRoots(*strands));
}

TEST_P(CollideTest, LeavesPointsDeeperThanTheLimit) {
    CollideSettings shallow;
    shallow.maxDepth = 0.2f;
    StrandSet set;
    const std::vector<Vec3f> deep = {{0, 10, 0}, {0, 9, 0}, {0, 8, 0}};
    const std::vector<Vec3f> near = {{0, 10, 0}, {0.1f, 9.9f, 0}, {0.2f, 9.9f, 0}};
    set.addStrand(1, deep, {}, {});
    set.addStrand(2, near, {}, {});
    const auto in = std::make_shared<const StrandSet>(std::move(set));
    const StrandsPtr out = collide(in, surfaces(), shallow);
    EXPECT_EQ(out->pointsOf(0)[2], deep[2]);
    EXPECT_GT(length(out->pointsOf(1)[2]), 10.0f);
}

TEST_P(CollideTest, GivesTheSameBitsOnManyThreadsAndAStrandAloneAsInACrowd) {
    std::set<std::uint64_t> hashes;
    for (const unsigned threads : {1u, 2u, 8u})
        runWithThreads(
            threads, [&] { hashes.insert(collide(strands, surfaces(), settings)->contentHash()); });
    EXPECT_EQ(hashes.size(), 1u);
    const std::vector<std::uint32_t> some = {3, 400, 401, 1999};
    const auto few = std::make_shared<const StrandSet>(strands->subset(some));
    EXPECT_EQ(collide(few, surfaces(), settings)->contentHash(),
              collide(strands, surfaces(), settings)->subset(some).contentHash());
}

TEST_P(CollideTest, AnUpdateGivesTheBitsOfAFullRun) {
    for (std::uint64_t seed = 0; seed < 8; ++seed) {
        SplitMix random(seed);
        std::set<std::uint32_t> picked;
        for (std::size_t i = 0; i < 1 + 40 * seed; ++i)
            picked.insert(std::uint32_t(random.nextU64() % strands->strandCount()));
        const std::vector<std::uint32_t> changed(picked.begin(), picked.end());
        auto edited = std::make_shared<StrandSet>(*strands);
        const auto points = edited->mutablePoints();
        for (const std::uint32_t s : changed)
            for (std::size_t i = 1; i < strands->pointCountOf(s); ++i)
                points[strands->offsets()[s] + i] *= random.nextRange(0.9f, 1.1f);
        const StrandsPtr after = collideAfter(edited, collide(strands, surfaces(), settings),
                                              changed, surfaces(), settings);
        EXPECT_EQ(after->contentHash(), collide(edited, surfaces(), settings)->contentHash());
    }
}

TEST(Collide, TheFieldStaysWithinAFractionOfTheOffsetOfTheMesh) {
    const ScalpPtr sphere = shared(makeSphere(64, 128, 10.0f));
    const StrandsPtr strands = makeLeaning(500, 8);
    const std::vector<CollideSurface> field = {byField(sphere)}, mesh = {byMesh(sphere)};
    const StrandsPtr a = collide(strands, field, {}), b = collide(strands, mesh, {});
    std::size_t pushed = 0, held = 0;
    for (std::size_t i = 0; i < a->pointCount(); ++i) {
        if (strands->points()[i] == b->points()[i]) continue;
        std::int32_t nearTriangle = -1;
        DistanceSample clearance, wanted;
        mesh[0].exact->sample(b->points()[i], ScalpMesh::kAnyDistance, nearTriangle, wanted);
        mesh[0].exact->sample(a->points()[i], ScalpMesh::kAnyDistance, nearTriangle, clearance);
        ++pushed;
        held += clearance.distance > std::min(wanted.distance, 0.05f) - 0.25f * 0.05f;
    }
    EXPECT_GT(pushed, 500u);
    EXPECT_GT(held, pushed * 98 / 100);
}

TEST(Collide, PushesManyStrandsWithTheBitsOfOneAlone) {
    const ScalpPtr sphere = shared(makeSphere(64, 128, 10.0f)), ball = shared(makeSphere(32, 48, 4.0f));
    std::vector<Vec3f> moved(ball->points().begin(), ball->points().end());
    for (Vec3f& p : moved) p += Vec3f{0.0f, 12.0f, 0.0f};
    const std::vector<CollideSurface> surfaces = {byField(sphere), byField(ball->withPoints(moved))};
    const CollideSettings settings{.offset = 0.3f, .iterations = 3};
    auto made = std::make_shared<StrandSet>(*makeLeaning(1000, 6));
    const auto points = made->mutablePoints();
    for (std::size_t s = 0; s < 1000; s += 9) {  // off the grids, folded up, and no numbers
        const auto own = points.subspan(made->offsets()[s] + 1, 11);
        if (s % 4 == 0) own[5] = own[4];
        if (s % 4 == 1) own[3] = own[3] * 40.0f;
        if (s % 4 == 2) own[7].y = s % 8 == 2 ? NAN : INFINITY;
        if (s % 4 == 3) std::ranges::fill(own, points[made->offsets()[s]]);
    }
    const std::size_t n = 12;
    std::vector<Vec3f> wanted(points.size());
    std::vector<std::uint32_t> all(1000);
    std::size_t pushed = 0;
    for (std::uint32_t s = 0; s < 1000; ++s) {
        all[s] = s;
        const bool does = collideStrand(made->pointsOf(s), surfaces, settings, std::span(wanted).subspan(s * n, n));
        EXPECT_EQ(does, strandTouches(made->pointsOf(s), surfaces, settings));
        pushed += does;
    }
    EXPECT_GT(pushed, 300u);
    EXPECT_EQ(touchingStrands(*made, StrandPick(1000), surfaces, settings).size(), pushed);
    PushJob job{.fieldCount = 2, .offset = settings.offset, .maxDepth = settings.maxDepth, .iterations = 3};
    for (std::size_t k = 0; k < 2; ++k) job.fields[k] = surfaces[k].field->grid();
    for (const SplineLanes lanes : {SplineLanes::Four, SplineLanes::Eight, SplineLanes::Sixteen}) {
        std::vector<Vec3f> out(points.size());
        job.points = lanePoints(*made, all, out);
        LaneScratch scratch;
        collideKernels(lanes).push(job, 0, all.size(), n, scratch.of(n));
        EXPECT_EQ(std::memcmp(out.data(), wanted.data(), out.size() * sizeof(Vec3f)), 0);
        std::vector<std::uint32_t> places(points.size());
        for (std::uint32_t i = 0; i < places.size(); ++i) places[i] = i;
        std::vector<float> distances(places.size() + kMostLanes);
        collideKernels(lanes).distances(job.fields[0], &made->points()[0].x, places.data(), places.size(),
                                        distances.data());
        for (std::size_t i = 0; i < places.size(); ++i) {
            const float is = surfaces[0].field->distance(made->points()[i]);
            EXPECT_TRUE(distances[i] == is || (std::isnan(is) && std::isnan(distances[i])));
        }
    }
}

// ---- the node -----------------------------------------------------------------------------------

class CollideNodeTest : public testing::Test {
protected:
    static OperatorPtr make() {
        registerDeformOperators();
        return OperatorRegistry::instance().create("Collide");
    }
    static NodeInputs inputsOf(StrandsPtr strands, ScalpPtr scalp, ScalpPtr collider) {
        NodeInputs inputs;
        inputs.values.resize(3);
        inputs.connected = {bool(strands), bool(scalp), bool(collider)};
        if (strands) inputs.values[0] = strands;
        if (scalp) inputs.values[1] = MeshValue{scalp};
        if (collider) inputs.values[2] = MeshValue{collider};
        return inputs;
    }
    static StrandsPtr run(Operator& op, const NodeInputs& inputs) {
        const EvaluationData data;
        return std::get<StrandsPtr>(op.evaluate(EvalContext(data), inputs));
    }
    const StrandsPtr strands = makeLeaning(300, 2);
    const ScalpPtr sphere = shared(makeSphere(48, 96, 10.0f));
};

TEST_F(CollideNodeTest, PassesItsInputWithNothingToDoOrNothingToCollideWith) {
    const OperatorPtr op = make();
    EXPECT_EQ(run(*op, inputsOf(strands, nullptr, nullptr)), strands);
    EXPECT_EQ(op->takeWarnings(),
              std::vector<std::string>{"nothing to collide with: connect the scalp or a collider"});
    EXPECT_EQ(run(*op, inputsOf(strands, shared(makeSphere(8, 8, 1.0f)), nullptr)), strands);
    EXPECT_EQ(run(*op, inputsOf(strands, shared(ScalpMesh()), nullptr)), strands);
    EXPECT_TRUE(op->takeWarnings().empty());
    EXPECT_NE(run(*op, inputsOf(strands, sphere, nullptr)), strands);
    EXPECT_EQ(run(*op, inputsOf(strands, nullptr, sphere))->contentHash(),
              run(*op, inputsOf(strands, sphere, nullptr))->contentHash());
    try {
        run(*op, inputsOf(nullptr, sphere, nullptr));
        ADD_FAILURE() << "it ran without strands";
    } catch (const GraphError& error) {
        EXPECT_STREQ(error.what(), "Collide: strands input not connected");
    }
}

TEST_F(CollideNodeTest, GoesExactWhereAMeshHasNoField) {
    const ScalpPtr huge = shared(
        ScalpMesh({{-3e6f, 9.9f, -3e6f}, {3e6f, 9.9f, -3e6f}, {0, 9.9f, 3e6f}}, {{0, 2, 1}}));
    const OperatorPtr op = make();
    const StrandsPtr out = run(*op, inputsOf(strands, huge, nullptr));
    EXPECT_NE(out, strands);
    op->set("method", std::string("exact"));
    EXPECT_EQ(run(*op, inputsOf(strands, huge, nullptr))->contentHash(), out->contentHash());
}

TEST_F(CollideNodeTest, UpdatesTheListedStrandsAlone) {
    const OperatorPtr op = make();
    const NodeInputs inputs = inputsOf(strands, sphere, nullptr);
    std::vector<NodeValue> previous = {run(*op, inputs)};
    auto edited = std::make_shared<StrandSet>(*strands);
    for (Vec3f& p : edited->mutablePoints().subspan(edited->offsets()[7] + 1, 5)) p *= 0.97f;
    edited->mutableWidths()[0] = 0.5f;  // others' arrays come through
    const NodeInputs after = inputsOf(edited, sphere, nullptr);

    using Kind = SlotChanges::Kind;
    std::vector<SlotChanges> slots(3, SlotChanges{.kind = Kind::None});
    slots[0] = {.kind = Kind::Some,
                .changes = std::make_shared<const StrandChanges>(StrandChanges{false, {0, 7}})};
    const EvaluationData data;
    UpdateResult result;
    for (const Kind kind : {Kind::Some, Kind::Unknown}) {  // another mesh: in full
        std::vector<SlotChanges> moved = slots;
        moved[1].kind = kind;
        EXPECT_FALSE(op->update(EvalContext(data), after, {previous, moved}, result));
    }
    EXPECT_FALSE(op->update(EvalContext(data), after, {previous, slots, true}, result));
    ASSERT_TRUE(op->update(EvalContext(data), after, {previous, slots}, result));
    EXPECT_EQ(std::get<StrandsPtr>(result.outputs[0])->contentHash(),
              run(*op, after)->contentHash());
    EXPECT_EQ(result.changes[0]->strands, (std::vector<std::uint32_t>{0, 7}));
}

TEST_F(CollideNodeTest, ClampsItsParamsAndNamesItsChoices) {
    const OperatorPtr op = make();
    op->set("iterations", 400.0);
    op->set("offset", -1.0);
    EXPECT_EQ(op->whole("iterations"), 16);
    EXPECT_EQ(op->number("offset"), 0.0);
    op->set("method", std::string("guess"));
    EXPECT_THROW(run(*op, inputsOf(strands, sphere, nullptr)), GraphError);
}

}  // namespace
}  // namespace corvelle
