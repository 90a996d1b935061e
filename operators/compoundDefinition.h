#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "graph/graph.h"

namespace corvelle {

/// A param of an inner node that a compound shows as its own.
struct ExposedParam {
    std::string node, param;        ///< inside
    ParamSpec spec;                 ///< as shown: outer name, the inner node's value as default
    std::optional<ParamValue> own;  ///< what the definition sets it to
    bool takesField = false;        ///< a Field node may drive it
};

/// What a compound is made of: the graph inside, its ports and the params it shows. Immutable and
/// shared by the clones of a compound; each has a copy of the graph, with caches of its own.
struct CompoundDefinition {
    std::string text;        ///< JSON as it came, compact
    std::uint64_t hash = 0;  ///< of the text
    Graph graph;             ///< with an Input node for each param that takes a field
    std::vector<PortSpec> inputs, outputs;
    std::vector<ExposedParam> exposed;
    bool countsPasses = false;  ///< an Input inside reads the number of the pass
};
using CompoundDefinitionPtr = std::shared_ptr<const CompoundDefinition>;

/// Compounds inside compounds go this deep.
inline constexpr int kDeepestCompound = 16;
/// The inner Input that gets the number of the pass.
inline constexpr char kIterationInput[] = "iteration";

/// The name of the inner Input through which a field drives an exposed param.
std::string fieldInputName(const std::string& exposed);

/// Reads {graph, inputs, expose, output or outputs}. `inputs`: [{name, type, optional}].
/// `expose`: outer name to "node.param", split at the last dot. `output`: the name of the inner
/// node to take in place of the graph's own; or one port {name, type}, as `outputs` is a list of:
/// what the output node's ports are called outside.
/// Throws SchemaError for a bad definition, GraphError for a bad graph inside.
CompoundDefinitionPtr readCompoundDefinition(const std::string& json);

}  // namespace corvelle
