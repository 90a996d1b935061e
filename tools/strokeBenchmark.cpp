#include <benchmark/benchmark.h>

#include "tools/fakeStrokeHost.h"
#include "tools/guideStamp.h"
#include "tools/hover.h"
#include "tools/strokeState.h"

namespace corvelle {
namespace {

FakeStrokeHost manyGuides() {
    FakeStrokeHost host;
    host.mesh = std::make_shared<const ScalpMesh>(makeSphere(60, 90, 8.0f));
    host.guides = std::make_shared<const GuideHierarchy>(makeHierarchy(
        *host.mesh, {.primaries = 2000, .pointsPerGuide = 13, .levels = 0, .seed = 1}));
    return host;
}

/// A stamp on the front of the head whose circle reaches about 1 % of the guides.
BrushStamp smallStamp(const ToolView& view) {
    StrokeState state;
    state.view = view;
    state.settings.radius = 28.0f;
    state.worldRadius = 1.0f;
    return screenStamp(state, {0, 0, 8});
}

BrushToolSettings combing() {
    BrushToolSettings settings;
    settings.collide = false;
    return settings;
}

/// The yardstick: `brushEdit` over just the guides that the stamp reaches, found beforehand.
void bareStamp(benchmark::State& state) {
    const FakeStrokeHost host = manyGuides();
    const BrushStamp stamp = smallStamp(frontView());
    std::vector<GuidePtr> reached;
    for (const GuidePtr& guide : host.guides->guides()) {
        const GuideBox box = boxOf(guide->points);
        if (stamp.reaches(box.low, box.high)) reached.push_back(guide);
    }
    BrushScratch scratch;
    BrushEdit edit;
    for (auto _ : state)
        for (const GuidePtr& guide : reached) {
            brushEdit(*guide, nullptr, combing(), stamp, stamp.center, {1e-6f, 0, 0}, scratch,
                      edit);
            benchmark::DoNotOptimize(edit.points.data());
        }
    state.counters["guides"] = double(reached.size());
}
BENCHMARK(bareStamp)->Name("stamp/bare")->UseRealTime();

void fullStamp(benchmark::State& state) {
    const FakeStrokeHost host = manyGuides();
    GuideHierarchy hierarchy = *host.guides;
    BrushToolSettings settings = combing();
    GuideStamper stamper(hierarchy, guideCandidates(hierarchy, settings, {}), host.mesh.get(),
                         false);
    const BrushStamp stamp = smallStamp(frontView());
    float way = 1e-6f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stamper.stamp(settings, stamp, {way, 0, 0}));
        way = -way;
    }
    state.counters["guides"] = double(stamper.lastReached());
    state.counters["of"] = double(stamper.candidates());
}
BENCHMARK(fullStamp)->Name("stamp/found, worked and written")->UseRealTime();

/// One event of a comb stroke, live snapshot and all.
void strokeDrag(benchmark::State& state) {
    FakeStrokeHost host = manyGuides();
    BrushTool tool;
    tool.settings = combing();
    tool.settings.radius = 28.0f;
    tool.settings.collide = state.range(0) != 0;
    tool.settings.frontFacingOnly = state.range(1) != 0;
    if (!tool.begin(host, frontView(), 400, 300, 1.0f)) return state.SkipWithError("no stroke");
    float x = 400.0f;
    for (auto _ : state) {
        x = x > 401.0f ? 400.0f : 403.0f;
        benchmark::DoNotOptimize(tool.drag(host, frontView(), x, 300, 1.0f));
    }
    tool.cancel(host);
}
BENCHMARK(strokeDrag)
    ->Name("drag")
    ->ArgNames({"collide", "occlusion"})
    ->Args({0, 0})
    ->Args({1, 1})
    ->UseRealTime();

void hoverNew(benchmark::State& state) {
    FakeStrokeHost host = manyGuides();
    HoverCache cache;
    for (auto _ : state) {
        cache.clear();
        benchmark::DoNotOptimize(cache.at(host, frontView(), 410, 305, {}).guide);
    }
}
BENCHMARK(hoverNew)->Name("hover/new view")->UseRealTime();

void hoverAgain(benchmark::State& state) {
    FakeStrokeHost host = manyGuides();
    HoverCache cache;
    double x = 300.0;
    for (auto _ : state) {
        x = x < 500.0 ? x + 1.0 : 300.0;
        benchmark::DoNotOptimize(cache.at(host, frontView(), x, 305, {}).guide);
    }
}
BENCHMARK(hoverAgain)->Name("hover/same view")->UseRealTime();

}  // namespace
}  // namespace corvelle
