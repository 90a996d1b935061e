#include "hosts/blender/helper/stateCommands.h"

#include <filesystem>
#include <optional>
#include <vector>

#include "expr/mapCatalogJson.h"
#include "expr/searchPaths.h"
#include "expr/texture.h"
#include "hosts/blender/helper/base64.h"
#include "hosts/blender/helper/groomCommands.h"
#include "hosts/blender/helper/mapsFolder.h"
#include "hosts/blender/helper/openGroom.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/toolState.h"
#include "io/groomAxis.h"
#include "io/groomPaths.h"
#include "io/groomReader.h"
#include "io/groomWriter.h"
#include "model/fileReplace.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

/// How much of the scalp a state carries.
enum class ScalpShare { All, Maps, None };

ScalpShare readScalpShare(const Json& request) {
    const Json* given = findField(request, "scalp");
    if (!given) return ScalpShare::All;
    if (given->is_boolean()) return given->get<bool>() ? ScalpShare::All : ScalpShare::None;
    if (*given == "maps") return ScalpShare::Maps;
    failRequest("bad_request", "scalp is true, false or \"maps\"");
}

/// Maps for a text that has no folder, with what of them is the scalp's left out where asked.
MapCatalogPtr stateMaps(const GroomFile& file, ScalpShare share) {
    if (!file.maps) return nullptr;
    MapCatalogValue maps = *file.maps;
    for (auto& [name, map] : maps.maps) {
        map.file = resolveCachePath(map.file, file.directory);
        if (share == ScalpShare::None && map.kind == PaintedMap::Kind::Vertices) {
            map.values = nullptr;
            map.vertices = 0;
        }
    }
    return std::make_shared<const MapCatalogValue>(std::move(maps));
}

constexpr std::string_view kPngSignature("\x89PNG\r\n\x1a\n", 8);

Json textureEntry(const std::string& name, const PaintedMap& map, const PathResolver& resolver) {
    if (!map.file.empty() && !hasUdimMarker(map.file)) {
        try {
            const std::string bytes = readWholeFile(resolver(map.file));
            if (bytes.starts_with(kPngSignature))
                return {{"name", name}, {"png", base64FromBytes(bytes)}};
        } catch (const FileError&) {
        } catch (const std::invalid_argument&) {  // no path at all
        }
    }
    return {{"name", name}, {"stored", map.file}};
}

Json texturesJson(const GroomFile& file) {
    Json textures = Json::array();
    if (!file.maps) return textures;
    const PathResolver resolver = searchPathResolver(file.directory, file.searchPaths);
    for (const auto& [name, map] : file.maps->maps)
        if (map.kind == PaintedMap::Kind::Texture)
            textures.push_back(textureEntry(name, map, resolver));
    return textures;
}

struct StoredTexture {
    std::string name, png;
};

/// Everything is decoded before anything is written.
std::vector<StoredTexture> readTextures(const Json& request) {
    std::vector<StoredTexture> textures;
    const Json* given = findField(request, "textures");
    if (!given) return textures;
    if (!given->is_array()) failRequest("bad_request", "textures is a list of maps");
    for (const Json& entry : *given) {
        const std::string& name = requireString(entry, "name");
        if (findField(entry, "stored")) continue;
        std::optional<std::string> bytes = bytesFromBase64(requireString(entry, "png"));
        if (!bytes) failRequest("bad_request", "a texture's png is not base64");
        (void)mapFile("", name);
        textures.push_back({name, std::move(*bytes)});
    }
    return textures;
}

/// Files that are written together: what was there before comes back when one of them fails.
class TextureFiles {
public:
    void write(const std::string& path, const std::string& bytes) {
        std::optional<std::string> before;
        try {
            before = readWholeFile(path);
        } catch (const FileError&) {
        }
        try {
            replaceFile(path, bytes);
        } catch (const FileError&) {
            restore();
            failRequest("io", "cannot write '" + path + "'");
        }
        written_.push_back({path, std::move(before)});
    }

private:
    struct Written {
        std::string path;
        std::optional<std::string> before;
    };
    void restore() {
        for (auto file = written_.rbegin(); file != written_.rend(); ++file) {
            try {
                std::error_code error;
                if (file->before)
                    replaceFile(file->path, *file->before);
                else
                    std::filesystem::remove(utf8Path(file->path), error);
            } catch (const FileError&) {  // the first failure is the one to tell
            }
        }
    }
    std::vector<Written> written_;
};

/// Writes the textures, and names their files in the maps.
void storeTextures(HelperSession& session, const std::vector<StoredTexture>& textures,
                   GroomSession& groom) {
    if (textures.empty()) return;
    const std::string folder = makeMapsDir(session);
    TextureFiles files;
    MapCatalogValue maps;
    if (groom.document().maps) maps = *groom.document().maps;
    for (const StoredTexture& texture : textures) {
        const std::string path = mapFile(folder, texture.name);
        files.write(path, texture.png);
        const auto map = maps.maps.find(texture.name);
        if (map != maps.maps.end() && map->second.kind == PaintedMap::Kind::Texture)
            map->second.file = path;
    }
    if (groom.document().maps)
        groom.setMaps(std::make_shared<const MapCatalogValue>(std::move(maps)));
}

Json textsJson(const GroomFile& file) {
    return {{"guideData", file.hierarchy},
            {"partData", file.parts},
            {"flowData", file.flow},
            {"correctiveData", file.correctives},
            {"scalpMaps", file.maps ? scalpMapsJson(*file.maps) : std::string()}};
}

}  // namespace

Json getStateCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const ScalpShare share = readScalpShare(context.request);
    const bool textures = optionalBool(context.request, "textures", true);
    const bool texts = optionalBool(context.request, "texts", false);
    GroomFile file = hostDocument(session);
    Json answer{{"format", "corvelle.groom"}};
    if (textures) answer["textures"] = texturesJson(file);
    if (texts) answer["texts"] = textsJson(file);
    file.maps = stateMaps(file, share);
    if (share != ScalpShare::All) file.scalp = nullptr;
    answer["groom"] = groomFileText(file);
    answer["tools"] = toolsJson(session);
    return answer;
}

Json setStateCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const std::string& text = requireString(context.request, "groom");
    const bool keepScalp = optionalBool(context.request, "keepScalp", true);
    GroomFile file = readGroomFileText(text, "");
    if (file.units != "cm")
        failRequest("unsupported", "the state's units are " + file.units +
                                       "; Corvelle keeps grooms in centimeters");
    convertGroomFileUpAxis(file, "Y");
    const std::vector<StoredTexture> textures = readTextures(context.request);
    OpenedGroom opened(std::move(file));
    storeTextures(session, textures, *opened.groom);
    const ScalpPtr held = session.groom->scalp();
    installGroom(session, std::move(opened));
    if (keepScalp && held) changeScalp(*session.groom, held);
    if (const Json* tools = findField(context.request, "tools")) restoreTools(session, *tools);
    return groomInfo(session);
}

}  // namespace corvelle
