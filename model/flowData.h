#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/scalpMesh.h"
#include "model/strandRoot.h"

namespace corvelle {

/// An arrow laid on the scalp. `d0` and `d1` are its shares along the triangle's first edge, made
/// unit, and along normal x edge, so that it follows the pose.
struct FlowPin {
    StrandRoot at;
    float d0 = 1.0f, d1 = 0.0f;
    std::int32_t line = -1;  ///< the drag it came from; -1: none
    friend bool operator==(const FlowPin&, const FlowPin&) = default;
};

/// A place hair turns around.
struct FlowSink {
    StrandRoot at;
    float angle = 0.0f;   ///< degrees from the direction away from it: 70 a whorl, -70 clockwise,
                          ///< 180 converge, 0 part
    float radius = 1.0f;  ///< cm
    friend bool operator==(const FlowSink&, const FlowSink&) = default;
};

/// The flow of a groom, as its document holds it.
struct FlowData {
    std::vector<FlowPin> pins;
    std::vector<FlowSink> sinks;
    bool empty() const { return pins.empty() && sinks.empty(); }
    friend bool operator==(const FlowData&, const FlowData&) = default;
};

/// Degrees for "whorl", "whorlcw", "converge", "part". Throws std::invalid_argument "flow sink:
/// unknown kind '<word>' (whorl, whorlcw, converge, part)".
float flowSinkAngle(std::string_view kind);

/// Throws std::invalid_argument "flow pin: not a point on the scalp", or "flow pin: the direction
/// is along the surface normal" when less than 1e-8 is left beside it.
FlowPin flowPin(const ScalpMesh& scalp, const StrandRoot& point, Vec3f direction);
/// Unit, groom space, in the triangle's plane.
Vec3f flowPinDirection(const ScalpMesh& scalp, const FlowPin& pin);

/// Blank text, or {"pins": [{"dir": [d0, d1, 0], "face", "line", "u", "v"}, ...], "sinks":
/// [{"angle", "face", "radius", "u", "v"}, ...], "version": 1}; `line` only where it is not -1.
/// Throws: std::invalid_argument "flow data version is newer than this Corvelle supports", or
/// naming
///         the pin or sink and the field that is wrong; what the JSON library says for a missing
///         key and for text that is no JSON.
FlowData readFlowData(std::string_view text);
/// The same text back, keys ascending, floats in their shortest form; empty for no flow.
std::string flowDataJson(const FlowData& data);

/// Every point moved to the nearest one of the new scalp, directions tipped with the surface; those
/// on no triangle of the old one are left out. Throws std::invalid_argument "transfer: the new
/// scalp has no faces".
FlowData transferFlow(const FlowData& data, const ScalpMesh& from, const ScalpMesh& to);

/// The flow as a field of directions over one scalp. Immutable, any thread may read.
///
/// Pins: the 6 nearest, each weighed by (far / (far / 4 + d^2))^2, with d its distance and far the
/// largest d^2 of the six. Sinks: within its radius R a sink at distance r sends hair away from it,
/// turned by its angle about the normal, with a weight that is 1 up to 0.35 R and falls smoothly to
/// 0 at R, r counted in the surface's plane; it says nothing of places more than R above or below
/// it, as on the other side of a head. With W the weights' sum, at most 1, the field is (1 - W) of
/// the pins' and the sinks' weighted directions, made unit.
class FlowField {
public:
    virtual ~FlowField() = default;
    /// Unit and in the tangent plane of `normal` (unit); zero where nothing reaches.
    virtual Vec3f at(Vec3f position, Vec3f normal) const = 0;
    virtual bool empty() const = 0;
    virtual std::uint64_t hash() const = 0;
};
/// Points on no triangle of the scalp are left out.
std::shared_ptr<const FlowField> flowFieldOn(const FlowData& data, const ScalpPtr& scalp);

}  // namespace corvelle
