#include "io/groomReader.h"

#include <cmath>
#include <exception>
#include <limits>

#include <nlohmann/json.hpp>

#include "graph/graphError.h"
#include "io/groomAxis.h"
#include "io/groomPaths.h"
#include "io/groomStamp.h"
#include "io/groomWriter.h"
#include "io/jsonScan.h"
#include "io/numberText.h"
#include "model/fileReplace.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace {

using nlohmann::json;
using Span = JsonScan::Span;

constexpr std::size_t kGuideGrain = 32;

/// One object of the file. Small members are read by the JSON library, and fail in its words.
class Section {
public:
    Section(const JsonScan& scan, Span object) : scan_(scan), members_(scan.members(object)) {}

    const JsonScan& scan() const { return scan_; }
    const JsonScan::Object& members() const { return members_; }
    /// The member's text, empty for none.
    Span find(const char* key) const {
        const auto found = members_.find(key);
        return found == members_.end() ? Span() : found->second;
    }
    /// None for null too.
    Span findValue(const char* key) const {
        const Span value = find(key);
        return JsonScan::isNull(value) ? Span() : value;
    }
    Span need(const char* key) const {
        const Span value = find(key);
        if (value.empty()) (void)json::object().at(key);
        return value;
    }
    template <class Value>
    Value value(const char* key, Value otherwise) const {
        const Span text = find(key);
        return text.empty() ? otherwise : json::parse(text).get<Value>();
    }
    std::string text(const char* key, const char* otherwise = "") const {
        return value<std::string>(key, otherwise);
    }

private:
    const JsonScan& scan_;
    JsonScan::Object members_;
};

/// Numbers of the file, one by one. What is no number fails in the library's words.
float floatOf(const json& value, const std::string& name) {
    const double number = value.get<double>();
    if (!(std::abs(number) < 0x1.ffffffp+127))
        throw GroomFileError("groom file: '" + name + "' must hold numbers");
    return float(number);
}
template <class Integer>
Integer wholeOf(const json& value) {
    const auto fail = [] { throw std::out_of_range("a whole number beyond its range"); };
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (!std::in_range<Integer>(number)) fail();
        return Integer(number);
    }
    if (value.is_number_integer()) {
        const auto number = value.get<std::int64_t>();
        if (!std::in_range<Integer>(number)) fail();
        return Integer(number);
    }
    const double number = std::trunc(value.get<double>());
    using Limits = std::numeric_limits<Integer>;
    // The limit itself may not be a double: the power of two above it is.
    if (!(number >= double(Limits::min()) && number < std::ldexp(1.0, Limits::digits))) fail();
    return Integer(number);
}

/// An object's section. What is none fails as a look for `key` in it does.
Section sectionOf(const JsonScan& scan, Span value, const char* key) {
    if (!JsonScan::isObject(value)) (void)json::parse(value).at(key);
    return Section(scan, value);
}

/// Values of `Components` numbers each, straight from the text.
template <class Value>
std::vector<Value> readTuples(const JsonScan& scan, Span array, const std::string& name) {
    constexpr std::size_t kComponents = sizeof(Value) / sizeof(float);
    const NumberArray numbers = JsonScan::isArray(array) ? numberArray(scan, array) : NumberArray();
    if (!JsonScan::isArray(array) || numbers.count % kComponents != 0)
        throw GroomFileError("groom file: '" + name + "' must be an array of " +
                             std::to_string(kComponents) + "-tuples");
    std::vector<Value> out(numbers.count / kComponents);
    if (readNumbers(numbers, reinterpret_cast<float*>(out.data())) != NumberFault::None)
        throw GroomFileError("groom file: '" + name + "' must hold numbers");
    return out;
}

/// The first element that is no number, as the library would complain about it.
[[noreturn]] void failNumbers(const JsonScan& scan, Span array) {
    for (const Span element : scan.elements(array)) (void)json::parse(element).get<int>();
    throw GroomFileError("a value that is not a number");
}

