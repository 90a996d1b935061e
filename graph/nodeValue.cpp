#include "graph/nodeValue.h"

#include "graph/graphError.h"

namespace corvelle {

namespace {

struct PortNames {
    const char* name;
    const char* word;
};
constexpr PortNames kPorts[] = {
    {"Strands", "strands"}, {"Guides", "guides"}, {"Mesh", "mesh"},
    {"Field", "field"},     {"Curve", "curve"},   {"Curves", "curves"},
};
bool known(PortType type) {
    return static_cast<int>(type) >= 0 && static_cast<std::size_t>(type) < std::size(kPorts);
}

}  // namespace

const char* portTypeName(PortType type) {
    return known(type) ? kPorts[static_cast<std::size_t>(type)].name : "Unknown";
}
const char* portWord(PortType type) {
    return known(type) ? kPorts[static_cast<std::size_t>(type)].word : "unknown";
}

PortType portTypeFromName(std::string_view name) {
    for (std::size_t i = 0; i < std::size(kPorts); ++i)
        if (name == kPorts[i].name) return static_cast<PortType>(i);
    throw GraphError("unknown port type '" + std::string(name) +
                     "' (Strands, Guides, Mesh, Field, Curve or Curves)");
}

bool portsFit(PortType from, PortType to) {
    const auto curves = [](PortType t) { return t == PortType::Strands || t == PortType::Guides; };
    return from == to || (to == PortType::Curves && curves(from)) ||
           (from == PortType::Curves && curves(to));
}

const char* nodeValueWord(const NodeValue& value) {
    struct Visitor {
        const char* operator()(std::monostate) const { return "nothing"; }
        const char* operator()(const StrandsPtr& v) const { return v ? "strands" : "nothing"; }
        const char* operator()(const GuidesPtr& v) const { return v ? "guides" : "nothing"; }
        const char* operator()(const MeshValue& v) const { return v.mesh ? "mesh" : "nothing"; }
        const char* operator()(const FieldPtr& v) const { return v ? "field" : "nothing"; }
        const char* operator()(const CurvePtr& v) const { return v ? "curve" : "nothing"; }
    };
    return std::visit(Visitor{}, value);
}

bool valueFits(const NodeValue& value, PortType type) {
    const std::string_view word = nodeValueWord(value);
    return word == portWord(type) ||
           (type == PortType::Curves && (word == "strands" || word == "guides"));
}

}  // namespace corvelle
