#include "operators/meshSides.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>
#include <tuple>

#include "model/elementary.h"

namespace corvelle {

namespace {

TrianglePoint closestOnSegment(Vec3f p, Vec3f a, Vec3f b, TriangleFeature atA, TriangleFeature atB,
                               TriangleFeature between) {
    const Vec3f ab = b - a;
    const float along = dot(p - a, ab);
    const float whole = dot(ab, ab);
    if (!(along > 0.0f) || !(whole > 0.0f)) return {a, atA};
    if (along >= whole) return {b, atB};
    return {a + ab * (along / whole), between};
}

/// The triangles that queries see, with vertices at bit-equal places joined, and their edges.
struct Welded {
    std::size_t first = 0;
    std::vector<std::array<std::int32_t, 3>> triangles;  ///< joined vertex numbers, from `first` on
    std::vector<bool> usable;                            ///< three different places
    std::size_t vertexCount = 0;
    /// One use of an edge by a triangle; sorted by ends, then triangle.
    struct Use {
        std::int32_t low = 0, high = 0;
        std::uint32_t triangle = 0;  ///< counted from `first`
        std::uint8_t corner = 0;
    };
    std::vector<Use> uses;
};

Welded weld(const ScalpMesh& mesh) {
    const auto points = mesh.points();
    std::vector<std::uint32_t> order(points.size());
    std::iota(order.begin(), order.end(), 0u);
    const auto key = [&](std::uint32_t i) {  // + 0 joins the two zeros
        return std::tuple(std::bit_cast<std::uint32_t>(points[i].x + 0.0f),
                          std::bit_cast<std::uint32_t>(points[i].y + 0.0f),
                          std::bit_cast<std::uint32_t>(points[i].z + 0.0f));
    };
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        const auto ka = key(a), kb = key(b);
        return ka != kb ? ka < kb : a < b;
    });
    std::vector<std::int32_t> joined(points.size());
    std::int32_t count = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
        if (i > 0 && key(order[i]) != key(order[i - 1])) ++count;
        joined[order[i]] = count;
    }

    Welded out;
    out.vertexCount = order.empty() ? 0 : std::size_t(count) + 1;
    const auto [first, end] = mesh.activeTriangles();
    out.first = first;
    out.triangles.reserve(end - first);
    out.usable.reserve(end - first);
    out.uses.reserve((end - first) * 3);
    for (std::size_t t = first; t < end; ++t) {
        const Triangle& triangle = mesh.triangles()[t];
        const std::array<std::int32_t, 3> v = {joined[std::size_t(triangle[0])],
                                               joined[std::size_t(triangle[1])],
                                               joined[std::size_t(triangle[2])]};
        const bool usable = v[0] != v[1] && v[1] != v[2] && v[2] != v[0];
        out.triangles.push_back(v);
        out.usable.push_back(usable);
        if (!usable) continue;
        for (int c = 0; c < 3; ++c) {
            const std::int32_t a = v[std::size_t(c)], b = v[std::size_t((c + 1) % 3)];
            out.uses.push_back(
                {std::min(a, b), std::max(a, b), std::uint32_t(t - first), std::uint8_t(c)});
        }
    }
    // Two numbers to compare: the ends, then triangle and corner.
    const auto ends = [](const Welded::Use& u) {
        return std::uint64_t(std::uint32_t(u.low)) << 32 | std::uint32_t(u.high);
    };
    std::sort(out.uses.begin(), out.uses.end(), [&](const auto& a, const auto& b) {
        const std::uint64_t ka = ends(a), kb = ends(b);
        if (ka != kb) return ka < kb;
        return a.triangle != b.triangle ? a.triangle < b.triangle : a.corner < b.corner;
    });
    return out;
}

/// Calls visit(uses) once per edge.
template <class Visit>
void forEachEdge(const Welded& welded, Visit&& visit) {
    const auto& uses = welded.uses;
    for (std::size_t i = 0; i < uses.size();) {
        std::size_t end = i + 1;
        while (end < uses.size() && uses[end].low == uses[i].low && uses[end].high == uses[i].high)
            ++end;
        visit(std::span(uses).subspan(i, end - i));
        i = end;
    }
}

float angleBetween(Vec3f a, Vec3f b) { return math::atan2(length(cross(a, b)), dot(a, b)); }

}  // namespace

