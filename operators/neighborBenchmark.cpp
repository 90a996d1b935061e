// Tables of neighbours against nanoflann on the same roots, and the nodes that read them against
// the stream p += w (q - p) of the same points.

#include <benchmark/benchmark.h>
#include <nanoflann.hpp>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/tuft.h"
#include "operators/neighborTable.h"
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

struct Cloud {
    std::vector<Vec3f> points;
    std::size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(std::size_t i, std::size_t axis) const { return points[i][int(axis)]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const {
        return false;
    }
};
using Nanoflann = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>,
                                                      Cloud, 3, std::uint32_t>;

/// The plain way: one tree over all roots, one search a strand, in the strands' order.
std::vector<std::uint32_t> plainTable(const StrandSet& set, std::size_t count) {
    Cloud cloud;
    for (std::size_t s = 0; s < set.strandCount(); ++s) cloud.points.push_back(set.pointsOf(s)[0]);
    const Nanoflann tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    std::vector<std::uint32_t> table(set.strandCount() * count);
    parallelRange(0, set.strandCount(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        std::array<std::uint32_t, NeighborTable::kMost + 1> near;
        std::array<float, NeighborTable::kMost + 1> squared;
        for (std::size_t s = begin; s < end; ++s) {
            const std::size_t found =
                tree.knnSearch(&cloud.points[s].x, count + 1, near.data(), squared.data());
            std::size_t kept = 0;
            for (std::size_t i = 0; i < found && kept < count; ++i)
                if (near[i] != s) table[s * count + kept++] = near[i];
        }
    });
    return table;
}

void timeTable(benchmark::State& state) {
    const StrandSet& set = load();
    const NeighborSettings settings{.count = std::size_t(state.range(0))};
    const NeighborTable made(set, settings);
    const std::vector<std::uint32_t> plain = plainTable(set, settings.count);
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        if (!std::ranges::equal(made.of(s),
                                std::span(plain).subspan(s * settings.count, settings.count)))
            return state.SkipWithError("result differs from the baseline");
    for (auto _ : state)
        runWithThreads(unsigned(state.range(1)), [&] {
            benchmark::DoNotOptimize(NeighborTable(set, settings).of(0).data());
        });
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
void timePlain(benchmark::State& state) {
    for (auto _ : state)
        runWithThreads(unsigned(state.range(1)), [&] {
            benchmark::DoNotOptimize(plainTable(load(), std::size_t(state.range(0))).data());
        });
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(timePlain)
    ->Name("neighbors/nanoflann")
    ->ArgsProduct({{4, 8}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(timeTable)
    ->Name("neighbors/table")
    ->ArgsProduct({{4, 8}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The table kept: what a change of strength costs.
template <class Setup>
void timeNode(benchmark::State& state, const char* type, Setup&& setup) {
    NodeBench bench(type);
    setup(bench.op());
    setIncrementalEvaluation(false);  // the same strands come again: a full run is what is timed
    bench.feed(load());
    bench.evaluate();
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
void blendNeighbors(benchmark::State& state) {
    timeNode(state, "BlendNeighbors", [](Operator&) {});
}
void tangle(benchmark::State& state) {
    timeNode(state, "Tangle", [](Operator& op) { op.set("sameClump", false); });
}
void twist(benchmark::State& state) {
    timeNode(state, "Twist", [](Operator&) {});
}
BENCHMARK(blendNeighbors)
    ->Name("neighbors/BlendNeighbors")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(tangle)
    ->Name("neighbors/Tangle")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(twist)
    ->Name("neighbors/Twist")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
