#include "io/groomAxis.h"

#include <nlohmann/json.hpp>

#include "graph/graphError.h"
#include "graph/graphJson.h"
#include "io/jsonScan.h"

namespace corvelle {

namespace {

using nlohmann::json;

constexpr int kDeepestCompound = 16;

/// The quarter turn about X that brings an axis up.
struct Turn {
    bool toY;

    Vec3f operator()(Vec3f v) const { return toY ? Vec3f{v.x, v.z, -v.y} : Vec3f{v.x, -v.z, v.y}; }

    std::vector<Vec3f> operator()(std::span<const Vec3f> points) const {
        std::vector<Vec3f> out(points.size());
        std::transform(points.begin(), points.end(), out.begin(),
                       [this](Vec3f p) { return (*this)(p); });
        return out;
    }

    ScalpPtr operator()(const ScalpPtr& mesh) const {
        if (!mesh) return mesh;
        const ScalpPtr turned = mesh->withPoints((*this)(mesh->points()));
        return mesh->restPoints().empty() ? turned
                                          : turned->withRestPoints((*this)(mesh->restPoints()));
    }

    /// Three numbers of a JSON array, from `first` on. Anything else stays.
    void triple(json& array, std::size_t first) const {
        json &y = array[first + 1], &z = array[first + 2];
        if (!array[first].is_number() || !y.is_number() || !z.is_number()) return;
        std::swap(y, z);
        json& negated = toY ? z : y;
        if (negated.is_number_float() || negated == 0)
            negated = -negated.get<double>();
        else if (negated.is_number_unsigned() &&
                 negated.get<std::uint64_t>() > std::uint64_t(INT64_MAX))
            negated = -negated.get<double>();
        else if (negated.get<std::int64_t>() == INT64_MIN)
            negated = -negated.get<double>();
        else
            negated = -negated.get<std::int64_t>();
    }
};

bool isTriple(const json& value) {
    return value.is_array() && value.size() == 3 &&
           std::all_of(value.begin(), value.end(), [](const json& v) { return v.is_number(); });
}

GuidesPtr turnedGuides(const GuidesPtr& guides, const Turn& turn) {
    if (!guides) return guides;
    std::vector<GuideCurve> curves = guides->curves();
    for (GuideCurve& curve : curves) curve.points = turn(curve.points);
    return std::make_shared<const GuideSet>(curves);
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

std::string turnedHierarchy(const std::string& text, const Turn& turn) {
    if (isBlank(text)) return text;
    const JsonScan scan(text);
    if (scan.fault().any())
        throw GroomFileError("groom file: invalid hierarchy JSON: " + scan.fault().what);
    json hierarchy = json::parse(text);
    const auto guides = hierarchy.is_object() ? hierarchy.find("guides") : hierarchy.end();
    if (!hierarchy.is_object() || guides == hierarchy.end() || !guides->is_array()) return text;
    for (json& guide : *guides) {
        if (!guide.is_object()) continue;
        if (const auto points = guide.find("points"); points != guide.end() && points->is_array())
            for (std::size_t i = 0; i + 3 <= points->size(); i += 3) turn.triple(*points, i);
        if (const auto up = guide.find("frameUp"); up != guide.end() && isTriple(*up))
            turn.triple(*up, 0);
    }
    return hierarchy.dump();
}

/// A param as the node holds it, else its default; null for none of that name.
json heldValue(const Operator& op, const json& params, const std::string& name) {
    if (const auto held = params.find(name); held != params.end()) return *held;
    const ParamSpec* spec = op.paramSpec(name);
    return spec ? paramToJson(spec->defaultValue, spec->whole) : json();
}

/// A node's axis word goes to the other letter. Where the axis then points the other way, so do the
/// distance along it and the side of it.
void turnAxisWord(const Operator& op, json& params, json& value, const Turn& turn) {
    const bool wasY = value == "y";
    value = wasY ? "z" : "y";
    if (wasY != turn.toY) return;
    if (const json offset = heldValue(op, params, "offset"); offset.is_number() && offset != 0)
        params["offset"] = -offset.get<double>();
    const json side = heldValue(op, params, "side");
    if (side == "positive")
        params["side"] = "negative";
    else if (side == "negative")
        params["side"] = "positive";
}

void turnGraph(json& graph, const Turn& turn, int depth);

void turnDefinition(json& definition, const Turn& turn, int depth) {
    const bool asText = definition.is_string();
    json inside = definition;
    if (asText) {
        const std::string text = definition.get<std::string>();
        if (JsonScan(text).fault().any()) return;  // opening the groom says what is wrong
        inside = json::parse(text);
    }
    const auto graph = inside.is_object() ? inside.find("graph") : inside.end();
    if (!inside.is_object() || graph == inside.end()) return;
    turnGraph(*graph, turn, depth + 1);
    definition = asText ? json(inside.dump()) : std::move(inside);
}

void turnNode(json& node, const Turn& turn, int depth) {
    OperatorPtr op;
    try {
        op = operatorForNode(node);
    } catch (const std::exception&) {
        return;  // opening the groom says what is wrong
    }
    json& params = node["params"];
    if (!params.is_object()) params = json::object();
    for (const ParamSpec& spec : op->params()) {
        if (!spec.worldDirection) continue;
        json value = heldValue(*op, params, spec.name);
        if (isTriple(value))
            turn.triple(value, 0);
        else if (value == "y" || value == "z")
            turnAxisWord(*op, params, value, turn);
        else
            continue;
        params[spec.name] = std::move(value);
    }
    if (const auto definition = params.find("definition");
        op->hasDefinition() && definition != params.end())
        turnDefinition(*definition, turn, depth);
}

void turnGraph(json& graph, const Turn& turn, int depth) {
    if (depth > kDeepestCompound || !graph.is_object()) return;
    const auto nodes = graph.find("nodes");
    if (nodes == graph.end() || !nodes->is_array()) return;
    for (json& node : *nodes)
        if (node.is_object()) turnNode(node, turn, depth);
}

std::string turnedGraph(const std::string& text, const Turn& turn) {
    if (blankGraphText(text)) return text;
    if (JsonScan(text).fault().any()) throw GroomFileError("groom file: invalid graph JSON");
    json graph = json::parse(text);
    turnGraph(graph, turn, 0);
    return graph.dump();
}

}  // namespace

const std::string& checkedUpAxis(const std::string& axis) {
    if (axis != "Y" && axis != "Z")
        throw GroomFileError("groom file: upAxis is \"Y\" or \"Z\", not \"" + axis + "\"");
    return axis;
}

void convertGroomFileUpAxis(GroomFile& file, const std::string& axis) {
    const std::string from = isBlank(file.upAxis) ? "Y" : checkedUpAxis(file.upAxis);
    const std::string to = checkedUpAxis(axis);
    if (from == to) return;
    const Turn turn{to == "Y"};
    GroomFile next = file;
    next.scalp = turn(file.scalp);
    for (auto& [name, mesh] : next.scalps) mesh = turn(mesh);
    for (auto& [name, mesh] : next.colliders) mesh = turn(mesh);
    next.guides = turnedGuides(file.guides, turn);
    next.hierarchy = turnedHierarchy(file.hierarchy, turn);
    next.graph = turnedGraph(file.graph, turn);
    next.upAxis = to;
    file = std::move(next);
}

}  // namespace corvelle
