#include <benchmark/benchmark.h>

#include "graph/affect.h"
#include "graph/strandDiff.h"
#include "graph/testing/testOperators.h"
#include "model/parallel.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

constexpr std::size_t kStrands = 100'000, kPoints = 16;

/// A source and nine nodes behind it, evaluated once.
struct WarmChain {
    Graph graph;
    NodeId last = 0;
    explicit WarmChain(double strands) {
        registerTestOperators();
        last = addTestNode(graph, "TestTuft", "tuft");
        graph.setParam(last, "strands", strands);
        graph.setParam(last, "points", double(kPoints));
        for (const char* type : {"TestMove", "TestTag", "TestWidth", "TestMove", "Flyaway",
                                 "TestWidth", "TestMove", "TestTag", "TestWidth"}) {
            const NodeId next =
                addTestNode(graph, type, "n" + std::to_string(graph.nodes().size()));
            graph.connect(last, 0, next, 0);
            last = next;
        }
        graph.setOutput(last);
        graph.evaluate(last, {});
    }
};

/// What a request pays for a graph of ten nodes that have nothing to do.
void timeCachedGraph(benchmark::State& state) {
    WarmChain chain(100);
    for (auto _ : state) benchmark::DoNotOptimize(chain.graph.evaluate(chain.last, {}));
    if (chain.graph.nodesEvaluated() != 10) state.SkipWithError("a cached node ran");
}
BENCHMARK(timeCachedGraph)->Name("graph/tenCachedNodes")->Unit(benchmark::kMicrosecond);

struct BlendLoad {
    StrandSet before = makeTuft({.strands = kStrands, .pointsPerStrand = kPoints, .seed = 7});
    StrandSet after = before;
    FieldPtr weight = constantTestField(0.3f);
    BlendLoad() {
        for (Vec3f& p : after.mutablePoints()) p = p * 1.25f;
    }
};

/// The plain mix of the points: one loop over floats, into an array of its own.
void timeMixPlain(benchmark::State& state) {
    const BlendLoad load;
    std::vector<Vec3f> out(load.before.pointCount());
    for (auto _ : state) {
        const std::span<const Vec3f> a = load.before.points(), b = load.after.points();
        parallelRange(0, out.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) out[i] = mix(a[i], b[i], 0.3f);
        });
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeMixPlain)->Name("affect/baseline")->UseRealTime();

void timeAffect(benchmark::State& state) {
    const BlendLoad load;
    const StrandSet once = blendStrands(load.before, load.after, *load.weight);
    for (std::size_t i = 0; i < once.pointCount(); ++i)
        if (once.points()[i] != mix(load.before.points()[i], load.after.points()[i], 0.3f))
            return state.SkipWithError("result differs from the baseline");
    for (auto _ : state)
        benchmark::DoNotOptimize(blendStrands(load.before, load.after, *load.weight));
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeAffect)->Name("affect/blendStrands")->UseRealTime();

/// Which strands differ, when one in a hundred does: against the read of both arrays.
void timeDiff(benchmark::State& state) {
    BlendLoad load;
    load.after = load.before;
    const std::span<Vec3f> points = load.after.mutablePoints();
    for (std::size_t s = 0; s < kStrands; s += 100) points[s * kPoints + 5].y += 1.0f;
    for (auto _ : state) {
        const StrandChangesPtr changes = strandDiff(load.before, load.after);
        if (!isList(changes) || changes->strands.size() != kStrands / 100)
            return state.SkipWithError("another list than the one that was made");
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timeDiff)->Name("changes/strandDiff")->UseRealTime();

/// One guide of a hundred moves: what follows it is a hundredth of the strands, through ten nodes.
template <bool Incremental>
void timeStroke(benchmark::State& state) {
    WarmChain chain{double(kStrands)};
    Graph& graph = chain.graph;
    const NodeId guides = addTestNode(graph, "TestGuides", "guides");
    const NodeId follow = addTestNode(graph, "TestFollow", "follow");
    graph.connect(graph.byName("tuft"), 0, follow, 0);
    graph.connect(guides, 0, follow, 1);
    graph.connect(follow, 0, graph.byName("n1"), 0);
    setIncrementalEvaluation(Incremental);
    EvaluationData data;
    float tip = 0.0f;
    const auto stroke = [&] {
        tip += 0.125f;
        std::vector<GuideCurve> curves;
        for (std::uint64_t id = 1; id <= 100; ++id)
            curves.push_back({id, {}, {{0, 0, 0}, {0, id == 50 ? tip : 1.0f, 0}}, nullptr});
        data.flatGuides = std::make_shared<const GuideSet>(std::move(curves));
        benchmark::DoNotOptimize(graph.evaluate(chain.last, data));
    };
    for (int warm = 0; warm < 3; ++warm) stroke();
    for (auto _ : state) stroke();
    setIncrementalEvaluation(true);
}
BENCHMARK(timeStroke<false>)->Name("stroke/full")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(timeStroke<true>)
    ->Name("stroke/incremental")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
