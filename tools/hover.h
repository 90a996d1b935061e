#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "model/vec3f.h"
#include "tools/brushToolSettings.h"
#include "tools/strokeHost.h"
#include "tools/toolView.h"

namespace corvelle {

/// What the pointer is over.
struct HoverHit {
    enum class Kind { None, Guide, Part, Flow };
    Kind kind = Kind::None;
    std::uint64_t guide = 0;  ///< id
    std::string part;         ///< name
    std::size_t index = 0;    ///< of the part line, or of the flow pin
    float pixels = 0.0f;      ///< how far off
    std::vector<Vec3f> line;  ///< what to draw: the guide or part, or the arrow's two ends
};

/// The brush's circle as it lies in the scene, groom space.
struct BrushRing {
    bool valid = false;
    Vec3f center;
    float radius = 0.0f;  ///< cm: the brush's pixels at that depth
    Vec3f normal;         ///< unit: the scalp's, or towards the eye
    bool onScalp = false;
    float screenRadius = 0.0f;  ///< pixels
};
/// On the scalp under the pointer; else facing the camera at the depth of the view's target, or of
/// the scalp's middle.
BrushRing brushRing(StrokeHost& host, const ToolView& view, double x, double y,
                    const BrushToolSettings& settings);

/// Guides, parts and arrows as one view sees them, kept from one hover to the next and made anew
/// when the view or what it shows changed. A hover then looks at the few points near the pointer.
/// Used on one thread.
class HoverCache {
public:
    HoverCache();
    ~HoverCache();
    HoverCache(HoverCache&&) noexcept;
    HoverCache& operator=(HoverCache&&) noexcept;
    /// The nearest of what is seen within `pixels` of the pointer: guides of all levels but those
    /// of hidden groups, then part lines and flow arrows where they are nearer. With
    /// `settings.frontFacingOnly` nothing that the scalp hides.
    HoverHit at(StrokeHost& host, const ToolView& view, double x, double y,
                const BrushToolSettings& settings, float pixels = 10.0f);
    void clear();

private:
    struct Screen;
    std::unique_ptr<Screen> screen_;
};

}  // namespace corvelle
