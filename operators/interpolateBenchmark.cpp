#include <algorithm>
#include <cmath>
#include <numeric>

#include <benchmark/benchmark.h>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "operators/interpolateBlend.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

constexpr std::size_t kGuides = 2000;
constexpr std::size_t kStrands = 100'000;
constexpr std::size_t kPoints = 16;

StrandRoot randomRoot(const ScalpMesh& mesh, SplitMix& random) {
    const auto triangle = std::int32_t(random.nextU64() % mesh.triangles().size());
    const float a = std::sqrt(random.nextFloat()), b = random.nextFloat();
    return {triangle, 1.0f - a, a * (1.0f - b)};
}

/// A guide combed down the sphere: out of the skin, then along it.
std::vector<Vec3f> combedGuide(const ScalpMesh& mesh, const StrandRoot& root) {
    const Vec3f from = mesh.surfacePoint(root), normal = mesh.surfaceNormal(root);
    const Vec3f down = normalized(Vec3f{0, -1, 0} + normal * normal.y);
    std::vector<Vec3f> points;
    for (int j = 0; j < 12; ++j) {
        const float t = float(j) / 11.0f;
        points.push_back(from + down * (6.0f * t * t) + normal * (1.5f * t * (2.0f - t)));
    }
    return points;
}

/// 2,000 guides of 12 points and 100,000 strands of 16 on a sphere of 200,000 triangles.
struct Load {
    ScalpPtr scalp = std::make_shared<const ScalpMesh>(makeSphere(224, 448, 10.0f));
    GuidesPtr guides, combed;
    StrandsPtr strands;
    EvaluationData data;
    NodeInputs inputs;

    Load() {
        SplitMix random(7);
        std::vector<GuideCurve> curves;
        for (std::size_t g = 0; g < kGuides; ++g) {
            const StrandRoot root = randomRoot(*scalp, random);
            curves.push_back(
                {.id = g + 1, .root = root, .points = makeCurl(*scalp, root, 12, 8.0f, g)});
        }
        guides = std::make_shared<const GuideSet>(curves);
        for (GuideCurve& curve : curves) curve.points = combedGuide(*scalp, curve.root);
        combed = std::make_shared<const GuideSet>(curves);
        std::vector<StrandRoot> roots(kStrands);
        for (StrandRoot& root : roots) root = randomRoot(*scalp, random);
        std::ranges::stable_sort(roots, {}, &StrandRoot::triangle);  // as Scatter leaves them
        StrandSet set;
        set.allocateUniform(kStrands, kPoints);
        for (std::size_t s = 0; s < kStrands; ++s) {
            const StrandRoot root = roots[s];
            set.mutableIds()[s] = mix64(s);
            set.mutableRoots()[s] = root;
            const Vec3f from = scalp->surfacePoint(root), normal = scalp->surfaceNormal(root);
            for (std::size_t j = 0; j < kPoints; ++j)
                set.mutablePoints()[s * kPoints + j] = from + normal * (0.05f * float(j));
        }
        strands = std::make_shared<const StrandSet>(std::move(set));
        data.scalp = scalp;
        inputs.values = {strands, guides, MeshValue{scalp, -1.0f}};
        inputs.connected = {true, true, true};
        inputs.hashes = {1, 2, 3};
    }
    static Load& get() {
        static Load load;
        return load;
    }
    OperatorPtr node(bool clearance = false) const {
        registerInterpolateOperator();
        OperatorPtr op = OperatorRegistry::instance().create("Interpolate");
        op->set("keepClearance", clearance);
        return op;
    }
};

/// The tables that both forms read.
struct Tables {
    WeightTable weights;
    std::vector<Vec3f> guideNormals, strandNormals, relative;  ///< relative [guides][kPoints]
    std::vector<GuideShapesPtr> shapes;

    explicit Tables(const Load& load) {
        std::vector<Vec3f> guidePlaces, strandPlaces;
        for (std::size_t g = 0; g < kGuides; ++g) {
            guidePlaces.push_back(load.guides->pointsOf(g)[0]);
            guideNormals.push_back(load.scalp->surfaceNormal(load.guides->roots()[g]));
        }
        for (std::size_t s = 0; s < kStrands; ++s) {
            strandPlaces.push_back(load.strands->pointsOf(s)[0]);
            strandNormals.push_back(load.scalp->surfaceNormal(load.strands->roots()[s]));
        }
        const WeightSettings settings;
        const GuideReach reach({load.guides->roots(), guidePlaces, {}}, settings,
                               SurfaceGraph::of(load.scalp));
        weights = interpolationWeights({load.strands->roots(), strandPlaces, {}}, kGuides, reach,
                                       settings, nullptr);
        GuideShapeCache cache;
        const std::size_t counts[] = {kPoints};
        shapes = cache.shapes(*load.guides, guideNormals, counts, true);
        for (std::size_t g = 0; g < kGuides; ++g)
            for (std::size_t j = 0; j < kPoints; ++j) {
                const float* x = shapes[0]->of(g);
                const Vec3f turned{x[j], x[shapes[0]->stride + j], x[2 * shapes[0]->stride + j]};
                relative.push_back(halfTurn(guideNormals[g], turned));  // back as it was
            }
    }
    static const Tables& get() {
        static const Tables tables(Load::get());
        return tables;
    }
};

