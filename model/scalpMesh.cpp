#include "model/scalpMesh.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <stdexcept>

#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kContentSeed = hashOf("ScalpMesh.content");
constexpr std::uint64_t kExtrasSeed = hashOf("ScalpMesh.extras");
constexpr std::uint64_t kActiveSalt = hashOf("ScalpMesh.active");
constexpr std::size_t kTriangleGrain = 4096;

/// A hash made by the first thread that asks. Two that ask at once both make the same.
class LazyHash {
public:
    template <class Make>
    std::uint64_t get(Make&& make) const {
        std::uint64_t value = value_.load(std::memory_order_relaxed);
        if (value == 0) {
            value = make();
            value_.store(value, std::memory_order_relaxed);
        }
        return value;
    }
    void forget() { value_.store(0, std::memory_order_relaxed); }

private:
    mutable std::atomic<std::uint64_t> value_{0};  // 0: not made yet
};

std::uint64_t combine(std::uint64_t h, Vec3f p) {
    return hashCombine(hashCombine(hashCombine(h, p.x), p.y), p.z);
}

/// The arc cosine within 2e-8, the same bits everywhere, which a system's own is not.
/// Source: Abramowitz, Stegun, "Handbook of Mathematical Functions" (1964), 4.4.46.
float arcCosine(float x) {
    const float a = std::min(std::fabs(x), 1.0f);
    float p = -0.0012624911f;
    p = p * a + 0.0066700901f;
    p = p * a - 0.0170881256f;
    p = p * a + 0.0308918810f;
    p = p * a - 0.0501743046f;
    p = p * a + 0.0889789874f;
    p = p * a - 0.2145988016f;
    p = p * a + 1.5707963050f;
    p *= std::sqrt(1.0f - a);
    return x < 0.0f ? 3.14159265f - p : p;
}

/// The angle between two edges; zero when one has no length.
float angleBetween(Vec3f a, Vec3f b) {
    const float scale = std::sqrt(lengthSquared(a)) * std::sqrt(lengthSquared(b));
    return scale > 0.0f ? arcCosine(dot(a, b) / scale) : 0.0f;
}

/// What one triangle adds to the normals of its corners, and its area.
struct FaceShare {
    Vec3f areaVector;  // twice the area long
    float angles[3];
};

Vec3f lessShareAlong(Vec3f v, Vec3f unit) { return v - unit * dot(v, unit); }

/// `v` less its share along the unit `normal`, unit; zero when little but rounding is left.
Vec3f acrossUnit(Vec3f v, Vec3f normal) {
    const Vec3f across = lessShareAlong(v, normal);
    if (!(lengthSquared(across) > 1e-10f * lengthSquared(v))) return {};
    return normalized(lessShareAlong(normalized(across), normal));
}

}  // namespace

struct ScalpMesh::Topology {
    std::vector<Triangle> triangles;
    std::uint64_t hash = 0;
};

struct ScalpMesh::Extras {
    std::vector<Vec2f> uvs;
    std::map<std::string, std::vector<Color4f>> colorSets;
    std::vector<std::int32_t> polygons;
    std::vector<ScalpPiece> pieces;
    std::uint64_t piecesHash = 0;
    int subdivision = 0;
    std::string subdivisionFrom;
    std::size_t cageFaces = 0;
    LazyHash hash;

    Extras() = default;
    Extras(const Extras& o)
        : uvs(o.uvs),
          colorSets(o.colorSets),
          polygons(o.polygons),
          pieces(o.pieces),
          piecesHash(o.piecesHash),
          subdivision(o.subdivision),
          subdivisionFrom(o.subdivisionFrom),
          cageFaces(o.cageFaces) {}
    Extras& operator=(const Extras&) = delete;
};

struct ScalpMesh::Shape {
    std::vector<Vec3f> points, normals;
    std::vector<float> areas;
    double area = 0.0;
    Vec3f low{FLT_MAX, FLT_MAX, FLT_MAX}, high{-FLT_MAX, -FLT_MAX, -FLT_MAX};
    LazyHash contentHash;

    Shape(std::vector<Vec3f> given, const std::vector<Triangle>& triangles);
};

struct ScalpMesh::Rest {
    std::vector<Vec3f> points;
    LazyHash contentHash;
};

