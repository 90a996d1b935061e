#include "model/subdivisionPlan.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::size_t kGrain = 2048;

/// Faces as runs of vertex indices, one per corner.
struct Faces {
    std::vector<std::uint32_t> offsets{0};
    std::vector<std::uint32_t> corners;
    std::vector<std::int32_t> cageFace;  // per face
    std::vector<std::uint32_t> piece;    // per face
    std::size_t count() const { return offsets.size() - 1; }
};

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

struct Edge {
    std::uint32_t from = 0, to = 0;
    std::uint32_t face0 = kNone, face1 = kNone;
    bool sharp = true;  // not of exactly two faces
};

enum class VertexRule : std::uint8_t {
    kKeep,    ///< no face, or a corner where more than two sharp edges meet
    kCrease,  ///< between two sharp edges
    kSmooth,
};

/// One round of refinement: values of `vertexCount` vertices become values of `outCount`.
struct Level {
    Faces faces;  // before
    std::size_t vertexCount = 0;
    std::vector<Edge> edges;
    std::vector<VertexRule> rules;
    std::vector<std::uint32_t> creaseEnds;                   // two per vertex
    std::vector<std::uint32_t> edgeOffsets, vertexEdges;     // other ends, per vertex
    std::vector<std::uint32_t> faceOffsets, vertexFaces;     // per vertex
    std::vector<std::uint32_t> vertexOut, edgeOut, faceOut;  // numbers after
    std::vector<std::uint32_t> cornerEdge;                   // per corner: the edge to the next
    std::size_t outCount = 0;

    Level(Faces given, std::size_t vertices, const std::vector<std::uint32_t>& vertexPiece,
          std::size_t pieceCount);
    Faces refinedFaces() const;
    std::vector<std::uint32_t> refinedPieces(const std::vector<std::uint32_t>& vertexPiece) const;
    std::vector<float> refineVertices(std::span<const float> in, int channels) const;
    std::vector<float> refineCorners(std::span<const float> in, int channels) const;
};

