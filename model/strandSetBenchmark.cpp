// What a node pays for: copies on write, subsets, extents. Each beside its plainest form.
#include <cstring>
#include <numeric>
#include <vector>

#include <benchmark/benchmark.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

const StrandSet& tuft(std::int64_t strands) {
    static std::map<std::int64_t, StrandSet> made;
    const auto found = made.find(strands);
    if (found != made.end()) return found->second;
    return made[strands] =
               makeTuft({.strands = std::size_t(strands), .pointsPerStrand = 16, .seed = 7});
}

// --- Copy on write: against memcpy of the points between warm buffers --------------------------

void copyPointsBaseline(benchmark::State& state) {
    const StrandSet& from = tuft(state.range(0));
    std::vector<Vec3f> to(from.pointCount());
    for (auto _ : state) {
        std::memcpy(to.data(), from.points().data(), to.size() * sizeof(Vec3f));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t(to.size() * sizeof(Vec3f)));
}
void copyOnWrite(benchmark::State& state) {
    const StrandSet& from = tuft(state.range(0));
    for (auto _ : state) {
        StrandSet copy = from;
        benchmark::DoNotOptimize(copy.mutablePoints().data());
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t(from.pointCount() * sizeof(Vec3f)));
}
void copyThenOverwrite(benchmark::State& state) {
    const StrandSet& from = tuft(state.range(0));
    for (auto _ : state) {
        StrandSet copy = from;
        benchmark::DoNotOptimize(copy.overwritePoints().data());
    }
}
void copyOnly(benchmark::State& state) {
    const StrandSet& from = tuft(state.range(0));
    for (auto _ : state) {
        StrandSet copy = from;
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(copyPointsBaseline)->Name("copy/baseline")->Arg(2'000)->Arg(100'000)->UseRealTime();
BENCHMARK(copyOnWrite)->Name("copy/writePoints")->Arg(2'000)->Arg(100'000)->UseRealTime();
BENCHMARK(copyThenOverwrite)->Name("copy/overwritePoints")->Arg(100'000)->UseRealTime();
BENCHMARK(copyOnly)->Name("copy/shareAll")->Arg(100'000)->UseRealTime();

// --- Subset ------------------------------------------------------------------------------------

std::vector<std::uint32_t> everyThird(const StrandSet& set) {
    std::vector<std::uint32_t> indices(set.strandCount() / 3);
    for (std::size_t k = 0; k < indices.size(); ++k) indices[k] = std::uint32_t(3 * k);
    return indices;
}
StrandSet subsetPlain(const StrandSet& from, std::span<const std::uint32_t> indices) {
    StrandSet out;
    out.mutableStrandChannel("tone", 0.5f);
    out.mutableStrandChannel("clumpId", -1.0f);
    out.mutablePointChannel("share", 0.25f);
    for (const std::uint32_t s : indices) {
        const std::size_t first = std::size_t(from.offsets()[s]), n = from.pointCountOf(s);
        const std::size_t to = out.addStrand(from.ids()[s], from.pointsOf(s),
                                             from.widths().subspan(first, n), from.roots()[s]);
        for (const char* name : {"tone", "clumpId"})
            out.mutableStrandChannel(name, 0.0f)[to] = from.strandChannel(name)->at(s);
        std::copy_n(from.pointChannel("share")->data() + first, n,
                    out.mutablePointChannel("share", 0.0f).data() + out.offsets()[to]);
    }
    return out;
}
StrandSet subsetFast(const StrandSet& from, std::span<const std::uint32_t> indices) {
    return from.subset(indices);
}
template <auto Variant>
void timeSubset(benchmark::State& state) {
    const StrandSet& from = tuft(state.range(0));
    const std::vector<std::uint32_t> indices = everyThird(from);
    if (Variant(from, indices).contentHash() != subsetPlain(from, indices).contentHash())
        return state.SkipWithError("result differs from the baseline");
    for (auto _ : state) benchmark::DoNotOptimize(Variant(from, indices));
    state.SetItemsProcessed(state.iterations() * std::int64_t(indices.size()));
}
BENCHMARK(timeSubset<subsetPlain>)->Name("subset/baseline")->Arg(100'000)->UseRealTime();
BENCHMARK(timeSubset<subsetFast>)->Name("subset/parallel")->Arg(100'000)->UseRealTime();

// --- Extent ------------------------------------------------------------------------------------

StrandSet::Extent extentPlain(StrandSet& set) {
    StrandSet::Extent extent;
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        extent.longest = std::max(extent.longest, polylineLength(set.pointsOf(s)));
        for (const Vec3f p : set.pointsOf(s)) {
            extent.min = componentMin(extent.min, p);
            extent.max = componentMax(extent.max, p);
            extent.finite = extent.finite && isFinite(p);
        }
    }
    return extent;
}
StrandSet::Extent extentParallel(StrandSet& set) {
    set.mutablePoints();  // drops the caches
    return set.extent();
}
template <auto Variant>
void timeExtent(benchmark::State& state) {
    StrandSet set = tuft(state.range(0));
    set.mutablePoints();
    if (Variant(set) != extentPlain(set))
        return state.SkipWithError("result differs from the baseline");
    for (auto _ : state) benchmark::DoNotOptimize(Variant(set));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void extentAfterOneStrand(benchmark::State& state) {
    const StrandSet& before = tuft(state.range(0));
    before.extent();
    StrandSet after = before;
    const std::vector<std::uint32_t> changed = {77};
    for (auto _ : state) {
        after.mutablePoints();
        benchmark::DoNotOptimize(after.extentAfter(before, changed));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(timeExtent<extentPlain>)->Name("extent/baseline")->Arg(100'000)->UseRealTime();
BENCHMARK(timeExtent<extentParallel>)->Name("extent/parallel")->Arg(100'000)->UseRealTime();
BENCHMARK(extentAfterOneStrand)->Name("extent/afterOneStrand")->Arg(100'000)->UseRealTime();

}  // namespace
}  // namespace corvelle
