#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "expr/namedMap.h"
#include "expr/texture.h"
#include "model/guideSet.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// One painted map of a groom, as data.
struct PaintedMap {
    enum class Kind { Texture, Vertices, Guides };
    Kind kind = Kind::Vertices;
    std::string file;                      ///< texture: the image; empty: not painted yet
    std::shared_ptr<const Texture> image;  ///< texture: pixels held in memory, in place of the file
    int channels = 1;                      ///< vertices: 1 or 4
    std::shared_ptr<const std::vector<float>> values;  ///< vertices: channels per scalp vertex
    std::uint64_t vertices = 0;            ///< vertices: the count painted on
    std::string layer;                     ///< guides: the guide attribute; empty: the map's name
    std::uint64_t hash() const;
};

/// The named maps of a groom, given to evaluation as one shared, immutable value.
class MapCatalogValue {
public:
    std::map<std::string, PaintedMap> maps;
    std::uint64_t hash() const;
    const PaintedMap* find(const std::string& name) const;
};
using MapCatalogPtr = std::shared_ptr<const MapCatalogValue>;

/// Why a map that is there cannot be read, in the words of the caller that asks.
enum class MapFault { NoImage, WrongScalp, NoLayer, NoUvs, NoGuides, Unreadable };
struct MapLookup {
    NamedMapPtr map;          ///< null when there is none, or a fault
    bool found = false;       ///< the catalogue has the name
    MapFault fault{};         ///< when found and map is null
    std::string detail;       ///< Unreadable: what the image reader said
};
/// Makes a catalogue entry readable on a scalp. `guides` may be null (maps of kind guides then fault
/// with NoGuides).
MapLookup readMap(const MapCatalogValue* catalog, const std::string& name, const ScalpPtr& scalp,
                  const GuidesPtr& guides, const PathResolver& resolver);

/// Maps over a scalp's own data, made to the same face.
NamedMapPtr textureMap(TexturePtr texture, ScalpPtr scalp);
NamedMapPtr colorSetMap(ScalpPtr scalp, const std::string& name);  ///< null: no such set
NamedMapPtr guideLayerMap(GuidesPtr guides, ScalpPtr scalp, const std::string& layer);  ///< null: on no guide

}  // namespace corvelle
