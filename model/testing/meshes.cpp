#include "model/testing/meshes.h"

#include <array>
#include <cmath>
#include <map>
#include <numbers>
#include <utility>

#include "model/elementary.h"
#include "model/hash.h"

namespace corvelle {
namespace {

constexpr float kPi = std::numbers::pi_v<float>;

/// Corner UVs from a UV per point.
std::vector<Vec2f> cornerUvs(const std::vector<Triangle>& triangles,
                             const std::vector<Vec2f>& uvs) {
    std::vector<Vec2f> out;
    out.reserve(3 * triangles.size());
    for (const Triangle& t : triangles)
        for (const std::int32_t i : t) out.push_back(uvs[std::size_t(i)]);
    return out;
}

Vec3f randomIn(SplitMix& random, float extent) {
    const float x = random.nextRange(-extent, extent);
    const float y = random.nextRange(-extent, extent);
    const float z = random.nextRange(-extent, extent);
    return {x, y, z};
}

}  // namespace

ScalpMesh makePlane(int nx, int ny, float size) {
    std::vector<Vec3f> points;
    std::vector<Vec2f> uvs;
    for (int j = 0; j <= ny; ++j)
        for (int i = 0; i <= nx; ++i) {
            const float u = float(i) / float(nx), v = float(j) / float(ny);
            points.push_back({(u - 0.5f) * size, 0.0f, (0.5f - v) * size});
            uvs.push_back({u, v});
        }
    std::vector<Triangle> triangles;
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i) {
            const std::int32_t a = j * (nx + 1) + i, b = a + 1, d = a + nx + 1, c = d + 1;
            triangles.push_back({a, b, c});
            triangles.push_back({a, c, d});
        }
    ScalpMesh mesh(std::move(points), triangles);
    mesh.setUvs(cornerUvs(triangles, uvs));
    mesh.setPolygons(std::vector<std::int32_t>(triangles.size() / 2, 2));
    return mesh;
}

ScalpMesh makeSphere(int rings, int segments, float radius) {
    std::vector<Vec3f> points{{0.0f, -radius, 0.0f}};
    for (int r = 1; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            const float polar = kPi * float(r) / float(rings),
                        turn = 2.0f * kPi * float(s) / float(segments);
            points.push_back({radius * math::sin(polar) * math::cos(turn),
                              -radius * math::cos(polar),
                              -radius * math::sin(polar) * math::sin(turn)});
        }
    points.push_back({0.0f, radius, 0.0f});
    const auto at = [&](int ring, int segment) {
        if (ring == 0) return std::int32_t(0);
        if (ring == rings) return std::int32_t(points.size() - 1);
        return std::int32_t(1 + (ring - 1) * segments + segment % segments);
    };
    const auto uvAt = [&](int ring, int segment) {
        return Vec2f{float(segment) / float(segments), float(ring) / float(rings)};
    };
    std::vector<Triangle> triangles;
    std::vector<Vec2f> uvs;
    std::vector<std::int32_t> polygons;
    for (int r = 0; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            std::int32_t count = 0;
            const auto add = [&](std::array<std::pair<int, int>, 3> corners) {
                Triangle t;
                for (std::size_t k = 0; k < 3; ++k) {
                    t[k] = at(corners[k].first, corners[k].second);
                    uvs.push_back(uvAt(corners[k].first, corners[k].second));
                }
                triangles.push_back(t);
                ++count;
            };
            if (r > 0) add({{{r, s}, {r, s + 1}, {r + 1, s + 1}}});
            if (r + 1 < rings) {
                if (r > 0)
                    add({{{r, s}, {r + 1, s + 1}, {r + 1, s}}});
                else
                    add({{{0, s}, {1, s + 1}, {1, s}}});
            }
            polygons.push_back(count);
        }
    ScalpMesh mesh(std::move(points), std::move(triangles));
    mesh.setUvs(std::move(uvs));
    mesh.setPolygons(std::move(polygons));
    return mesh;
}

