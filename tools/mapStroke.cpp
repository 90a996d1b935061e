#include "tools/mapStroke.h"

#include <algorithm>
#include <utility>

#include "expr/mapCatalogJson.h"
#include "model/soleOwner.h"
#include "model/surfaceTopology.h"
#include "tools/paramBrush.h"
#include "tools/smoothPasses.h"
#include "tools/texturePaint.h"
#include "tools/vertexMapPaint.h"

namespace corvelle {
namespace {

/// Where a stroke's paint goes.
struct PaintTarget {
    PaintedMap::Kind kind = PaintedMap::Kind::Vertices;
    std::string name;
    bool made = false;
    std::string graph;  ///< with the map wired, when made
};

PaintTarget namedTarget(const BrushToolSettings& settings, const MapCatalogValue* maps) {
    const bool texture = settings.paintKind == "texture";
    const std::string& name = texture ? settings.paintTexture : settings.attribute;
    const PaintedMap* map = maps ? maps->find(name) : nullptr;
    if (map && map->kind == PaintedMap::Kind::Guides)
        return {map->kind, map->layer.empty() ? name : map->layer, false, {}};
    const auto wanted = texture ? PaintedMap::Kind::Texture : PaintedMap::Kind::Vertices;
    if (!map || map->kind != wanted)
        throw StrokeNotFound(std::string("this groom has no ") + (texture ? "texture" : "vertex") +
                             " map named " + name);
    return {wanted, name, false, {}};
}

PaintTarget targetOf(StrokeHost& host, const BrushToolSettings& settings, const ScalpPtr& scalp,
                     const MapCatalogValue* maps) {
    if (settings.paramBrush.empty()) return namedTarget(settings, maps);
    const auto kind =
        settings.paintKind == "texture" ? PaintedMap::Kind::Texture : PaintedMap::Kind::Vertices;
    ParamBrushMap map = paramBrushMap(settings.paramBrush, host.graphText(), maps, scalp, kind);
    return {map.kind, std::move(map.name), map.made, std::move(map.graph)};
}

/// Of a stroke on guides nothing is left here but the layer's name.
class GuideLayerStroke final : public MapStroke {
public:
    explicit GuideLayerStroke(std::string layer) : layer_(std::move(layer)) {}
    const std::string& guideLayer() const override { return layer_; }
    bool graphChanged() const override { return false; }
    bool stamp(const MapStamp&) override { return false; }
    void publish() override {}
    void finish(StrokeDocument&) override {}
    void cancel() override {}

private:
    std::string layer_;
};

/// What strokes on both kinds of scalp map share: the catalogue with the map under paint.
class ScalpMapStroke : public MapStroke {
public:
    ScalpMapStroke(StrokeHost& host, const BrushToolSettings& settings, PaintTarget target)
        : host_(host), settings_(settings), target_(std::move(target)), maps_(host.maps()) {}

    const std::string& guideLayer() const override {
        static const std::string none;
        return none;
    }
    bool graphChanged() const override { return target_.made; }

    bool stamp(const MapStamp& stamp) override {
        bool changed = false;
        if (stamp.smooth)
            changed = smoothPasses(stamp.strength,
                                   [&](float strength) { return smooth(*stamp.stamp, strength); });
        else
            changed = paint(*stamp.stamp, stamp.strength);
        changed_ = changed_ || changed;
        stale_ = stale_ || changed;
        return changed;
    }
    void publish() override {
        if (!std::exchange(stale_, false)) return;
        host_.setLiveMaps(catalogue());
    }
    void finish(StrokeDocument& document) override {
        if (!changed_) return;
        close(document);
        document.set(DocumentSlot::ScalpMaps, scalpMapsJson(*catalogue()));
        if (target_.made) document.set(DocumentSlot::Graph, target_.graph);
    }
    void cancel() override {
        host_.setLiveMaps(nullptr);
        if (target_.made) host_.setLiveGraph({});
    }
    /// Shows a map that the stroke has made, before the first stamp.
    void show() {
        if (!target_.made) return;
        host_.setLiveMaps(catalogue());
        host_.setLiveGraph(target_.graph);
    }

protected:
    virtual bool paint(const BrushStamp& stamp, float strength) = 0;
    virtual bool smooth(const BrushStamp& stamp, float strength) = 0;
    /// The map as painted so far.
    virtual PaintedMap map() = 0;
    /// The end of the stroke, for what is no text.
    virtual void close(StrokeDocument&) {}

