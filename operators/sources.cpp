// The source nodes: what a session holds, brought into the graph. They hold no geometry themselves.

#include <algorithm>
#include <ranges>

#include "graph/operator.h"
#include "operators/registerOperators.h"

namespace corvelle {

namespace {

constexpr char kOwnScalp[] = "scalp";

std::string refinementText(const ScalpMesh& mesh) {
    if (mesh.subdivision() == 0 || mesh.cageFaceCount() == 0) return {};
    std::string text = "Catmull-Clark x" + std::to_string(mesh.subdivision()) + ": " +
                       std::to_string(mesh.triangles().size()) + " triangles from " +
                       std::to_string(mesh.cageFaceCount()) + " faces (match render";
    if (!mesh.subdivisionFrom().empty()) text += ": " + mesh.subdivisionFrom();
    return text + ")";
}

class ScalpSource final : public Operator {
public:
    std::string type() const override { return "Scalp"; }
    std::string category() const override { return "source"; }
    std::string description() const override { return "The mesh the hair grows on."; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"scalp", PortType::Mesh}; }
    bool isScalpSource() const override { return true; }
    std::uint32_t contextReads() const override { return reads::kScalp; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "input",
                 .defaultValue = std::string(kOwnScalp),
                 .description = "Which of the groom's scalps: scalp (its own mesh) or the name of another scalp of "
                                "the groom (Maya: Attribute Editor > Scalps), so a Scatter fed this node grows hair "
                                "on that mesh alone"}};
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const std::string wanted = text("input").empty() ? kOwnScalp : text("input");
        const ScalpPtr& mesh = context.scalp();
        if (mesh && mesh->scalps().empty() && wanted == kOwnScalp) return MeshValue{mesh, -1.0f};
        const ScalpPiece* piece = mesh ? mesh->scalp(wanted) : nullptr;
        if (!piece)
            throw GraphError("Scalp: no scalp named '" + wanted + "' on this groom: nothing to grow on");
        return MeshValue{mesh->limitedTo(*piece), -1.0f};
    }
    std::string warning(const EvalContext& context) const override {
        return context.scalp() ? refinementText(*context.scalp()) : std::string();
    }
};

/// The words of a list written with spaces or commas.
std::vector<std::string> splitNames(const std::string& list) {
    std::vector<std::string> names;
    std::string name;
    for (const char c : list + " ") {
        if (c != ' ' && c != ',' && c != '\t') {
            name += c;
        } else if (!name.empty()) {
            names.push_back(std::exchange(name, {}));
        }
    }
    return names;
}

