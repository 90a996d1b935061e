// Strokes at the standard load, over the wire's own commands: a scalp of 200,000 triangles, 2,000
// guides, 100,000 strands of 16 points, a brush that reaches about 1 % of the guides. Read as
// ratios to "stroke/full evaluation", arrays written in both.

#include <cmath>
#include <cstdlib>

#include <benchmark/benchmark.h>

#include "graph/graphJson.h"
#include "hosts/blender/helper/dispatch.h"
#include "hosts/blender/helper/toolState.h"
#include "model/testing/meshes.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

constexpr std::size_t kGuides = 2000;
constexpr double kStrands = 100'000.0;
constexpr float kRadius = 10.0f;
constexpr double kPixels = 800.0;
constexpr double kPixelsPerCm = kPixels / 24.0;
constexpr double kBrush = 2.0 * kRadius * 0.1 * kPixelsPerCm;  ///< a cap of 1 % of the sphere

ScalpPtr scalp() {
    static const ScalpPtr mesh = std::make_shared<const ScalpMesh>(makeSphere(250, 400, kRadius));
    return mesh;
}

GuideHierarchy guides() {
    GuideHierarchy hierarchy;
    const std::uint32_t group = hierarchy.addGroup("primary", 0);
    for (std::size_t g = 0; g < kGuides; ++g) {
        const float y = 1.0f - 2.0f * (float(g) + 0.5f) / float(kGuides);  // even over the sphere
        const float angle = 2.39996323f * float(g), ring = std::sqrt(1.0f - y * y);
        const Vec3f normal{ring * std::cos(angle), y, ring * std::sin(angle)};
        SurfaceHit hit;
        scalp()->closestPoint(normal * kRadius, ScalpMesh::kAnyDistance, hit);
        std::vector<Vec3f> points;
        for (int k = 0; k < 10; ++k) {
            const float t = float(k) / 9.0f;
            points.push_back(hit.position + normal * (2.0f * t) +
                             Vec3f{0.0f, -0.5f * t * t, 0.2f * t});
        }
        hierarchy.addGuide(group, hit.root(), std::move(points), 0, scalp().get());
    }
    return hierarchy;
}

class Load {
public:
    Load() {
        ask("new_session", {{"space", {{"upAxis", "Y"}, {"metersPerUnit", 0.01}}}});
        GroomSession& groom = *session().groom;
        groom.setScalp(scalp());
        groom.setHierarchy(guides());
        Json graph = defaultGraphJson();
        for (Json& node : graph["nodes"]) {
            if (node["name"] == "scatter") node["params"]["density"] = kStrands / scalp()->area();
            if (node["name"] == "resample") node["params"]["segments"] = 15;
            if (node["name"] == "noise") node["params"]["frequency"] = 1.0;
        }
        groom.setGraphJson(graph.dump());
        // From +z, 24 cm across 800 pixels.
        const double k = 2.0 / 24.0;
        view_ = {{"perspectiveMatrix", {k, 0, 0, 0, 0, k, 0, 0, 0, 0, -0.02, 0, 0, 0, 0, 1}},
                 {"width", kPixels},
                 {"height", kPixels}};
        ask("tool_set", {{"tool", "comb"}, {"settings", {{"radius", kBrush}}}});
    }
    HelperSession& session() { return *state_.sessions.begin()->second; }
    Json ask(const char* command, Json fields = Json::object()) {
        fields["session"] = 1;
        return dispatch(state_, command, fields);
    }
    Json evaluate() { return ask("evaluate"); }
    void begin() { ask("stroke_begin", {{"view", view_}, {"x", 400}, {"y", 400}}); }
    /// To and fro under the brush, a little further along each time.
    void drag(int round) {
        const double x = 400.0 + 4.0 * double(round % 2) + 0.01 * double(round);
        ask("stroke_drag", {{"points", {{x, 400.0}}}});
    }
    Json hover(int round) {
        return ask("hover", {{"view", view_}, {"x", 300.0 + double(round % 200)}, {"y", 380}});
    }

private:
    HelperState state_;
    Json view_;
};

void fullEvaluation(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto load = std::make_unique<Load>();
        state.ResumeTiming();
        benchmark::DoNotOptimize(load->evaluate());
        state.PauseTiming();
        load.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(fullEvaluation)
    ->Name("stroke/full evaluation")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void dragAndEvaluate(benchmark::State& state) {
    Load load;
    load.evaluate();
    load.begin();
    load.drag(0);
    load.evaluate();
    const std::string text = load.session().groom->document().hierarchy;
    const std::uint32_t regions = load.session().strandPool.serial();
    int round = 0;
    Json answer;
    for (auto _ : state) {
        load.drag(++round);
        answer = load.evaluate();
    }
    if (load.session().groom->document().hierarchy != text)
        state.SkipWithError("the document changed in a stroke");
    if (load.session().strandPool.serial() != regions)
        state.SkipWithError("a region was made in a stroke");
    const Json& changed = answer["changedStrands"];
    state.counters["changedShare"] = changed.is_number() ? changed.get<double>() / kStrands : 1.0;
}
BENCHMARK(dragAndEvaluate)
    ->Name("stroke/drag and evaluate")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void undoAndEvaluate(benchmark::State& state) {
    Load load;
    load.evaluate();
    load.begin();
    load.drag(1);
    load.ask("stroke_end");
    load.evaluate();
    bool back = true;
    for (auto _ : state) {
        load.ask(back ? "undo" : "redo");
        load.evaluate();
        back = !back;
    }
}
BENCHMARK(undoAndEvaluate)
    ->Name("stroke/undo and evaluate")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void hover(benchmark::State& state) {
    Load load;
    load.evaluate();
    load.hover(0);
    int round = 0;
    for (auto _ : state) benchmark::DoNotOptimize(load.hover(++round));
}
BENCHMARK(hover)->Name("stroke/hover")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
