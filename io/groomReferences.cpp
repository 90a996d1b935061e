#include "io/groomReferences.h"

#include <nlohmann/json.hpp>

#include "expr/searchPaths.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace {

using nlohmann::json;

constexpr int kDeepestCompound = 16;
constexpr std::size_t kLongestPath = 4096;

/// The search for files from the groom's folder, and from the one it goes to.
class Move {
public:
    Move(const GroomFile& file, const std::string& folder)
        : from_(searchPathResolver(file.directory, file.searchPaths)),
          to_(searchPathResolver(folder, file.searchPaths)) {}
    bool loses(const std::string& path) const {
        if (path.empty() || path.size() > kLongestPath || path.find('\0') != std::string::npos)
            return false;
        return finds(from_, path) && !finds(to_, path);
    }

private:
    /// What is not found comes back as it is.
    static bool finds(const PathResolver& resolver, const std::string& path) {
        const std::string file = resolver(path);
        return (file != path || utf8Path(path).is_absolute()) && pictureExists(file);
    }
    PathResolver from_, to_;
};

class GraphFiles {
public:
    GraphFiles(const Move& move, const MapCatalogValue* maps, std::vector<std::string>& lost)
        : move_(move), maps_(maps), lost_(lost) {}

    void walk(const json& graph, const std::string& within, int depth) {
        const auto nodes = graph.is_object() ? graph.find("nodes") : graph.end();
        if (!graph.is_object() || nodes == graph.end() || !nodes->is_array()) return;
        for (const json& node : *nodes) {
            if (!node.is_object()) continue;
            const auto name = node.find("name");
            const std::string path =
                within + (name != node.end() && name->is_string() ? name->get<std::string>() : "");
            const auto params = node.find("params");
            if (params == node.end() || !params->is_object()) continue;
            for (const auto& [param, value] : params->items()) {
                if (param == "definition")
                    walkDefinition(value, path + "/", depth + 1);
                else
                    ask(path, param, value);
            }
        }
    }

private:
    void walkDefinition(const json& definition, const std::string& within, int depth) {
        if (depth > kDeepestCompound) return;
        if (definition.is_string())
            walkDefinition(json::parse(definition.get_ref<const std::string&>(), nullptr, false),
                           within, depth + 1);
        else if (definition.is_object() && definition.contains("graph"))
            walk(definition["graph"], within, depth + 1);
    }
    /// A param's own text, or the image that a mapped one reads.
    void ask(const std::string& node, const std::string& param, const json& value) {
        const json* text = &value;
        if (value.is_object()) {
            const auto texture = value.find("texture");
            if (texture == value.end()) return;
            text = &*texture;
        }
        if (!text->is_string()) return;
        const std::string& path = text->get_ref<const std::string&>();
        if (maps_ && maps_->find(path)) return;  // a painted map of that name goes first
        if (move_.loses(path))
            lost_.push_back("node '" + node + "': " + param + " names '" + path + "', which ");
    }

    const Move& move_;
    const MapCatalogValue* maps_;
    std::vector<std::string>& lost_;
};

}  // namespace

std::vector<std::string> filesLeftBehind(const GroomFile& file, const std::string& folder) {
    std::vector<std::string> lost;
    if (file.directory.empty() ||
        utf8Path(file.directory).lexically_normal() == utf8Path(folder).lexically_normal())
        return lost;
    const Move move(file, folder);
    GraphFiles(move, file.maps.get(), lost).walk(json::parse(file.graph, nullptr, false), "", 0);
    if (file.maps)
        for (const auto& [name, map] : file.maps->maps)
            // One beside the groom is named anew, as caches are.
            if (move.loses(map.file) &&
                !pictureExists(utf8Text(utf8Path(file.directory) / utf8Path(map.file))))
                lost.push_back("map '" + name + "' names '" + map.file + "', which ");
    for (std::string& line : lost)
        line += "is not found from '" + folder + "': give its full path, or copy it there";
    return lost;
}

}  // namespace corvelle
