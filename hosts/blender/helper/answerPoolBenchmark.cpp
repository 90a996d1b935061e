// Answer arrays against memcpy of the same bytes into memory that is in place, and request arrays
// against memcpy out of it. Sizes in points of 12 bytes; 1,600,000 are 100,000 strands of 16.
#include <cstring>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "hosts/blender/helper/answerPool.h"
#include "hosts/blender/helper/arrayReader.h"

namespace corvelle {
namespace {

std::vector<Vec3f> makePoints(std::size_t count) {
    std::vector<Vec3f> points(count);
    for (std::size_t i = 0; i < count; ++i)
        points[i] = {float(i % 977) * 0.31f, float(i % 613) * -0.17f, float(i % 401) * 0.05f};
    return points;
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0) * std::int64_t(sizeof(Vec3f)));
}

// The yardstick: one thread, warm source, warm target.
void copyPlain(benchmark::State& state) {
    const std::vector<Vec3f> points = makePoints(std::size_t(state.range(0)));
    std::vector<Vec3f> target(points.size());
    for (auto _ : state) {
        std::memcpy(target.data(), points.data(), points.size() * sizeof(Vec3f));
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    countBytes(state);
}

enum class Space { Groom, HostMetres, HostCentimetres };

template <Space kSpace>
void writeAnswer(benchmark::State& state) {
    const std::vector<Vec3f> points = makePoints(std::size_t(state.range(0)));
    const SceneSpace space("Z", kSpace == Space::HostCentimetres ? 0.01 : 1.0);
    AnswerPool pool("benchmark");
    const auto answer = [&] {
        pool.prepare(AnswerPool::bytesOf(points.size(), sizeof(Vec3f)));
        return writePoints(pool, points, space, kSpace == Space::Groom);
    };
    answer();
    const auto* written = reinterpret_cast<const Vec3f*>(pool.region().bytes().data());
    for (std::size_t i = 0; i < points.size(); i += 97) {
        const Vec3f want = kSpace == Space::Groom ? points[i] : space.pointToHost(points[i]);
        if (!(written[i] == want)) return state.SkipWithError("a point differs");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(answer());
        benchmark::ClobberMemory();
    }
    if (pool.serial() != 1) return state.SkipWithError("made a region in a steady state");
    countBytes(state);
}

void readRequest(benchmark::State& state) {
    const std::vector<Vec3f> points = makePoints(std::size_t(state.range(0)));
    AnswerPool pool("benchmarkRequest");
    pool.prepare(points.size() * sizeof(Vec3f));
    const Json reference = writePoints(pool, points, {}, true);
    for (auto _ : state) {
        OpenedRegions opened;
        benchmark::DoNotOptimize(readFloats(reference, "points", 3, opened).data());
    }
    countBytes(state);
}

// The yardstick of a read: fresh memory, filled from warm memory. A read also makes its vector.
void copyFresh(benchmark::State& state) {
    const std::vector<Vec3f> points = makePoints(std::size_t(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(std::vector<Vec3f>(points).data());
    countBytes(state);
}

#define CORVELLE_SIZES ->Arg(100'000)->Arg(1'600'000)->UseRealTime()->Unit(benchmark::kMicrosecond)
BENCHMARK(copyPlain)->Name("answer/baseline memcpy") CORVELLE_SIZES;
BENCHMARK(writeAnswer<Space::Groom>)->Name("answer/groom space") CORVELLE_SIZES;
BENCHMARK(writeAnswer<Space::HostMetres>)->Name("answer/host space, metres") CORVELLE_SIZES;
BENCHMARK(writeAnswer<Space::HostCentimetres>)->Name("answer/host space, centimetres") CORVELLE_SIZES;
BENCHMARK(copyFresh)->Name("request/baseline copy") CORVELLE_SIZES;
BENCHMARK(readRequest)->Name("request/readFloats") CORVELLE_SIZES;

}  // namespace
}  // namespace corvelle