Level::Level(Faces given, std::size_t vertices, const std::vector<std::uint32_t>& vertexPiece,
             std::size_t pieceCount)
    : faces(std::move(given)), vertexCount(vertices) {
    // Edges by sorted sides: numbered by (lower, higher) vertex.
    struct Side {
        std::uint64_t edge;
        std::uint32_t corner, face;
    };
    std::vector<Side> sides;
    sides.reserve(faces.corners.size());
    for (std::size_t f = 0; f < faces.count(); ++f)
        for (std::uint32_t c = faces.offsets[f]; c < faces.offsets[f + 1]; ++c) {
            const std::uint32_t next = c + 1 < faces.offsets[f + 1] ? c + 1 : faces.offsets[f];
            const std::uint64_t a = faces.corners[c], b = faces.corners[next];
            sides.push_back({std::min(a, b) << 32 | std::max(a, b), c, std::uint32_t(f)});
        }
    std::sort(sides.begin(), sides.end(), [](const Side& a, const Side& b) {
        return a.edge != b.edge ? a.edge < b.edge : a.corner < b.corner;
    });
    cornerEdge.resize(faces.corners.size());
    for (std::size_t begin = 0, end = 0; begin < sides.size(); begin = end) {
        while (end < sides.size() && sides[end].edge == sides[begin].edge) {
            cornerEdge[sides[end].corner] = std::uint32_t(edges.size());
            ++end;
        }
        Edge edge{std::uint32_t(sides[begin].edge >> 32), std::uint32_t(sides[begin].edge)};
        edge.sharp = end - begin != 2;
        if (!edge.sharp) edge.face0 = sides[begin].face, edge.face1 = sides[begin + 1].face;
        edges.push_back(edge);
    }

    // Round each vertex: the other ends of its edges, its faces, its rule.
    std::vector<std::uint32_t> sharpCount(vertexCount, 0);
    creaseEnds.assign(2 * vertexCount, kNone);
    edgeOffsets.assign(vertexCount + 1, 0);
    faceOffsets.assign(vertexCount + 1, 0);
    const auto forEachEnd = [&](auto&& visit) {
        for (const Edge& e : edges) {
            if (e.from == e.to) continue;
            visit(e.from, e.to, e);
            visit(e.to, e.from, e);
        }
    };
    forEachEnd([&](std::uint32_t v, std::uint32_t other, const Edge& e) {
        ++edgeOffsets[v + 1];
        if (!e.sharp) return;
        if (sharpCount[v] < 2) creaseEnds[2 * std::size_t(v) + sharpCount[v]] = other;
        ++sharpCount[v];
    });
    for (const std::uint32_t v : faces.corners) ++faceOffsets[v + 1];
    for (std::size_t v = 0; v < vertexCount; ++v) {
        edgeOffsets[v + 1] += edgeOffsets[v];
        faceOffsets[v + 1] += faceOffsets[v];
    }
    vertexEdges.resize(edgeOffsets.back());
    vertexFaces.resize(faceOffsets.back());
    std::vector<std::uint32_t> next(edgeOffsets.begin(), edgeOffsets.end() - 1);
    forEachEnd(
        [&](std::uint32_t v, std::uint32_t other, const Edge&) { vertexEdges[next[v]++] = other; });
    next.assign(faceOffsets.begin(), faceOffsets.end() - 1);
    for (std::size_t f = 0; f < faces.count(); ++f)
        for (std::uint32_t c = faces.offsets[f]; c < faces.offsets[f + 1]; ++c)
            vertexFaces[next[faces.corners[c]]++] = std::uint32_t(f);
    rules.resize(vertexCount);
    for (std::size_t v = 0; v < vertexCount; ++v) {
        const bool alone = edgeOffsets[v + 1] == edgeOffsets[v];
        rules[v] = alone || sharpCount[v] > 2 ? VertexRule::kKeep
                   : sharpCount[v] == 2       ? VertexRule::kCrease
                                              : VertexRule::kSmooth;
    }

    // Numbers after: piece by piece its vertices, edges and faces, so that pieces stay runs.
    std::vector<std::size_t> start(3 * pieceCount + 1, 0);
    for (std::size_t v = 0; v < vertexCount; ++v) ++start[3 * vertexPiece[v] + 1];
    for (const Edge& e : edges) ++start[3 * vertexPiece[e.from] + 2];
    for (const std::uint32_t piece : faces.piece) ++start[3 * piece + 3];
    for (std::size_t i = 1; i < start.size(); ++i) start[i] += start[i - 1];
    outCount = start.back();
    vertexOut.resize(vertexCount);
    edgeOut.resize(edges.size());
    faceOut.resize(faces.count());
    for (std::size_t v = 0; v < vertexCount; ++v)
        vertexOut[v] = std::uint32_t(start[3 * vertexPiece[v]]++);
    for (std::size_t e = 0; e < edges.size(); ++e)
        edgeOut[e] = std::uint32_t(start[3 * vertexPiece[edges[e].from] + 1]++);
    for (std::size_t f = 0; f < faces.count(); ++f)
        faceOut[f] = std::uint32_t(start[3 * faces.piece[f] + 2]++);
}

Faces Level::refinedFaces() const {
    Faces out;
    const std::size_t quads = faces.corners.size();
    out.offsets.reserve(quads + 1);
    out.corners.reserve(4 * quads);
    for (std::size_t f = 0; f < faces.count(); ++f) {
        const std::uint32_t begin = faces.offsets[f], end = faces.offsets[f + 1];
        for (std::uint32_t c = begin; c < end; ++c) {
            const std::uint32_t before = c > begin ? c - 1 : end - 1;
            for (const std::uint32_t v : {vertexOut[faces.corners[c]], edgeOut[cornerEdge[c]],
                                          faceOut[f], edgeOut[cornerEdge[before]]})
                out.corners.push_back(v);
            out.offsets.push_back(std::uint32_t(out.corners.size()));
            out.cageFace.push_back(faces.cageFace[f]);
            out.piece.push_back(faces.piece[f]);
        }
    }
    return out;
}

