#pragma once

#include <cstdint>
#include <string>

#include "expr/mapCatalog.h"
#include "graph/evalContext.h"

namespace corvelle {

/// A map found by the one name that a node's param holds.
struct ColorMapLookup {
    enum class Kind {
        None,      ///< nothing of that name
        Texture,   ///< painted, over the scalp's UVs
        Vertices,  ///< painted, on the scalp's vertices
        Guides,    ///< a guide layer: read the strands' channel `map->channel()`
        ColorSet,
        Image,     ///< a picture file at the scalp's UVs
    };
    Kind kind = Kind::None;
    NamedMapPtr map;        ///< null for None, and when there is a fault
    MapFault fault{};       ///< when kind is not None and map is null
    std::string detail;     ///< Unreadable: what the reader said; WrongScalp: the two vertex counts
    bool sRgb = false;      ///< an 8-bit picture file: colours are sRGB, where colour is what is read
    explicit operator bool() const { return map != nullptr; }
};

struct ColorMapWants {
    bool colorSets = true;  ///< a colour set of the name, after the painted maps
    /// Guide layers are read by position from these, as well as from strands; null: from strands
    /// alone, with `map` giving 0 away from them.
    GuidesPtr guides;
};

/// Finds, in this order: a painted map of the catalogue; a layer on the guides given, or one of the
/// groom's; a colour set of the scalp; an image file, through the search paths. Nothing throws.
/// `scalp` is the mesh to read on; null: the evaluation's own.
ColorMapLookup readColorMap(const std::string& name, const EvaluationData& data,
                            const ScalpPtr& scalp = nullptr, const ColorMapWants& wants = {});
inline ColorMapLookup readColorMap(const std::string& name, const EvalContext& context,
                                   const ScalpPtr& scalp = nullptr,
                                   const ColorMapWants& wants = {}) {
    return readColorMap(name, context.data(), scalp, wants);
}

/// All that readColorMap would read for the name: a node's hash has it.
std::uint64_t colorMapHash(const std::string& name, const EvaluationData& data,
                           const ScalpPtr& scalp = nullptr, const ColorMapWants& wants = {});

/// Some guide of the groom, flat or in the hierarchy, carries the layer.
bool isGroomLayer(const std::string& layer, const EvaluationData& data);

/// Why a color node cannot read the name, without the node's type in front: "the texture map has no
/// image file yet", "an image needs a scalp with UVs", "the vertex map does not fit this scalp (paint
/// it again, or convert it)", "a guide layer reaches the strands through Interpolate (put <type>
/// after it)" (also for a layer that is found: the caller's strands may lack it), "no map or image
/// named '<name>' (Groom Tools > Paint > New... makes a map)", or what the image reader said.
std::string colorMapFaultText(const ColorMapLookup& lookup, const std::string& name,
                              const std::string& nodeType);

}  // namespace corvelle
