#pragma once

#include <memory>
#include <string>

#include "model/scalpMesh.h"
#include "tools/brushToolSettings.h"
#include "tools/brushWeight.h"
#include "tools/strokeDocument.h"
#include "tools/strokeHost.h"

namespace corvelle {

/// One stamp of paint on a map over the scalp.
struct MapStamp {
    const BrushStamp* stamp = nullptr;  ///< centre, weights and reach
    float strength = 1.0f;  ///< pressure included; a place takes min(strength weight, 1)
    bool smooth = false;    ///< towards its neighbours, in place of the colour, in so many passes
};

/// A paint stroke on one of the groom's maps, from the pen's press to its release: works on copies
/// of what it touches, which the host sees as live maps only. Serial; a stamp may work in parallel
/// inside, with the same bits at any thread count.
class MapStroke {
public:
    virtual ~MapStroke() = default;

    /// The map turned out to be a layer of the guides: its name. The caller then paints this
    /// attribute of the guides, and calls no `stamp`. Empty for maps over the scalp.
    virtual const std::string& guideLayer() const = 0;
    /// True when the stroke has made a map and wired it: the host shows a graph that reads it.
    virtual bool graphChanged() const = 0;

    /// Whether any value changed.
    virtual bool stamp(const MapStamp& stamp) = 0;
    /// Shows the host what is painted so far, by `StrokeHost::setLiveMaps`: cheap, tiles and values
    /// are shared.
    virtual void publish() = 0;
    /// Puts what the stroke changed into the document: slots ScalpMaps and Graph, and the images.
    /// Nothing for a stroke that changed no value.
    virtual void finish(StrokeDocument& document) = 0;
    /// Takes back what the host was shown (live maps, live graph).
    virtual void cancel() = 0;
};

/// Begins a paint stroke on the map that the settings name: `paramBrush` ("width", "density": the
/// map that drives the param, made and wired when there is none), else `paintKind` "vertices" with
/// `attribute`, or "texture" with `paintTexture`. The paint is `value` on a gray map, `paintColor`
/// in `paintChannels` on one of four channels; smoothing goes by `smoothStrength`. `host` and the
/// scalp must outlive the stroke.
/// Throws std::invalid_argument with the text to show; the host is then as it was.
std::unique_ptr<MapStroke> beginMapStroke(StrokeHost& host, const BrushToolSettings& settings,
                                          const ScalpPtr& scalp);

}  // namespace corvelle
