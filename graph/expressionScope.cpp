#include "graph/expressionScope.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "expr/nameChars.h"
#include "graph/field.h"
#include "model/hash.h"

namespace corvelle {

namespace {

/// Calls visit(name) for each word that is no `$` variable, comments and quotes included: too many
/// words do no harm.
template <class Visit>
void forEachWord(std::string_view text, Visit&& visit) {
    for (std::size_t i = 0; i < text.size();) {
        if (!isNameStart(text[i])) {
            // The letters of a number such as 1e5 belong to it.
            if (isDigit(text[i]))
                while (i < text.size() && isNameChar(text[i])) ++i;
            else
                ++i;
            continue;
        }
        const std::size_t begin = i;
        while (i < text.size() && isNameChar(text[i])) ++i;
        if (begin == 0 || text[begin - 1] != '$') visit(text.substr(begin, i - begin));
    }
}

bool isLayerOf(const StrandSet& strands, const std::string& layer) {
    return strands.strandChannel(layer) || strands.pointChannel(layer);
}

std::vector<std::string> layersOn(const GuideSet& guides) {
    std::vector<std::string> names = guides.attributeNames();
    const std::vector<std::string> along = guides.pointAttributeNames();
    names.insert(names.end(), along.begin(), along.end());
    return names;
}

/// The names of all guide layers a groom has, ascending.
std::vector<std::string> layerNames(const EvaluationData& data, const GuideSet* guides) {
    std::vector<std::string> names;
    const auto add = [&](const std::vector<std::string>& more) {
        names.insert(names.end(), more.begin(), more.end());
    };
    if (guides) add(layersOn(*guides));
    if (data.flatGuides) add(layersOn(*data.flatGuides));
    if (data.hierarchy) {
        for (const auto& [name, value] : data.hierarchy->declaredAttributes())
            names.push_back(name);
        for (const GuidePtr& guide : data.hierarchy->guides()) {
            for (const auto& [name, value] : guide->attributes) names.push_back(name);
            for (const auto& [name, values] : guide->pointAttributes) names.push_back(name);
        }
    }
    if (data.maps)
        for (const auto& [name, map] : data.maps->maps)
            if (map.kind == PaintedMap::Kind::Guides)
                names.push_back(map.layer.empty() ? name : map.layer);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string faultText(const std::string& name, const MapLookup& lookup, const std::string& layer) {
    const std::string head = "map(\"" + name + "\"): ";
    switch (lookup.fault) {
        case MapFault::NoImage:
            return head + "the texture map has no image file yet";
        case MapFault::WrongScalp:
            return head + "the vertex map does not fit this scalp";
        case MapFault::NoUvs:
            return head + "a texture map needs a scalp with UVs";
        case MapFault::NoLayer:
            return head + "no guide carries the layer '" + layer + "'";
        case MapFault::NoGuides:
            return head + "no guide layer '" + layer +
                   "' on the strands (Interpolate writes it; paint it on the guides)";
        case MapFault::Unreadable:
            break;
    }
    return head + lookup.detail;
}

}  // namespace

struct ExpressionScope::Sources {
    MapCatalogPtr maps;
    ScalpPtr scalp;
    GuidesPtr guides;
    PathResolver resolver;
    std::vector<std::string> layers;  ///< ascending

    // Maps made once for all expressions of a scope.
    mutable std::mutex mutex;
    mutable std::map<std::string, NamedMapPtr> found;

