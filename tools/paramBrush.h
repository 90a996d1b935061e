#pragma once

#include <string>

#include "expr/mapCatalog.h"
#include "model/scalpMesh.h"
#include "tools/strokeErrors.h"

namespace corvelle {

/// The map that a param brush paints.
struct ParamBrushMap {
    PaintedMap::Kind kind = PaintedMap::Kind::Vertices;
    std::string name;   ///< of the map; of the guide layer for kind guides
    bool made = false;  ///< the map is new, and `graph` wires it
    std::string graph;  ///< the graph's text with the map wired, when made
};

/// Finds the map that drives the param of a param brush ("width": the param `width` of the Width
/// node, "density": `density` of the Scatter node) in the graph. Of several nodes of the type it is
/// the one nearest the output, among those that are not bypassed and show in the viewport.
///
/// In this order: a Map node wired to the param; the param's own `guide` layer, its `texture` whose
/// file or name is a map of the groom, or its `expression` that is just map("x"). A param that is a
/// plain number gets a new map: `kind` (vertices or texture), named after the brush, wired through
/// a new Map node; the number stays and scales the map, so 1 leaves the hair as it is.
///
/// `maps` may be null. Throws StrokeStateError with the text to show, std::invalid_argument "no
/// param brush named <name>"; what reading the graph throws.
ParamBrushMap paramBrushMap(const std::string& brush, const std::string& graph,
                            const MapCatalogValue* maps, const ScalpPtr& scalp,
                            PaintedMap::Kind kind);

}  // namespace corvelle
