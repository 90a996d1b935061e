// Tables of neighbours against nanoflann on the same roots, and the nodes that read them against
// the stream p += w (q - p) of the same points and the bare loop over the neighbours: flat arrays,
// the table given, and nothing kept or eased. Points are paired by their numbers; Tangle's, whose
// partner is read at equal lengths from the root, by those lengths.

#include <benchmark/benchmark.h>
#include <nanoflann.hpp>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/tuft.h"
#include "operators/neighborTable.h"
#include "operators/polynomialTrig.h"
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

/// The same, every point but the roots a little off.
const StrandSet& moved() {
    static const StrandSet tuft = [] {
        StrandSet set = load();
        const auto points = set.mutablePoints();
        for (std::size_t i = 0; i < points.size(); ++i)
            if (i % kPoints != 0) points[i].x += 0.01f;
        return set;
    }();
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
    setIncrementalEvaluation(false);
    bench.feed(load());
    bench.evaluate();
    bool other = false;
    for (auto _ : state) {
        state.PauseTiming();
        bench.feed(other ? load() : moved());  // all differ: equal results would be compared whole
        other = !other;
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
/// Strands of kPoints, flat, written anew by body(s, p, out).
template <class Body>
void timeBare(benchmark::State& state, Body&& body) {
    const StrandSet& set = load();
    const std::vector<Vec3f> points(set.points().begin(), set.points().end());
    std::vector<Vec3f> out(points.size());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, kStrands, kStrandGrain, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s) body(s, points.data(), &out[s * kPoints]);
            });
        });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
void bareBlend(benchmark::State& state) {
    const NeighborTable table(load(), {.count = 4});
    timeBare(state, [&](std::size_t s, const Vec3f* points, Vec3f* out) {
        std::array<Vec3f, kPoints> sum{};
        for (const std::uint32_t other : table.of(s)) {
            const Vec3f* const q = points + other * kPoints;
            for (std::size_t i = 0; i < kPoints; ++i) sum[i] += q[i] - q[0];
        }
        const Vec3f* const p = points + s * kPoints;
        for (std::size_t i = 0; i < kPoints; ++i) out[i] = mix(p[i], p[0] + sum[i] * 0.25f, 0.5f);
    });
}
void bareTangle(benchmark::State& state) {
    const NeighborTable table(load(), {.count = 8});
    timeBare(state, [&](std::size_t s, const Vec3f* points, Vec3f* out) {
        std::uint32_t partner = std::uint32_t(s);
        if (s % 2 == 0)
            for (const std::uint32_t other : table.of(s)) partner = std::min(partner, other);
        const Vec3f* const p = points + s * kPoints;
        const Vec3f* const q = points + partner * kPoints;
        if (partner == s) {
            std::copy(p, p + kPoints, out);
            return;
        }
        // Where along the partner each point reads: what a partner costs at the least.
        std::array<float, kPoints> at, along;
        polylineLengths({p, kPoints}, at);
        polylineLengths({q, kPoints}, along);
        std::size_t k = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            while (k + 2 < kPoints && along[k + 1] < at[i]) ++k;
            const float share = std::min((at[i] - along[k]) / (along[k + 1] - along[k]), 1.0f);
            out[i] = mix(p[i], mix(q[k], q[k + 1], share), 0.8f);
        }
    });
}
/// The means of the clumps too, since the node works them out.
void bareTwist(benchmark::State& state) {
    const std::vector<float>& clumps = *load().strandChannel("clumpId");
    constexpr std::size_t kClumps = 16;
    std::array<std::size_t, kClumps> members{};
    for (const float clump : clumps) ++members[std::size_t(clump)];
    const StrandSet& set = load();
    const std::vector<Vec3f> points(set.points().begin(), set.points().end());
    std::vector<Vec3f> out(points.size());
    for (auto _ : state) {
        std::array<std::array<Vec3f, kPoints>, kClumps> means{}, axes{};
        for (std::size_t s = 0; s < kStrands; ++s)
            for (std::size_t i = 0; i < kPoints; ++i)
                means[std::size_t(clumps[s])][i] += points[s * kPoints + i];
        for (std::size_t c = 0; c < kClumps; ++c)
            for (std::size_t i = 0; i < kPoints; ++i) {
                means[c][i] *= 1.0f / float(members[c]);
                if (i > 0) axes[c][i] = normalized(means[c][i] - means[c][i - 1]);
            }
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, kStrands, kStrandGrain, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s) {
                    const std::size_t c = std::size_t(clumps[s]);
                    for (std::size_t i = 0; i < kPoints; ++i) {
                        const Vec3f p = points[s * kPoints + i];
                        const float angle = 0.2f * float(i);
                        const Vec3f once = cross(axes[c][i], p - means[c][i]);
                        out[s * kPoints + i] = p + once * sineOf(angle) +
                                               cross(axes[c][i], once) * (1.0f - cosineOf(angle));
                    }
                }
            });
        });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(bareBlend)
    ->Name("neighbors/bare BlendNeighbors")
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(bareTangle)
    ->Name("neighbors/bare Tangle")
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(bareTwist)
    ->Name("neighbors/bare Twist")
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
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
