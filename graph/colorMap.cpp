#include "graph/colorMap.h"

#include <algorithm>

#include "model/hash.h"

namespace corvelle {

namespace {

using Kind = ColorMapLookup::Kind;

ColorMapLookup fault(Kind kind, MapFault why, std::string detail = {}) {
    ColorMapLookup lookup;
    lookup.kind = kind;
    lookup.fault = why;
    lookup.detail = std::move(detail);
    return lookup;
}
ColorMapLookup found(Kind kind, NamedMapPtr map) {
    ColorMapLookup lookup;
    lookup.kind = kind;
    lookup.map = std::move(map);
    return lookup;
}

ColorMapLookup readLayer(const std::string& layer, const ScalpPtr& scalp,
                         const ColorMapWants& wants) {
    if (NamedMapPtr map = guideLayerMap(wants.guides, scalp, layer))
        return found(Kind::Guides, std::move(map));
    if (wants.guides) return fault(Kind::Guides, MapFault::NoLayer);
    return found(Kind::Guides, channelOnlyMap(layer));
}

ColorMapLookup readImageFile(const std::string& name, const ScalpPtr& scalp,
                             const PathResolver& resolver) {
    if (Texture::signature(name, resolver) == 0) return {};
    if (!scalp || scalp->uvs().empty()) return fault(Kind::Image, MapFault::NoUvs);
    try {
        const TexturePtr texture = Texture::load(name, resolver);
        ColorMapLookup lookup = found(Kind::Image, textureMap(texture, scalp));
        lookup.sRgb = texture->eightBit();
        return lookup;
    } catch (const TextureError& error) {
        return fault(Kind::Image, MapFault::Unreadable, error.what());
    }
}

}  // namespace

bool isGroomLayer(const std::string& name, const EvaluationData& data) {
    if (data.flatGuides && carriesLayer(*data.flatGuides, name)) return true;
    if (!data.hierarchy) return false;
    if (data.hierarchy->declaredAttributes().contains(name)) return true;
    const auto guides = data.hierarchy->guides();
    return std::any_of(guides.begin(), guides.end(), [&](const GuidePtr& guide) {
        return guide->attributes.contains(name) || guide->pointAttributes.contains(name);
    });
}

ColorMapLookup readColorMap(const std::string& name, const EvaluationData& data,
                            const ScalpPtr& given, const ColorMapWants& wants) {
    if (name.empty()) return {};
    const ScalpPtr& scalp = given ? given : data.scalp;
    const PathResolver resolver = searchPathResolver(data.directory, data.searchPaths);
    if (const PaintedMap* entry = data.maps ? data.maps->find(name) : nullptr) {
        if (entry->kind == PaintedMap::Kind::Guides)
            return readLayer(entry->layer.empty() ? name : entry->layer, scalp, wants);
        MapLookup painted = readMap(data.maps.get(), name, scalp, nullptr, resolver);
        ColorMapLookup lookup =
            fault(entry->kind == PaintedMap::Kind::Texture ? Kind::Texture : Kind::Vertices,
                  painted.fault, std::move(painted.detail));
        lookup.map = std::move(painted.map);
        return lookup;
    }
    if ((wants.guides && carriesLayer(*wants.guides, name)) || isGroomLayer(name, data))
        return readLayer(name, scalp, wants);
    if (wants.colorSets)
        if (NamedMapPtr set = colorSetMap(scalp, name))
            return found(Kind::ColorSet, std::move(set));
    return readImageFile(name, scalp, resolver);
}

std::uint64_t colorMapHash(const std::string& name, const EvaluationData& data,
                           const ScalpPtr& given, const ColorMapWants& wants) {
    if (name.empty()) return 0;
    const ScalpPtr& scalp = given ? given : data.scalp;
    std::uint64_t h = hashOf(name);
    const std::uint64_t mesh = scalp ? scalp->fullHash() : 0;
    const PathResolver resolver = searchPathResolver(data.directory, data.searchPaths);
    const PaintedMap* entry = data.maps ? data.maps->find(name) : nullptr;
    const bool layer =
        entry ? entry->kind == PaintedMap::Kind::Guides
              : (wants.guides && carriesLayer(*wants.guides, name)) || isGroomLayer(name, data);
    if (entry) h = hashCombine(h, entry->hash());
    h = hashCombine(h, layer);
    if (layer) {
        const std::string& read = entry && !entry->layer.empty() ? entry->layer : name;
        return hashCombine(h, wants.guides ? guideLayerHash(*wants.guides, read) : 0);
    }
    h = hashCombine(h, mesh);
    const bool isFile = entry ? !entry->file.empty() && !entry->image
                              : !(wants.colorSets && scalp && scalp->colorSets().contains(name));
    if (!isFile) return h;
    return hashCombine(h, Texture::signature(entry ? entry->file : name, resolver));
}

std::string colorMapFaultText(const ColorMapLookup& lookup, const std::string& name,
                              const std::string& nodeType) {
    if (lookup.kind == Kind::None)
        return "no map or image named '" + name + "' (Groom Tools > Paint > New... makes a map)";
    if (lookup.kind == Kind::Guides)
        return "a guide layer reaches the strands through Interpolate (put " + nodeType +
               " after it)";
    switch (lookup.fault) {
        case MapFault::NoImage:
            return "the texture map has no image file yet";
        case MapFault::NoUvs:
            return "an image needs a scalp with UVs";
        case MapFault::WrongScalp:
            return "the vertex map does not fit this scalp (paint it again, or convert it)";
        default:
            return lookup.detail;
    }
}

}  // namespace corvelle
