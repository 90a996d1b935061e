// Clump against what it cannot do without: pulling with cached centers against the stream
// p += w (q - p) over the same points, and picking the centers against a blue-noise Scatter of as
// many candidates.

#include <cmath>

#include <benchmark/benchmark.h>

#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/blueNoise.h"
#include "operators/clumpCenters.h"
#include "operators/previewStrands.h"
#include "operators/registerOperators.h"
#include "operators/testing/nodeBench.h"
#include "operators/testing/pointStream.h"

namespace corvelle {
namespace {

constexpr std::size_t kStrands = 100'000;
constexpr std::size_t kPoints = 16;

const ScalpPtr& scalp() {
    static const ScalpPtr sphere = std::make_shared<const ScalpMesh>(makeSphere(64, 128, 10.0f));
    return sphere;
}

/// Leaning strands over the scalp, as Scatter and a few shaping nodes leave them.
const StrandSet& load() {
    static const StrandSet hair = [] {
        NodeBench scatter("Length");
        OperatorPtr grow = OperatorRegistry::instance().create("Scatter");
        grow->set("density", double(kStrands) / scalp()->area());
        grow->set("length", 8.0);
        EvaluationData data;
        data.growSegments = int(kPoints) - 1;
        NodeInputs inputs;
        inputs.values = {MeshValue{.mesh = scalp()}, {}};
        inputs.connected = {true, false};
        inputs.hashes = {1, 0};
        const NodeValue grown = grow->evaluate(EvalContext(data), inputs);
        StrandSet out = *std::get<StrandsPtr>(grown);
        const auto points = out.mutablePoints();
        for (std::size_t s = 0; s < out.strandCount(); ++s)
            for (std::uint64_t p = out.offsets()[s] + 1; p < out.offsets()[s + 1]; ++p) {
                const float t = float(p - out.offsets()[s]) / float(kPoints - 1);
                points[p] += Vec3f{0.3f * std::sin(9.0f * t), -3.0f * t * t, 0.2f * t};
            }
        return out;
    }();
    return hair;
}

/// The same hair, combed a little otherwise from the same roots: the centers are kept.
const StrandSet& combed() {
    static const StrandSet hair = [] {
        StrandSet out = load();
        const auto points = out.mutablePoints();
        for (std::size_t s = 0; s < out.strandCount(); ++s)
            for (std::uint64_t p = out.offsets()[s] + 1; p < out.offsets()[s + 1]; ++p)
                points[p].y += 0.02f * float(p - out.offsets()[s]);
        return out;
    }();
    return hair;
}

void stream(benchmark::State& state) {
    PointStream points(load().points());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] { points.step(kStrandGrain * kPoints); });
        benchmark::ClobberMemory();
    }
}
BENCHMARK(stream)
    ->Name("clump/baseline stream")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

template <class Setup>
void timeClump(benchmark::State& state, Setup&& setup) {
    NodeBench bench("Clump");
    bench.data.scalp = scalp();
    setup(bench.op());
    bench.feed(load());
    bench.evaluate();
    setIncrementalEvaluation(false);  // the centers are kept, the strands are all pulled again
    bool other = true;
    for (auto _ : state) {
        state.PauseTiming();
        bench.feed(other ? combed() : load());
        other = !other;
        state.ResumeTiming();
        runWithThreads(unsigned(state.range(0)),
                       [&] { benchmark::DoNotOptimize(bench.evaluate()); });
    }
    setIncrementalEvaluation(true);
    state.SetItemsProcessed(state.iterations() * std::int64_t(load().strandCount()));
}

void pull(benchmark::State& state) {
    timeClump(state, [](Operator&) {});
}
void lock(benchmark::State& state) {
    timeClump(state, [](Operator& op) {
        op.set("lockRadius", 0.2);
        op.set("flatness", 0.5);
        op.set("pastTip", std::string("extend"));
    });
}
BENCHMARK(pull)
    ->Name("clump/pull, centers cached")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(lock)
    ->Name("clump/flat locks, centers cached")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

constexpr double kPerClump = 4.98;  // candidates

void pick(benchmark::State& state) {
    const StrandSet& in = load();
    const double count = double(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(
            pickClumpCenters(in, previewStrands(in), scalp().get(), {.count = count}, {}));
}
BENCHMARK(pick)
    ->Name("clump/pick centers")
    ->Arg(300)
    ->Arg(1000)
    ->Arg(5000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void scatterAsMany(benchmark::State& state) {
    const ScatterDensity density{.constant =
                                     float(kPerClump * double(state.range(0)) / scalp()->area())};
    for (auto _ : state) {
        const ScatterPoints drawn =
            scatterCandidates(*scalp(), density, densityEnvelope(*scalp(), density), 1, 1.0f);
        benchmark::DoNotOptimize(relaxBlueNoise(*scalp(), drawn.ids, drawn.roots, density, 1));
    }
}
BENCHMARK(scatterAsMany)
    ->Name("clump/baseline blue noise")
    ->Arg(300)
    ->Arg(1000)
    ->Arg(5000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