std::vector<std::uint32_t> Level::refinedPieces(
    const std::vector<std::uint32_t>& vertexPiece) const {
    std::vector<std::uint32_t> out(outCount);
    for (std::size_t v = 0; v < vertexCount; ++v) out[vertexOut[v]] = vertexPiece[v];
    for (std::size_t e = 0; e < edges.size(); ++e) out[edgeOut[e]] = vertexPiece[edges[e].from];
    for (std::size_t f = 0; f < faces.count(); ++f) out[faceOut[f]] = faces.piece[f];
    return out;
}

std::vector<float> Level::refineVertices(std::span<const float> in, int channelCount) const {
    const std::size_t channels = std::size_t(channelCount);
    std::vector<float> out(outCount * channels);
    const auto at = [&](std::size_t vertex, std::size_t channel) {
        return double(in[vertex * channels + channel]);
    };
    const auto facePoint = [&](std::size_t face, std::size_t channel) {
        return double(out[std::size_t(faceOut[face]) * channels + channel]);
    };
    parallelRange(0, faces.count(), kGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f)
            for (std::size_t k = 0; k < channels; ++k) {
                double sum = 0.0;
                for (std::uint32_t c = faces.offsets[f]; c < faces.offsets[f + 1]; ++c)
                    sum += at(faces.corners[c], k);
                out[std::size_t(faceOut[f]) * channels + k] =
                    float(sum / double(faces.offsets[f + 1] - faces.offsets[f]));
            }
    });
    parallelRange(0, edges.size(), kGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t e = begin; e < end; ++e)
            for (std::size_t k = 0; k < channels; ++k) {
                const double ends = at(edges[e].from, k) + at(edges[e].to, k);
                out[std::size_t(edgeOut[e]) * channels + k] =
                    edges[e].sharp ? float(0.5 * ends)
                                   : float(0.25 * (ends + facePoint(edges[e].face0, k) +
                                                   facePoint(edges[e].face1, k)));
            }
    });
    parallelRange(0, vertexCount, kGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t v = begin; v < end; ++v)
            for (std::size_t k = 0; k < channels; ++k) {
                const double here = at(v, k);
                double value = here;
                if (rules[v] == VertexRule::kCrease) {
                    value = 0.75 * here +
                            0.125 * (at(creaseEnds[2 * v], k) + at(creaseEnds[2 * v + 1], k));
                } else if (rules[v] == VertexRule::kSmooth) {
                    const double valence = double(edgeOffsets[v + 1] - edgeOffsets[v]);
                    double others = 0.0, round = 0.0;
                    for (std::uint32_t i = edgeOffsets[v]; i < edgeOffsets[v + 1]; ++i)
                        others += at(vertexEdges[i], k);
                    for (std::uint32_t i = faceOffsets[v]; i < faceOffsets[v + 1]; ++i)
                        round += facePoint(vertexFaces[i], k);
                    round /= double(faceOffsets[v + 1] - faceOffsets[v]);
                    const double middles = 0.5 * (here + others / valence);
                    value = (round + 2.0 * middles + (valence - 3.0) * here) / valence;
                }
                out[std::size_t(vertexOut[v]) * channels + k] = float(value);
            }
    });
    return out;
}

std::vector<float> Level::refineCorners(std::span<const float> in, int channelCount) const {
    const std::size_t channels = std::size_t(channelCount);
    std::vector<float> out(4 * faces.corners.size() * channels);
    parallelRange(0, faces.count(), kGrain, [&](std::size_t first, std::size_t last) {
        for (std::size_t f = first; f < last; ++f) {
            const std::uint32_t begin = faces.offsets[f], end = faces.offsets[f + 1];
            for (std::size_t k = 0; k < channels; ++k) {
                double sum = 0.0;
                for (std::uint32_t c = begin; c < end; ++c) sum += in[c * channels + k];
                const float middle = float(sum / double(end - begin));
                for (std::uint32_t c = begin; c < end; ++c) {
                    const std::uint32_t next = c + 1 < end ? c + 1 : begin,
                                        before = c > begin ? c - 1 : end - 1;
                    const float here = in[c * channels + k];
                    float* quad = &out[4 * std::size_t(c) * channels + k];
                    quad[0] = here;
                    quad[channels] = 0.5f * (here + in[next * channels + k]);
                    quad[2 * channels] = middle;
                    quad[3 * channels] = 0.5f * (here + in[before * channels + k]);
                }
            }
        }
    });
    return out;
}

