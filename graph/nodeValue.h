#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "model/guideSet.h"
#include "model/ramp.h"
#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

enum class PortType { Strands = 0, Guides = 1, Mesh = 2, Field = 3, Curve = 4, Curves = 5 };
const char* portTypeName(PortType type);  ///< "Unknown" for a number that is none
/// Throws GraphError "unknown port type '<name>' (Strands, Guides, Mesh, Field, Curve or Curves)".
PortType portTypeFromName(std::string_view name);
/// Equal types; Strands or Guides into Curves; Curves into Strands or Guides.
bool portsFit(PortType from, PortType to);

struct PortSpec {
    std::string name;
    PortType type = PortType::Strands;
    bool optional = false;
};

class FieldValue;
using FieldPtr = std::shared_ptr<const FieldValue>;
using CurvePtr = std::shared_ptr<const Ramp>;

/// A mesh on a port, with what a solver reads beside it.
struct MeshValue {
    ScalpPtr mesh;
    float friction = -1.0f;  ///< -1: the reader's own
    friend bool operator==(const MeshValue&, const MeshValue&) = default;
};

/// What travels on a connection. monostate is "nothing".
using NodeValue = std::variant<std::monostate, StrandsPtr, GuidesPtr, MeshValue, FieldPtr, CurvePtr>;

/// "strands", "guides", "mesh", "field", "curve" or "nothing" (null pointers too).
const char* nodeValueWord(const NodeValue& value);
inline bool isNothing(const NodeValue& value) { return nodeValueWord(value)[0] == 'n'; }
/// "strands", "guides", "mesh", "field", "curve" or "curves".
const char* portWord(PortType type);
/// True when a value of this kind may arrive at a port of that type.
bool valueFits(const NodeValue& value, PortType type);

/// The gathered inputs of one run, by slot. Null where a slot is unconnected or holds another kind.
class NodeInputs {
public:
    std::vector<NodeValue> values;
    std::vector<bool> connected;
    std::vector<std::uint64_t> hashes;  ///< what names each value: equal hash, equal value; 0 for none
    std::uint64_t result = 0;           ///< what names the outcome of the run; 0 outside a graph

    bool isConnected(std::size_t slot) const { return slot < connected.size() && connected[slot]; }
    StrandsPtr strands(std::size_t slot) const { return get<StrandsPtr>(slot); }
    GuidesPtr guides(std::size_t slot) const { return get<GuidesPtr>(slot); }
    FieldPtr field(std::size_t slot) const { return get<FieldPtr>(slot); }
    CurvePtr curve(std::size_t slot) const { return get<CurvePtr>(slot); }
    ScalpPtr mesh(std::size_t slot) const { return get<MeshValue>(slot).mesh; }
    MeshValue meshValue(std::size_t slot) const { return get<MeshValue>(slot); }

private:
    template <class T>
    T get(std::size_t slot) const {
        if (slot >= values.size()) return {};
        const T* held = std::get_if<T>(&values[slot]);
        return held ? *held : T{};
    }
};

}  // namespace corvelle