/// The bare blend loop on flat arrays: turn, weigh, add, and scale to the guides' length.
void blendPlain(const Load& load, const Tables& tables, std::span<Vec3f> out) {
    const StrandSet& in = *load.strands;
    parallelRange(0, kStrands, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            Vec3f sum[kPoints] = {};
            float wanted = 0.0f;
            for (const GuideWeight& pair : tables.weights.of(s)) {
                const Vec3f a = tables.guideNormals[pair.guide], b = tables.strandNormals[s];
                const Vec3f v = cross(a, b);
                const float c = dot(a, b), h = 1.0f / (1.0f + c);
                const Rotation turn{{c + h * v.x * v.x, h * v.x * v.y - v.z, h * v.x * v.z + v.y},
                                    {h * v.x * v.y + v.z, c + h * v.y * v.y, h * v.y * v.z - v.x},
                                    {h * v.x * v.z - v.y, h * v.y * v.z + v.x, c + h * v.z * v.z}};
                const Vec3f* guide = tables.relative.data() + pair.guide * kPoints;
                for (std::size_t j = 0; j < kPoints; ++j) sum[j] += turn(guide[j]) * pair.weight;
                wanted += pair.weight * tables.shapes[0]->lengths[pair.guide];
            }
            const float scale = std::min(wanted / polylineLength(sum), 2.0f);
            const Vec3f root = in.points()[s * kPoints];
            for (std::size_t j = 0; j < kPoints; ++j) out[s * kPoints + j] = root + sum[j] * scale;
        }
    });
}

/// The same without turning and scaling: the least that blending can be.
void blendFlat(const Load& load, const Tables& tables, std::span<Vec3f> out) {
    const StrandSet& in = *load.strands;
    parallelRange(0, kStrands, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            float sum[3 * kPoints] = {};
            for (const GuideWeight& pair : tables.weights.of(s)) {
                const float* guide = &tables.relative[pair.guide * kPoints].x;
                const float weight = pair.weight;
                for (std::size_t f = 0; f < 3 * kPoints; ++f) sum[f] += guide[f] * weight;
            }
            const Vec3f root = in.points()[s * kPoints];
            for (std::size_t j = 0; j < kPoints; ++j)
                out[s * kPoints + j] = root + Vec3f{sum[3 * j], sum[3 * j + 1], sum[3 * j + 2]};
        }
    });
}

template <auto Variant>
void timePlain(benchmark::State& state) {
    const Load& load = Load::get();
    const Tables& tables = Tables::get();
    std::vector<Vec3f> out(kStrands * kPoints);
    for (auto _ : state) {
        Variant(load, tables, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["guidesPerStrand"] = double(tables.weights.pairs.size()) / kStrands;
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timePlain<blendPlain>)->Name("interpolate/bareBlend")->UseRealTime();
BENCHMARK(timePlain<blendFlat>)->Name("interpolate/bareSumWithoutTurning")->UseRealTime();

/// The node with its weights and shapes cached.
void timeNode(benchmark::State& state) {
    Load& load = Load::get();
    const OperatorPtr op = load.node();
    const EvalContext context(load.data);
    StrandsPtr made = std::get<StrandsPtr>(op->evaluate(context, load.inputs));
    std::vector<Vec3f> plain(kStrands * kPoints);
    blendPlain(load, Tables::get(), plain);
    for (std::size_t p = 0; p < plain.size(); ++p)
        if (!(distance(plain[p], made->points()[p]) < 1e-3f))
            return state.SkipWithError("result differs from the baseline");
    for (auto _ : state) made = std::get<StrandsPtr>(op->evaluate(context, load.inputs));
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeNode)->Name("interpolate/node")->UseRealTime();

/// The same, lifting what would sink in: combed guides, and ones that curl every way, so that all
/// strands are lower than their guides' mean somewhere.
void timeClearance(benchmark::State& state) {
    Load& load = Load::get();
    const OperatorPtr op = load.node(true);
    const EvalContext context(load.data);
    NodeInputs inputs = load.inputs;
    if (state.range(0) != 0) inputs.values[1] = load.combed;
    StrandsPtr made = std::get<StrandsPtr>(op->evaluate(context, inputs));
    for (auto _ : state) made = std::get<StrandsPtr>(op->evaluate(context, inputs));
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeClearance)
    ->Name("interpolate/nodeKeepingClearance")
    ->ArgName("combed")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime();

/// The first evaluation: fronts, weights, shapes and the blend.
void timeFirst(benchmark::State& state) {
    Load& load = Load::get();
    const EvalContext context(load.data);
    SurfaceGraph::of(load.scalp);
    for (auto _ : state) {
        const OperatorPtr op = load.node();
        op->set("followSurface", state.range(0) != 0);
        benchmark::DoNotOptimize(op->evaluate(context, load.inputs));
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeFirst)
    ->Name("interpolate/first")
    ->ArgName("followSurface")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// One guide moved, the rest as before.
void timeOneGuide(benchmark::State& state) {
    Load& load = Load::get();
    const OperatorPtr op = load.node();
    const EvalContext context(load.data);
    std::vector<NodeValue> held = {op->evaluate(context, load.inputs)};
    std::vector<GuideCurve> curves = load.guides->curves();
    auto change = std::make_shared<StrandChanges>();
    change->strands = {700};
    NodeInputs inputs = load.inputs;
    std::size_t reached = 0;
    for (auto _ : state) {
        state.PauseTiming();
        curves[700].points.back().x += 0.01f;
        inputs.values[1] = std::make_shared<const GuideSet>(curves);
        ++inputs.hashes[1];
        SlotChanges none{.kind = SlotChanges::Kind::None};
        const SlotChanges slots[] = {
            none, {.kind = SlotChanges::Kind::Some, .changes = change}, none};
        UpdateResult result;
        state.ResumeTiming();
        if (!op->update(context, inputs, {.previous = held, .inputs = slots}, result))
            return state.SkipWithError("no incremental run");
        held = std::move(result.outputs);
        reached = result.changes[0]->strands.size();
    }
    state.counters["strands"] = double(reached);
}
BENCHMARK(timeOneGuide)->Name("interpolate/oneGuideMoved")->UseRealTime();

}  // namespace
}  // namespace corvelle