std::vector<std::int32_t> readInts(const JsonScan& scan, Span array, const char* beyond) {
    if (!JsonScan::isArray(array)) (void)json::parse(array).get<std::vector<int>>();
    const NumberArray numbers = numberArray(scan, array);
    std::vector<std::int32_t> out(numbers.count);
    const NumberFault fault = readNumbers(numbers, out.data());
    if (fault == NumberFault::OutOfRange) throw std::out_of_range(beyond);
    if (fault != NumberFault::None) failNumbers(scan, array);
    return out;
}

std::vector<Triangle> readTriangles(const JsonScan& scan, Span array, const std::string& fault,
                                    const char* beyond) {
    if (!JsonScan::isArray(array) || numberArray(scan, array).count % 3 != 0)
        throw GroomFileError(fault);
    const std::vector<std::int32_t> flat = readInts(scan, array, beyond);
    std::vector<Triangle> out(flat.size() / 3);
    for (std::size_t t = 0; t < out.size(); ++t)
        out[t] = {flat[3 * t], flat[3 * t + 1], flat[3 * t + 2]};
    return out;
}

/// Runs one step of a mesh; its failure is told as the fault of that member.
template <class Step>
void meshStep(const std::string& name, const char* member, const Step& step) {
    try {
        step();
    } catch (const GroomFileError&) {
        throw;
    } catch (const std::exception& error) {
        throw GroomFileError("groom file: bad " + name + "." + member + ": " + error.what());
    }
}

ScalpPtr readMesh(const Section& section, const std::string& name, bool scalp) {
    const JsonScan& scan = section.scan();
    std::vector<Vec3f> points = readTuples<Vec3f>(scan, section.find("points"), name + ".points");
    const Span triangles = section.find("triangles");
    std::shared_ptr<ScalpMesh> mesh;
    meshStep(name, "triangles", [&] {
        mesh = std::make_shared<ScalpMesh>(
            std::move(points),
            readTriangles(scan, triangles, "groom file: bad " + name + ".triangles",
                          "ScalpMesh: triangle index out of range"));
    });
    if (const Span polygons = section.findValue("polygons"); !polygons.empty())
        meshStep(name, "polygons", [&] {
            mesh->setPolygons(
                readInts(scan, polygons, "a count beyond the range of whole numbers"));
        });
    if (const Span levels = section.findValue("subdivision"); !levels.empty())
        mesh->setSubdivision(wholeOf<std::int32_t>(json::parse(levels)),
                             section.text("subdivisionFrom"));
    if (scalp) {
        if (const Span uvs = section.findValue("uvs"); !uvs.empty())
            meshStep(name, "uvs",
                     [&] { mesh->setUvs(readTuples<Vec2f>(scan, uvs, name + ".uvs")); });
        if (const Span sets = section.find("colorSets"); JsonScan::isObject(sets))
            for (const auto& set : scan.members(sets))
                meshStep(name, "colorSets", [&] {
                    mesh->addColorSet(set.first,
                                      readTuples<Color4f>(scan, set.second, name + ".colorSets"));
                });
    }
    if (const Span rest = section.findValue("restPoints"); !rest.empty())
        meshStep(name, "restPoints",
                 [&] { mesh->setRestPoints(readTuples<Vec3f>(scan, rest, name + ".restPoints")); });
    return mesh;
}

/// One guide's members but its points.
struct GuideText {
    NumberArray points;
    std::uint64_t id = 0;
    StrandRoot root;
};

GuideText readGuide(const JsonScan& scan, Span element) {
    const Section guide = sectionOf(scan, element, "points");
    const Span points = guide.need("points");
    GuideText out;
    if (JsonScan::isArray(points)) out.points = numberArray(scan, points);
    if (!JsonScan::isArray(points) || out.points.count % 3 != 0)
        throw GroomFileError("groom file: 'guides.points' must be an array of 3-tuples");
    out.id = wholeOf<std::uint64_t>(json::parse(guide.need("id")));
    const json root = json::parse(guide.need("root"));
    out.root = {wholeOf<std::int32_t>(root.at(0)), floatOf(root.at(1), "guides.root"),
                floatOf(root.at(2), "guides.root")};
    return out;
}