ScalpMesh::Shape::Shape(std::vector<Vec3f> given, const std::vector<Triangle>& triangles)
    : points(std::move(given)), normals(points.size()), areas(triangles.size()) {
    for (const Vec3f p : points) low = componentMin(low, p), high = componentMax(high, p);
    std::vector<FaceShare> shares(triangles.size());
    parallelRange(0, triangles.size(), kTriangleGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const Vec3f a = points[std::size_t(triangles[t][0])];
            const Vec3f b = points[std::size_t(triangles[t][1])];
            const Vec3f c = points[std::size_t(triangles[t][2])];
            const Vec3f areaVector = cross(b - a, c - a);
            areas[t] = 0.5f * length(areaVector);
            shares[t] = {areaVector,
                         {angleBetween(b - a, c - a), angleBetween(c - b, a - b),
                          angleBetween(a - c, b - c)}};
        }
    });
    for (std::size_t t = 0; t < triangles.size(); ++t) {
        area += areas[t];
        for (std::size_t k = 0; k < 3; ++k)
            normals[std::size_t(triangles[t][k])] += shares[t].areaVector * shares[t].angles[k];
    }
    parallelRange(0, normals.size(), kTriangleGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) normals[i] = normalized(normals[i]);
    });
}

ScalpMesh::ScalpMesh(std::vector<Vec3f> points, std::vector<Triangle> triangles, bool checkIndices)
    : extras_(std::make_shared<Extras>()), bvh_(std::make_shared<LazyBvh>()) {
    if (checkIndices)
        for (const Triangle& t : triangles)
            for (const std::int32_t i : t)
                if (i < 0 || std::size_t(i) >= points.size())
                    throw std::out_of_range("ScalpMesh: triangle index out of range");
    auto topology = std::make_shared<Topology>();
    topology->triangles = std::move(triangles);
    topology->hash = mix64(topology->triangles.size());
    for (const Triangle& t : topology->triangles)
        for (const std::int32_t i : t) topology->hash = hashCombine(topology->hash, i);
    shape_ = std::make_shared<const Shape>(std::move(points), topology->triangles);
    activeEnd_ = topology->triangles.size();
    topology_ = std::move(topology);
}

ScalpMesh::Extras& ScalpMesh::extrasForWrite() {
    if (extras_.use_count() != 1) extras_ = std::make_shared<Extras>(*extras_);
    extras_->hash.forget();
    return *extras_;
}

void ScalpMesh::setUvs(std::vector<Vec2f> uvs) {
    if (!uvs.empty() && uvs.size() != 3 * triangles().size())
        throw std::invalid_argument("ScalpMesh: expected one UV per triangle corner");
    extrasForWrite().uvs = std::move(uvs);
}

void ScalpMesh::addColorSet(const std::string& name, std::vector<Color4f> colors) {
    if (colors.size() != 3 * triangles().size())
        throw std::invalid_argument("ScalpMesh: expected one color per triangle corner");
    extrasForWrite().colorSets[name] = std::move(colors);
}

void ScalpMesh::setPolygons(std::vector<std::int32_t> triangleCounts) {
    std::uint64_t sum = 0;
    for (const std::int32_t count : triangleCounts) {
        if (count < 0)
            throw std::invalid_argument("ScalpMesh: a polygon with a negative triangle count");
        sum += std::uint64_t(count);
    }
    if (!triangleCounts.empty() && sum != triangles().size())
        throw std::invalid_argument("ScalpMesh: the polygons' triangles (" + std::to_string(sum) +
                                    ") are not the mesh's (" + std::to_string(triangles().size()) +
                                    ")");
    extrasForWrite().polygons = std::move(triangleCounts);
}

void ScalpMesh::setScalps(std::vector<ScalpPiece> pieces) {
    std::uint64_t nextTriangle = 0, nextPoint = 0;
    std::uint64_t hash = mix64(pieces.size());
    for (const ScalpPiece& piece : pieces) {
        if (piece.firstTriangle != nextTriangle || piece.firstPoint != nextPoint)
            throw std::invalid_argument("ScalpMesh: the scalp '" + piece.name +
                                        "' does not follow the one before it");
        // Compared with what is left, so that no sum can wrap.
        if (piece.triangleCount > triangles().size() - nextTriangle ||
            piece.pointCount > points().size() - nextPoint)
            throw std::invalid_argument(
                "ScalpMesh: the scalps' triangles and points are not the mesh's");
        nextTriangle += piece.triangleCount;
        nextPoint += piece.pointCount;
        hash = hashCombine(hash, std::string_view(piece.name));
        for (const std::uint64_t number : {piece.firstTriangle, piece.triangleCount,
                                           piece.firstPoint, piece.pointCount, piece.hash})
            hash = hashCombine(hash, number);
    }
    if (!pieces.empty() && (nextTriangle != triangles().size() || nextPoint != points().size()))
        throw std::invalid_argument(
            "ScalpMesh: the scalps' triangles and points are not the mesh's");
    Extras& extras = extrasForWrite();
    extras.pieces = std::move(pieces);
    extras.piecesHash = hash;
}

