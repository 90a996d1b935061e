#include "hosts/blender/helper/groomCommands.h"

#include <cmath>
#include <filesystem>

#include "graph/graphEdit.h"
#include "graph/graphJson.h"
#include "hosts/blender/helper/evaluateCommands.h"
#include "hosts/blender/helper/openGroom.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/sessionCommands.h"
#include "io/groomAxis.h"
#include "io/groomPaths.h"
#include "io/groomReader.h"
#include "io/groomReferences.h"
#include "io/groomStamp.h"
#include "io/groomWriter.h"
#include "model/fileReplace.h"
#include "model/utf8Path.h"
#include "session/groomSave.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

/// The size, in cm, of the scalp that the default graph was made for.
constexpr double kNeutralSize = 20.0;

Json scalpInfo(const ScalpPtr& scalp) {
    if (!scalp) return nullptr;
    Json colorSets = Json::array();
    for (const auto& [name, colors] : scalp->colorSets()) colorSets.push_back(name);
    return {{"points", scalp->points().size()},
            {"triangles", scalp->triangles().size()},
            {"polygons", scalp->polygons().size()},
            {"uvs", !scalp->uvs().empty()},
            {"rest", !scalp->restPoints().empty()},
            {"colorSets", std::move(colorSets)},
            {"topology", stampText(scalp->topologyHash())}};
}

void addCache(Json& info, const char* key, const GroomFileCache& cache) {
    if (!cache.file.empty()) info[key] = {{"file", cache.file}, {"object", cache.object}};
}

/// Names relative to the folder that the groom came from, as ones relative to `folder`. Pictures
/// that lie elsewhere are found by the search paths, and keep their names.
void rebaseFiles(GroomFile& file, const std::string& folder) {
    const auto rebase = [&](std::string& path) {
        path = rebaseGroomPath(path, file.directory, folder);
    };
    const auto liesBeside = [&](const std::string& path) {
        std::error_code error;
        return path.find('\0') == std::string::npos &&
               std::filesystem::is_regular_file(utf8Path(file.directory) / utf8Path(path), error);
    };
    rebase(file.scalpCache.file);
    rebase(file.guideCache.file);
    rebase(file.cardBakePrefix);
    for (auto& [node, bake] : file.simCaches) rebase(bake.file);
    if (!file.maps || file.directory.empty()) return;
    MapCatalogValue maps = *file.maps;
    for (auto& [name, map] : maps.maps)
        if (!map.file.empty() && liesBeside(map.file)) rebase(map.file);
    file.maps = std::make_shared<const MapCatalogValue>(std::move(maps));
}

Json defaultGraph(const ScalpPtr& scalp) {
    Json graph = defaultGraphJson();
    const double size = scalp ? double(scalp->size()) : 0.0;
    if (size > 0.0 && std::abs(size / kNeutralSize - 1.0) > 0.000001)
        scaleGraph(graph, size / kNeutralSize);
    return graph;
}

const Command& commandNamed(std::string_view name) {
    for (const Command& command : commandTable())
        if (command.name == name) return command;
    failRequest("unknown_command", "no command '" + std::string(name) + "'");
}

}  // namespace

GroomFile hostDocument(const HelperSession& session) {
    GroomFile file = groomToSave(*session.groom);
    if (file.source.empty()) file.source = "Blender";
    return file;
}

Json groomInfo(const HelperSession& session) {
    const GroomSession& groom = *session.groom;
    const GroomFile& document = groom.document();
    const Graph* graph = groom.graph();
    const Node* output = graph && graph->output() != 0 ? &graph->node(graph->output()) : nullptr;
    Json info{{"units", "cm"},
              {"upAxis", "Y"},
              {"fps", groom.framesPerSecond()},
              {"scalp", scalpInfo(document.scalp)},
              {"flatGuides", document.guides ? document.guides->size() : 0},
              {"hierarchyGuides", groom.hierarchy()->size()},
              {"nodes", graph ? graph->nodes().size() : 0},
              {"output", output ? output->op->name : std::string()},
              {"followScalp", document.followScalp},
              {"source", document.source},
              {"notes", session.inputErrors},
              {"inputErrors", dataErrorsJson(groom)},
              {"space", spaceJson(session.space)}};
    addCache(info, "scalpCache", document.scalpCache);
    addCache(info, "guideCache", document.guideCache);
    return info;
}

Json groomInfoCommand(const CommandContext& context) { return groomInfo(context.session()); }

Json loadGroomCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const std::string& path = requireString(context.request, "path");
    std::error_code error;
    if (!std::filesystem::is_regular_file(utf8Path(path), error))
        failRequest("not_found", "no groom file '" + path + "'");
    GroomFile file = readGroomFile(path);
    if (file.units != "cm")
        failRequest("unsupported", path + ": its units are " + file.units +
                                       "; Corvelle reads grooms in centimeters (Maya's own unit)");
    const std::string fileUpAxis = file.upAxis;
    convertGroomFileUpAxis(file, "Y");
    installGroom(session, OpenedGroom(std::move(file)));
    session.seconds = 0.0;
    Json info = groomInfo(session);
    info["fileUpAxis"] = fileUpAxis;
    return info;
}

Json saveGroomCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const std::string& path = requireString(context.request, "path");
    const std::string upAxis = optionalString(context.request, "upAxis", "Y");
    if (upAxis != "Y" && upAxis != "Z") failRequest("bad_request", "upAxis is \"Y\" or \"Z\"");
    GroomFile file = hostDocument(session);
    std::error_code error;
    const std::filesystem::path target = std::filesystem::absolute(utf8Path(path), error);
    const std::string folder = utf8Text(target.lexically_normal().parent_path());
    const std::vector<std::string> lost = filesLeftBehind(file, folder);
    rebaseFiles(file, folder);
    convertGroomFileUpAxis(file, upAxis);
    const std::string text = groomFileText(file);
    try {
        replaceFile(path, text);
    } catch (const FileError&) {
        failRequest("io", "cannot write '" + path + "'");
    }
    Json answer{{"path", path}, {"upAxis", upAxis}, {"units", "cm"}};
    if (!lost.empty()) answer["warnings"] = lost;
    return answer;
}

Json newGroomCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const ScalpPtr scalp = session.groom->scalp();
    GroomFile file;
    file.framesPerSecond = session.groom->framesPerSecond();
    file.followScalp =
        optionalBool(context.request, "followScalp", session.groom->document().followScalp);
    const Json* preset = findField(context.request, "preset");
    const Command* applyPreset = nullptr;
    if (preset && preset->is_string()) {
        applyPreset = &commandNamed("apply_preset");
        if (!applyPreset->handler)
            failRequest("unsupported", "this helper does not offer 'apply_preset' yet");
    }
    file.graph = defaultGraph(scalp).dump();
    installGroom(session, OpenedGroom(std::move(file)));
    if (scalp) session.groom->setScalp(scalp);
    Json answer{{"guides", "hierarchy"}};
    if (applyPreset) {
        const Json request{{"session", session.number}, {"name", *preset}};
        answer["preset"] = applyPreset->handler(
            {context.state, applyPreset->name, request, context.regions, &session});
    }
    answer["groom"] = groomInfo(session);
    return answer;
}

}  // namespace corvelle