/// Guides by the thousand: in parallel, and their points into one array.
GuidesPtr readGuides(const JsonScan& scan, Span array) {
    if (array.empty()) return nullptr;
    if (!JsonScan::isArray(array)) (void)json::parse(array).at(0);
    const std::vector<Span> elements = scan.elements(array);
    if (elements.empty()) return nullptr;
    const std::size_t count = elements.size();
    std::vector<GuideText> texts(count);
    std::vector<std::exception_ptr> faults(count / kGuideGrain + 1);
    const auto ofChunks = [&](const auto& work) {
        parallelRange(0, faults.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                try {
                    for (std::size_t g = c * kGuideGrain;
                         g < std::min(count, (c + 1) * kGuideGrain); ++g)
                        work(g);
                } catch (...) {
                    faults[c] = std::current_exception();
                }
            }
        });
        for (const std::exception_ptr& fault : faults)  // the first one of the file
            if (fault) std::rethrow_exception(fault);
    };
    ofChunks([&](std::size_t g) { texts[g] = readGuide(scan, elements[g]); });

    std::vector<std::size_t> offsets(count + 1, 0);
    for (std::size_t g = 0; g < count; ++g) offsets[g + 1] = offsets[g] + texts[g].points.count / 3;
    std::vector<Vec3f> points(offsets.back());
    std::vector<GuideView> views(count);
    ofChunks([&](std::size_t g) {
        Vec3f* const first = points.data() + offsets[g];
        if (readNumbers(texts[g].points, reinterpret_cast<float*>(first)) != NumberFault::None)
            throw GroomFileError("groom file: 'guides.points' must hold numbers");
        views[g].id = texts[g].id;
        views[g].root = texts[g].root;
        views[g].points = {first, offsets[g + 1] - offsets[g]};
    });
    return std::make_shared<const GuideSet>(std::span<const GuideView>(views));
}

GroomFileCache readCache(const Section& file, const char* key, const std::string& directory) {
    const Span value = file.findValue(key);
    if (value.empty()) return {};
    const Section cache = sectionOf(file.scan(), value, "file");
    return {resolveCachePath(json::parse(cache.need("file")).get<std::string>(), directory),
            cache.text("object")};
}

std::map<std::string, GroomFileSimCache> readSimCaches(const JsonScan& scan, Span value,
                                                       const std::string& directory) {
    const char* const kNoObjects = "simCaches: not an object of Simulate nodes' bakes";
    std::map<std::string, GroomFileSimCache> out;
    if (value.empty()) return out;
    if (!JsonScan::isObject(value)) throw GroomFileError(kNoObjects);
    for (const auto& [node, entry] : scan.members(value)) {
        if (!JsonScan::isObject(entry)) throw GroomFileError(kNoObjects);
        const Section bake(scan, entry);
        try {
            out[node] = {
                resolveCachePath(json::parse(bake.need("file")).get<std::string>(), directory),
                bake.text("object"), stampFromText(bake.text("stamp"))};
        } catch (const std::exception& error) {
            throw GroomFileError(std::string("simCaches: ") + error.what());
        }
    }
    return out;
}

PaintedMap readMap(const Section& section, const std::string& name) {
    PaintedMap map;
    const std::string kind = section.text("kind", "vertices");
    const double channels = section.value("channels", 1.0);
    map.channels = channels == 4.0 ? 4 : 1;
    map.file = section.text("texture");
    map.layer = section.text("layer");
    if (kind == "texture") {
        map.kind = PaintedMap::Kind::Texture;
    } else if (kind == "guides") {
        map.kind = PaintedMap::Kind::Guides;
    } else if (kind != "vertices") {
        throw GroomFileError("groom file: scalpMaps: map '" + name + "' has unknown kind '" + kind +
                             "'");
    } else if (const Span values = section.findValue("values"); !values.empty()) {
        const std::string block = "maps." + name + ".values";
        auto read =
            std::make_shared<std::vector<float>>(readTuples<float>(section.scan(), values, block));
        if (read->size() % std::size_t(map.channels) != 0)
            throw GroomFileError("groom file: '" + block + "' must be an array of 4-tuples");
        map.vertices = read->size() / std::size_t(map.channels);
        map.values = std::move(read);
    }
    return map;
}