void ScalpMesh::setRestPoints(std::vector<Vec3f> restPoints) {
    if (restPoints.size() != points().size())
        throw std::invalid_argument("ScalpMesh: rest points must match the mesh's point count");
    if (restPoints.empty()) return clearRestPoints();
    auto rest = std::make_shared<Rest>();
    rest->points = std::move(restPoints);
    rest_ = std::move(rest);
}

void ScalpMesh::clearRestPoints() { rest_ = nullptr; }

void ScalpMesh::setSubdivision(int levels, std::string from) {
    if (levels < 0 || levels > 3)
        throw std::invalid_argument("ScalpMesh: subdivision levels must be 0 to 3");
    Extras& extras = extrasForWrite();
    extras.subdivision = levels;
    extras.subdivisionFrom = std::move(from);
}

void ScalpMesh::setCageFaceCount(std::size_t count) { extrasForWrite().cageFaces = count; }

std::span<const Vec3f> ScalpMesh::points() const { return shape_->points; }
std::span<const Triangle> ScalpMesh::triangles() const { return topology_->triangles; }
std::span<const Vec3f> ScalpMesh::normals() const { return shape_->normals; }
std::span<const float> ScalpMesh::triangleAreas() const { return shape_->areas; }
double ScalpMesh::area() const { return shape_->area; }
std::span<const Vec2f> ScalpMesh::uvs() const { return extras_->uvs; }
const std::map<std::string, std::vector<Color4f>>& ScalpMesh::colorSets() const {
    return extras_->colorSets;
}
std::span<const std::int32_t> ScalpMesh::polygons() const { return extras_->polygons; }
const std::vector<ScalpPiece>& ScalpMesh::scalps() const { return extras_->pieces; }
std::span<const Vec3f> ScalpMesh::restPoints() const {
    return rest_ ? std::span<const Vec3f>(rest_->points) : std::span<const Vec3f>();
}
int ScalpMesh::subdivision() const { return extras_->subdivision; }
const std::string& ScalpMesh::subdivisionFrom() const { return extras_->subdivisionFrom; }
std::size_t ScalpMesh::cageFaceCount() const { return extras_->cageFaces; }
Vec3f ScalpMesh::boundsMin() const { return shape_->low; }
Vec3f ScalpMesh::boundsMax() const { return shape_->high; }
std::pair<std::size_t, std::size_t> ScalpMesh::activeTriangles() const {
    return {activeFirst_, activeEnd_};
}

const ScalpPiece* ScalpMesh::scalp(const std::string& name) const {
    for (const ScalpPiece& piece : extras_->pieces)
        if (piece.name == name) return &piece;
    return nullptr;
}

float ScalpMesh::size() const {
    if (points().empty()) return 0.0f;
    Vec3f low = shape_->low, high = shape_->high;
    if (rest_) {
        low = high = rest_->points[0];
        for (const Vec3f p : rest_->points)
            low = componentMin(low, p), high = componentMax(high, p);
    }
    const Vec3f sides = high - low;
    return std::max({sides.x, sides.y, sides.z});
}

std::uint64_t ScalpMesh::hashOfPoints(std::span<const Vec3f> of) const {
    std::uint64_t h = kContentSeed;
    for (const Vec3f p : of) h = combine(h, p);
    for (const Triangle& t : triangles())
        for (const std::int32_t i : t) h = hashCombine(h, i);
    if (activeFirst_ != 0 || activeEnd_ != triangles().size())
        h = hashCombine(hashCombine(hashCombine(h, kActiveSalt), std::uint64_t(activeFirst_)),
                        std::uint64_t(activeEnd_));
    return h;
}

std::uint64_t ScalpMesh::contentHash() const {
    return shape_->contentHash.get([&] { return hashOfPoints(points()); });
}

std::uint64_t ScalpMesh::topologyHash() const { return topology_->hash; }

std::uint64_t ScalpMesh::restHash() const {
    if (!rest_) return contentHash();
    return rest_->contentHash.get([&] { return hashOfPoints(restPoints()); });
}

