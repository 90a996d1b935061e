// The strand-local nodes against the stream p += w (q - p) over the same points: what touching every
// point of 100,000 strands costs at the least. A node's time over the stream's is the figure to read.

#include <bit>

#include <benchmark/benchmark.h>

#include "model/noise.h"
#include "model/parallel.h"
#include "model/partData.h"
#include "model/polyline.h"
#include "model/simd4.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/noise.h"
#include "operators/testing/nodeBench.h"
#include "operators/testing/pointStream.h"

namespace corvelle {
namespace {

constexpr std::size_t kStrands = 100'000;
constexpr std::size_t kPoints = 16;

const StrandSet& load() {
    static const StrandSet tuft =
        makeTuft({.strands = kStrands, .pointsPerStrand = kPoints, .seed = 7, .channels = false});
    return tuft;
}

/// The same strands, each point a little elsewhere.
const StrandSet& movedLoad() {
    static const StrandSet moved = [] {
        StrandSet set = load();
        for (Vec3f& p : set.mutablePoints()) p = p * 1.01f;
        return set;
    }();
    return moved;
}

void stream(benchmark::State& state) {
    PointStream points(load().points());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] { points.step(kStrandGrain * kPoints); });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(stream)->Name("nodes/baseline stream")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

template <class Setup>
void timeNode(benchmark::State& state, const char* type, Setup&& setup) {
    NodeBench bench(type);
    if constexpr (std::is_invocable_v<Setup, NodeBench&>)
        setup(bench);
    else
        setup(bench.op());
    setIncrementalEvaluation(false);  // a full run is what is timed, and has a cause: all moved
    bool moved = false;
    for (auto _ : state) {
        state.PauseTiming();
        bench.feed(moved ? movedLoad() : load());
        moved = !moved;
        state.ResumeTiming();
        runWithThreads(unsigned(state.range(0)), [&] { benchmark::DoNotOptimize(bench.evaluate()); });
    }
    setIncrementalEvaluation(true);
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}

void length(benchmark::State& state) {
    timeNode(state, "Length", [](Operator& op) { op.set("trimMax", 0.5); });
}
void bend(benchmark::State& state) {
    timeNode(state, "Bend", [](Operator& op) {
        op.set("along", std::string("direction"));
        op.set("randomness", 0.5);
    });
}
void direction(benchmark::State& state) {
    timeNode(state, "Direction", [](Operator& op) { op.set("rollRandom", 90.0); });
}
void transform(benchmark::State& state) {
    timeNode(state, "Transform", [](Operator& op) { op.set("rotateRandom", Vec3f{10, 20, 10}); });
}
void width(benchmark::State& state) {
    timeNode(state, "Width", [](Operator&) {});
}
void resample(benchmark::State& state) {
    timeNode(state, "Resample", [](Operator& op) { op.set("segments", double(kPoints - 1)); });
}
void noise(benchmark::State& state) {
    timeNode(state, "Noise", [](Operator& op) { op.set("frequency", 1.0); });
}
void hairColor(benchmark::State& state) {
    timeNode(state, "HairColor", [](Operator&) {});
}
void cull(benchmark::State& state) {
    timeNode(state, "Cull", [](Operator& op) { op.set("keep", 0.5); });
}
void mirror(benchmark::State& state) {
    timeNode(state, "Mirror", [](NodeBench& bench) {
        bench.data.scalp = std::make_shared<const ScalpMesh>(makePlane(40, 40, 25.0f));
    });
}
/// Half of the strands cross it.
ScalpPtr cuttingSheet() {
    const ScalpMesh sheet = makePlane(40, 40, 25.0f);
    std::vector<Vec3f> points(sheet.points().begin(), sheet.points().end());
    for (Vec3f& p : points) p.y = 4.0f;
    return sheet.withPoints(points);
}
void meshCut(benchmark::State& state) {
    timeNode(state, "MeshCut", [](NodeBench& bench) {
        bench.data.colliders["collider"] = {cuttingSheet(), -1.0f};
        bench.connect(1, "ColliderMesh");
    });
}
/// The bare rays of a cut: those segments up to the first crossing whose boxes meet that of the
/// mesh, listed beforehand, through the same tree.
void bareRays(benchmark::State& state) {
    struct Ray {
        Vec3f from, along;
    };
    const ScalpPtr sheet = cuttingSheet();
    const StrandSet& in = load();
    std::vector<Ray> rays;
    for (std::size_t s = 0; s < in.strandCount(); ++s) {
        const auto points = in.pointsOf(s);
        for (std::size_t i = 0; i + 1 < points.size(); ++i) {
            const Vec3f from = points[i], along = points[i + 1] - from;
            const Vec3f low = componentMin(from, points[i + 1]), high = componentMax(from, points[i + 1]);
            const Vec3f apart = componentMax(low - sheet->boundsMax(), sheet->boundsMin() - high);
            if (std::max({apart.x, apart.y, apart.z}) > 0.0f) continue;
            rays.push_back({from, along});
            SurfaceHit hit;
            if (sheet->rayIntersect(from, along, hit, 1.0f)) break;
        }
    }
    std::vector<float> hits(rays.size());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, rays.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
                SurfaceHit hit;
                for (std::size_t r = begin; r < end; ++r)
                    hits[r] = sheet->rayIntersect(rays[r].from, rays[r].along, hit, 1.0f) ? hit.distance : -1.0f;
            });
        });
        benchmark::ClobberMemory();
    }
    state.counters["rays"] = double(rays.size());
}
BENCHMARK(bareRays)->Name("nodes/bare MeshCut")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
void restoreLength(benchmark::State& state) {
    timeNode(state, "RestoreLength", [](NodeBench& bench) {
        StrandSet longer = load();
        for (Vec3f& p : longer.mutablePoints()) p = p * 1.2f;
        bench.feed(std::move(longer), 1);
    });
}
BENCHMARK(cull)->Name("nodes/Cull")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(mirror)->Name("nodes/Mirror")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(meshCut)->Name("nodes/MeshCut")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(restoreLength)->Name("nodes/RestoreLength")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
void comb(benchmark::State& state) {
    timeNode(state, "Comb", [](Operator&) {});
}
void gravity(benchmark::State& state) {
    timeNode(state, "Gravity", [](Operator&) {});
}
void straighten(benchmark::State& state) {
    timeNode(state, "Straighten", [](Operator& op) { op.set("strength", 0.5); });
}
void smooth(benchmark::State& state) {
    timeNode(state, "Smooth", [](Operator&) {});
}
void displace(benchmark::State& state) {
    timeNode(state, "Displace", [](Operator&) {});
}
void flow(benchmark::State& state) {
    timeNode(state, "Flow", [](Operator&) {});
}
void flyaway(benchmark::State& state) {
    timeNode(state, "Flyaway", [](Operator&) {});
}
constexpr float kPartStep = 0.5f, kPartEnd = 10.0f;
/// A straight part through the middle, under the default width or one that has all hair lean away.
void part(benchmark::State& state, double width) {
    timeNode(state, "Part", [width](NodeBench& bench) {
        const auto scalp = std::make_shared<const ScalpMesh>(makePlane(40, 40, 25.0f));
        PartLine line{"middle", {}};
        for (float x = -kPartEnd; x <= kPartEnd; x += kPartStep) {
            SurfaceHit hit;
            scalp->closestPoint({x, 0.0f, 0.3f}, 1.0f, hit);
            line.points.push_back(hit.root());
        }
        bench.data.scalp = scalp;
        bench.data.parts = partLinesOn({{line}}, scalp);
        if (width > 0.0) bench.op().set("width", width);
    });
}
/// The bare search for the nearest place on that part: four segments of flat arrays at a time, all
/// of them for every root, since they are few and most roots are near to one another's.
void barePart(benchmark::State& state) {
    constexpr std::size_t kSegments = std::size_t(2.0f * kPartEnd / kPartStep);
    static_assert(kSegments % 4 == 0);
    alignas(16) static std::array<float, kSegments> start[3], along[3], inverse;
    for (std::size_t k = 0; k < kSegments; ++k) {
        start[0][k] = kPartStep * float(k) - kPartEnd;
        start[1][k] = 0.0f;
        start[2][k] = 0.3f;
        along[0][k] = kPartStep;
        along[1][k] = along[2][k] = 0.0f;
        inverse[k] = 1.0f / (kPartStep * kPartStep);
    }
    const StrandSet& in = load();
    std::vector<Vec3f> away(in.strandCount());
    std::vector<std::uint32_t> segments(in.strandCount());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, in.strandCount(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
                const Float4 zero(0.0f), one(1.0f);
                for (std::size_t s = begin; s < end; ++s) {
                    const Vec3f root = in.points()[in.offsets()[s]];
                    Float4 best(1e30f), four(0.0f), share(0.0f);
                    for (std::size_t k = 0; k < kSegments; k += 4) {
                        Float4 to[3], way[3];
                        for (int x = 0; x < 3; ++x) {
                            to[x] = Float4(root[x]) - Float4::load(&start[x][k]);
                            way[x] = Float4::load(&along[x][k]);
                        }
                        const Float4 t = (to[0] * way[0] + to[1] * way[1] + to[2] * way[2]) * Float4::load(&inverse[k]);
                        const Float4 at = lower(upper(t, zero), one);
                        for (int x = 0; x < 3; ++x) to[x] = to[x] - way[x] * at;
                        const Float4 squared = to[0] * to[0] + to[1] * to[1] + to[2] * to[2];
                        const Mask4 nearer = squared < best;
                        best = select(nearer, squared, best);
                        four = select(nearer, Float4(float(k)), four);
                        share = select(nearer, at, share);
                    }
                    alignas(16) float fours[4], shares[4];
                    four.store(fours);
                    share.store(shares);
                    const int lane = std::countr_zero(unsigned(laneBits(best <= Float4(lowest(best)))));
                    const std::size_t k = std::size_t(fours[lane]) + std::size_t(lane);
                    segments[s] = std::uint32_t(k);
                    for (int x = 0; x < 3; ++x) away[s][x] = root[x] - (start[x][k] + along[x][k] * shares[lane]);
                }
            });
        });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(barePart)->Name("nodes/bare PartAll")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