MapCatalogPtr readMaps(const JsonScan& scan, Span value) {
    if (!JsonScan::isObject(value)) return nullptr;
    auto catalog = std::make_shared<MapCatalogValue>();
    for (const auto& [name, entry] : scan.members(value))
        catalog->maps.emplace(name, readMap(sectionOf(scan, entry, "kind"), name));
    return catalog->maps.empty() ? nullptr : catalog;
}

PrototypePtr readPrototype(const Section& section) {
    const JsonScan& scan = section.scan();
    auto out = std::make_shared<GroomFilePrototype>();
    out->points = readTuples<Vec3f>(scan, section.find("points"), "prototypes.points");
    constexpr const char* kBeyond =
        "groom file: a prototype's triangle names a point it does not have";
    try {
        out->triangles = readTriangles(scan, section.find("triangles"),
                                       "groom file: bad prototypes.triangles", kBeyond);
    } catch (const std::out_of_range& error) {
        throw GroomFileError(error.what());
    }
    for (const Triangle& triangle : out->triangles)
        for (const std::int32_t index : triangle)
            if (index < 0 || std::size_t(index) >= out->points.size())
                throw GroomFileError(kBeyond);
    if (const Span normals = section.findValue("normals"); !normals.empty())
        out->normals = readTuples<Vec3f>(scan, normals, "prototypes.normals");
    if (const Span uvs = section.findValue("uvs"); !uvs.empty())
        out->uvs = readTuples<Vec2f>(scan, uvs, "prototypes.uvs");
    const ScalpMesh mesh(out->points, out->triangles);
    out->topology = mesh.topologyHash();
    out->hash = hashPointBits(mesh.contentHash(), out->normals);
    out->hash = hashFloatBits(out->hash, out->uvs.empty() ? nullptr : &out->uvs.front().x,
                              2 * out->uvs.size());
    return out;
}

/// No control characters, no blanks around it, at most 255 bytes, and not the own mesh's name.
bool isScalpName(const std::string& name) {
    const auto control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    return !name.empty() && name.size() <= 255 && name != "scalp" && name.front() != ' ' &&
           name.back() != ' ' && std::ranges::none_of(name, control);
}

void readScalps(const JsonScan& scan, Span value, GroomFile& file) {
    if (!JsonScan::isArray(value)) return;
    for (const Span element : scan.elements(value)) {
        const Section section = sectionOf(scan, element, "name");
        const std::string name = section.text("name");
        const bool taken = std::ranges::any_of(
            file.scalps, [&](const auto& scalp) { return scalp.first == name; });
        if (!isScalpName(name) || taken)
            throw GroomFileError("groom file: bad scalps name '" + name + "'");
        file.scalps.emplace_back(name, readMesh(section, "scalps." + name, true));
    }
}

void checkVersion(const Section& section) {
    const Span text = section.find("version");
    if (text.empty()) return;
    const json version = json::parse(text);
    const std::string start = "groom file version " + compactJson(text);
    if (!version.is_number_integer()) throw SchemaError(start + " is not a whole number");
    const bool above = version.is_number_unsigned()
                           ? version.get<std::uint64_t>() > std::uint64_t(kGroomFileVersion)
                           : version.get<std::int64_t>() > kGroomFileVersion;
    if (above)
        throw SchemaError(start + " is newer than this Corvelle supports (" +
                          std::to_string(kGroomFileVersion) + "); update Corvelle to open it");
    if (version.get<std::int64_t>() < 1) throw SchemaError(start + " is not valid");
    if (version.get<std::int64_t>() < kGroomFileVersion)
        throw SchemaError(start + " is older than this Corvelle reads (" +
                          std::to_string(kGroomFileVersion) + ")");
}