std::uint64_t ScalpMesh::extrasHash() const {
    return extras_->hash.get([&] {
        const Extras& e = *extras_;
        std::uint64_t h = hashCombine(kExtrasSeed, std::uint64_t(e.uvs.size()));
        for (const Vec2f uv : e.uvs) h = hashCombine(hashCombine(h, uv.x), uv.y);
        h = hashCombine(h, std::uint64_t(e.colorSets.size()));
        for (const auto& [name, colors] : e.colorSets) {
            h = hashText(h, name);
            for (const Color4f& c : colors)
                for (const float x : {c.r, c.g, c.b, c.a}) h = hashCombine(h, x);
        }
        h = hashCombine(h, std::uint64_t(e.polygons.size()));
        for (const std::int32_t count : e.polygons) h = hashCombine(h, count);
        h = hashCombine(h, e.piecesHash);
        h = hashCombine(h, std::int32_t(e.subdivision));
        return hashCombine(h, std::string_view(e.subdivisionFrom));
    });
}

std::uint64_t ScalpMesh::fullHash() const {
    const std::uint64_t h = hashCombine(hashCombine(contentHash(), rest_ != nullptr), extrasHash());
    return rest_ ? hashCombine(h, restHash()) : h;
}

std::shared_ptr<ScalpMesh> ScalpMesh::moved(std::vector<Vec3f> newPoints) const {
    auto mesh = std::make_shared<ScalpMesh>(*this);
    mesh->shape_ = std::make_shared<const Shape>(std::move(newPoints), topology_->triangles);
    mesh->bvh_ = bvh_->sibling();
    return mesh;
}

ScalpPtr ScalpMesh::withPoints(std::vector<Vec3f> newPoints) const {
    if (newPoints.size() != points().size())
        throw std::invalid_argument("ScalpMesh: new points must match the mesh's point count");
    return moved(std::move(newPoints));
}

ScalpPtr ScalpMesh::withRestPoints(std::vector<Vec3f> newPoints) const {
    auto mesh = std::make_shared<ScalpMesh>(*this);
    if (newPoints.empty())
        mesh->clearRestPoints();
    else
        mesh->setRestPoints(std::move(newPoints));
    return mesh;
}

ScalpPtr ScalpMesh::restPose() const {
    if (!rest_) return std::make_shared<const ScalpMesh>(*this);
    return moved(rest_->points);
}

ScalpPtr ScalpMesh::limitedTo(const ScalpPiece& piece) const {
    auto mesh = std::make_shared<ScalpMesh>(*this);
    const std::size_t count = triangles().size();
    mesh->activeFirst_ = std::min(std::size_t(piece.firstTriangle), count);
    mesh->activeEnd_ =
        mesh->activeFirst_ + std::min(std::size_t(piece.triangleCount), count - mesh->activeFirst_);
    if (mesh->activeTriangles() == activeTriangles()) return mesh;
    // Hashes and the BVH know the active triangles: these are another mesh's.
    auto shape = std::make_shared<Shape>(std::vector<Vec3f>{}, std::vector<Triangle>{});
    shape->points = shape_->points;
    shape->normals = shape_->normals;
    shape->areas = shape_->areas;
    shape->area = shape_->area;
    shape->low = shape_->low;
    shape->high = shape_->high;
    mesh->shape_ = std::move(shape);
    if (rest_) mesh->setRestPoints(rest_->points);
    mesh->bvh_ = std::make_shared<LazyBvh>();
    return mesh;
}

std::array<Vec3f, 3> ScalpMesh::corners(std::int32_t triangle) const {
    const Triangle& t = topology_->triangles[std::size_t(triangle)];
    const std::vector<Vec3f>& p = shape_->points;
    return {p[std::size_t(t[0])], p[std::size_t(t[1])], p[std::size_t(t[2])]};
}

Vec3f ScalpMesh::surfacePoint(const StrandRoot& root) const {
    if (!validRoot(root)) return {};
    const auto [a, b, c] = corners(root.triangle);
    return a * root.u + b * root.v + c * (1.0f - root.u - root.v);
}

Vec3f ScalpMesh::surfaceNormal(const StrandRoot& root) const {
    if (!validRoot(root)) return {};
    const Triangle& t = triangles()[std::size_t(root.triangle)];
    const std::vector<Vec3f>& n = shape_->normals;
    const Vec3f mixed = normalized(n[std::size_t(t[0])] * root.u + n[std::size_t(t[1])] * root.v +
                                   n[std::size_t(t[2])] * (1.0f - root.u - root.v));
    return mixed == Vec3f{} ? faceNormal(root.triangle) : mixed;
}