ScalpMesh makeIcosphere(int levels, float radius) {
    const float g = 0.5f * (1.0f + std::sqrt(5.0f));
    std::vector<Vec3f> points{{-1, g, 0}, {1, g, 0}, {-1, -g, 0}, {1, -g, 0},
                              {0, -1, g}, {0, 1, g}, {0, -1, -g}, {0, 1, -g},
                              {g, 0, -1}, {g, 0, 1}, {-g, 0, -1}, {-g, 0, 1}};
    std::vector<Triangle> triangles{{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                    {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                    {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                    {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
    for (Vec3f& p : points) p = normalized(p) * radius;
    for (int level = 0; level < levels; ++level) {
        std::map<std::pair<std::int32_t, std::int32_t>, std::int32_t> middles;
        const auto middle = [&](std::int32_t a, std::int32_t b) {
            const auto [at, added] =
                middles.try_emplace(std::minmax(a, b), std::int32_t(points.size()));
            if (added)
                points.push_back(normalized(points[std::size_t(a)] + points[std::size_t(b)]) *
                                 radius);
            return at->second;
        };
        std::vector<Triangle> next;
        next.reserve(4 * triangles.size());
        for (const Triangle& t : triangles) {
            const std::int32_t ab = middle(t[0], t[1]), bc = middle(t[1], t[2]),
                               ca = middle(t[2], t[0]);
            next.push_back({t[0], ab, ca});
            next.push_back({t[1], bc, ab});
            next.push_back({t[2], ca, bc});
            next.push_back({ab, bc, ca});
        }
        triangles = std::move(next);
    }
    return ScalpMesh(std::move(points), std::move(triangles));
}

ScalpMesh makeTriangleSoup(std::size_t count, float extent, float size, std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    for (std::size_t t = 0; t < count; ++t) {
        const std::int32_t at = std::int32_t(points.size());
        const Vec3f a = randomIn(random, extent);
        Vec3f b = a + randomIn(random, size), c = a + randomIn(random, size);
        const std::uint64_t kind = random.nextU64() % 20;
        if (kind == 0) b = c = a;
        if (kind == 1) c = a;
        if (kind == 2) c = mix(a, b, random.nextFloat());
        if (kind == 3) c = mix(a, b, 0.5f) + randomIn(random, 1e-6f * size);
        if (kind == 4 && !triangles.empty()) {  // a twin, wound the other way
            const Triangle twin = triangles[random.nextU64() % triangles.size()];
            triangles.push_back({twin[0], twin[2], twin[1]});
            continue;
        }
        points.insert(points.end(), {a, b, c});
        triangles.push_back({at, at + 1, at + 2});
    }
    return ScalpMesh(std::move(points), std::move(triangles));
}

ScalpMesh makeFan(std::size_t corners, float radius) {
    std::vector<Vec3f> points;
    for (std::size_t i = 0; i < corners; ++i) {
        const double turn = 2.0 * std::numbers::pi * double(i) / double(corners);
        points.push_back({radius * float(math::cos(turn)), 0.0f, -radius * float(math::sin(turn))});
    }
    std::vector<Triangle> triangles;
    for (std::size_t i = 2; i < corners; ++i)
        triangles.push_back({0, std::int32_t(i - 1), std::int32_t(i)});
    const std::int32_t count = std::int32_t(triangles.size());
    ScalpMesh mesh(std::move(points), std::move(triangles));
    mesh.setPolygons({count});
    return mesh;
}

std::vector<Vec3f> jitteredPoints(const ScalpMesh& mesh, float amount, std::uint64_t seed) {
    SplitMix random(seed);
    std::vector<Vec3f> points(mesh.points().begin(), mesh.points().end());
    for (Vec3f& p : points) p += randomIn(random, amount);
    return points;
}

}  // namespace corvelle
