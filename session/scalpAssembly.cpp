#include "session/scalpAssembly.h"

#include <algorithm>
#include <set>

namespace corvelle {

ScalpPtr assembleScalps(const ScalpPtr& own, const std::vector<std::pair<std::string, ScalpPtr>>& named) {
    struct Part {
        std::string name;
        const ScalpMesh* mesh;
    };
    std::vector<Part> parts;
    if (own) parts.push_back({"scalp", own.get()});
    for (const auto& [name, mesh] : named)
        if (mesh) parts.push_back({name, mesh.get()});
    if (parts.empty() || (parts.size() == 1 && own)) return own;

    const auto any = [&](auto&& has) { return std::ranges::any_of(parts, [&](const Part& p) { return has(*p.mesh); }); };
    const bool uvs = any([](const ScalpMesh& m) { return !m.uvs().empty(); });
    const bool rest = any([](const ScalpMesh& m) { return !m.restPoints().empty(); });
    const bool polygons = any([](const ScalpMesh& m) { return !m.polygons().empty(); });
    std::set<std::string> sets;
    for (const Part& part : parts)
        for (const auto& [name, colors] : part.mesh->colorSets()) sets.insert(name);

    std::vector<Vec3f> points, restPoints;
    std::vector<Triangle> triangles;
    std::vector<Vec2f> allUvs;
    std::vector<std::int32_t> allPolygons;
    std::map<std::string, std::vector<Color4f>> colors;
    std::vector<ScalpPiece> pieces;
    for (const Part& part : parts) {
        const ScalpMesh& mesh = *part.mesh;
        const auto base = std::int32_t(points.size());
        const std::size_t corners = 3 * mesh.triangles().size();
        pieces.push_back({.name = part.name,
                          .firstTriangle = triangles.size(),
                          .triangleCount = mesh.triangles().size(),
                          .firstPoint = points.size(),
                          .pointCount = mesh.points().size(),
                          .hash = mesh.fullHash()});
        for (const Triangle& t : mesh.triangles())
            triangles.push_back({t[0] + base, t[1] + base, t[2] + base});
        points.insert(points.end(), mesh.points().begin(), mesh.points().end());
        if (rest) {
            const auto from = mesh.restPoints().empty() ? mesh.points() : mesh.restPoints();
            restPoints.insert(restPoints.end(), from.begin(), from.end());
        }
        if (uvs) {
            if (mesh.uvs().empty())
                allUvs.resize(allUvs.size() + corners);
            else
                allUvs.insert(allUvs.end(), mesh.uvs().begin(), mesh.uvs().end());
        }
        if (polygons) {
            if (mesh.polygons().empty())
                allPolygons.resize(allPolygons.size() + mesh.triangles().size(), 1);
            else
                allPolygons.insert(allPolygons.end(), mesh.polygons().begin(), mesh.polygons().end());
        }
        for (const std::string& name : sets) {
            auto& to = colors[name];
            const auto found = mesh.colorSets().find(name);
            if (found == mesh.colorSets().end())
                to.resize(to.size() + corners, Color4f{1.0f, 1.0f, 1.0f, 1.0f});
            else
                to.insert(to.end(), found->second.begin(), found->second.end());
        }
    }
    ScalpMesh whole(std::move(points), std::move(triangles), false);
    if (uvs) whole.setUvs(std::move(allUvs));
    if (polygons) whole.setPolygons(std::move(allPolygons));
    for (auto& [name, values] : colors) whole.addColorSet(name, std::move(values));
    if (rest) whole.setRestPoints(std::move(restPoints));
    if (own) whole.setSubdivision(own->subdivision(), own->subdivisionFrom());
    whole.setScalps(std::move(pieces));
    return std::make_shared<const ScalpMesh>(std::move(whole));
}

}  // namespace corvelle
