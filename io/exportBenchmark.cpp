// Writing hair: Alembic beside the bare library on arrays that are ready, USD beside a bare
// parallel loop that makes the same numbers text and keeps it. Read as ratios.

#include <filesystem>

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>
#include <benchmark/benchmark.h>

#include "io/alembicWriter.h"
#include "io/usdText.h"
#include "io/usdWriter.h"
#include "model/parallel.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

namespace AbcG = Alembic::AbcGeom;
namespace Abc = Alembic::Abc;

constexpr int kFrames = 4;

const StrandSet& hair() {
    static const StrandSet set =
        makeTuft({.strands = 100'000, .pointsPerStrand = 16, .channels = false});
    return set;
}

std::string scratch(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

/// Each frame has points of its own, or the library would store them once.
StrandSet moved(int frame) {
    StrandSet out = hair();
    for (Vec3f& p : out.mutablePoints()) p.x += float(frame);
    return out;
}

void alembicBare(benchmark::State& state) {
    std::vector<StrandSet> frames;
    for (int f = 0; f < kFrames; ++f) frames.push_back(moved(f));
    std::vector<std::int32_t> counts(hair().strandCount(), 16);
    const std::string path = scratch("corvelleBenchBare.abc");
    for (auto _ : state) {
        AbcG::OArchive archive(Alembic::AbcCoreOgawa::WriteArchive(), path);
        const auto clock = std::make_shared<Abc::TimeSampling>(1.0 / 24.0, 0.0);
        AbcG::OXform top(archive.getTop(), "hair");
        AbcG::OCurves curves(top, "hairShape", clock);
        AbcG::OUInt64GeomParam ids(curves.getSchema().getArbGeomParams(), "strandId", false,
                                   AbcG::kUniformScope, 1, clock);
        for (const StrandSet& set : frames) {
            AbcG::OCurvesSchema::Sample sample(
                Abc::P3fArraySample(reinterpret_cast<const Abc::V3f*>(set.points().data()),
                                    set.pointCount()),
                Abc::Int32ArraySample(counts), AbcG::kLinear, AbcG::kNonPeriodic);
            sample.setBasis(AbcG::kNoBasis);
            sample.setWidths(
                {Abc::FloatArraySample(set.widths().data(), set.pointCount()), AbcG::kVertexScope});
            curves.getSchema().set(sample);
            ids.set(
                {Abc::UInt64ArraySample(set.ids().data(), set.strandCount()), AbcG::kUniformScope});
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames * std::int64_t(hair().strandCount()));
    std::filesystem::remove(path);
}

void alembicOurs(benchmark::State& state) {
    std::vector<StrandSet> frames;
    for (int f = 0; f < kFrames; ++f) frames.push_back(moved(f));
    const std::string path = scratch("corvelleBenchOurs.abc");
    for (auto _ : state) {
        StrandsAlembicWriter writer;
        writer.open(path, "hair", 24.0);
        for (int f = 0; f < kFrames; ++f)
            writer.writeStrands(f, {.strands = &frames[std::size_t(f)]});
        writer.close();
    }
    state.SetItemsProcessed(state.iterations() * kFrames * std::int64_t(hair().strandCount()));
    std::filesystem::remove(path);
}

/// The texts of one frame's points, widths and ids, in chunks, nothing else.
void usdBare(benchmark::State& state) {
    const StrandSet& set = hair();
    constexpr std::size_t kChunk = 16384;
    std::vector<std::string> texts;
    const auto loop = [&](std::size_t count, auto element) {
        const std::size_t chunks = (count + kChunk - 1) / kChunk;
        if (texts.size() < chunks) texts.resize(chunks);
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                texts[c].clear();
                for (std::size_t i = c * kChunk; i < std::min(count, (c + 1) * kChunk); ++i) {
                    element(texts[c], i);
                    texts[c] += ", ";
                }
            }
        });
        benchmark::DoNotOptimize(texts.data());
    };
    for (auto _ : state) {
        loop(set.pointCount(),
             [&](std::string& out, std::size_t i) { appendUsd(out, set.points()[i]); });
        loop(set.pointCount(),
             [&](std::string& out, std::size_t i) { appendUsd(out, set.widths()[i]); });
        loop(set.strandCount(),
             [&](std::string& out, std::size_t i) { appendUsd(out, std::int64_t(set.ids()[i])); });
        for (const int half : {0, 32})
            loop(set.strandCount(), [&](std::string& out, std::size_t i) {
                appendUsd(out, std::int32_t(std::uint32_t(set.ids()[i] >> half)));
            });
        loop(set.strandCount(), [&](std::string& out, std::size_t i) {
            appendUsd(out, std::int32_t(set.pointCountOf(i)));
        });
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(set.strandCount()));
}

/// Frames into the spools; putting the layer together is a copy of files and is timed apart.
void usdOurs(benchmark::State& state) {
    const StrandSet& set = hair();
    const std::string path = scratch("corvelleBench.usda");
    UsdWriter writer(path);
    double time = 0.0;
    for (auto _ : state) writer.writeFrame(time++, {.strands = &set});
    state.SetItemsProcessed(state.iterations() * std::int64_t(set.strandCount()));
}

void usdWhole(benchmark::State& state) {
    const StrandSet& set = hair();
    const std::string path = scratch("corvelleBenchWhole.usda");
    for (auto _ : state) {
        UsdWriter writer(path);
        writer.writeFrame(1, {.strands = &set});
        writer.close();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(set.strandCount()));
    std::filesystem::remove(path);
}

BENCHMARK(alembicBare)->Name("alembicWrite/baseline")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(alembicOurs)->Name("alembicWrite/strands")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(usdBare)->Name("usdWrite/baseline")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(usdOurs)->Name("usdWrite/frame")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(usdWhole)->Name("usdWrite/wholeLayer")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
