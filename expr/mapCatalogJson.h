#pragma once

#include <nlohmann/json_fwd.hpp>

#include "expr/mapCatalog.h"

namespace corvelle {

/// Reads the painted maps of a groom: an object of map name to {`kind`: "vertices" (when absent),
/// "texture" or "guides"}. By kind:
///   vertices  `channels` 1 (when absent) or 4; `values`, a flat list of numbers, `channels` a scalp
///             vertex; `vertices`, the vertex count painted on (when absent: what the values make).
///   texture   `texture`, the image file's path; absent or empty: not painted yet.
///   guides    `layer`, the guide attribute; absent or empty: the map's name.
/// null is no map at all. Throws std::invalid_argument "scalpMaps: ...", with the map's name.
MapCatalogValue mapCatalogFromJson(const nlohmann::json& json);

}  // namespace corvelle