GroomFile readSections(const JsonScan& scan, const std::string& directory) {
    constexpr const char* kNoGroom = "not a Corvelle groom file";
    if (!JsonScan::isObject(scan.root())) throw GroomFileError(kNoGroom);
    const Section section(scan, scan.root());
    if (section.find("format") != Span("\"corvelle.groom\"") &&
        section.text("format") != "corvelle.groom")
        throw GroomFileError(kNoGroom);
    try {
        checkVersion(section);
    } catch (const SchemaError& error) {
        throw GroomFileError(error.what());
    }

    GroomFile file;
    file.framesPerSecond = section.value("framesPerSecond", 24.0);
    file.units = section.text("units", "cm");
    file.upAxis = checkedUpAxis(section.text("upAxis", "Y"));
    file.source = section.text("source");
    const auto data = [&](const char* key) {
        const Span value = section.findValue(key);
        return value.empty() ? std::string() : compactJson(value);
    };
    const Span graph = section.find("graph");
    file.graph = graph.empty() ? "{}" : compactJson(graph);
    file.hierarchy = data("hierarchy");
    file.parts = data("parts");
    file.correctives = data("correctives");
    file.flow = data("flow");
    if (const Span controls = section.find("controls"); JsonScan::isObject(controls))
        for (const auto& [name, value] : scan.members(controls))
            file.controls[name] = floatOf(json::parse(value), "controls." + name);
    file.maps = readMaps(scan, section.find("maps"));
    if (const Span scalp = section.findValue("scalp"); !scalp.empty()) {
        const Section mesh = sectionOf(scan, scalp, "points");
        file.scalp = readMesh(mesh, "scalp", true);
        file.topology = stampFromText(mesh.text("topology"));
        if (file.topology == 0) file.topology = file.scalp->topologyHash();
    }
    file.guides = readGuides(scan, section.find("guides"));
    file.scalpCache = readCache(section, "scalpCache", directory);
    file.guideCache = readCache(section, "guideCache", directory);
    file.searchPaths = section.value("searchPaths", std::vector<std::string>());
    file.followScalp = section.value("followScalp", false);
    file.simCaches = readSimCaches(scan, section.findValue("simCaches"), directory);
    if (const Span bake = section.find("cardBake"); JsonScan::isObject(bake)) {
        const Section cards(scan, bake);
        file.cardBakePrefix = resolveCachePath(cards.text("prefix"), directory);
        file.cardBakeStrands = cards.text("strands");
    }
    if (const Span prototypes = section.find("prototypes"); JsonScan::isObject(prototypes))
        for (const auto& [name, value] : scan.members(prototypes))
            file.prototypes[name] = readPrototype(sectionOf(scan, value, "points"));
    readScalps(scan, section.find("scalps"), file);
    if (const Span colliders = section.find("colliders"); JsonScan::isObject(colliders))
        for (const auto& [name, value] : scan.members(colliders))
            file.colliders[name] =
                readMesh(sectionOf(scan, value, "points"), "colliders." + name, false);
    file.directory = directory;
    return file;
}

}  // namespace

GroomFile readGroomFileText(const std::string& text, const std::string& directory) {
    const JsonScan scan(text);
    if (scan.fault().any()) throw GroomFileError("groom file: invalid JSON: " + scan.fault().what);
    try {
        return readSections(scan, directory);
    } catch (const GroomFileError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        throw GroomFileError(std::string("groom file: ") + error.what());
    }
}

GroomFile readGroomFile(const std::string& path) {
    std::string text;
    try {
        text = readWholeFile(path);
    } catch (const FileError& error) {
        throw GroomFileError(error.what());
    }
    const std::filesystem::path file = std::filesystem::absolute(utf8Path(path)).lexically_normal();
    return readGroomFileText(text, utf8Text(file.parent_path()));
}

}  // namespace corvelle