/// The cage's polygons, and per corner the triangle corner its values stand at.
struct Cage {
    Faces faces;
    std::vector<std::uint32_t> source;
};

Cage cageFaces(const ScalpMesh& mesh) {
    const std::span<const Triangle> triangles = mesh.triangles();
    std::vector<std::int32_t> single;
    std::span<const std::int32_t> counts = mesh.polygons();
    if (counts.empty()) {
        single.assign(triangles.size(), 1);
        counts = single;
    }
    const std::vector<ScalpPiece>& pieces = mesh.scalps();
    std::size_t piece = 0;
    Cage cage;
    const auto addFace = [&](std::size_t polygon) {
        cage.faces.offsets.push_back(std::uint32_t(cage.faces.corners.size()));
        cage.faces.cageFace.push_back(std::int32_t(polygon));
        cage.faces.piece.push_back(std::uint32_t(piece));
    };
    const auto addCorner = [&](std::size_t triangle, std::size_t corner) {
        cage.faces.corners.push_back(std::uint32_t(triangles[triangle][corner]));
        cage.source.push_back(std::uint32_t(3 * triangle + corner));
    };
    std::size_t first = 0;
    for (std::size_t p = 0; p < counts.size(); ++p) {
        const std::size_t count = std::size_t(counts[p]);
        if (count == 0) continue;
        while (piece + 1 < pieces.size() &&
               first >= pieces[piece].firstTriangle + pieces[piece].triangleCount)
            ++piece;
        bool fan = true;
        for (std::size_t t = first + 1; t < first + count; ++t)
            fan = fan && triangles[t][0] == triangles[first][0] &&
                  triangles[t][1] == triangles[t - 1][2];
        if (fan) {
            addCorner(first, 0);
            addCorner(first, 1);
            for (std::size_t t = first; t < first + count; ++t) addCorner(t, 2);
            addFace(p);
        } else {  // not a loop that could be told: refine its triangles
            for (std::size_t t = first; t < first + count; ++t) {
                for (std::size_t k = 0; k < 3; ++k) addCorner(t, k);
                addFace(p);
            }
        }
        first += count;
    }
    return cage;
}

template <class T>
std::span<const float> asFloats(std::span<const T> values) {
    return {reinterpret_cast<const float*>(values.data()),
            values.size() * (sizeof(T) / sizeof(float))};
}

template <class T>
std::vector<T> fromFloats(const std::vector<float>& values) {
    std::vector<T> out(values.size() / (sizeof(T) / sizeof(float)));
    std::copy(values.begin(), values.end(), reinterpret_cast<float*>(out.data()));
    return out;
}

std::uint64_t polygonsHash(const ScalpMesh& mesh) {
    std::uint64_t h = mix64(mesh.polygons().size());
    for (const std::int32_t count : mesh.polygons()) h = hashCombine(h, count);
    for (const ScalpPiece& piece : mesh.scalps())
        h = hashCombine(hashCombine(h, piece.triangleCount), piece.pointCount);
    return h;
}

}  // namespace

struct SubdivisionPlan::Data {
    int levels = 0;
    std::uint64_t topologyHash = 0, polygonsHash = 0;
    std::size_t cagePoints = 0, cagePolygons = 0;
    std::vector<std::uint32_t> source;  // triangle corner of each cage corner
    std::vector<Level> rounds;
    std::vector<std::int32_t> cageFace;  // per refined triangle
    std::vector<ScalpPiece> pieces;      // runs after refinement, named by the cage
    std::vector<Triangle> triangles;
    std::uint64_t baseExtras = 0;  // the cage's, when `base` was made
    ScalpPtr base;                 // the refined mesh that moved ones share their topology with