TrianglePoint closestOnTriangle(Vec3f p, Vec3f a, Vec3f b, Vec3f c) {
    using F = TriangleFeature;
    const Vec3f ab = b - a, ac = c - a, ap = p - a;
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    if (d1 <= 0.0f && d2 <= 0.0f) return {a, F::Vertex0};
    const Vec3f bp = p - b;
    const float d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0.0f && d4 <= d3) return {b, F::Vertex1};
    const float vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0f && d1 >= 0.0f && d3 <= 0.0f && d1 - d3 > 0.0f)
        return {a + ab * (d1 / (d1 - d3)), F::Edge01};
    const Vec3f cp = p - c;
    const float d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0.0f && d5 <= d6) return {c, F::Vertex2};
    const float vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0f && d2 >= 0.0f && d6 <= 0.0f && d2 - d6 > 0.0f)
        return {a + ac * (d2 / (d2 - d6)), F::Edge20};
    const float va = d3 * d6 - d5 * d4;
    const float e = d4 - d3, f = d5 - d6;
    if (va <= 0.0f && e >= 0.0f && f >= 0.0f && e + f > 0.0f)
        return {b + (c - b) * (e / (e + f)), F::Edge12};
    const float sum = va + vb + vc;
    if (sum > 0.0f) return {a + ab * (vb / sum) + ac * (vc / sum), F::Face};
    // No area: the nearest of the three edges, the earlier on ties.
    TrianglePoint best = closestOnSegment(p, a, b, F::Vertex0, F::Vertex1, F::Edge01);
    for (const TrianglePoint& other :
         {closestOnSegment(p, b, c, F::Vertex1, F::Vertex2, F::Edge12),
          closestOnSegment(p, c, a, F::Vertex2, F::Vertex0, F::Edge20)})
        if (lengthSquared(other.point - p) < lengthSquared(best.point - p)) best = other;
    return best;
}

std::vector<BorderEdge> openBoundary(const ScalpMesh& mesh) {
    const Welded welded = weld(mesh);
    std::vector<Welded::Use> open;
    forEachEdge(welded, [&](std::span<const Welded::Use> uses) {
        if (uses.size() == 1) open.push_back(uses.front());
    });
    std::sort(open.begin(), open.end(), [](const auto& a, const auto& b) {
        return std::tie(a.triangle, a.corner) < std::tie(b.triangle, b.corner);
    });
    std::vector<BorderEdge> edges;
    edges.reserve(open.size());
    for (const Welded::Use& use : open) {
        const Triangle& t = mesh.triangles()[welded.first + use.triangle];
        const Vec3f a = mesh.points()[std::size_t(t[use.corner])];
        const Vec3f b = mesh.points()[std::size_t(t[(use.corner + 1) % 3])];
        const Vec3f c = mesh.points()[std::size_t(t[(use.corner + 2) % 3])];
        const Vec3f along = normalized(b - a);
        const Vec3f across = c - a;
        edges.push_back({a, b, normalized(across - along * dot(across, along))});
    }
    return edges;
}

MeshSides::MeshSides(const ScalpMesh& mesh) {
    const Welded welded = weld(mesh);
    first_ = std::int32_t(welded.first);
    const std::size_t count = welded.triangles.size();
    corners_.resize(count);
    faceNormals_.resize(count);
    vertices_.resize(welded.vertexCount);

    for (std::size_t t = 0; t < count; ++t) {
        faceNormals_[t] = mesh.faceNormal(std::int32_t(welded.first + t));
        if (!welded.usable[t]) continue;
        const Triangle& triangle = mesh.triangles()[welded.first + t];
        const std::array<Vec3f, 3> p = {mesh.points()[std::size_t(triangle[0])],
                                        mesh.points()[std::size_t(triangle[1])],
                                        mesh.points()[std::size_t(triangle[2])]};
        for (std::size_t c = 0; c < 3; ++c) {
            const std::int32_t v = welded.triangles[t][c];
            corners_[t][c].vertex = v;
            const Vec3f at = p[c];
            vertices_[std::size_t(v)].normal +=
                faceNormals_[t] * angleBetween(p[(c + 1) % 3] - at, p[(c + 2) % 3] - at);
        }
    }
    for (Part& vertex : vertices_) vertex.normal = normalized(vertex.normal);

    edges_.reserve(welded.uses.size() / 2 + 1);
    forEachEdge(welded, [&](std::span<const Welded::Use> uses) {
        Part edge;
        edge.border = uses.size() == 1;
        for (const Welded::Use& use : uses) {
            edge.normal += faceNormals_[use.triangle];
            corners_[use.triangle][use.corner].edge = std::int32_t(edges_.size());
        }
        edge.normal = normalized(edge.normal);
        if (edge.border) {
            closed_ = false;
            vertices_[std::size_t(uses.front().low)].border = true;
            vertices_[std::size_t(uses.front().high)].border = true;
        }
        edges_.push_back(edge);
    });
}

MeshSides::Side MeshSides::side(std::int32_t triangle, const TrianglePoint& at,
                                Vec3f position) const {
    const std::size_t t = std::size_t(triangle - first_);
    Part part;
    switch (at.feature) {
        case TriangleFeature::Vertex0:
        case TriangleFeature::Vertex1:
        case TriangleFeature::Vertex2: {
            const std::int32_t v = corners_[t][std::size_t(at.feature)].vertex;
            if (v >= 0) part = vertices_[std::size_t(v)];
            break;
        }
        case TriangleFeature::Edge01:
        case TriangleFeature::Edge12:
        case TriangleFeature::Edge20: {
            const std::size_t corner =
                std::size_t(at.feature) - std::size_t(TriangleFeature::Edge01);
            const std::int32_t e = corners_[t][corner].edge;
            if (e >= 0) part = edges_[std::size_t(e)];
            break;
        }
        case TriangleFeature::Face:
            part.normal = faceNormals_[t];
            break;
    }
    const bool inside = !part.border && dot(position - at.point, part.normal) < 0.0f;
    return {inside ? -1.0f : 1.0f, part.normal};
}

}  // namespace corvelle
