#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "model/ramp.h"

namespace corvelle {

enum class ToolKind : std::int32_t { Brush, Place, Draw, Part, Flow };

/// What one stamp of the brush does to a guide.
enum class BrushMode : std::int32_t {
    Comb,
    Smooth,
    Lift,
    Length,
    Tube,
    Paint,
    Twist,
    Curl,
    Straighten,
    Attract,
    Erase,
    Cut,
    Slide,
    Direction,
    Noise
};

/// What a brush shapes, of guides, part lines and flow arrows.
struct BrushTargets {
    bool guides = true, parts = false, flow = false;
    friend bool operator==(const BrushTargets&, const BrushTargets&) = default;
};

/// The settings of a stroke: one plain record, copied freely. Lengths are groom centimetres,
/// `radius` is pixels.
struct BrushToolSettings {
    std::string label = "brush";  ///< of the undo step
    ToolKind kind = ToolKind::Brush;
    BrushMode mode = BrushMode::Comb;
    float worldRadius = 0.25f;                    ///< for callers without a view
    float radius = 60.0f;                         ///< 1 or more
    float strength = 1.0f;                        ///< each mode clamps it
    float hardness = 0.0f;                        ///< 0..1; `falloff` is 1 less this
    std::shared_ptr<const Ramp> falloffProfile;   ///< null: by hardness
    std::shared_ptr<const Ramp> strengthProfile;  ///< root to tip; null: 1 everywhere
    std::int32_t level = 0;
    std::string group;       ///< empty: all
    bool propagate = false;  ///< also the chosen guides' descendants
    std::string attribute = "clump";
    float value = 1.0f;
    bool pointwise = false;
    std::shared_ptr<const std::map<std::uint64_t, float>>
        selectionWeights;  ///< by guide id; null: none
    bool selectedOnly = false;
    std::int32_t symmetry = -1;  ///< -1 none, 0 x, 1 y, 2 z, groom axes
    float symmetryCenter = 0.0f;
    bool topology = false;  ///< symmetry by the scalp's own left and right
    bool collide = true;
    float collideOffset = 0.0f;
    bool stretch = false;
    std::string freezeAttribute = "freeze";
    std::shared_ptr<const std::set<std::uint64_t>> frozen;  ///< guide ids; null: none
    std::string newGuideGroup = "primary";
    float length = 0.5f;
    std::int32_t segments = 12;  ///< 1 or more
    std::vector<float> tubeRadius{0.1f, 0.1f};
    bool matchNeighbors = true;
    float spacing = 0.1f;
    bool soloNewGuides = false;
    bool pressure = true;
    bool frontFacingOnly = true;
    bool eraseGuides = true, eraseParts = true, eraseFlow = true;
    BrushTargets targets;
    std::string partName = "part";
    std::string flowSink;  ///< empty: arrows; else "whorl", "whorlcw", "converge" or "part"
    std::string paintKind = "guides";  ///< or "vertices", "texture"
    std::string paintTexture;
    std::int32_t paintResolution = 1024;  ///< 4..16384
    std::array<float, 4> paintColor{1, 1, 1, 1};
    std::uint32_t paintChannels = 15;  ///< bits 1, 2, 4, 8: r, g, b, a
    std::string paramBrush;            ///< "width", "density" or empty
    float smoothStrength = 1.0f;
    float softSelectRadius = 0.0f;
};

}  // namespace corvelle
