// The whole of an evaluation at the standard load: a head-sized scalp of 200,000 triangles, 2,000
// guides, 100,000 strands of 16 points through the default graph. Read as ratios to "groom/full".

#include <benchmark/benchmark.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

constexpr std::size_t kGuides = 2000;
constexpr double kStrands = 100'000.0;
constexpr float kRadius = 10.0f;

ScalpPtr scalp() {
    static const ScalpPtr mesh = std::make_shared<const ScalpMesh>(makeSphere(250, 400, kRadius));
    return mesh;
}

/// Guides all over the sphere, bent to one side; guide `moved` is bent another way.
GuidesPtr guides(std::size_t moved, float by) {
    std::vector<GuideCurve> curves(kGuides);
    for (std::size_t g = 0; g < kGuides; ++g) {
        const float y = 1.0f - 2.0f * (float(g) + 0.5f) / float(kGuides);
        const float angle = 2.39996323f * float(g);
        const float ring = std::sqrt(1.0f - y * y);
        const Vec3f normal{ring * std::cos(angle), y, ring * std::sin(angle)};
        SurfaceHit hit;
        scalp()->closestPoint(normal * kRadius, ScalpMesh::kAnyDistance, hit);
        curves[g].id = g + 1;
        curves[g].root = hit.root();
        for (int k = 0; k < 10; ++k) {
            const float t = float(k) / 9.0f;
            Vec3f p = hit.position + normal * (4.0f * t) + Vec3f{0.0f, -2.0f * t * t, 0.5f * t};
            if (g == moved) p.x += by * t;
            curves[g].points.push_back(p);
        }
    }
    return std::make_shared<const GuideSet>(std::move(curves));
}

std::string graphText(double randomness) {
    nlohmann::json graph = defaultGraphJson();
    for (auto& node : graph["nodes"]) {
        if (node["name"] == "scatter") {
            node["params"]["density"] = kStrands / scalp()->area();
            node["params"]["randomness"] = randomness;
        }
        if (node["name"] == "resample") node["params"]["segments"] = 15;
        if (node["name"] == "noise") node["params"]["frequency"] = 1.0;
    }
    return graph.dump();
}

std::unique_ptr<GroomSession> session(double randomness = 1.0) {
    auto groom = std::make_unique<GroomSession>();
    groom->setScalp(scalp());
    groom->setGuides(guides(kGuides, 0.0f));
    groom->setGraphJson(graphText(randomness));
    return groom;
}

const EvaluationResult& evaluate(GroomSession& groom, benchmark::State& state) {
    const EvaluationResult& result = groom.evaluate({.preview = true, .computeBounds = false});
    if (!result.errors.empty()) state.SkipWithError(result.errors.front().c_str());
    return result;
}

/// A session's first evaluation. What the process keeps by mesh content (the scalp's tree, its distance
/// field and surface graph) is there already: it is made once a scalp.
void full(benchmark::State& state) {
    evaluate(*session(), state);
    for (auto _ : state) {
        state.PauseTiming();
        auto groom = session();
        state.ResumeTiming();
        runWithThreads(unsigned(state.range(0)), [&] { evaluate(*groom, state); });
        state.PauseTiming();
        groom.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(full)->Name("groom/full")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

/// All guides moved: roots, weights and fronts are cached, every strand is shaped anew.
void allGuides(benchmark::State& state) {
    auto groom = session();
    evaluate(*groom, state);
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<GuideCurve> curves = groom->document().guides->curves();
        for (GuideCurve& curve : curves)
            for (std::size_t k = 1; k < curve.points.size(); ++k) curve.points[k].x += ++round % 2 ? 0.1f : -0.1f;
        groom->setGuides(std::make_shared<const GuideSet>(std::move(curves)));
        state.ResumeTiming();
        evaluate(*groom, state);
    }
}
BENCHMARK(allGuides)->Name("groom/all guides moved")->UseRealTime()->Unit(benchmark::kMillisecond);

/// One guide of 2,000 moved.
void oneGuide(benchmark::State& state) {
    auto groom = session();
    evaluate(*groom, state);
    float by = 0.0f;
    std::size_t changed = 0;
    for (auto _ : state) {
        state.PauseTiming();
        by += 0.01f;
        const GuidesPtr moved = guides(700, by);
        state.ResumeTiming();
        groom->setGuides(moved);
        const EvaluationResult& result = evaluate(*groom, state);
        if (result.changes) changed = result.changes->strands.size();
    }
    state.counters["changedShare"] = double(changed) / kStrands;
}
BENCHMARK(oneGuide)->Name("groom/one guide moved")->UseRealTime()->Unit(benchmark::kMillisecond);

void nothing(benchmark::State& state) {
    auto groom = session();
    evaluate(*groom, state);
    for (auto _ : state) evaluate(*groom, state);
}
BENCHMARK(nothing)->Name("groom/nothing changed")->UseRealTime()->Unit(benchmark::kMicrosecond);

double peakBytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word)
        if (word == "VmHWM:") {
            double kilobytes = 0.0;
            status >> kilobytes;
            return kilobytes * 1024.0;
        }
    return 0.0;
}

/// Peak memory of the process over the bytes of all distinct arrays that the node caches hold. Run by
/// itself: --benchmark_filter=memory.
void memory(benchmark::State& state) {
    for (auto _ : state) {
        auto groom = session();
        evaluate(*groom, state);
        state.counters["peakOverCaches"] = peakBytes() / double(groom->graph()->cachedBytes());
    }
}
BENCHMARK(memory)->Name("memory/peak")->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
