#include <cstring>

#include <benchmark/benchmark.h>

#include "model/guideFollow.h"
#include "model/guideHierarchy.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

// 2,000 primary guides with 8 followers each, of 16 points.
const GuideHierarchy& bigHierarchy() {
    static const GuideHierarchy hierarchy =
        makeHierarchy(makeSphere(64, 96, 10.0f), {.primaries = 2000,
                                                  .pointsPerGuide = 16,
                                                  .levels = 1,
                                                  .children = 8,
                                                  .locks = false,
                                                  .seed = 1});
    return hierarchy;
}

std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> raised(std::size_t count, float by) {
    std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> edits;
    for (const GuidePtr& guide : bigHierarchy().guides()) {
        if (edits.size() == count) break;
        edits.emplace_back(guide->id, guide->points);
        for (Vec3f& point : edits.back().second) point.y += by;
    }
    return edits;
}

/// Yardstick of an edit: the followers' points alone, worked out on copies made beforehand.
void bareFollow(benchmark::State& state) {
    const auto count = std::size_t(state.range(0));
    std::vector<Guide> parents, children;
    for (const GuidePtr& guide : bigHierarchy().guides())
        if (guide->parent == 0 && parents.size() < count) parents.push_back(*guide);
    std::vector<std::pair<std::size_t, std::size_t>> runs;
    for (const Guide& parent : parents) {
        const std::size_t first = children.size();
        for (const GuidePtr& guide : bigHierarchy().guides())
            if (guide->parent == parent.id && guide->offsets.size() == parent.points.size())
                children.push_back(*guide);
        runs.emplace_back(first, children.size());
    }
    for (auto _ : state) {
        for (std::size_t p = 0; p < parents.size(); ++p) {
            const ParentFrames frames(parents[p], parents[p].points.size());
            for (std::size_t c = runs[p].first; c < runs[p].second; ++c)
                frames.rebuild(children[c]);
        }
        benchmark::DoNotOptimize(children.data());
    }
}
BENCHMARK(bareFollow)->Name("guides/move/baseline")->Arg(1)->Arg(100)->UseRealTime();

void setPoints(benchmark::State& state) {
    GuideHierarchy hierarchy = bigHierarchy();
    const auto up = raised(std::size_t(state.range(0)), 0.1f);
    const auto down = raised(std::size_t(state.range(0)), 0.2f);
    bool flip = false;
    for (auto _ : state) hierarchy.setPoints((flip = !flip) ? up : down);
    benchmark::DoNotOptimize(hierarchy.guides().data());
}
BENCHMARK(setPoints)->Name("guides/move/hierarchy")->Arg(1)->Arg(100)->UseRealTime();

/// Yardstick of a flat snapshot: the copy of its points.
void copyPoints(benchmark::State& state) {
    const GuidesPtr all = bigHierarchy().all();
    for (auto _ : state) {
        std::vector<Vec3f> points(all->points().begin(), all->points().end());
        benchmark::DoNotOptimize(points.data());
    }
}
BENCHMARK(copyPoints)->Name("guides/flatten/baseline")->UseRealTime();

void flatten(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(bigHierarchy().all());
}
BENCHMARK(flatten)->Name("guides/flatten/hierarchy")->UseRealTime();

void copyHierarchy(benchmark::State& state) {
    for (auto _ : state) {
        GuideHierarchy copy = bigHierarchy();
        benchmark::DoNotOptimize(copy.guides().data());
    }
}
BENCHMARK(copyHierarchy)->Name("guides/copy/hierarchy")->UseRealTime();

void writeJson(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(guidesToJson(bigHierarchy()));
}
BENCHMARK(writeJson)->Name("guides/json/write")->Unit(benchmark::kMillisecond);

void readJson(benchmark::State& state) {
    const std::string text = guidesToJson(bigHierarchy());
    for (auto _ : state) benchmark::DoNotOptimize(guidesFromJson(text));
    state.SetBytesProcessed(state.iterations() * std::int64_t(text.size()));
}
BENCHMARK(readJson)->Name("guides/json/read")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