void partNear(benchmark::State& state) { part(state, 0.0); }
void partAll(benchmark::State& state) { part(state, 30.0); }
BENCHMARK(partNear)->Name("nodes/Part")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(partAll)->Name("nodes/PartAll")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(comb)->Name("nodes/Comb")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(gravity)->Name("nodes/Gravity")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(straighten)->Name("nodes/Straighten")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(smooth)->Name("nodes/Smooth")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(displace)->Name("nodes/Displace")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(flow)->Name("nodes/Flow")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(flyaway)->Name("nodes/Flyaway")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(length)->Name("nodes/Length")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bend)->Name("nodes/Bend")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(direction)->Name("nodes/Direction")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(transform)->Name("nodes/Transform")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(width)->Name("nodes/Width")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(resample)->Name("nodes/Resample")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(hairColor)->Name("nodes/HairColor")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(noise)->Name("nodes/Noise")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

/// The bare noise loop: the same octaves at the same places, added to a point, and nothing else.
void bareNoise(benchmark::State& state) {
    const StrandSet& in = load();
    const NoiseSettings settings{.frequency = 1.0f};
    std::vector<Vec3f> out(in.pointCount());
    for (auto _ : state) {
        runWithThreads(unsigned(state.range(0)), [&] {
            parallelRange(0, in.strandCount(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
                std::array<float, kPoints> shares;
                std::array<Vec3f, kPoints> offsets;
                for (std::size_t s = begin; s < end; ++s) {
                    const auto points = in.pointsOf(s);
                    const float arc = polylineShares(points, shares);
                    noiseOffsets(points, shares, arc, in.ids()[s], settings, offsets);
                    for (std::size_t i = 0; i < kPoints; ++i) out[in.offsets()[s] + i] = points[i] + offsets[i] * 0.2f;
                }
            });
        });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}
BENCHMARK(bareNoise)->Name("nodes/baseline noise")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvelle
