#include <cmath>
#include <limits>
#include <vector>

#include <benchmark/benchmark.h>

#include "model/hash.h"
#include "model/pointIndex.h"
#include "model/scalpMesh.h"
#include "model/testing/meshes.h"

#if CORVELLE_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif
#if CORVELLE_HAVE_NANOFLANN
#include <nanoflann.hpp>
#endif

namespace corvelle {
namespace {

constexpr float kRadius = 10.0f;
constexpr std::size_t kQueries = 1 << 15;

/// About 200,000 triangles: a sphere dented into something like a head, so that boxes are loose in
/// places, as on a real scalp.
const ScalpMesh& head() {
    static const ScalpMesh* mesh = [] {
        const ScalpMesh sphere = makeSphere(317, 317, kRadius);
        std::vector<Vec3f> points(sphere.points().begin(), sphere.points().end());
        for (Vec3f& p : points) {
            const float dent = 1.0f + 0.08f * std::sin(0.7f * p.x) * std::cos(0.5f * p.y) +
                               0.04f * std::sin(1.9f * p.z + p.x);
            p = {p.x * dent * 0.85f, p.y * dent * 1.1f, p.z * dent};
        }
        auto* made = new ScalpMesh(std::move(points),
                                   {sphere.triangles().begin(), sphere.triangles().end()});
        made->prepareQueries();
        return made;
    }();
    return *mesh;
}

struct Query {
    Vec3f position;
    std::int32_t triangle;  // where it stood a moment ago
};

/// Random places off the surface by up to `share` of the radius, to either side: what reprojection,
/// following and brushes ask. They come in an order without coherence.
std::vector<Query> queriesAt(double share) {
    const ScalpMesh& mesh = head();
    SplitMix random(42);
    std::vector<Query> queries;
    while (queries.size() < kQueries) {
        const std::int32_t triangle = std::int32_t(random.nextU64() % mesh.triangles().size());
        const float r = std::sqrt(random.nextFloat()), s = random.nextFloat();
        const StrandRoot root{triangle, 1.0f - r, r * s};
        const float side = random.nextFloat() < 0.5f ? -1.0f : 1.0f;
        const Vec3f p =
            mesh.surfacePoint(root) + mesh.surfaceNormal(root) * (side * float(share) * kRadius);
        queries.push_back({p, triangle});
    }
    return queries;
}

enum class Start { kCold, kLast, kBeside };

void timeClosest(benchmark::State& state, Start start) {
    const ScalpMesh& mesh = head();
    std::vector<Query> queries = queriesAt(double(state.range(0)) / 1000.0);
    if (start != Start::kCold)
        for (Query& q : queries) {
            // The last triangle is the answer for a place a little away.
            SurfaceHit hit;
            const float step = start == Start::kLast ? 0.0f : 0.005f * kRadius;
            mesh.closestPoint(q.position + Vec3f{step, 0.0f, 0.0f}, ScalpMesh::kAnyDistance, hit);
            q.triangle = hit.triangle;
        }
    for (auto _ : state)
        for (const Query& q : queries) {
            SurfaceHit hit;
            if (start == Start::kCold)
                mesh.closestPoint(q.position, ScalpMesh::kAnyDistance, hit);
            else
                mesh.closestPointFrom(q.position, ScalpMesh::kAnyDistance, q.triangle, hit);
            benchmark::DoNotOptimize(hit);
        }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kQueries));
}
BENCHMARK_CAPTURE(timeClosest, cold, Start::kCold)
    ->Name("closestPoint/cold")
    ->Arg(1)
    ->Arg(50)
    ->Arg(300);
BENCHMARK_CAPTURE(timeClosest, warm, Start::kLast)
    ->Name("closestPoint/warm")
    ->Arg(1)
    ->Arg(50)
    ->Arg(300);
BENCHMARK_CAPTURE(timeClosest, warmBeside, Start::kBeside)
    ->Name("closestPoint/warmBeside")
    ->Arg(1)
    ->Arg(50)
    ->Arg(300);

#if CORVELLE_HAVE_EMBREE
struct EmbreeHead {
    RTCDevice device = rtcNewDevice("threads=1");
    RTCScene scene = rtcNewScene(device);
    EmbreeHead() {
        const ScalpMesh& mesh = head();
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                   mesh.points().data(), 0, sizeof(Vec3f), mesh.points().size());
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                   mesh.triangles().data(), 0, sizeof(Triangle),
                                   mesh.triangles().size());
        rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_HIGH);
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
    }
};

/// The closest point on a triangle as in Ericson, "Real-Time Collision Detection", 5.1.5: what a
/// user of the peer writes.
Vec3f ericson(Vec3f p, Vec3f a, Vec3f b, Vec3f c) {
    const Vec3f ab = b - a, ac = c - a, ap = p - a;
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    if (d1 <= 0.0f && d2 <= 0.0f) return a;
    const Vec3f bp = p - b;
    const float d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0.0f && d4 <= d3) return b;
    const Vec3f cp = p - c;
    const float d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0.0f && d5 <= d6) return c;
    const float vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0f && d1 >= 0.0f && d3 <= 0.0f) return a + ab * (d1 / (d1 - d3));
    const float vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0f && d2 >= 0.0f && d6 <= 0.0f) return a + ac * (d2 / (d2 - d6));
    const float va = d3 * d6 - d5 * d4;
    if (va <= 0.0f && d4 - d3 >= 0.0f && d5 - d6 >= 0.0f)
        return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
    const float denominator = 1.0f / (va + vb + vc);
    return a + ab * (vb * denominator) + ac * (vc * denominator);
}

struct EmbreeResult {
    const Vec3f* points;
    const Triangle* triangles;
    std::int32_t triangle = -1;
    Vec3f position;
};

bool visitTriangle(RTCPointQueryFunctionArguments* arguments) {
    EmbreeResult& result = *static_cast<EmbreeResult*>(arguments->userPtr);
    const Triangle& t = result.triangles[arguments->primID];
    const Vec3f p{arguments->query->x, arguments->query->y, arguments->query->z};
    const Vec3f q = ericson(p, result.points[t[0]], result.points[t[1]], result.points[t[2]]);
    const float d = distance(p, q);
    if (!(d < arguments->query->radius)) return false;
    arguments->query->radius = d;
    result.triangle = std::int32_t(arguments->primID);
    result.position = q;
    return true;
}

void timeEmbree(benchmark::State& state) {
    static const EmbreeHead* embree = new EmbreeHead;
    const ScalpMesh& mesh = head();
    const std::vector<Query> queries = queriesAt(double(state.range(0)) / 1000.0);
    const auto ask = [&](const Query& q) {
        EmbreeResult result{mesh.points().data(), mesh.triangles().data(), -1, {}};
        RTCPointQuery query{q.position.x, q.position.y, q.position.z, 0.0f,
                            std::numeric_limits<float>::infinity()};
        RTCPointQueryContext context;
        rtcInitPointQueryContext(&context);
        rtcPointQuery(embree->scene, &query, &context, visitTriangle, &result);
        return result;
    };
    for (const Query& q : queries) {
        SurfaceHit hit;
        mesh.closestPoint(q.position, ScalpMesh::kAnyDistance, hit);
        if (std::fabs(distance(ask(q).position, q.position) - hit.distance) > 1e-4f)
            return state.SkipWithError("the distance differs from the peer's");
    }
    for (auto _ : state)
        for (const Query& q : queries) benchmark::DoNotOptimize(ask(q));
    state.SetItemsProcessed(state.iterations() * std::int64_t(kQueries));
}
BENCHMARK(timeEmbree)->Name("closestPoint/embree")->Arg(1)->Arg(50)->Arg(300);
#endif

void timeBuild(benchmark::State& state) {
    const ScalpMesh& mesh = head();
    for (auto _ : state) {
        const Bvh bvh(mesh.points(), mesh.triangles(), 0, mesh.triangles().size());
        benchmark::DoNotOptimize(bvh.looseness());
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(mesh.triangles().size()));
}
BENCHMARK(timeBuild)->Name("bvh/build")->Unit(benchmark::kMillisecond);

void timeRefit(benchmark::State& state) {
    const ScalpMesh& mesh = head();
    const Bvh bvh(mesh.points(), mesh.triangles(), 0, mesh.triangles().size());
    const std::vector<Vec3f> points = jitteredPoints(mesh, 0.001f, 1);
    for (auto _ : state) {
        const Bvh moved(bvh.order(), points, mesh.triangles());
        benchmark::DoNotOptimize(moved.looseness());
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(mesh.triangles().size()));
}
BENCHMARK(timeRefit)->Name("bvh/refit")->Unit(benchmark::kMillisecond);

