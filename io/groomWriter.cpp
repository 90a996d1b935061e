#include "io/groomWriter.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "graph/graphEdit.h"
#include "io/groomAxis.h"
#include "io/groomStamp.h"
#include "io/jsonScan.h"
#include "io/numberText.h"
#include "model/fileReplace.h"

namespace corvelle {

namespace {

using nlohmann::json;

constexpr std::size_t kGuideGrain = 32;

std::span<const float> floatsOf(std::span<const Vec3f> values) {
    return {values.empty() ? nullptr : &values.front().x, 3 * values.size()};
}
std::span<const float> floatsOf(std::span<const Vec2f> values) {
    return {values.empty() ? nullptr : &values.front().x, 2 * values.size()};
}
std::span<const float> floatsOf(std::span<const Color4f> values) {
    return {values.empty() ? nullptr : &values.front().r, 4 * values.size()};
}
std::span<const std::int32_t> intsOf(std::span<const Triangle> triangles) {
    return {triangles.empty() ? nullptr : triangles.front().data(), 3 * triangles.size()};
}

void requireFinite(std::span<const float> values, const std::string& name) {
    if (const std::size_t i = firstNonFinite(values); i < values.size())
        throw GroomFileError("groom file: '" + name + "' holds a non-finite value at index " +
                             std::to_string(i));
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/// A JSON text that a session holds, as it goes into the file: one level down.
std::string dataText(const std::string& text, const char* key) {
    const JsonScan scan(text, kDeepestJson - 1);
    if (scan.fault().any())
        throw GroomFileError(std::string("groom file: invalid ") + key +
                             " JSON: " + scan.fault().what);
    return compactJson(scan.root());
}

std::string graphText(const std::string& text) {
    if (isBlank(text)) return "{}";
    const std::string compact = dataText(text, "graph");
    json graph = json::parse(compact);
    const auto nodes = graph.is_object() ? graph.find("nodes") : graph.end();
    if (!graph.is_object() || nodes == graph.end() || !nodes->is_array()) return compact;
    try {
        for (json& node : *nodes)
            if (node.is_object()) normalizeNode(node);
    } catch (const std::exception& error) {
        throw GroomFileError(std::string("groom file: ") + error.what());
    }
    // Definitions that were texts are objects now, and nest as deep as they go.
    return dataText(graph.dump(), "graph");
}

/// The text of one object. Members are added with their keys ascending.
class ObjectText {
public:
    explicit ObjectText(std::string& out) : out_(out) { out_ += '{'; }
    void close() { out_ += '}'; }

    /// Starts a member; its value is appended to what this gives.
    std::string& key(const std::string& name) {
        if (out_.back() != '{') out_ += ',';
        out_ += json(name).dump();
        out_ += ':';
        return out_;
    }
    void raw(const char* name, std::string_view text) { key(name) += text; }
    void text(const char* name, const std::string& value) { raw(name, json(value).dump()); }
    void textUnlessEmpty(const char* name, const std::string& value) {
        if (!value.empty()) text(name, value);
    }
    void floats(const std::string& name, std::span<const float> values, const std::string& block) {
        requireFinite(values, block);
        appendFloatArray(key(name), values);
    }
    /// An object of one member for each of a map's entries.
    template <class Map, class Print>
    void object(const char* name, const Map& map, const Print& print) {
        key(name);
        ObjectText inner(out_);
        for (const auto& [entry, value] : map) print(inner.key(entry), entry, value);
        inner.close();
    }

private:
    std::string& out_;
};

enum class MeshKind { Scalp, Collider };

void appendMesh(std::string& out, const ScalpMesh& mesh, MeshKind kind, const std::string& block,
                const std::string* name = nullptr) {
    const bool scalp = kind == MeshKind::Scalp;
    ObjectText object(out);
    if (scalp && !mesh.colorSets().empty())
        object.object(
            "colorSets", mesh.colorSets(),
            [&](std::string& text, const std::string&, const std::vector<Color4f>& colors) {
                requireFinite(floatsOf(colors), block + ".colorSets");
                appendFloatArray(text, floatsOf(colors));
            });
    if (name) object.text("name", *name);
    object.floats("points", floatsOf(mesh.points()), block + ".points");
    if (!mesh.polygons().empty()) appendIntArray(object.key("polygons"), mesh.polygons());
    if (!mesh.restPoints().empty())
        object.floats("restPoints", floatsOf(mesh.restPoints()), block + ".restPoints");
    if (mesh.subdivision() > 0) {
        object.raw("subdivision", std::to_string(mesh.subdivision()));
        object.textUnlessEmpty("subdivisionFrom", mesh.subdivisionFrom());
    }
    if (scalp) object.text("topology", stampText(mesh.topologyHash()));
    appendIntArray(object.key("triangles"), intsOf(mesh.triangles()));
    if (scalp && !mesh.uvs().empty()) object.floats("uvs", floatsOf(mesh.uvs()), block + ".uvs");
    object.close();
}

void appendGuides(std::string& out, const GuidesPtr& guides) {
    out += '[';
    if (guides) {
        const GuideSet& set = *guides;
        for (std::size_t g = 0; g < set.size(); ++g) {
            requireFinite(floatsOf(set.pointsOf(g)), "guides.points");
            const StrandRoot& root = set.roots()[g];
            const float uv[] = {root.u, root.v};
            requireFinite(uv, "guides.root");
        }
        appendInOrder(out, set.size(), kGuideGrain, [&](std::size_t g, std::string& text) {
            if (g > 0) text += ',';
            const StrandRoot& root = set.roots()[g];
            text += "{\"id\":" + std::to_string(set.ids()[g]) + ",\"points\":";
            appendFloatArray(text, floatsOf(set.pointsOf(g)));
            text += ",\"root\":[" + std::to_string(root.triangle) + ',' +
                    json(double(root.u)).dump() + ',' + json(double(root.v)).dump() + "]}";
        });
    }
    out += ']';
}

void appendCache(std::string& out, const GroomFileCache& cache) {
    if (cache.file.empty())
        out += "null";
    else
        out += json{{"file", cache.file}, {"object", cache.object}}.dump();
}

void appendMap(std::string& out, const std::string& name, const PaintedMap& map) {
    static constexpr const char* kKinds[] = {"texture", "vertices", "guides"};
    ObjectText object(out);
    if (map.channels == 4) object.raw("channels", "4");
    object.text("kind", kKinds[int(map.kind)]);
    object.textUnlessEmpty("layer", map.layer);
    object.text("texture", map.file);
    if (map.kind == PaintedMap::Kind::Vertices && map.values) {
        object.floats("values", *map.values, "maps." + name + ".values");
        object.raw("vertices", std::to_string(map.vertices));
    }
    object.close();
}

void appendPrototype(std::string& out, const GroomFilePrototype& prototype) {
    const std::size_t points = prototype.points.size();
    ObjectText object(out);
    if (prototype.normals.size() == points)
        object.floats("normals", floatsOf(prototype.normals), "prototypes.normals");
    object.floats("points", floatsOf(prototype.points), "prototypes.points");
    appendIntArray(object.key("triangles"), intsOf(prototype.triangles));
    if (prototype.uvs.size() == points && points > 0)
        object.floats("uvs", floatsOf(prototype.uvs), "prototypes.uvs");
    object.close();
}

void appendScalps(std::string& out, const GroomFile& file) {
    out += '[';
    for (const auto& [name, mesh] : file.scalps) {
        if (!mesh) continue;
        if (out.back() != '[') out += ',';
        appendMesh(out, *mesh, MeshKind::Scalp, "scalps." + name, &name);
    }
    out += ']';
}

std::string numberText(double value, const std::string& name) {
    if (!std::isfinite(value))
        throw GroomFileError("groom file: '" + name + "' holds a non-finite value at index 0");
    return json(value).dump();
}

bool holdsMesh(const std::map<std::string, ScalpPtr>& meshes) {
    for (const auto& [name, mesh] : meshes)
        if (mesh) return true;
    return false;
}

}  // namespace

std::string groomFileText(const GroomFile& file) {
    const std::string axis = file.upAxis.empty() ? "Y" : checkedUpAxis(file.upAxis);
    std::string out;
    ObjectText object(out);
    if (!file.cardBakePrefix.empty())
        object.raw("cardBake",
                   json{{"prefix", file.cardBakePrefix}, {"strands", file.cardBakeStrands}}.dump());
    if (holdsMesh(file.colliders)) {
        auto meshes = file.colliders;
        std::erase_if(meshes, [](const auto& entry) { return !entry.second; });
        object.object("colliders", meshes,
                      [](std::string& text, const std::string& name, const ScalpPtr& mesh) {
                          appendMesh(text, *mesh, MeshKind::Collider, "colliders." + name);
                      });
    }
    if (!file.controls.empty())
        object.object("controls", file.controls,
                      [](std::string& text, const std::string& name, float value) {
                          text += numberText(value, "controls." + name);
                      });
    const auto data = [&](const char* key, const std::string& text) {
        if (!isBlank(text)) object.raw(key, dataText(text, key));
    };
    data("correctives", file.correctives);
    data("flow", file.flow);
    if (file.followScalp) object.raw("followScalp", "true");
    object.text("format", "corvelle.groom");
    object.raw("framesPerSecond", numberText(file.framesPerSecond, "framesPerSecond"));
    object.raw("graph", graphText(file.graph));
    appendCache(object.key("guideCache"), file.guideCache);
    appendGuides(object.key("guides"), file.guides);
    object.raw("hierarchy",
               isBlank(file.hierarchy) ? "null" : dataText(file.hierarchy, "hierarchy"));
    if (file.maps && !file.maps->maps.empty()) object.object("maps", file.maps->maps, appendMap);
    data("parts", file.parts);
    if (!file.prototypes.empty())
        object.object("prototypes", file.prototypes,
                      [](std::string& text, const std::string&, const PrototypePtr& prototype) {
                          appendPrototype(text, prototype ? *prototype : GroomFilePrototype());
                      });
    if (file.scalp)
        appendMesh(object.key("scalp"), *file.scalp, MeshKind::Scalp, "scalp");
    else
        object.raw("scalp", "null");
    appendCache(object.key("scalpCache"), file.scalpCache);
    if (std::ranges::any_of(file.scalps, [](const auto& scalp) { return bool(scalp.second); }))
        appendScalps(object.key("scalps"), file);
    if (!file.searchPaths.empty()) object.raw("searchPaths", json(file.searchPaths).dump());
    if (!file.simCaches.empty())
        object.object("simCaches", file.simCaches,
                      [](std::string& text, const std::string&, const GroomFileSimCache& cache) {
                          text += json{{"file", cache.file},
                                       {"object", cache.object},
                                       {"stamp", stampText(cache.stamp)}}
                                      .dump();
                      });
    object.text("source", file.source);
    object.text("units", file.units.empty() ? "cm" : file.units);
    object.text("upAxis", axis);
    object.raw("version", std::to_string(kGroomFileVersion));
    object.close();
    return out;
}

void writeGroomFile(const std::string& path, const GroomFile& file) {
    const std::string text = groomFileText(file);
    try {
        replaceFile(path, text);
    } catch (const FileError& error) {
        throw GroomFileError(error.what());
    }
}

}  // namespace corvelle
