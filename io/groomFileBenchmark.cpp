#include <algorithm>
#include <fstream>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "io/groomReader.h"
#include "io/groomWriter.h"
#include "model/hash.h"

namespace corvelle {
namespace {

/// Hair guides of about `megabytes` of text: curves of 32 points in centimetres.
GroomFile madeFile(std::size_t megabytes) {
    SplitMix random(7);
    constexpr std::size_t kPoints = 32, kBytesAPoint = 31;
    std::vector<GuideCurve> guides(
        std::max<std::size_t>(1, megabytes * 1'000'000 / (kPoints * kBytesAPoint)));
    for (std::size_t g = 0; g < guides.size(); ++g) {
        guides[g].id = g + 1;
        guides[g].root = {std::int32_t(g), random.nextFloat(), random.nextFloat()};
        guides[g].points.resize(kPoints);
        Vec3f at{random.nextFloat() * 20.0f, random.nextFloat() * 20.0f,
                 random.nextFloat() * 20.0f};
        for (Vec3f& point : guides[g].points) {
            point = at;
            at += Vec3f{random.nextFloat() - 0.5f, random.nextFloat() - 0.5f, random.nextFloat()};
        }
    }
    GroomFile file;
    file.guides = std::make_shared<const GuideSet>(guides);
    return file;
}

/// The same floats in one long array.
GroomFile meshFile(const GroomFile& guides) {
    GroomFile file;
    const auto points = guides.guides->points();
    file.scalp = std::make_shared<const ScalpMesh>(std::vector<Vec3f>(points.begin(), points.end()),
                                                   std::vector<Triangle>());
    return file;
}

enum class Shape { Guides, Mesh };

GroomFile fileOf(Shape shape, benchmark::State& state) {
    const GroomFile guides = madeFile(std::size_t(state.range(0)));
    return shape == Shape::Guides ? guides : meshFile(guides);
}

/// Memory of this process in bytes: "VmHWM", its peak, or "VmRSS".
double memoryOf(const std::string& what) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(what + ":", 0) == 0) return 1024.0 * std::stod(line.substr(what.size() + 1));
    return 0.0;
}

template <Shape shape>
void readTree(benchmark::State& state) {
    const std::string text = groomFileText(fileOf(shape, state));
    for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(text));
    state.SetBytesProcessed(std::int64_t(state.iterations() * text.size()));
}

template <Shape shape>
void readFile(benchmark::State& state) {
    std::string text;
    std::size_t floats = 0;
    {
        const GroomFile file = fileOf(shape, state);
        text = groomFileText(file);
        floats = 3 * (file.guides ? file.guides->points().size() : file.scalp->points().size());
        if (groomFileText(readGroomFileText(text, "")) != text)
            return state.SkipWithError("reading and writing changed the text");
    }
    for (auto _ : state) benchmark::DoNotOptimize(readGroomFileText(text, ""));
    state.SetBytesProcessed(std::int64_t(state.iterations() * text.size()));
#if defined(__GLIBC__)
    malloc_trim(0);  // what was freed must not hide what is taken
#endif
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again
    const double before = memoryOf("VmRSS");
    benchmark::DoNotOptimize(readGroomFileText(text, ""));
    // The text is there before and counts once; limit 3.
    state.counters["peak/(arrays+text)"] =
        (memoryOf("VmHWM") - before + double(text.size())) / double(text.size() + 4 * floats);
}

template <Shape shape>
void writeTree(benchmark::State& state) {
    const nlohmann::json tree = nlohmann::json::parse(groomFileText(fileOf(shape, state)));
    std::size_t size = 0;
    for (auto _ : state) size = tree.dump().size();
    state.SetBytesProcessed(std::int64_t(state.iterations() * size));
}

template <Shape shape>
void writeFile(benchmark::State& state) {
    const GroomFile file = fileOf(shape, state);
    std::size_t size = 0;
    for (auto _ : state) size = groomFileText(file).size();
    state.SetBytesProcessed(std::int64_t(state.iterations() * size));
}

// The baselines do less: they make no meshes and no guides, and their tree is there before.
#define CORVELLE_PAIR(name, baseline, ours, shape) \
    BENCHMARK(baseline<shape>)                     \
        ->Name(name "/baseline")                   \
        ->Arg(10)                                  \
        ->Arg(100)                                 \
        ->UseRealTime()                            \
        ->Unit(benchmark::kMillisecond);           \
    BENCHMARK(ours<shape>)                         \
        ->Name(name "/groom")                      \
        ->Arg(10)                                  \
        ->Arg(100)                                 \
        ->UseRealTime()                            \
        ->Unit(benchmark::kMillisecond)
CORVELLE_PAIR("read/guides", readTree, readFile, Shape::Guides);
CORVELLE_PAIR("read/mesh", readTree, readFile, Shape::Mesh);
CORVELLE_PAIR("write/guides", writeTree, writeFile, Shape::Guides);
CORVELLE_PAIR("write/mesh", writeTree, writeFile, Shape::Mesh);

}  // namespace
}  // namespace corvelle
