#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "expr/mapCatalog.h"

namespace corvelle {

/// Reads the painted maps of a groom: an object of map name to {`kind`: "vertices" (when absent),
/// "texture" or "guides"}. `channels` is 1 (when absent) or 4. By kind:
///   vertices  `values`, a flat list of numbers, `channels` a scalp vertex; absent: not kept, see
///             `withVertexValues`; `vertices`, the vertex count painted on (when absent: what the
///             values make).
///   texture   `texture`, the image file's path; absent or empty: not painted yet.
///   guides    `layer`, the guide attribute; absent or empty: the map's name.
/// null is no map at all. Throws std::invalid_argument "scalpMaps: ...", with the map's name.
MapCatalogValue mapCatalogFromJson(const nlohmann::json& json);

/// The same from text; blank text is no map. Throws also "scalpMaps: invalid JSON: <message>".
MapCatalogValue readScalpMaps(std::string_view text);
/// The text of maps, keys ascending, floats in their shortest form; empty for none. Pixels held in
/// memory stay behind: they live in the map's file.
std::string scalpMapsJson(const MapCatalogValue& maps);

}  // namespace corvelle
