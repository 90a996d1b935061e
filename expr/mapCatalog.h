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
    /// Over everything it holds but the file's pixels; the values are hashed once per array.
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
    std::string detail;       ///< Unreadable: what the image reader said; WrongScalp: the two vertex counts
};
/// A vertex map that starts anew on a scalp: 1 everywhere.
PaintedMap startedVertexMap(const ScalpMesh& scalp, int channels);
/// The catalogue with values for the vertex maps that come without, as grooms of old hold them: those
/// of the scalp's colour set of the map's name (a vertex's first corner), else 1 everywhere. The very
/// catalogue when there are none, or no scalp.
MapCatalogPtr withVertexValues(MapCatalogPtr maps, const ScalpPtr& scalp);

/// Makes a catalogue entry readable on a scalp. `guides` may be null (maps of kind guides then fault
/// with NoGuides).
MapLookup readMap(const MapCatalogValue* catalog, const std::string& name, const ScalpPtr& scalp,
                  const GuidesPtr& guides, const PathResolver& resolver);

/// "'<name>' was painted on a scalp with <n> vertices; this one has <m> (convert it to a texture or
/// guide layer on the old scalp, or fill it anew)".
std::string vertexCountText(const std::string& name, std::uint64_t painted, std::uint64_t now);

// Maps over a scalp's own data, made to the same face. At a root they mix the triangle's corners by
// its barycentric coordinates: vertex values, corner colours, or corner UVs that the image is then
// read at.
NamedMapPtr textureMap(TexturePtr texture, ScalpPtr scalp);  ///< null: no scalp, or one without UVs
NamedMapPtr colorSetMap(ScalpPtr scalp, const std::string& name);  ///< null: no such set
/// `channels` (1 or 4) values a vertex; null: the sizes do not fit the scalp.
NamedMapPtr vertexMap(std::shared_ptr<const std::vector<float>> values, int channels, ScalpPtr scalp);
/// By position: the 4 nearest roots of the guides that carry the layer, weighted by the inverse
/// square of their distance (Shepard, "A two-dimensional interpolation function for irregularly-spaced
/// data", ACM National Conference 1968), distances below 1e-6 counting as that. A layer painted along
/// the guides gives its root values. Null: on no guide.
NamedMapPtr guideLayerMap(GuidesPtr guides, ScalpPtr scalp, const std::string& layer);
/// A guide layer that only strands can give, through their channel of its name: 0 at any place.
NamedMapPtr channelOnlyMap(const std::string& layer);

/// Some guide carries the layer, as one value or as values along it.
bool carriesLayer(const GuideSet& guides, std::string_view layer);
/// What a guide layer is read from: roots and values, not the shapes.
std::uint64_t guideLayerHash(const GuideSet& guides, std::string_view layer);

}  // namespace corvelle
