#include <memory>

#include <benchmark/benchmark.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "operators/collide.h"

namespace corvelle {
namespace {

ScalpPtr scalp() {
    static const ScalpPtr made = std::make_shared<const ScalpMesh>(makeSphere(250, 400, 10.0f));
    return made;
}

/// 100,000 strands of 16 points standing off the scalp; `touching` is the share that leans under
/// it.
StrandsPtr hair(float touching) {
    StrandSet set;
    set.reserve(100000, 1600000);
    std::vector<Vec3f> points(16);
    for (std::uint64_t s = 0; s < 100000; ++s) {
        SplitMix random(s);
        const Vec3f out = normalized(
            {random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1) + 0.01f});
        const Vec3f side = anyPerpendicular(out);
        const float lift = random.nextFloat() < touching ? 0.0f : 1.0f;
        for (std::size_t i = 0; i < points.size(); ++i) {
            const float t = float(i) / 15.0f;
            points[i] = out * (10.0f + t * lift) + side * (3.0f * t);
            if (lift == 1.0f && i > 0) points[i] += out * 0.1f;
        }
        set.addStrand(s, points, {}, {});
    }
    return std::make_shared<const StrandSet>(std::move(set));
}

/// p += w (q - p) over as many points: what a deformer costs that computes nothing.
void timeStream(benchmark::State& state) {
    const StrandsPtr strands = hair(0.0f);
    const std::vector<Vec3f> q(strands->points().begin(), strands->points().end());
    for (auto _ : state) {
        StrandSet out = *strands;
        const std::span<Vec3f> p = out.mutablePoints();
        parallelRange(0, p.size(), kChunkElements, [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) p[i] += 0.5f * (q[i] - p[i]);
        });
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(q.size()));
}
BENCHMARK(timeStream)->Name("collide/stream")->UseRealTime()->Unit(benchmark::kMillisecond);

template <bool byField>
void timeCollide(benchmark::State& state) {
    const StrandsPtr strands = hair(float(state.range(0)) / 100.0f);
    CollideSurface surface;
    if (byField)
        surface.field = sharedDistanceField(scalp(), 0.05f);
    else
        surface.exact = sharedExactDistance(scalp());
    const std::vector<CollideSurface> surfaces = {surface};
    for (auto _ : state) benchmark::DoNotOptimize(collide(strands, surfaces, {}));
    state.SetItemsProcessed(state.iterations() * std::int64_t(strands->pointCount()));
}
BENCHMARK(timeCollide<true>)
    ->Name("collide/field")
    ->ArgName("touching%")
    ->Arg(0)
    ->Arg(10)
    ->Arg(50)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(timeCollide<false>)
    ->Name("collide/exact")
    ->ArgName("touching%")
    ->Arg(10)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// As many closest points as the field has nodes, found one by one from the one before.
void timePlainField(benchmark::State& state) {
    const DistanceField field(*scalp(), 0.05f);
    const ExactDistance exact(scalp());
    const std::size_t n = std::size_t(std::cbrt(double(field.nodeCount())));
    for (auto _ : state) {
        float sum = 0.0f;
        for (std::size_t i = 0; i < n * n * n; ++i) {
            std::int32_t from = -1;
            DistanceSample sample;
            const Vec3f at{float(i % n), float(i / n % n), float(i / (n * n))};
            exact.sample((at / float(n) - Vec3f{0.5f, 0.5f, 0.5f}) * 21.0f, ScalpMesh::kAnyDistance,
                         from, sample);
            sum += sample.distance;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(timePlainField)
    ->Name("distanceField/baseline")
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
void timeField(benchmark::State& state) {
    scalp()->prepareQueries();
    for (auto _ : state) benchmark::DoNotOptimize(DistanceField(*scalp(), 0.05f));
}
BENCHMARK(timeField)->Name("distanceField/build")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