    const PaintedMap* before() const { return maps_ ? maps_->find(target_.name) : nullptr; }
    std::array<float, 4> colorFor(int channels) const {
        const float v = std::clamp(settings_.value, 0.0f, 1.0f);
        return channels == 1 ? std::array{v, v, v, v} : settings_.paintColor;
    }
    StrokeHost& host_;
    const BrushToolSettings settings_;
    const PaintTarget target_;

private:
    MapCatalogPtr catalogue() {
        auto next =
            maps_ ? std::make_shared<MapCatalogValue>(*maps_) : std::make_shared<MapCatalogValue>();
        next->maps[target_.name] = map();
        return next;
    }
    const MapCatalogPtr maps_;  ///< the document's
    bool changed_ = false, stale_ = false;
};

/// The values of a vertex map as they were when a stroke published them. An array that nobody else
/// holds any more is written anew where it differs, which is where the last stamps reached.
class PublishedValues {
public:
    void touch(std::span<const TouchedVertex> touched) {
        for (const auto& [vertex, weight] : touched) now_.push_back(vertex);
    }
    std::shared_ptr<const std::vector<float>> publish(const std::vector<float>& values,
                                                      std::size_t channels) {
        auto fresh = std::make_shared<std::vector<float>>();
        if (older_ && isSoleOwner(older_)) *fresh = std::move(*older_);
        if (fresh->size() != values.size() || 2 * (before_.size() + now_.size()) > values.size())
            *fresh = values;
        else
            for (const auto* vertices : {&before_, &now_})
                for (const std::int32_t vertex : *vertices) {
                    const std::size_t at = std::size_t(vertex) * channels;
                    std::copy_n(values.data() + at, channels, fresh->data() + at);
                }
        older_ = std::move(last_);
        last_ = fresh;
        before_.swap(now_);
        now_.clear();
        return fresh;
    }

private:
    std::shared_ptr<std::vector<float>> last_, older_;
    /// The vertices touched from `older_` to `last_`, and since: some may come twice.
    std::vector<std::int32_t> before_, now_;
};

class VertexStroke final : public ScalpMapStroke {
public:
    VertexStroke(StrokeHost& host, const BrushToolSettings& settings, PaintTarget target,
                 const ScalpPtr& scalp)
        : ScalpMapStroke(host, settings, std::move(target)), scalp_(scalp), blocks_(*scalp) {
        const PaintedMap* held = before();
        if (held) channels_ = held->channels;
        const std::size_t wanted = scalp->points().size() * std::size_t(channels_);
        if (held && held->values && held->vertices == scalp->points().size() &&
            held->values->size() == wanted) {
            values_ = *held->values;
            return;
        }
        if (held && held->values)
            host.notify(
                "Corvelle paint: map " + target_.name +
                " was painted on a scalp with another vertex count; painting starts it over "
                "here");
        values_ = *startedVertexMap(*scalp, channels_).values;
    }

protected:
    bool paint(const BrushStamp& stamp, float strength) override {
        const std::vector<TouchedVertex> touched = blocks_.touched(stamp);
        published_.touch(touched);
        return stampVertexMap(values_, channels_, settings_.paintChannels, *scalp_, touched,
                              strength, colorFor(channels_));
    }
    bool smooth(const BrushStamp& stamp, float strength) override {
        if (!topology_) topology_.emplace(scalp_->triangles(), scalp_->points().size());
        const std::vector<TouchedVertex> touched = blocks_.touched(stamp);
        published_.touch(touched);
        return smoothVertexMap(values_, channels_, settings_.paintChannels, *scalp_,
                               {topology_->neighborOffsets(), topology_->neighbors()}, touched,
                               strength);
    }
    PaintedMap map() override {
        PaintedMap map = before() ? *before() : PaintedMap{};
        map.kind = PaintedMap::Kind::Vertices;
        map.channels = channels_;
        map.vertices = scalp_->points().size();
        map.values = published_.publish(values_, std::size_t(channels_));
        return map;
    }

private:
    const ScalpPtr scalp_;
    const VertexBlocks blocks_;
    std::optional<SurfaceTopology> topology_;  ///< made by the first smooth stamp
    int channels_ = 1;
    std::vector<float> values_;
    PublishedValues published_;
};

class TextureStroke final : public ScalpMapStroke {
public:
    TextureStroke(StrokeHost& host, const BrushToolSettings& settings, PaintTarget target,
                  const ScalpPtr& scalp)
        : ScalpMapStroke(host, settings, std::move(target)), paint_(startImage()) {
        paint_.setChannels(settings.paintChannels);
        paint_.beginEdit(scalp);
    }

protected:
    bool paint(const BrushStamp& stamp, float strength) override {
        return paint_.applyEdit(stamp, strength, colorFor(paint_.channels()));
    }
    bool smooth(const BrushStamp& stamp, float strength) override {
        return paint_.smoothEdit(stamp, strength);
    }
    PaintedMap map() override {
        PaintedMap map = before() ? *before() : PaintedMap{};
        map.kind = PaintedMap::Kind::Texture;
        map.channels = paint_.channels();
        map.image = paint_.image()->texture();
        if (map.file.empty()) map.file = host_.newMapFile(target_.name);
        return map;
    }
    void close(StrokeDocument& document) override {
        document.images[target_.name] = paint_.endEdit();
    }

private:
    /// What the stroke goes on with: white for a map that is new or has no pixels yet.
    std::shared_ptr<const PaintImage> startImage() {
        const PaintedMap* held = before();
        if (held && (held->image || !held->file.empty())) return host_.image(target_.name);
        return PaintImage::filled(settings_.paintResolution, settings_.paintResolution,
                                  held ? held->channels : 1, {255, 255, 255, 255});
    }
    TexturePaint paint_;
};

}  // namespace

std::unique_ptr<MapStroke> beginMapStroke(StrokeHost& host, const BrushToolSettings& settings,
                                          const ScalpPtr& scalp) {
    const MapCatalogPtr maps = host.maps();
    PaintTarget target = targetOf(host, settings, scalp, maps.get());
    if (target.kind == PaintedMap::Kind::Guides)
        return std::make_unique<GuideLayerStroke>(std::move(target.name));
    if (!scalp || scalp->triangles().empty())
        throw StrokeStateError("no scalp to paint the " + target.name + " map on");
    if (target.kind == PaintedMap::Kind::Texture && scalp->uvs().empty())
        throw StrokeStateError("the scalp has no UVs to paint a texture map on");
    std::unique_ptr<ScalpMapStroke> stroke;
    if (target.kind == PaintedMap::Kind::Texture)
        stroke = std::make_unique<TextureStroke>(host, settings, std::move(target), scalp);
    else
        stroke = std::make_unique<VertexStroke>(host, settings, std::move(target), scalp);
    try {
        stroke->show();
    } catch (...) {
        stroke->cancel();
        throw;
    }
    return stroke;
}

}  // namespace corvelle
