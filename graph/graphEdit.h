#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace corvelle {

/// Edits of a graph held as JSON. Each op keeps keys it does not know, checks before it changes, and
/// throws GraphError with the text to show.
class GraphEdit {
public:
    explicit GraphEdit(nlohmann::json graph);
    const nlohmann::json& json() const { return graph_; }

    /// A unique name made from `name` or the type; returns it.
    std::string addNode(const std::string& type, const std::string& name, const nlohmann::json& params,
                        const nlohmann::json& position);
    void removeNode(const std::string& name);
    void renameNode(const std::string& name, const std::string& newName);
    void connect(const std::string& from, const std::string& output, const std::string& to, const std::string& input);
    bool disconnect(const std::string& to, const std::string& input);
    void setOutput(const std::string& name);
    bool upgradeNode(const std::string& name);
    void setPosition(const std::string& name, double x, double y);
    void setEvaluation(const std::string& name, const std::string& mode);
    void setBypass(const std::string& name, bool bypass);
    bool has(const std::string& name) const;
    nlohmann::json& node(const std::string& name);  ///< throws GraphError "no node named <name>"

private:
    nlohmann::json graph_;
};

/// Warnings for nodes of one type with the same seed whose results would match: the first 100 pairs,
/// and a line that says so where there are more.
std::vector<std::string> seedCollisions(const nlohmann::json& graph);

/// Scales the lengths a graph was made for by `factor`: length and width units times it, density over
/// its square, perLength over it; compound definitions too. Whole numbers, ramps and maps stay, a
/// map's low and high scale.
void scaleGraph(nlohmann::json& graph, double factor);

/// Fills a node's JSON with what its type declares: version, params, defaults; compounds inside too.
void normalizeNode(nlohmann::json& node);

}  // namespace corvelle
