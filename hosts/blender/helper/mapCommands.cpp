#include "hosts/blender/helper/mapCommands.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "hosts/blender/helper/guideEditCommands.h"
#include "hosts/blender/helper/mapsFolder.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/toolState.h"

namespace corvelle {
namespace {

constexpr double kLeastResolution = 4.0, kMostResolution = 16384.0;
constexpr char kFreeze[] = "freeze";

using Kind = PaintedMap::Kind;
struct KindWord {
    const char* word;
    Kind kind;
};
constexpr KindWord kKinds[] = {
    {"vertices", Kind::Vertices}, {"texture", Kind::Texture}, {"guides", Kind::Guides}};

const char* wordOf(Kind kind) {
    for (const KindWord& row : kKinds)
        if (row.kind == kind) return row.word;
    return "";
}

Json entryJson(HelperSession& session, const std::string& name, const PaintedMap& map) {
    Json entry{{"name", name},
               {"kind", wordOf(map.kind)},
               {"channels", map.channels},
               {"texture", ""},
               {"file", ""}};
    const ScalpPtr& scalp = session.groom->scalp();
    switch (map.kind) {
        case Kind::Vertices:
            entry["vertices"] = map.vertices;
            entry["fits"] = scalp && map.values && map.vertices == scalp->points().size();
            break;
        case Kind::Texture:
            entry["texture"] = map.file.empty() ? "" : name + ".png";
            entry["file"] = map.file;
            entry["resolution"] = 0;
            try {
                const auto image = toolsOf(session).host->image(name);
                entry["resolution"] = image->width();
                entry["channels"] = image->channels();
            } catch (const std::exception&) {
                // The file is gone or is no image: evaluations and strokes say so.
            }
            break;
        case Kind::Guides:
            if ((map.layer.empty() ? name : map.layer) == kFreeze) entry["freeze"] = true;
            break;
    }
    return entry;
}

/// The groom's maps: those of its document and the layers of its guides.
std::map<std::string, PaintedMap> allMaps(GroomSession& groom) {
    std::map<std::string, PaintedMap> maps;
    std::set<std::string> layers;
    const auto hierarchy = groom.shownHierarchy();
    for (const auto& [name, value] : hierarchy->declaredAttributes()) layers.insert(name);
    for (const GuidePtr& guide : hierarchy->guides()) {
        for (const auto& [name, value] : guide->attributes) layers.insert(name);
        for (const auto& [name, values] : guide->pointAttributes) layers.insert(name);
    }
    for (const std::string& name : layers) maps[name].kind = Kind::Guides;
    if (const MapCatalogPtr held = groom.shownMaps())
        for (const auto& [name, map] : held->maps) maps[name] = map;
    return maps;
}

struct MapRequest {
    std::string name;
    Kind kind = Kind::Vertices;
    bool color = false;
    std::array<float, 4> fill{1, 1, 1, 1};
    float value = 1.0f;  ///< of a gray map
    int resolution = 1024;
    int channels() const { return color ? 4 : 1; }
};

void readFill(const Json& value, std::array<float, 4>& fill) {
    const bool list = value.is_array() && (value.size() == 3 || value.size() == 4);
    if (!list || !std::ranges::all_of(value, [](const Json& part) { return part.is_number(); }))
        failRequest("bad_request", "fill is [r, g, b] or [r, g, b, a]");
    for (std::size_t i = 0; i < value.size(); ++i)
        fill[i] = std::clamp(float(value[i].get<double>()), 0.0f, 1.0f);
}

MapRequest readMapRequest(const Json& request, const BrushToolSettings& settings) {
    MapRequest map;
    map.name = requireString(request, "name");
    const std::string& kind = requireString(request, "kind");
    const auto row =
        std::ranges::find_if(kKinds, [&](const KindWord& k) { return kind == k.word; });
    if (row == std::end(kKinds))
        failRequest("bad_request",
                    "a map's kind is vertices, texture or guides, not '" + kind + "'");
    map.kind = row->kind;
    map.color = optionalBool(request, "color", false);
    map.value = std::clamp(float(optionalNumber(request, "value", 1.0)), 0.0f, 1.0f);
    if (const Json* fill = findField(request, "fill")) {
        readFill(*fill, map.fill);
        map.value = luminance(map.fill[0], map.fill[1], map.fill[2]);
    }
    map.resolution = int(std::clamp(optionalNumber(request, "resolution", settings.paintResolution),
                                    kLeastResolution, kMostResolution));
    (void)mapFile("", map.name);
    return map;
}

void checkMapRequest(const MapRequest& map, const ScalpPtr& scalp, const GuideHierarchy& guides) {
    if (map.kind == Kind::Guides) {
        if (map.color)
            failRequest("bad_request",
                        "a guide layer is gray: make a color map on the scalp's vertices or as a "
                        "texture");
        return requirePrimaryGuides(guides);
    }
    if (!scalp) failRequest("state", "no scalp to paint on: set_scalp first");
    if (map.kind == Kind::Texture && scalp->uvs().empty())
        failRequest("state", "the scalp has no UVs to paint a texture map on");
}

std::shared_ptr<const PaintImage> evenImage(const MapRequest& map) {
    std::array<std::uint8_t, 4> pixel{};
    for (std::size_t c = 0; c < 4; ++c)
        pixel[c] = std::uint8_t(std::lround((map.color ? map.fill[c] : map.value) * 255.0f));
    return PaintImage::filled(map.resolution, map.resolution, map.channels(), pixel);
}

std::shared_ptr<MapCatalogValue> catalogOf(const GroomSession& groom) {
    const MapCatalogPtr& held = groom.document().maps;
    return held ? std::make_shared<MapCatalogValue>(*held) : std::make_shared<MapCatalogValue>();
}

void writeImages(HelperSession& session, const std::vector<std::string>& maps) {
    for (const std::string& text : writePaintImages(*session.groom, maps))
        toolsOf(session).host->notify(text);
}

}  // namespace

Json mapsListCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    Json list = Json::array();
    for (const auto& [name, map] : allMaps(*session.groom))
        list.push_back(entryJson(session, name, map));
    return {{"maps", std::move(list)}};
}