class GuidesSource final : public Operator {
public:
    std::string type() const override { return "Guides"; }
    std::string category() const override { return "source"; }
    std::string description() const override {
        return "The groom's guides, by group: what Interpolate, Clump and friends follow.";
    }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"guides", PortType::Guides}; }
    std::uint32_t contextReads() const override { return reads::kGuides; }
    bool updatesOwnChanges() const override { return true; }
    std::vector<ParamSpec> spec() const override {
        return {
            {.name = "hierarchy", .defaultValue = std::string(), .description = "Name of the external guide hierarchy input"},
            {.name = "level",
             .defaultValue = -1.0,
             .description = "Hierarchy level to use (-1: deepest), without groups",
             .animatable = false,
             .whole = true,
             .min = -1.0,
             .max = 5.0},
            {.name = "group",
             .defaultValue = std::string(),
             .description = "Hierarchy groups to use instead of a level, space or comma separated, with their guides "
                            "together (empty: use level)"},
            {.name = "exclude",
             .defaultValue = std::string(),
             .description = "Groups left out, with their child groups (space or comma separated), e.g. braid paths "
                            "that are not hair"},
            {.name = "guides", .defaultValue = std::string(), .description = "Name of the external flat guide input"},
        };
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override { return find(context); }

    bool update(const EvalContext& context, const NodeInputs&, const UpdateRequest& request,
                UpdateResult& result) override {
        const GuidesPtr* previous = std::get_if<GuidesPtr>(&request.previous[0]);
        if (!previous || !*previous) return false;
        const GuidesPtr now = find(context);
        if (!std::ranges::equal(now->ids(), (*previous)->ids())) return false;
        auto changes = std::make_shared<StrandChanges>();
        const auto before = (*previous)->hashes(), after = now->hashes();
        for (std::size_t g = 0; g < now->size(); ++g)
            if (before[g] != after[g]) changes->strands.push_back(std::uint32_t(g));
        result.outputs = {changes->strands.empty() ? *previous : now};
        result.changes = {std::move(changes)};
        return true;
    }

private:
    GuidesPtr find(const EvalContext& context) const {
        if (!text("hierarchy").empty())
            throw GraphError("Guides: no guide hierarchy named '" + text("hierarchy") + "'");
        const bool asksHierarchy = !text("group").empty() || !text("exclude").empty() || whole("level") >= 0;
        const GuidesPtr& flat = context.flatGuides();
        const bool useFlat = !text("guides").empty() || (!asksHierarchy && flat && !flat->empty());
        static const GuidesPtr none = std::make_shared<const GuideSet>();
        if (useFlat) return flat ? flat : none;
        static const auto empty = std::make_shared<const GuideHierarchy>();
        const auto& hierarchy = context.hierarchy() ? context.hierarchy() : empty;
        const std::vector<std::uint32_t> exclude = groupIds(*hierarchy, text("exclude"), " to exclude");
        if (!text("group").empty())
            return hierarchy->flattenGroups(groupIds(*hierarchy, text("group"), ""), exclude);
        return hierarchy->flatten(whole("level"), exclude);
    }

    static std::vector<std::uint32_t> groupIds(const GuideHierarchy& hierarchy, const std::string& list,
                                               const char* ending) {
        std::vector<std::uint32_t> ids;
        for (const std::string& name : splitNames(list)) {
            const GuideGroup* group = hierarchy.groupNamed(name);
            if (!group) throw GraphError("Guides: no guide group named '" + name + "'" + ending);
            ids.push_back(group->id);
        }
        return ids;
    }
};

class ColliderSource final : public Operator {
public:
    std::string type() const override { return "ColliderMesh"; }
    std::string category() const override { return "source"; }
    std::string description() const override {
        return "Another mesh (a body, a collar) for Collide to keep strands out of.";
    }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"mesh", PortType::Mesh}; }
    std::uint32_t contextReads() const override { return reads::kColliders; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "name",
                 .defaultValue = std::string("collider"),
                 .description = "The collider mesh's name, as registered with the groom (Maya: Attribute Editor > "
                                "Colliders, or corvelle.add_collider)"},
                {.name = "friction",
                 .defaultValue = -1.0,
                 .description = "How much simulated hair resting on this mesh is kept from sliding, 0-1, in a "
                                "Simulate node it feeds (-1: the Simulate node's friction)",
                 .softMin = -1.0,
                 .softMax = 1.0,
                 .min = -1.0,
                 .max = 1.0}};
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const auto found = context.colliders().find(text("name"));
        if (found == context.colliders().end() || !found->second.mesh)
            throw GraphError("ColliderMesh: no collider named '" + text("name") + "' on this groom");
        return MeshValue{found->second.mesh, float(number("friction"))};
    }
    std::string warning(const EvalContext& context) const override {
        const auto found = context.colliders().find(text("name"));
        return found != context.colliders().end() && found->second.mesh ? refinementText(*found->second.mesh)
                                                                          : std::string();
    }
};

template <class T>
void add(const char* type) {
    OperatorRegistry::instance().add(type, [] { return std::make_unique<T>(); });
}

}  // namespace

void registerSourceOperators() {
    add<ScalpSource>("Scalp");
    add<GuidesSource>("Guides");
    add<ColliderSource>("ColliderMesh");
}

}  // namespace corvelle
