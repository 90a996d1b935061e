#pragma once

#include <functional>
#include <memory>
#include <span>
#include <utility>

#include "model/ramp.h"
#include "model/vec3f.h"
#include "tools/toolView.h"

namespace corvelle {

class ScreenOcclusionCache;

/// How a brush fades from its centre (1) to its rim (0): by `profile`, read from the centre (0) to
/// the rim (1), or full up to `hardness` (0..1) of the radius and falling smoothly from there. 0 at
/// the rim and beyond, and everywhere for a radius of 0.
float brushFalloff(float distance, float radius, float hardness, const Ramp* profile);
/// The same for many, in place: distances in, weights out.
void brushFalloff(std::span<float> distances, float radius, float hardness, const Ramp* profile);

/// The weight of places under a stamp. A batch is one call, whatever its size. May be called
/// concurrently when `threadSafe` is set.
class PointWeight {
public:
    using Batch = std::function<void(std::span<const Vec3f> places, std::span<float> weights)>;
    PointWeight() = default;
    explicit PointWeight(Batch batch, bool isThreadSafe = true)
        : threadSafe(isThreadSafe), batch_(std::move(batch)) {}
    explicit operator bool() const { return bool(batch_); }
    void operator()(std::span<const Vec3f> places, std::span<float> weights) const {
        batch_(places, weights);
    }
    float operator()(Vec3f place) const {
        float weight = 0.0f;
        batch_({&place, 1}, {&weight, 1});
        return weight;
    }
    bool threadSafe = false;

private:
    Batch batch_;
};
/// Whether anything in the box from `low` to `high` may have a weight. May be called concurrently.
using BoxReach = std::function<bool(Vec3f low, Vec3f high)>;

PointWeight sphereWeight(Vec3f center, float radius, float hardness,
                         std::shared_ptr<const Ramp> profile);
/// By the distance in pixels between the place and the pointer; 0 behind the camera, and where
/// `occlusion` (null: not asked) says that the scalp hides the place.
PointWeight screenBrushWeight(const ToolView& view, double x, double y, float radiusPixels,
                              float hardness, std::shared_ptr<const Ramp> profile,
                              std::shared_ptr<const ScreenOcclusionCache> occlusion);
/// False for a box of which a corner lies behind the camera.
BoxReach screenBrushReach(const ToolView& view, double x, double y, float radiusPixels);
/// The same for a box round other boxes: true when a corner lies behind the camera.
BoxReach screenBrushMayReach(const ToolView& view, double x, double y, float radiusPixels);

/// The weight of the place's mirror image across the plane `axis` = `center`.
PointWeight mirroredWeight(PointWeight weight, int axis, float center);
BoxReach mirroredReach(BoxReach reach, int axis, float center);

/// A rigid map between the two sides of a scalp: p -> at + turn (p - from). `turn` may reflect.
struct SideMap {
    Vec3f from, at;
    Rotation turn;
    Vec3f operator()(Vec3f p) const { return at + turn(p - from); }
    Vec3f direction(Vec3f d) const { return turn(d); }
    SideMap inverse() const { return {at, from, turn.inverse()}; }
};
/// The weight of where `toOriginal` takes the place.
PointWeight mappedWeight(PointWeight weight, const SideMap& toOriginal);
BoxReach mappedReach(BoxReach reach, const SideMap& toOriginal);

/// What weighs the places under one stamp of the brush.
struct BrushStamp {
    Vec3f center;
    float radius = 0.0f;         ///< cm
    PointWeight weightFunction;  ///< replaces the sphere
    BoxReach reach;              ///< goes with `weightFunction`; empty: everything may be reached
    BoxReach mayReach;           ///< of a box round boxes: false only where `reach` is for them all
    float hardness = 0.0f;
    std::shared_ptr<const Ramp> falloffProfile;
    float scale = 1.0f;  ///< of one guide: its selection weight, less its share of the freeze mask

    /// 0..1 times `scale`.
    float weight(Vec3f place) const;
    void weights(std::span<const Vec3f> places, std::span<float> out) const;
    bool threadSafe() const { return !weightFunction || weightFunction.threadSafe; }
    /// False where no place of the box has a weight.
    bool reaches(Vec3f low, Vec3f high) const;
    /// False only where `reaches` is false for every box inside.
    bool mayReachWithin(Vec3f low, Vec3f high) const;

private:
    bool sphereReaches(Vec3f low, Vec3f high) const;
};

}  // namespace corvelle