Json mapCreateCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    const MapRequest map = readMapRequest(context.request, toolsOf(session).choice.settings());
    // All that may fail comes before the end of a stroke under way.
    if (allMaps(groom).contains(map.name))
        failRequest("bad_request", "the groom already has a map named '" + map.name + "'");
    const ScalpPtr& scalp = groom.scalp();
    checkMapRequest(map, scalp, *groom.shownHierarchy());
    const std::string file =
        map.kind == Kind::Texture ? mapFile(makeMapsDir(session), map.name) : std::string();
    finishStroke(session);
    PaintedMap made;
    made.kind = map.kind;
    made.channels = map.channels();
    DocumentState next;
    switch (map.kind) {
        case Kind::Guides: {
            GuideHierarchy guides = *groom.hierarchy();
            guides.addAttribute(map.name, map.value);
            next.hierarchy = std::make_shared<const GuideHierarchy>(std::move(guides));
            break;
        }
        case Kind::Vertices: {
            const std::size_t channels = std::size_t(made.channels);
            std::vector<float> values(scalp->points().size() * channels);
            for (std::size_t i = 0; i < values.size(); ++i)
                values[i] = map.color ? map.fill[i % channels] : map.value;
            made.vertices = scalp->points().size();
            made.values = std::make_shared<const std::vector<float>>(std::move(values));
            break;
        }
        case Kind::Texture:
            made.file = file;
            next.images[map.name] = evenImage(map);
            made.image = next.images[map.name]->texture();
            break;
    }
    if (map.kind != Kind::Guides) {
        const auto maps = catalogOf(groom);
        maps->maps[map.name] = made;
        next.maps = MapCatalogPtr(maps);
    }
    groom.edit(std::move(next), "create map " + map.name, effectiveMapsDir(session));
    if (map.kind == Kind::Texture) writeImages(session, {map.name});
    return entryJson(session, map.name, made);
}

Json mapRemoveCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    const std::string& name = requireString(context.request, "name");
    const auto maps = allMaps(groom);
    const auto found = maps.find(name);
    if (found == maps.end()) failRequest("not_found", "no map named '" + name + "'");
    finishStroke(session);
    DocumentState next;
    const auto catalog = catalogOf(groom);
    if (catalog->maps.erase(name) > 0) next.maps = MapCatalogPtr(catalog);
    if (groom.paintImage(name)) next.images[name] = nullptr;
    if (found->second.kind == Kind::Guides && carriesLayer(*groom.hierarchy(), name)) {
        GuideHierarchy guides = *groom.hierarchy();
        guides.removeAttribute(name);
        next.hierarchy = std::make_shared<const GuideHierarchy>(std::move(guides));
    }
    groom.edit(std::move(next), "remove map " + name, effectiveMapsDir(session));
    return mapsListCommand(context);
}

}  // namespace corvelle
