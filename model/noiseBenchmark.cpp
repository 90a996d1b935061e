// The fast noise against its plain form, on the same points in the same run.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "model/hash.h"
#include "model/noise.h"
#include "model/noisePlain.h"

namespace corvelle {
namespace {

constexpr std::size_t kPoints = 16384;
constexpr std::uint64_t kSeed = 42;
constexpr int kOctaves = 3;

std::vector<Vec3f> makePoints() {
    SplitMix random(1);
    std::vector<Vec3f> points(kPoints);
    for (Vec3f& p : points)
        p = {random.nextRange(-40, 40), random.nextRange(-40, 40), random.nextRange(-40, 40)};
    return points;
}

/// The fractal sum over plain octaves.
template <class Value, class Octave>
Value plainSum(Vec3f p, Octave&& octave) {
    Value sum{};
    float amplitude = 1.0f, norm = 0.0f;
    for (int k = 0; k < kOctaves; ++k) {
        sum += octave(p, hashCombine(kSeed, k)) * amplitude;
        norm += amplitude;
        p *= 2.0f;
        amplitude *= 0.5f;
    }
    return sum / norm;
}

using Scalars = std::vector<float>;
using Vectors = std::vector<Vec3f>;

void noise3Plain(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = plain::noise3(p[i], kSeed);
}
void noise3Single(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = noise3(p[i], kSeed);
}
void noise3Batch(const Vectors& p, Scalars& out) { noise3(p, kSeed, out); }
void noise4Plain(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = plain::noise4(p[i], p[i].x, kSeed);
}
void noise4Single(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = noise4(p[i], p[i].x, kSeed);
}
void fbmPlain(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i)
        out[i] = plainSum<float>(
            p[i], [](Vec3f q, std::uint64_t seed) { return plain::noise3(q, seed); });
}
void fbmSingle(const Vectors& p, Scalars& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = fbm(p[i], kSeed, kOctaves);
}
void fbmBatch(const Vectors& p, Scalars& out) { fbm(p, kSeed, kOctaves, out); }
void fbmVectorPlain(const Vectors& p, Vectors& out) {
    for (std::size_t i = 0; i < p.size(); ++i)
        out[i] = plainSum<Vec3f>(
            p[i], [](Vec3f q, std::uint64_t seed) { return plain::noiseVector3(q, seed); });
}
void fbmVectorSingle(const Vectors& p, Vectors& out) {
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = fbmVector(p[i], kSeed, kOctaves);
}
void fbmVectorBatch(const Vectors& p, Vectors& out) { fbmVector(p, kSeed, kOctaves, out); }

template <class Values, auto Variant, auto Plain>
void timeNoise(benchmark::State& state) {
    const Vectors points = makePoints();
    Values out(kPoints), expected(kPoints);
    Plain(points, expected);
    Variant(points, out);
    if (std::memcmp(out.data(), expected.data(), kPoints * sizeof(out[0])) != 0)
        return state.SkipWithError("result differs from the baseline");
    for (auto _ : state) {
        Variant(points, out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kPoints));
}

BENCHMARK(timeNoise<Scalars, noise3Plain, noise3Plain>)->Name("noise3/baseline");
BENCHMARK(timeNoise<Scalars, noise3Single, noise3Plain>)->Name("noise3/single");
BENCHMARK(timeNoise<Scalars, noise3Batch, noise3Plain>)->Name("noise3/batch");
BENCHMARK(timeNoise<Scalars, noise4Plain, noise4Plain>)->Name("noise4/baseline");
BENCHMARK(timeNoise<Scalars, noise4Single, noise4Plain>)->Name("noise4/single");
BENCHMARK(timeNoise<Scalars, fbmPlain, fbmPlain>)->Name("fbm/baseline");
BENCHMARK(timeNoise<Scalars, fbmSingle, fbmPlain>)->Name("fbm/single");
BENCHMARK(timeNoise<Scalars, fbmBatch, fbmPlain>)->Name("fbm/batch");
BENCHMARK(timeNoise<Vectors, fbmVectorPlain, fbmVectorPlain>)->Name("fbmVector/baseline");
BENCHMARK(timeNoise<Vectors, fbmVectorSingle, fbmVectorPlain>)->Name("fbmVector/single");
BENCHMARK(timeNoise<Vectors, fbmVectorBatch, fbmVectorPlain>)->Name("fbmVector/batch");

}  // namespace
}  // namespace corvelle