    template <class T>
    std::vector<T> refinedCorners(std::span<const T> values) const;
    std::vector<Vec3f> refinedPoints(std::span<const Vec3f> points) const;
    ScalpMesh make(const ScalpMesh& cage) const;
};

template <class T>
std::vector<T> SubdivisionPlan::Data::refinedCorners(std::span<const T> values) const {
    constexpr int channels = int(sizeof(T) / sizeof(float));
    std::vector<T> corners(source.size());
    for (std::size_t c = 0; c < source.size(); ++c) corners[c] = values[source[c]];
    for (const Level& round : rounds)
        corners = fromFloats<T>(round.refineCorners(asFloats<T>(corners), channels));
    std::vector<T> out(3 * triangles.size());
    for (std::size_t quad = 0; quad < corners.size() / 4; ++quad) {
        std::size_t at = 6 * quad;
        for (const std::size_t k : {0u, 1u, 2u, 0u, 2u, 3u}) out[at++] = corners[4 * quad + k];
    }
    return out;
}

std::vector<Vec3f> SubdivisionPlan::Data::refinedPoints(std::span<const Vec3f> points) const {
    std::vector<float> values = rounds[0].refineVertices(asFloats(points), 3);
    for (std::size_t r = 1; r < rounds.size(); ++r) values = rounds[r].refineVertices(values, 3);
    return fromFloats<Vec3f>(values);
}

ScalpMesh SubdivisionPlan::Data::make(const ScalpMesh& cage) const {
    ScalpMesh mesh(refinedPoints(cage.points()), triangles, false);
    if (!cage.uvs().empty()) mesh.setUvs(refinedCorners(cage.uvs()));
    for (const auto& [name, colors] : cage.colorSets())
        mesh.addColorSet(name, refinedCorners(std::span<const Color4f>(colors)));
    mesh.setPolygons(std::vector<std::int32_t>(triangles.size() / 2, 2));
    std::vector<ScalpPiece> named = pieces;
    for (std::size_t i = 0; i < named.size(); ++i) {
        named[i].name = cage.scalps()[i].name;
        named[i].hash = hashCombine(cage.scalps()[i].hash, std::int32_t(levels));
    }
    mesh.setScalps(std::move(named));
    mesh.setSubdivision(cage.subdivision(), cage.subdivisionFrom());
    mesh.setCageFaceCount(cagePolygons);
    return mesh;
}

SubdivisionPlan::SubdivisionPlan(const ScalpMesh& cage, int levels) {
    if (levels < 1 || levels > 3)
        throw std::invalid_argument("SubdivisionPlan: levels must be 1 to 3");
    auto data = std::make_shared<Data>();
    data->levels = levels;
    data->topologyHash = cage.topologyHash();
    data->polygonsHash = polygonsHash(cage);
    data->cagePoints = cage.points().size();
    data->cagePolygons = cage.polygons().empty() ? cage.triangles().size() : cage.polygons().size();

    Cage start = cageFaces(cage);
    std::uint64_t quads = start.faces.corners.size();
    for (int level = 1; level < levels; ++level) quads *= 4;
    if (quads * 6 > std::uint64_t(std::numeric_limits<std::int32_t>::max()))
        throw std::invalid_argument("SubdivisionPlan: " + std::to_string(2 * quads) +
                                    " triangles are too many, choose fewer levels");
    data->source = std::move(start.source);
    const std::size_t pieceCount = std::max<std::size_t>(cage.scalps().size(), 1);
    std::vector<std::uint32_t> vertexPiece(data->cagePoints, 0);
    for (std::size_t p = 0; p < cage.scalps().size(); ++p) {
        const ScalpPiece& piece = cage.scalps()[p];
        std::fill_n(vertexPiece.begin() + std::ptrdiff_t(piece.firstPoint), piece.pointCount,
                    std::uint32_t(p));
    }
    Faces faces = std::move(start.faces);
    std::size_t vertices = data->cagePoints;
    for (int level = 0; level < levels; ++level) {
        const Level& round =
            data->rounds.emplace_back(std::move(faces), vertices, vertexPiece, pieceCount);
        faces = round.refinedFaces();
        vertexPiece = round.refinedPieces(vertexPiece);
        vertices = round.outCount;
    }
    data->triangles.reserve(2 * faces.count());
    data->cageFace.reserve(2 * faces.count());
    data->pieces.resize(cage.scalps().size());
    for (std::size_t f = 0; f < faces.count(); ++f) {
        const std::uint32_t* quad = &faces.corners[4 * f];
        const auto index = [&](int k) { return std::int32_t(quad[k]); };
        data->triangles.push_back({index(0), index(1), index(2)});
        data->triangles.push_back({index(0), index(2), index(3)});
        data->cageFace.insert(data->cageFace.end(), 2, faces.cageFace[f]);
        if (!data->pieces.empty()) data->pieces[faces.piece[f]].triangleCount += 2;
    }
    if (!data->pieces.empty())
        for (const std::uint32_t piece : vertexPiece) ++data->pieces[piece].pointCount;
    for (std::size_t p = 1; p < data->pieces.size(); ++p) {
        data->pieces[p].firstTriangle =
            data->pieces[p - 1].firstTriangle + data->pieces[p - 1].triangleCount;
        data->pieces[p].firstPoint =
            data->pieces[p - 1].firstPoint + data->pieces[p - 1].pointCount;
    }
    data->baseExtras = cage.extrasHash();
    data->base = std::make_shared<const ScalpMesh>(data->make(cage));
    data_ = std::move(data);
}

