// Curl against the stream p += w (q - p) over the same points (strandNodesBenchmark.cpp times it as
// "nodes/baseline stream"), and against the bare loop that any helix takes: frames, turns, sines.

#include <array>

#include <benchmark/benchmark.h>

#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/tuft.h"
#include "operators/curlShape.h"
#include "operators/strandFrames.h"
#include "operators/testing/nodeBench.h"

namespace corvelle {
namespace {

constexpr std::size_t kStrands = 100'000;
constexpr std::size_t kPoints = 16;

const StrandSet& load() {
    static const StrandSet tuft =
        makeTuft({.strands = kStrands, .pointsPerStrand = kPoints, .seed = 7});
    return tuft;
}

template <class Setup>
void timeCurl(benchmark::State& state, Setup&& setup) {
    NodeBench bench("Curl");
    setup(bench.op());
    setIncrementalEvaluation(false);  // the same strands come again: a full run is what is timed
    for (auto _ : state) {
        state.PauseTiming();
        bench.feed(load());
        state.ResumeTiming();
        runWithThreads(unsigned(state.range(0)),
                       [&] { benchmark::DoNotOptimize(bench.evaluate()); });
    }
    setIncrementalEvaluation(true);
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}

void helix(benchmark::State& state) {
    timeCurl(state, [](Operator& op) { op.set("tolerance", 0.0); });
}
void ringlets(benchmark::State& state) {
    timeCurl(state, [](Operator& op) {
        op.set("tolerance", 0.0);
        op.set("coherence", std::string("clump"));
    });
}
void refined(benchmark::State& state) {
    timeCurl(state, [](Operator& op) { op.set("frequency", 2.0); });
}
void zigzag(benchmark::State& state) {
    timeCurl(state, [](Operator& op) {
        op.set("shape", std::string("zigzag"));
        op.set("frequency", 2.0);
    });
}

/// What is left when nothing is read, checked or random.
void bare(benchmark::State& state) {
    const StrandSet& in = load();
    std::vector<Vec3f> out(in.pointCount());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, in.strandCount(), kStrandGrain, [&](std::size_t b, std::size_t e) {
                std::array<float, kPoints> shares;
                std::array<Vec3f, kPoints> tangents, normals;
                for (std::size_t s = b; s < e; ++s) {
                    const auto points = in.pointsOf(s);
                    const float turns = 0.4f * polylineShares(points, shares);
                    transportFrames(points, {1, 0, 0}, tangents, normals);
                    for (std::size_t i = 0; i < kPoints; ++i) {
                        const CurlFrame frame{normals[i], cross(tangents[i], normals[i])};
                        out[in.offsets()[s] + i] =
                            points[i] +
                            curlOffset(CurlKind::Helix, turns * shares[i], 0.0f, frame) * 0.5f;
                    }
                }
            });
        });
        benchmark::ClobberMemory();
    }
}

BENCHMARK(bare)
    ->Name("curl/bare helix")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(helix)->Name("curl/helix")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ringlets)
    ->Name("curl/helix by clump")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(refined)
    ->Name("curl/helix, points added")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(zigzag)
    ->Name("curl/zigzag, points added")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
