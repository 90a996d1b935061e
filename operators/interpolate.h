#pragma once

#include <array>
#include <vector>

#include "graph/operator.h"
#include "operators/interpolateWeights.h"

namespace corvelle {

/// Which guides shape which strands, and how much.
struct GuideSharing {
    StrandsPtr strands;  ///< as they came in; null when there is nothing to share
    GuidesPtr guides;
    struct Row {
        std::array<GuideWeight, 3> shares;  ///< the greatest weights, greatest first; 0 ends the list
    };
    std::vector<Row> rows;  ///< [strands]
};
/// What an Interpolate node makes of these inputs, weights alone; from its cache where that holds
/// them. Nothing for a node of another type. Throws GraphError as a run does.
GuideSharing guideSharing(Operator& op, const EvalContext& context, const NodeInputs& inputs);

}  // namespace corvelle
