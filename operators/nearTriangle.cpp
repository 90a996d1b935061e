#include "operators/nearTriangle.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "model/simd4.h"
#include "model/triangleQueries.h"

namespace corvelle {

namespace {

/// Walks are a few triangles long; one from far off may end before it is there.
constexpr int kMostSteps = 16;
constexpr std::size_t kLanes = 4;

/// The part of the triangle where a closest point lies: edges and corners have shares of exactly 0
/// or 1, since they are clamped.
TriangleFeature featureOf(float v, float w) {
    if (v == 0.0f && w == 0.0f) return TriangleFeature::Vertex0;
    if (v == 1.0f) return TriangleFeature::Vertex1;
    if (w == 1.0f) return TriangleFeature::Vertex2;
    if (w == 0.0f) return TriangleFeature::Edge01;
    if (v == 0.0f) return TriangleFeature::Edge20;
    return v + w == 1.0f ? TriangleFeature::Edge12 : TriangleFeature::Face;
}

}  // namespace

NearTriangle::NearTriangle(const ScalpMesh& mesh)
    : triangles_(mesh.triangles()),
      topology_(mesh.triangles(), mesh.points().size()),
      first_(std::int32_t(mesh.activeTriangles().first)),
      end_(std::int32_t(mesh.activeTriangles().second)) {
    points_.reserve(mesh.points().size());
    for (const Vec3f p : mesh.points()) points_.push_back({p.x, p.y, p.z, 0.0f});
}

inline void NearTriangle::measure(const std::int32_t* four, Vec3f position, Found& best) const {
    Float4 corners[3][4];
    for (std::size_t c = 0; c < 3; ++c) {
        const float* from[kLanes];
        for (std::size_t l = 0; l < kLanes; ++l)
            from[l] = &points_[std::size_t(triangles_[std::size_t(four[l])][c])].x;
        loadAcross(from, corners[c]);
    }
    const auto& [ax, ay, az, unused] = corners[0];
    const TriangleClosest<Float4> closest = closestOnTriangle<Float4>(
        corners[1][0] - ax, corners[1][1] - ay, corners[1][2] - az, corners[2][0] - ax,
        corners[2][1] - ay, corners[2][2] - az, Float4(position.x) - ax, Float4(position.y) - ay,
        Float4(position.z) - az);
    // Corners that are not finite give NaN, which becomes infinite.
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    const Float4 squared = lower(closest.distanceSquared, Float4(kInfinity));
    const float nearest = lowest(squared);
    if (!(nearest < kInfinity) || (best.triangle >= 0 && nearest > best.distanceSquared)) return;
    std::size_t lane = kLanes;
    for (int bits = laneBits(squared <= Float4(nearest)); bits != 0; bits &= bits - 1) {
        const std::size_t l = std::size_t(std::countr_zero(unsigned(bits)));
        if (lane == kLanes || four[l] < four[lane]) lane = l;
    }
    if (best.triangle >= 0 && nearest == best.distanceSquared && four[lane] >= best.triangle)
        return;
    alignas(16) float v[kLanes], w[kLanes];
    closest.v.store(v);
    closest.w.store(w);
    best = {four[lane], nearest, v[lane], w[lane]};
}

/// From an edge or a corner to what else touches it, when that has nearer points; true then. The
/// way from a closest point on an edge is square to the edge, so the triangle across has nearer
/// points where its third corner lies ahead; round a corner some triangle has where one of their
/// edges leads ahead.
bool NearTriangle::step(Vec3f position, Found& best) const {
    const TriangleFeature feature = featureOf(best.v, best.w);
    if (feature == TriangleFeature::Face) return false;
    const std::int32_t own = best.triangle;
    const Triangle& corners = triangles_[std::size_t(own)];
    const Vec3f at = pointOf(best).point, away = position - at;
    const auto ahead = [&](std::int32_t vertex) { return dot(away, place(vertex) - at) > 0.0f; };
    if (feature >= TriangleFeature::Edge01) {
        const std::size_t side = std::size_t(feature) - std::size_t(TriangleFeature::Edge01);
        const std::int32_t next = topology_.across(own, int(side));
        if (next < first_ || next >= end_) return false;
        const std::int32_t a = corners[side], b = corners[(side + 1) % 3];
        const Triangle& other = triangles_[std::size_t(next)];
        const std::int32_t third = other[0] != a && other[0] != b   ? other[0]
                                   : other[1] != a && other[1] != b ? other[1]
                                                                    : other[2];
        if (!ahead(third)) return false;
        measureAll({&next, 1}, position, best);
        return best.triangle != own;
    }
    const std::int32_t vertex = corners[std::size_t(feature)];
    if (std::ranges::none_of(topology_.neighborsOf(vertex), ahead)) return false;
    measureAll(topology_.trianglesOf(vertex), position, best);
    return best.triangle != own;
}

/// Four at a time, each once.
void NearTriangle::measureAll(std::span<const std::int32_t> triangles, Vec3f position,
                              Found& best) const {
    std::int32_t four[kLanes];
    std::size_t count = 0;
    for (std::size_t i = 0; i < triangles.size(); ++i) {
        const std::int32_t t = triangles[i];
        bool skip = t < first_ || t >= end_;
        for (std::size_t k = 0; k < i; ++k) skip |= triangles[k] == t;
        if (skip) continue;
        four[count++] = t;
        if (count < kLanes) continue;
        measure(four, position, best);
        count = 0;
    }
    if (count == 0) return;
    for (std::size_t l = count; l < kLanes; ++l) four[l] = four[0];
    measure(four, position, best);
}

NearTriangle::Found NearTriangle::from(std::span<const std::int32_t> begin, Vec3f position,
                                       float walkWithin) const {
    Found best;
    measureAll(begin, position, best);
    if (!(best.distanceSquared < walkWithin * walkWithin)) return best;
    for (int i = 0; i < kMostSteps && best.triangle >= 0 && step(position, best); ++i) {
    }
    return best;
}

TrianglePoint NearTriangle::pointOf(const Found& found) const {
    const Triangle& t = triangles_[std::size_t(found.triangle)];
    const Vec3f a = place(t[0]);
    return {a + (place(t[1]) - a) * found.v + (place(t[2]) - a) * found.w,
            featureOf(found.v, found.w)};
}

}  // namespace corvelle
