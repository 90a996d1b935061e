#include <benchmark/benchmark.h>

#include <memory>

#include "graph/operator.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/testing/meshes.h"
#include "operators/blueNoise.h"
#include "operators/blueNoiseForce.h"
#include "operators/nearBoundary.h"
#include "operators/registerOperators.h"
#include "operators/sampleNeighbors.h"

#ifdef CORVELLE_HAVE_NANOFLANN
#define NANOFLANN_FIRST_MATCH  // equal distances in the order of indices
#include <nanoflann.hpp>
#endif

namespace corvelle {
namespace {

constexpr std::size_t kRoots = 100000;

struct Load {
    ScalpMesh mesh = makeSphere(250, 400, 10.0f);  // 199,200 triangles
    ScatterDensity density{.constant = float(double(kRoots) / mesh.area())};
    ScatterPoints random =
        scatterCandidates(mesh, density, densityEnvelope(mesh, density), 3, 1.0f);
};
const Load& load() {
    static const Load made;
    return made;
}

/// A k-d tree of the plain relaxation: the 13 nearest of every place.
class Tree {
public:
    explicit Tree(const std::vector<Vec3f>& places);
    void nearest(std::size_t i, SampleNeighbors& out) const;

private:
    const std::vector<Vec3f>& places_;
#ifdef CORVELLE_HAVE_NANOFLANN
    struct Cloud {
        const std::vector<Vec3f>& places;
        std::size_t kdtree_get_point_count() const { return places.size(); }
        float kdtree_get_pt(std::size_t i, std::size_t axis) const { return places[i][int(axis)]; }
        template <class Box>
        bool kdtree_get_bbox(Box&) const { return false; }
    };
    using Index = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>,
                                                      Cloud, 3, std::uint32_t>;
    Cloud cloud_{places_};
    Index index_{3, cloud_, nanoflann::KDTreeSingleIndexAdaptorParams(10)};
#else
    PointIndex index_{places_};
#endif
};

Tree::Tree(const std::vector<Vec3f>& places) : places_(places) {
#ifdef CORVELLE_HAVE_NANOFLANN
    index_.buildIndex();
#endif
}

void Tree::nearest(std::size_t i, SampleNeighbors& out) const {
    constexpr std::size_t kAsked = kSampleNeighbors + 1;  // itself among them
    std::uint32_t indices[kAsked];
#ifdef CORVELLE_HAVE_NANOFLANN
    float distances[kAsked];
    const std::size_t found = index_.knnSearch(&places_[i].x, kAsked, indices, distances);
#else
    Neighbor neighbors[kAsked];
    const std::size_t found = index_.nearest(places_[i], neighbors);
    for (std::size_t k = 0; k < found; ++k) indices[k] = neighbors[k].index;
#endif
    std::size_t to = 0;
    for (std::size_t k = 0; k < found && to < kSampleNeighbors; ++k)
        if (indices[k] != i) out[to++] = indices[k];
    while (to < kSampleNeighbors) out[to++] = std::uint32_t(i);
}

/// The relaxation written plainly: one loop after another over all samples, a k-d tree, closest
/// points found afresh. For closed meshes of one density.
std::vector<StrandRoot> relaxPlain(const ScalpMesh& mesh, std::span<const std::uint64_t> ids,
                                   std::span<const StrandRoot> start, const ScatterDensity& density,
                                   std::uint64_t seed) {
    using namespace blueNoise;
    const std::size_t n = start.size();
    const float r = sampleRadius(density.constant);
    std::vector<StrandRoot> roots(start.begin(), start.end());
    std::vector<Vec3f> now(n), normals(n);
    for (std::size_t i = 0; i < n; ++i) {
        now[i] = mesh.surfacePoint(roots[i]);
        normals[i] = mesh.surfaceNormal(roots[i]);
    }
    std::vector<Vec3f> next = now;
    std::vector<float> moved(n, 0.0f);
    std::vector<char> frozen(n, 0), touched(n, 0);
    std::vector<SampleNeighbors> neighbors(n);
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        if (iteration % kRefresh == 0) {
            const Tree tree(now);
            for (std::size_t i = 0; i < n; ++i) {
                if (frozen[i]) continue;
                tree.nearest(i, neighbors[i]);
                touched[i] = 1;
            }
        }
        for (std::size_t i = 0; i < n; ++i) {
            if (frozen[i]) continue;
            Vec3f force;
            bool squeezed = false;
            for (const std::uint32_t j : neighbors[i]) {
                if (j == i) continue;
                const Vec3f offset = now[i] - now[j];
                const float d = length(offset), R = r + r;
                if (d >= R) continue;
                squeezed = squeezed || d < R * kSqueezed;
                force += d > R * kCoincident
                             ? push(offset, d, R)
                             : partingPush(stepSeed(seed, iteration), ids[i], d, R);
            }
            const Vec3f move = stepOf(force, normals[i], r);
            next[i] = onGrid(now[i] + move, r * kQuantum);
            moved[i] = movedOf(move, r, squeezed);
        }
        now = next;
        std::size_t left = 0;
        for (std::size_t i = 0; i < n; ++i) {
            if (frozen[i]) continue;
            bool rests = moved[i] < kFrozenMove;
            for (const std::uint32_t j : neighbors[i]) rests = rests && moved[j] < kFrozenMove;
            frozen[i] = rests;
            left += !rests;
        }
        if (left == 0) iteration = kIterations - 1;
        if ((iteration + 1) % kRefresh != 0 && iteration != kIterations - 1) continue;
        for (std::size_t i = 0; i < n; ++i) {
            if (!touched[i]) continue;
            touched[i] = 0;
            SurfaceHit hit;
            if (mesh.closestPoint(now[i], ScalpMesh::kAnyDistance, hit)) roots[i] = hit.root();
            now[i] = next[i] = mesh.surfacePoint(roots[i]);
            normals[i] = mesh.surfaceNormal(roots[i]);
        }
    }
    return roots;
}

template <auto Variant>
void timeRelax(benchmark::State& state) {
    const Load& l = load();
    l.mesh.prepareQueries();
    if (Variant(l.mesh, l.random.ids, l.random.roots, l.density, 3) !=
        relaxPlain(l.mesh, l.random.ids, l.random.roots, l.density, 3))
        return state.SkipWithError("result differs from the baseline");
    for (auto _ : state)
        benchmark::DoNotOptimize(Variant(l.mesh, l.random.ids, l.random.roots, l.density, 3));
    state.SetItemsProcessed(state.iterations() * std::int64_t(l.random.size()));
}
std::vector<StrandRoot> relaxOneThread(const ScalpMesh& mesh, std::span<const std::uint64_t> ids,
                                       std::span<const StrandRoot> roots,
                                       const ScatterDensity& density, std::uint64_t seed) {
    std::vector<StrandRoot> out;
    runWithThreads(1, [&] { out = relaxBlueNoise(mesh, ids, roots, density, seed); });
    return out;
}
BENCHMARK(timeRelax<relaxPlain>)->Name("blueNoise/baseline")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(timeRelax<relaxOneThread>)->Name("blueNoise/oneThread")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(timeRelax<relaxBlueNoise>)->Name("blueNoise/relax")->UseRealTime()->Unit(benchmark::kMillisecond);

/// The node: `again` evaluates it with a result kept, `longer` with another length each time.
enum class Run { First, Again, Longer };
template <Run how>
void timeScatter(benchmark::State& state) {
    registerScatterOperator();
    EvaluationData data;
    data.growSegments = 15;
    NodeInputs inputs;
    inputs.values = {MeshValue{std::make_shared<const ScalpMesh>(load().mesh)}, {}};
    inputs.connected = {true, false};
    const auto make = [] {
        OperatorPtr op = OperatorRegistry::instance().create("Scatter");
        op->set("density", double(load().density.constant));
        op->set("randomness", 0.0);
        return op;
    };
    OperatorPtr op = make();
    op->evaluate(EvalContext(data), inputs);
    double size = 1.0;
    for (auto _ : state) {
        if (how == Run::First) op = make();
        if (how == Run::Longer) op->set("length", size += 0.001);
        benchmark::DoNotOptimize(op->evaluate(EvalContext(data), inputs));
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kRoots));
}
BENCHMARK(timeScatter<Run::First>)->Name("scatter/first")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(timeScatter<Run::Longer>)->Name("scatter/cachedRoots")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(timeScatter<Run::Again>)->Name("scatter/cached")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