Vec2f ScalpMesh::surfaceUv(const StrandRoot& root) const {
    if (!validRoot(root) || extras_->uvs.empty()) return {};
    const Vec2f* corner = &extras_->uvs[3 * std::size_t(root.triangle)];
    const float w = 1.0f - root.u - root.v;
    return {corner[0].x * root.u + corner[1].x * root.v + corner[2].x * w,
            corner[0].y * root.u + corner[1].y * root.v + corner[2].y * w};
}

Vec3f ScalpMesh::faceNormal(std::int32_t triangle) const {
    if (!validRoot({triangle, 0.0f, 0.0f})) return {};
    const auto [a, b, c] = corners(triangle);
    return normalized(cross(b - a, c - a));
}

SurfaceFrame ScalpMesh::surfaceFrame(const StrandRoot& root) const {
    SurfaceFrame frame;
    frame.origin = surfacePoint(root);
    frame.normal = surfaceNormal(root);
    if (frame.normal == Vec3f{}) frame.normal = {0.0f, 1.0f, 0.0f};
    if (validRoot(root)) {
        const auto [a, b, c] = corners(root.triangle);
        frame.tangent = acrossUnit(b - a, frame.normal);
        if (frame.tangent == Vec3f{}) frame.tangent = acrossUnit(c - a, frame.normal);
    }
    if (frame.tangent == Vec3f{}) frame.tangent = normalized(anyPerpendicular(frame.normal));
    frame.binormal = cross(frame.normal, frame.tangent);
    return frame;
}

Vec3f ScalpMesh::surfaceTangentU(const StrandRoot& root) const {
    if (!validRoot(root) || extras_->uvs.empty()) return {};
    const auto [a, b, c] = corners(root.triangle);
    const Vec2f* uv = &extras_->uvs[3 * std::size_t(root.triangle)];
    const float v1 = uv[1].y - uv[0].y, v2 = uv[2].y - uv[0].y;
    const float det = (uv[1].x - uv[0].x) * v2 - (uv[2].x - uv[0].x) * v1;
    if (det == 0.0f) return {};
    const Vec3f alongU = (b - a) * v2 - (c - a) * v1;
    return acrossUnit(det > 0.0f ? alongU : -alongU, surfaceNormal(root));
}

Color4f ScalpMesh::mixCorners(const std::vector<Color4f>& colors, const StrandRoot& root) const {
    if (!validRoot(root) || colors.size() != 3 * triangles().size())
        return {0.0f, 0.0f, 0.0f, 0.0f};
    const Color4f* corner = &colors[3 * std::size_t(root.triangle)];
    const float w = 1.0f - root.u - root.v;
    const auto mixOf = [&](float Color4f::*channel) {
        return corner[0].*channel * root.u + corner[1].*channel * root.v + corner[2].*channel * w;
    };
    return {mixOf(&Color4f::r), mixOf(&Color4f::g), mixOf(&Color4f::b), mixOf(&Color4f::a)};
}

const Bvh& ScalpMesh::bvh() const {
    return bvh_->get(points(), triangles(), activeFirst_, activeEnd_);
}

void ScalpMesh::prepareQueries() const { bvh(); }

bool ScalpMesh::closestPoint(Vec3f position, float maxDistance, SurfaceHit& out) const {
    return closestPointFrom(position, maxDistance, -1, out);
}

bool ScalpMesh::closestPointFrom(Vec3f position, float maxDistance, std::int32_t nearTriangle,
                                 SurfaceHit& out) const {
    if (!(maxDistance > 0.0f)) return false;
    BvhHit hit;
    if (!bvh().closestPoint(position, maxDistance * maxDistance, nearTriangle, hit)) return false;
    out.triangle = hit.triangle;
    out.u = hit.weight0;
    out.v = hit.weight1;
    out.distance = std::sqrt(hit.distanceSquared);
    out.position = hit.position;
    return true;
}

bool ScalpMesh::rayIntersect(Vec3f origin, Vec3f direction, SurfaceHit& out, float maxT) const {
    BvhHit hit;
    if (!bvh().rayIntersect(origin, direction, hit, maxT)) return false;
    out.triangle = hit.triangle;
    out.u = hit.weight0;
    out.v = hit.weight1;
    out.distance = hit.t;
    out.position = surfacePoint(out.root());
    return true;
}

void ScalpMesh::rayDistances(std::span<const Vec3f> origins, std::span<const Vec3f> directions,
                             std::span<float> out, float maxT) const {
    std::vector<BvhHit> hits(out.size());
    bvh().rayIntersect(origins, directions, hits, maxT);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = hits[i].triangle >= 0 ? hits[i].t : kAnyDistance;
}

}  // namespace corvelle