ScalpPtr SubdivisionPlan::apply(const ScalpMesh& cage) const {
    const Data& data = *data_;
    if (cage.topologyHash() != data.topologyHash || cage.points().size() != data.cagePoints ||
        polygonsHash(cage) != data.polygonsHash)
        throw std::invalid_argument("SubdivisionPlan: not this plan's cage");
    ScalpPtr mesh = cage.extrasHash() == data.baseExtras
                        ? data.base->withPoints(data.refinedPoints(cage.points()))
                        : std::make_shared<const ScalpMesh>(data.make(cage));
    if (!cage.restPoints().empty())
        mesh = mesh->withRestPoints(data.refinedPoints(cage.restPoints()));
    const auto [first, end] = cage.activeTriangles();
    if (first == 0 && end == cage.triangles().size()) return mesh;
    // A limited cage: the triangles refined from its polygons.
    ScalpPiece active;
    std::size_t polygon = 0, at = 0;
    const std::span<const std::int32_t> counts = cage.polygons();
    const auto polygonAt = [&](std::size_t triangle) {
        if (counts.empty()) return triangle;
        while (polygon < counts.size() && at < triangle) at += std::size_t(counts[polygon++]);
        return polygon;
    };
    const auto refinedAt = [&](std::size_t triangle) {
        return std::uint64_t(std::lower_bound(data.cageFace.begin(), data.cageFace.end(),
                                              std::int32_t(polygonAt(triangle))) -
                             data.cageFace.begin());
    };
    active.firstTriangle = refinedAt(first);
    active.triangleCount = refinedAt(end) - active.firstTriangle;
    return mesh->limitedTo(active);
}

std::vector<Vec3f> SubdivisionPlan::refinePoints(std::span<const Vec3f> points) const {
    if (points.size() != data_->cagePoints)
        throw std::invalid_argument("SubdivisionPlan: the points are not the cage's");
    return data_->refinedPoints(points);
}

std::vector<float> SubdivisionPlan::refineValues(std::span<const float> values,
                                                 int channels) const {
    if (channels < 1 || values.size() != data_->cagePoints * std::size_t(channels))
        throw std::invalid_argument("SubdivisionPlan: the values are not the cage's vertices'");
    std::vector<float> out(values.begin(), values.end());
    for (const Level& round : data_->rounds) out = round.refineVertices(out, channels);
    return out;
}

std::span<const std::int32_t> SubdivisionPlan::cageFace() const { return data_->cageFace; }
int SubdivisionPlan::levels() const { return data_->levels; }
std::size_t SubdivisionPlan::faceCount() const { return data_->cagePolygons; }

}  // namespace corvelle