/// Points, normals and all: a moved frame made ready for queries, against the mesh made anew.
void timeNewMesh(benchmark::State& state, bool moved) {
    const ScalpMesh& mesh = head();
    const std::vector<Vec3f> points = jitteredPoints(mesh, 0.001f, 1);
    const std::vector<Triangle> triangles(mesh.triangles().begin(), mesh.triangles().end());
    for (auto _ : state) {
        const ScalpPtr made =
            moved ? mesh.withPoints(points) : std::make_shared<const ScalpMesh>(points, triangles);
        made->prepareQueries();
        benchmark::DoNotOptimize(made->area());
    }
}
BENCHMARK_CAPTURE(timeNewMesh, anew, false)->Name("movedMesh/anew")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(timeNewMesh, withPoints, true)
    ->Name("movedMesh/withPoints")
    ->Unit(benchmark::kMillisecond);

/// 100,000 strand roots on the head, and the same asking for their neighbours.
std::vector<Vec3f> roots() {
    const ScalpMesh& mesh = head();
    SplitMix random(5);
    std::vector<Vec3f> points;
    for (int i = 0; i < 100'000; ++i) {
        const float r = std::sqrt(random.nextFloat()), s = random.nextFloat();
        points.push_back(mesh.surfacePoint(
            {std::int32_t(random.nextU64() % mesh.triangles().size()), 1.0f - r, r * s}));
    }
    return points;
}

void timeNearest(benchmark::State& state) {
    const std::vector<Vec3f> points = roots();
    const PointIndex index(points);
    std::vector<Neighbor> out(std::size_t(state.range(0)));
    for (auto _ : state)
        for (const Vec3f p : points) {
            benchmark::DoNotOptimize(index.nearest(p, out));
            benchmark::DoNotOptimize(out.data());
        }
    state.SetItemsProcessed(state.iterations() * std::int64_t(points.size()));
}
BENCHMARK(timeNearest)->Name("nearest/pointIndex")->Arg(13)->Arg(14);

void timeNearestBuild(benchmark::State& state) {
    const std::vector<Vec3f> points = roots();
    for (auto _ : state) benchmark::DoNotOptimize(PointIndex(points).size());
    state.SetItemsProcessed(state.iterations() * std::int64_t(points.size()));
}
BENCHMARK(timeNearestBuild)->Name("nearest/pointIndexBuild");

#if CORVELLE_HAVE_NANOFLANN
struct Cloud {
    const std::vector<Vec3f>& points;
    std::size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(std::size_t i, std::size_t axis) const { return points[i][int(axis)]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const {
        return false;
    }
};
using Nanoflann = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>,
                                                      Cloud, 3, std::uint32_t>;

void timeNanoflann(benchmark::State& state) {
    const std::vector<Vec3f> points = roots();
    const Cloud cloud{points};
    const Nanoflann tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    const std::size_t k = std::size_t(state.range(0));
    std::vector<std::uint32_t> indices(k);
    std::vector<float> distances(k);
    const PointIndex index(points);
    std::vector<Neighbor> ours(k);
    for (std::size_t i = 0; i < points.size(); i += 97) {
        tree.knnSearch(&points[i].x, k, indices.data(), distances.data());
        index.nearest(points[i], ours);
        for (std::size_t n = 0; n < k; ++n)
            if (ours[n].distanceSquared != distances[n])
                return state.SkipWithError("a distance differs from the peer's");
    }
    for (auto _ : state)
        for (const Vec3f& p : points) {
            benchmark::DoNotOptimize(tree.knnSearch(&p.x, k, indices.data(), distances.data()));
            benchmark::DoNotOptimize(indices.data());
        }
    state.SetItemsProcessed(state.iterations() * std::int64_t(points.size()));
}
BENCHMARK(timeNanoflann)->Name("nearest/nanoflann")->Arg(13)->Arg(14);

void timeNanoflannBuild(benchmark::State& state) {
    const std::vector<Vec3f> points = roots();
    const Cloud cloud{points};
    for (auto _ : state) {
        const Nanoflann tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        benchmark::DoNotOptimize(&tree);
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(points.size()));
}
BENCHMARK(timeNanoflannBuild)->Name("nearest/nanoflannBuild");
#endif

}  // namespace
}  // namespace corvelle
