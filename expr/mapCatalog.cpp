#include "expr/mapCatalog.h"

#include <algorithm>
#include <array>
#include <mutex>

#include "model/hash.h"

namespace corvelle {

namespace {

using Values = std::shared_ptr<const std::vector<float>>;

/// The hash of an immutable array, remembered as long as the array lives: a catalogue is hashed at
/// each evaluation, its values change with a brush stroke at most.
std::uint64_t valuesHash(const Values& values) {
    if (!values) return 0;
    struct Known {
        std::weak_ptr<const std::vector<float>> array;
        std::uint64_t hash = 0;
    };
    static std::mutex mutex;
    static auto* known = new std::map<const void*, Known>();  // never destroyed: used at exit
    {
        const std::lock_guard lock(mutex);
        const auto at = known->find(values.get());
        if (at != known->end() && at->second.array.lock() == values) return at->second.hash;
    }
    const std::uint64_t h = hashFloatBits(mix64(values->size()), values->data(), values->size());
    const std::lock_guard lock(mutex);
    std::erase_if(*known, [](const auto& entry) { return entry.second.array.expired(); });
    (*known)[values.get()] = {values, h};
    return h;
}

MapLookup fault(MapFault why, std::string detail = {}) {
    return {.map = nullptr, .found = true, .fault = why, .detail = std::move(detail)};
}

MapLookup readTexture(const PaintedMap& map, const ScalpPtr& scalp, const PathResolver& resolver) {
    if (!map.image && map.file.empty()) return fault(MapFault::NoImage);
    if (!scalp || scalp->uvs().empty()) return fault(MapFault::NoUvs);
    try {
        if (!map.image && Texture::isUdim(map.file))
            return fault(MapFault::Unreadable,
                         "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as "
                         "scalp maps");
        TexturePtr texture = map.image ? map.image : Texture::load(map.file, resolver);
        return {.map = textureMap(std::move(texture), scalp), .found = true};
    } catch (const TextureError& error) {
        return fault(MapFault::Unreadable, error.what());
    }
}

MapLookup readVertices(const std::string& name, const PaintedMap& map, const ScalpPtr& scalp) {
    const std::uint64_t now = scalp ? scalp->points().size() : 0;
    NamedMapPtr read = map.vertices == now ? vertexMap(map.values, map.channels, scalp) : nullptr;
    if (!read) return fault(MapFault::WrongScalp, vertexCountText(name, map.vertices, now));
    return {.map = std::move(read), .found = true};
}

}  // namespace

std::uint64_t PaintedMap::hash() const {
    std::uint64_t h = mix64(static_cast<std::uint64_t>(kind));
    h = hashCombine(h, hashOf(file));
    h = hashCombine(h, image ? image->hash() : 0);
    h = hashCombine(h, channels);
    h = hashCombine(h, valuesHash(values));
    h = hashCombine(h, vertices);
    return hashCombine(h, hashOf(layer));
}

std::uint64_t MapCatalogValue::hash() const {
    std::uint64_t h = mix64(maps.size());
    for (const auto& [name, map] : maps) h = hashCombine(hashCombine(h, hashOf(name)), map.hash());
    return h;
}

const PaintedMap* MapCatalogValue::find(const std::string& name) const {
    const auto at = maps.find(name);
    return at == maps.end() ? nullptr : &at->second;
}

std::string vertexCountText(const std::string& name, std::uint64_t painted, std::uint64_t now) {
    return "'" + name + "' was painted on a scalp with " + std::to_string(painted) +
           " vertices; this one has " + std::to_string(now) +
           " (convert it to a texture or guide layer on the old scalp, or fill it anew)";
}

PaintedMap startedVertexMap(const ScalpMesh& scalp, int channels) {
    PaintedMap map{.kind = PaintedMap::Kind::Vertices, .channels = channels};
    map.vertices = scalp.points().size();
    map.values = std::make_shared<const std::vector<float>>(
        scalp.points().size() * std::size_t(channels), 1.0f);
    return map;
}

namespace {

PaintedMap vertexMapOfColors(const ScalpMesh& scalp, std::span<const Color4f> corners,
                             int channels) {
    const std::size_t step = std::size_t(channels);
    std::vector<float> values(scalp.points().size() * step, 0.0f);
    std::vector<bool> known(scalp.points().size());
    for (std::size_t c = 0; c < corners.size(); ++c) {
        const std::size_t vertex = std::size_t(scalp.triangles()[c / 3][c % 3]);
        if (known[vertex]) continue;
        known[vertex] = true;
        const Color4f& color = corners[c];
        const std::array<float, 4> all = {color.r, color.g, color.b, color.a};
        if (channels == 1)
            values[vertex] = luminance(color.r, color.g, color.b);
        else
            std::ranges::copy(all, values.begin() + std::ptrdiff_t(vertex * step));
    }
    PaintedMap map{.kind = PaintedMap::Kind::Vertices, .channels = channels};
    map.vertices = scalp.points().size();
    map.values = std::make_shared<const std::vector<float>>(std::move(values));
    return map;
}

}  // namespace

MapCatalogPtr withVertexValues(MapCatalogPtr maps, const ScalpPtr& scalp) {
    const auto lacks = [](const auto& entry) {
        return entry.second.kind == PaintedMap::Kind::Vertices && !entry.second.values;
    };
    if (!maps || !scalp || std::ranges::none_of(maps->maps, lacks)) return maps;
    auto filled = std::make_shared<MapCatalogValue>(*maps);
    for (auto& entry : filled->maps) {
        if (!lacks(entry)) continue;
        const int channels = entry.second.channels;
        const auto set = scalp->colorSets().find(entry.first);
        entry.second = set == scalp->colorSets().end()
                           ? startedVertexMap(*scalp, channels)
                           : vertexMapOfColors(*scalp, set->second, channels);
    }
    return filled;
}

MapLookup readMap(const MapCatalogValue* catalog, const std::string& name, const ScalpPtr& scalp,
                  const GuidesPtr& guides, const PathResolver& resolver) {
    const PaintedMap* map = catalog ? catalog->find(name) : nullptr;
    if (!map) return {};
    switch (map->kind) {
        case PaintedMap::Kind::Texture:
            return readTexture(*map, scalp, resolver);
        case PaintedMap::Kind::Vertices:
            return readVertices(name, *map, scalp);
        case PaintedMap::Kind::Guides:
            break;
    }
    if (!guides) return fault(MapFault::NoGuides);
    NamedMapPtr read = guideLayerMap(guides, scalp, map->layer.empty() ? name : map->layer);
    if (!read) return fault(MapFault::NoLayer);
    return {.map = std::move(read), .found = true};
}

}  // namespace corvelle
