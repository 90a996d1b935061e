#include "hosts/blender/helper/scalpCommands.h"

#include <numeric>

#include "hosts/blender/helper/openGroom.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/toolState.h"
#include "io/groomStamp.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

/// Fans of the polygons, and which face corner each triangle corner came from.
struct Faces {
    std::vector<Triangle> triangles;
    std::vector<std::int32_t> fans;       ///< triangles of each face
    std::vector<std::uint32_t> cornerOf;  ///< per triangle corner
};

Faces readFaces(const CommandContext& context, std::size_t pointCount) {
    const std::vector<std::int32_t> counts =
        readInts(requireField(context.request, "faceCounts"), "faceCounts", 1, context.regions);
    std::uint64_t corners = 0;
    for (std::size_t f = 0; f < counts.size(); ++f) {
        if (counts[f] < 3)
            failRequest("bad_request", "face " + std::to_string(f) + " has fewer than 3 corners");
        corners += std::uint64_t(counts[f]);
    }
    const std::vector<std::int32_t> indices =
        readInts(requireField(context.request, "faceIndices"), "faceIndices", 1, context.regions);
    if (corners != indices.size())
        failRequest("bad_request", "the face counts add up to " + std::to_string(corners) +
                                       " corners, not the " + std::to_string(indices.size()) +
                                       " face indices");
    for (const std::int32_t index : indices)
        if (index < 0 || std::size_t(index) >= pointCount)
            failRequest("bad_request", "face index " + std::to_string(index) +
                                           " is not one of the " + std::to_string(pointCount) +
                                           " points");
    Faces faces;
    const std::size_t triangles = indices.size() - 2 * counts.size();
    faces.triangles.reserve(triangles);
    faces.cornerOf.reserve(3 * triangles);
    faces.fans.reserve(counts.size());
    std::uint32_t first = 0;
    for (const std::int32_t count : counts) {
        for (std::uint32_t k = 1; k + 1 < std::uint32_t(count); ++k) {
            faces.triangles.push_back({indices[first], indices[first + k], indices[first + k + 1]});
            faces.cornerOf.insert(faces.cornerOf.end(), {first, first + k, first + k + 1});
        }
        faces.fans.push_back(count - 2);
        first += std::uint32_t(count);
    }
    return faces;
}

/// A value per face corner as a value per triangle corner. `Value` is made of `components` floats.
template <class Value>
std::vector<Value> spreadCorners(const std::vector<float>& floats, const Faces& faces) {
    constexpr std::size_t kComponents = sizeof(Value) / sizeof(float);
    std::vector<Value> out(faces.cornerOf.size());
    for (std::size_t c = 0; c < out.size(); ++c)
        std::copy_n(floats.data() + kComponents * faces.cornerOf[c], kComponents,
                    reinterpret_cast<float*>(&out[c]));
    return out;
}

ScalpPtr readScalp(const CommandContext& context) {
    const SceneSpace& space = context.session().space;
    const Json& request = context.request;
    std::vector<Vec3f> points =
        readPoints(requireField(request, "points"), "points", space, context.regions);
    const std::size_t pointCount = points.size();
    Faces faces = readFaces(context, pointCount);
    const std::size_t corners = faces.triangles.size() + 2 * faces.fans.size();

    std::vector<Vec2f> uvs;
    if (const Json* given = findField(request, "uvs")) {
        const std::vector<float> floats = readFloats(*given, "uvs", 2, context.regions);
        if (floats.size() != 2 * corners)
            failRequest("bad_request",
                        "uvs must hold 2 floats per face corner (" + std::to_string(corners) + ")");
        uvs = spreadCorners<Vec2f>(floats, faces);
    }
    std::map<std::string, std::vector<Color4f>> colorSets;
    if (const Json* sets = findField(request, "colorSets")) {
        if (!sets->is_object())
            failRequest("bad_request",
                        "colorSets is an object of name to 4 floats per face corner");
        for (const auto& [name, value] : sets->items()) {
            const std::string label = "color set " + name;
            const std::vector<float> floats = readFloats(value, label, 4, context.regions);
            if (floats.size() != 4 * corners)
                failRequest("bad_request", label + " must hold 4 floats per face corner");
            colorSets[name] = spreadCorners<Color4f>(floats, faces);
        }
    }
    std::vector<Vec3f> restPoints;
    const Json* rest = findField(request, "restPoints");
    if (rest) {
        restPoints = readPoints(*rest, "restPoints", space, context.regions);
        if (restPoints.size() != pointCount)
            failRequest("bad_request", "restPoints must hold as many points as points");
    }
    ScalpMesh mesh(std::move(points), std::move(faces.triangles), false);
    mesh.setPolygons(std::move(faces.fans));
    if (!uvs.empty()) mesh.setUvs(std::move(uvs));
    for (auto& [name, colors] : colorSets) mesh.addColorSet(name, std::move(colors));
    if (!restPoints.empty()) mesh.setRestPoints(std::move(restPoints));
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

/// The mesh's polygons as a host knows them, and the triangle corner behind each face corner.
struct RebuiltFaces {
    std::vector<std::int32_t> counts, indices;
    std::vector<std::uint32_t> corners;
    bool exact = true;
};

RebuiltFaces rebuildFaces(const ScalpMesh& mesh) {
    const auto triangles = mesh.triangles();
    RebuiltFaces faces;
    const auto addCorner = [&](std::size_t triangle, std::size_t corner) {
        faces.indices.push_back(triangles[triangle][corner]);
        faces.corners.push_back(std::uint32_t(3 * triangle + corner));
    };
    const auto addTriangle = [&](std::size_t t) {
        faces.counts.push_back(3);
        for (std::size_t c = 0; c < 3; ++c) addCorner(t, c);
    };
    const auto fans = mesh.polygons();
    const auto covered = std::accumulate(fans.begin(), fans.end(), std::uint64_t(0));
    if (covered != triangles.size()) {
        for (std::size_t t = 0; t < triangles.size(); ++t) addTriangle(t);
        faces.exact = fans.empty();
        return faces;
    }
    std::size_t first = 0;
    for (const std::int32_t fan : fans) {
        const std::size_t end = first + std::size_t(fan);
        bool isFan = fan > 0;
        for (std::size_t t = first + 1; t < end && isFan; ++t)
            isFan =
                triangles[t][0] == triangles[first][0] && triangles[t][1] == triangles[t - 1][2];
        if (isFan) {
            faces.counts.push_back(fan + 2);
            for (std::size_t c = 0; c < 3; ++c) addCorner(first, c);
            for (std::size_t t = first + 1; t < end; ++t) addCorner(t, 2);
        } else {
            for (std::size_t t = first; t < end; ++t) addTriangle(t);
            faces.exact = faces.exact && fan <= 1;
        }
        first = end;
    }
    return faces;
}

}  // namespace

