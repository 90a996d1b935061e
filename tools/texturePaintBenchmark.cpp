// A stamp on an image of 4096 pixels a side, against the plainest form: a weight for every pixel.

#include <benchmark/benchmark.h>

#include "model/testing/meshes.h"
#include "tools/texturePaint.h"

namespace corvelle {
namespace {

constexpr int kSide = 4096;

ScalpPtr benchScalp() {
    static const ScalpPtr scalp = std::make_shared<const ScalpMesh>(makeSphere(150, 300, 10.0f));
    return scalp;
}

/// `radius` in hundredths of a centimetre, on a head of 10.
BrushStamp stampOf(const benchmark::State& state) {
    return {.center = {10.0f, 0.0f, 0.0f}, .radius = float(state.range(0)) / 100.0f};
}

constexpr std::array<float, 4> kWhite = {1, 1, 1, 1};

void timeTextureStamp(benchmark::State& state) {
    TexturePaint paint(PaintImage::filled(kSide, kSide, 1, {0}));
    paint.beginEdit(benchScalp());
    const BrushStamp stamp = stampOf(state);
    paint.applyEdit(stamp, 0.001f, kWhite);  // tables are made once a stroke
    for (auto _ : state) benchmark::DoNotOptimize(paint.applyEdit(stamp, 0.001f, kWhite));
}
BENCHMARK(timeTextureStamp)->Name("textureStamp/tiles")->Arg(50)->Arg(200)->UseRealTime();

void timeTextureStampAndShow(benchmark::State& state) {
    TexturePaint paint(PaintImage::filled(kSide, kSide, 1, {0}));
    paint.beginEdit(benchScalp());
    const BrushStamp stamp = stampOf(state);
    float value = 0.0f;
    for (auto _ : state) {
        value = 1.0f - value;
        paint.applyEdit(stamp, 0.5f, {value, value, value, value});
        benchmark::DoNotOptimize(paint.image());
    }
}
BENCHMARK(timeTextureStampAndShow)
    ->Name("textureStamp/tilesAndShow")
    ->Arg(50)
    ->Arg(200)
    ->UseRealTime();

void timeTextureFirstStamp(benchmark::State& state) {
    const auto blank = PaintImage::filled(kSide, kSide, 1, {0});
    const BrushStamp stamp = stampOf(state);
    for (auto _ : state) {
        const auto other = benchScalp()->withPoints(
            {benchScalp()->points().begin(), benchScalp()->points().end()});
        TexturePaint paint(blank);
        paint.beginEdit(other);
        benchmark::DoNotOptimize(paint.applyEdit(stamp, 0.5f, kWhite));
    }
}
BENCHMARK(timeTextureFirstStamp)->Name("textureStamp/first")->Arg(200)->UseRealTime();

void timeTextureStampPlain(benchmark::State& state) {
    const ScalpPtr scalp = benchScalp();
    PixelOwners owners(scalp, kSide, kSide);
    std::vector<std::size_t> all(std::size_t(owners.columns() * owners.rows()));
    for (std::size_t t = 0; t < all.size(); ++t) all[t] = t;
    owners.prepare(all);
    std::vector<float> values(std::size_t(kSide) * kSide, 0.0f);
    const BrushStamp stamp = stampOf(state);
    for (auto _ : state) {
        for (const std::size_t t : all) {
            const PixelOwners::Tile& tile = owners.tile(t);
            for (std::size_t p = 0; p < tile.owner.size(); ++p) {
                if (tile.owner[p] == PixelOwners::kNone) continue;
                const Vec3f place = tile.patches[tile.owner[p]].at(int(p % PixelTile::kSide),
                                                                   int(p / PixelTile::kSide));
                float& value = values[t * PixelTile::kPixels + p];
                value += (1.0f - value) * std::min(0.001f * stamp.weight(place), 1.0f);
            }
        }
        benchmark::DoNotOptimize(values.data());
    }
}
BENCHMARK(timeTextureStampPlain)->Name("textureStamp/baseline")->Arg(200)->UseRealTime();

}  // namespace
}  // namespace corvelle