    bool isLayer(const std::string& name) const {
        return std::binary_search(layers.begin(), layers.end(), name);
    }
};

ExpressionReads expressionReads(std::string_view text) {
    constexpr std::string_view kSurface[] = {"N", "nx",   "ny",  "nz",  "u",
                                             "v", "lift", "map", "cmap"};
    ExpressionReads reads;
    forEachWord(text, [&](std::string_view word) {
        if (word == "frame" || word == "time") reads.time = true;
        if (word == "map" || word == "cmap") reads.maps = true;
        if (std::find(std::begin(kSurface), std::end(kSurface), word) != std::end(kSurface))
            reads.surface = true;
    });
    return reads;
}

GuidesPtr groomGuides(const EvaluationData& data) {
    if (data.flatGuides && !data.flatGuides->empty()) return data.flatGuides;
    if (data.hierarchy && !data.hierarchy->empty()) return data.hierarchy->flatten();
    return nullptr;
}

ExpressionScope::ExpressionScope(const EvaluationData& data, GuidesPtr guides, bool maps)
    : scalp_(data.scalp), frame_(data.frame), seconds_(data.seconds) {
    if (!maps) return;
    auto sources = std::make_shared<Sources>();
    sources->maps = data.maps;
    sources->scalp = data.scalp;
    sources->guides = std::move(guides);
    sources->resolver = searchPathResolver(data.directory, data.searchPaths);
    sources->layers = layerNames(data, sources->guides.get());

    std::uint64_t h = hashOf("maps");
    h = hashCombine(h, data.scalp ? data.scalp->fullHash() : 0);
    if (data.maps) {
        h = hashCombine(h, data.maps->hash());
        for (const auto& [name, map] : data.maps->maps)
            if (!map.file.empty() && !map.image)
                h = hashCombine(h, Texture::signature(map.file, sources->resolver));
    }
    for (const std::string& layer : sources->layers) {
        h = hashCombine(h, hashOf(layer));
        if (sources->guides) h = hashCombine(h, guideLayerHash(*sources->guides, layer));
    }
    mapsHash_ = h;
    sources_ = std::move(sources);
}

NamedMapPtr ExpressionScope::find(const std::string& name,
                                  const std::vector<std::string>* carried) const {
    const Sources& s = *sources_;
    const PaintedMap* entry = s.maps ? s.maps->find(name) : nullptr;
    const bool ofGuides = entry ? entry->kind == PaintedMap::Kind::Guides : s.isLayer(name);
    const std::string layer = entry && !entry->layer.empty() ? entry->layer : name;
    {
        const std::lock_guard lock(s.mutex);
        if (const auto at = s.found.find(name); at != s.found.end()) return at->second;
    }
    NamedMapPtr map;
    if (entry && !ofGuides) {
        const MapLookup lookup = readMap(s.maps.get(), name, s.scalp, s.guides, s.resolver);
        if (!lookup.map) throw ExpressionError(faultText(name, lookup, layer));
        map = lookup.map;
    } else if (ofGuides) {
        map = guideLayerMap(s.guides, s.scalp, layer);
        if (!map) {
            const bool onStrands =
                !carried || std::find(carried->begin(), carried->end(), layer) != carried->end();
            if (onStrands) return channelOnlyMap(layer);
            MapLookup missing{.found = true,
                              .fault = s.guides ? MapFault::NoLayer : MapFault::NoGuides};
            throw ExpressionError(faultText(name, missing, layer));
        }
    }
    if (map) {
        const std::lock_guard lock(s.mutex);
        s.found.emplace(name, map);
    }
    return map;
}

ExpressionEnvironment ExpressionScope::make(bool strict, std::vector<std::string> carried) const {
    ExpressionEnvironment environment;
    environment.scalp = scalp_;
    environment.frame = frame_;
    environment.time = seconds_;
    if (!sources_) return environment;
    std::uint64_t h = hashCombine(mapsHash_, strict);
    for (const std::string& layer : carried) h = hashCombine(h, hashOf(layer));
    environment.mapsHash = h;
    environment.findMap = [scope = *this, strict,
                           carried = std::move(carried)](const std::string& name) {
        return scope.find(name, strict ? &carried : nullptr);
    };
    return environment;
}

ExpressionEnvironment ExpressionScope::environment() const { return make(false, {}); }

ExpressionEnvironment ExpressionScope::environmentFor(const StrandSet* strands) const {
    std::vector<std::string> carried;
    if (sources_ && strands)
        for (const std::string& layer : sources_->layers)
            if (isLayerOf(*strands, layer)) carried.push_back(layer);
    return make(true, std::move(carried));
}

ExpressionEnvironment expressionEnvironment(const EvalContext& context, const GuidesPtr& guides) {
    return ExpressionScope(context.data(), guides).environment();
}

std::uint64_t mapReadsHash(const MapSource& source, const EvaluationData& data,
                           const GuidesPtr& guides) {
    const std::uint64_t scalp = data.scalp ? data.scalp->fullHash() : 0;
    const std::uint64_t h = mix64(static_cast<std::uint64_t>(source.kind));
    const auto layer = [&] { return guides ? guideLayerHash(*guides, source.source) : 0; };
    switch (source.kind) {
        case MapKind::Texture: {
            const PathResolver resolver = searchPathResolver(data.directory, data.searchPaths);
            return hashCombine(hashCombine(h, scalp), Texture::signature(source.source, resolver));
        }
        case MapKind::ColorSet:
            return hashCombine(h, scalp);
        case MapKind::Attribute:
        case MapKind::GuideLayer:
            return hashCombine(h, layer());
        case MapKind::Expression:
            break;
    }
    const ExpressionReads reads = expressionReads(source.source);
    std::uint64_t all = h;
    if (reads.surface) all = hashCombine(all, scalp);
    if (reads.time) all = hashCombine(hashCombine(all, data.frame), data.seconds);
    if (reads.maps) all = hashCombine(all, ExpressionScope(data, guides).mapsHash());
    return all;
}

bool mapReadsTime(const MapSource& source) {
    return source.kind == MapKind::Expression && expressionReads(source.source).time;
}

}  // namespace corvelle