std::vector<Vec3f> readPoints(const Json& value, std::string_view label, const SceneSpace& space,
                              OpenedRegions& regions) {
    const std::vector<float> floats = readFloats(value, label, 3, regions);
    std::vector<Vec3f> points(floats.size() / 3);
    bool finite = true;
    for (std::size_t i = 0; i < points.size(); ++i) {
        points[i] = space.pointToGroom({floats[3 * i], floats[3 * i + 1], floats[3 * i + 2]});
        finite = finite && isFinite(points[i]);
    }
    if (!finite) failRequest("bad_request", std::string(label) + " holds a NaN or an infinity");
    return points;
}

void applyHostGuides(GroomSession& groom) {
    const GuidesPtr& rest = groom.restGuides();
    if (!rest) return;
    const ScalpPtr& scalp = groom.scalp();
    const ScalpPtr restScalp = groom.restScalp();
    groom.setGuides(!scalp || restScalp == scalp ? rest : deformGuides(rest, *restScalp, *scalp));
}

Json setScalpCommand(const CommandContext& context) {
    GroomSession& groom = *context.session().groom;
    const ScalpPtr old = groom.scalp();
    ScalpPtr next = readScalp(context);
    // A stroke stands on triangles: it cannot go on over others.
    if (!old || next->topologyHash() != old->topologyHash()) cancelStroke(context.session());
    const std::size_t rerooted = changeScalp(groom, std::move(next));
    const ScalpPtr& scalp = groom.scalp();
    const std::uint64_t topology = scalp->topologyHash();
    const std::uint64_t expected = groom.document().topology;
    return {{"points", scalp->points().size()},
            {"triangles", scalp->triangles().size()},
            {"topology", stampText(topology)},
            {"matchesGroom", expected == 0 || expected == topology},
            {"guidesRerooted", rerooted}};
}

Json updateScalpCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    if (!groom.scalp()) failRequest("state", "the session has no scalp: set_scalp first");
    const std::size_t count = groom.scalp()->points().size();
    std::vector<Vec3f> points = readPoints(requireField(context.request, "points"), "points",
                                           session.space, context.regions);
    if (points.size() != count)
        failRequest("bad_request", "the scalp has " + std::to_string(count) + " points, not " +
                                       std::to_string(points.size()));
    std::optional<std::vector<Vec3f>> rest;
    if (const Json* given = findField(context.request, "restPoints")) {
        rest = readPoints(*given, "restPoints", session.space, context.regions);
        if (rest->size() != count)
            failRequest("bad_request", "restPoints must hold as many points as points");
    }
    groom.updateScalpPoints(std::move(points), std::move(rest));
    applyHostGuides(groom);
    return {{"points", count}};
}

Json getScalpCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const bool groomSpace = optionalString(context.request, "space", "host") == "groom";
    const ScalpPtr& scalp = session.groom->scalp();
    if (!scalp) return {{"scalp", nullptr}};

    const RebuiltFaces faces = rebuildFaces(*scalp);
    std::vector<float> uvs;
    if (!scalp->uvs().empty()) {
        uvs.reserve(2 * faces.corners.size());
        for (const std::uint32_t corner : faces.corners) {
            const Vec2f uv = scalp->uvs()[corner];
            uvs.insert(uvs.end(), {uv.x, uv.y});
        }
    }
    AnswerPool& pool = session.scalpPool;
    pool.prepare(320 + 4 * (faces.counts.size() + faces.indices.size() + uvs.size() +
                            6 * scalp->points().size()));
    Json arrays{{"points", writePoints(pool, scalp->points(), session.space, groomSpace)},
                {"faceCounts", writeInts(pool, faces.counts)},
                {"faceIndices", writeInts(pool, faces.indices)}};
    if (!uvs.empty()) arrays["uvs"] = writeFloats(pool, uvs, 2);
    if (!scalp->restPoints().empty())
        arrays["restPoints"] = writePoints(pool, scalp->restPoints(), session.space, groomSpace);
    Json names = Json::array();
    for (const auto& [name, colors] : scalp->colorSets()) names.push_back(name);
    return {{"scalp",
             {{"points", scalp->points().size()},
              {"faces", faces.counts.size()},
              {"triangles", scalp->triangles().size()},
              {"facesExact", faces.exact},
              {"colorSets", std::move(names)},
              {"topology", stampText(scalp->topologyHash())}}},
            {"arrays", std::move(arrays)}};
}

}  // namespace corvelle
