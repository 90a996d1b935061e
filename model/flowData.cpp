#include "model/flowData.h"

#include <array>
#include <cmath>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "model/elementary.h"
#include "model/floatText.h"
#include "model/rootTransfer.h"
#include "model/surfaceJson.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

[[noreturn]] void fail(const std::string& text) { throw std::invalid_argument(text); }

constexpr std::pair<std::string_view, float> kSinkKinds[] = {
    {"whorl", 70.0f}, {"whorlcw", -70.0f}, {"converge", 180.0f}, {"part", 0.0f}};

/// The unit axes of a triangle that pins count their direction along; zero for one without an area.
struct TriangleAxes {
    Vec3f first, second;
};
TriangleAxes axesOf(const ScalpMesh& scalp, std::int32_t triangle) {
    const Triangle& corners = scalp.triangles()[std::size_t(triangle)];
    const Vec3f normal = scalp.faceNormal(triangle);
    const Vec3f first = normalized(scalp.points()[corners[1]] - scalp.points()[corners[0]]);
    return {first, normalized(cross(normal, first))};
}

/// `direction` along the triangle's axes, its length 1; false when nothing is left of it there.
bool alongTriangle(const ScalpMesh& scalp, std::int32_t triangle, Vec3f direction, FlowPin& pin) {
    constexpr double kLeast = 1e-8;
    constexpr double kRounding =
        1e-6;  // of the direction's length: all that floats leave beside it
    const TriangleAxes axes = axesOf(scalp, triangle);
    const auto along = [&](Vec3f axis) {
        return double(direction.x) * axis.x + double(direction.y) * axis.y +
               double(direction.z) * axis.z;
    };
    const double d0 = along(axes.first), d1 = along(axes.second);
    const double left = math::hypot(d0, d1);
    const double size = math::hypot(double(direction.x), double(direction.y), double(direction.z));
    if (!(left >= std::max(kLeast, kRounding * size)) || !std::isfinite(left)) return false;
    pin.d0 = float(d0 / left);
    pin.d1 = float(d1 / left);
    return true;
}

StrandRoot readPlace(const Json& object, const std::string& owner) {
    return {readIndex(object.at("face"), owner, "'face'"), readFloat32(object.at("u"), owner, "u"),
            readFloat32(object.at("v"), owner, "v")};
}

FlowPin readPin(const Json& object, const std::string& owner) {
    FlowPin pin{.at = readPlace(object, owner)};
    const Json& dir = object.at("dir");
    if (!dir.is_array() || dir.size() != 3) fail(owner + ": 'dir' is a list of three numbers");
    pin.d0 = readFloat32(dir[0], owner, "dir");
    pin.d1 = readFloat32(dir[1], owner, "dir");
    readFloat32(dir[2], owner, "dir");  // along the normal: a pin has no share there
    if (const auto line = object.find("line"); line != object.end())
        pin.line = readIndex(*line, owner, "'line'");
    return pin;
}

FlowSink readSink(const Json& object, const std::string& owner) {
    return {.at = readPlace(object, owner),
            .angle = readFloat32(object.at("angle"), owner, "angle"),
            .radius = readFloat32(object.at("radius"), owner, "radius")};
}

/// The objects under `key`, none when it is missing.
template <class Item>
std::vector<Item> readList(const Json& document, const char* key, const char* what,
                           Item (*read)(const Json&, const std::string&)) {
    std::vector<Item> items;
    const auto found = document.find(key);
    if (found == document.end()) return items;
    if (!found->is_array()) fail(std::string("flow data: '") + key + "' is a list");
    for (const Json& value : *found) {
        const std::string owner = what + (" number " + std::to_string(items.size()));
        if (!value.is_object()) fail(owner + ": not an object");
        items.push_back(read(value, owner));
    }
    return items;
}

/// Opens the next object of a list.
void open(std::string& out) { out += out.back() == '[' ? "{" : ",{"; }
void write(std::string& out, const char* key, float value) {
    out += key;
    appendFloat32(out, value);
}
void writePlace(std::string& out, const StrandRoot& at) {
    write(out, ",\"u\":", at.u);
    write(out, ",\"v\":", at.v);
    out += '}';
}

}  // namespace

float flowSinkAngle(std::string_view kind) {
    for (const auto& [word, angle] : kSinkKinds)
        if (word == kind) return angle;
    fail("flow sink: unknown kind '" + std::string(kind) + "' (whorl, whorlcw, converge, part)");
}

FlowPin flowPin(const ScalpMesh& scalp, const StrandRoot& point, Vec3f direction) {
    FlowPin pin{.at = point};
    if (!scalp.validRoot(point) || !std::isfinite(point.u) || !std::isfinite(point.v))
        fail("flow pin: not a point on the scalp");
    if (!alongTriangle(scalp, point.triangle, direction, pin))
        fail("flow pin: the direction is along the surface normal");
    return pin;
}

Vec3f flowPinDirection(const ScalpMesh& scalp, const FlowPin& pin) {
    if (!scalp.validRoot(pin.at)) return {};
    const TriangleAxes axes = axesOf(scalp, pin.at.triangle);
    return normalized(axes.first * pin.d0 + axes.second * pin.d1);
}

FlowData readFlowData(std::string_view text) {
    text = trimmedText(text);
    if (text.empty()) return {};
    const Json document = Json::parse(text);
    if (!document.is_object()) fail("flow data is a JSON object");
    checkVersion(document, "flow data");
    return {.pins = readList(document, "pins", "flow pin", readPin),
            .sinks = readList(document, "sinks", "flow sink", readSink)};
}

std::string flowDataJson(const FlowData& data) {
    if (data.empty()) return {};
    std::string out = "{\"pins\":[";
    for (const FlowPin& pin : data.pins) {
        open(out);
        write(out, "\"dir\":[", pin.d0);
        write(out, ",", pin.d1);
        out += ",0],\"face\":" + std::to_string(pin.at.triangle);
        if (pin.line != -1) out += ",\"line\":" + std::to_string(pin.line);
        writePlace(out, pin.at);
    }
    out += "],\"sinks\":[";
    for (const FlowSink& sink : data.sinks) {
        open(out);
        write(out, "\"angle\":", sink.angle);
        out += ",\"face\":" + std::to_string(sink.at.triangle);
        write(out, ",\"radius\":", sink.radius);
        writePlace(out, sink.at);
    }
    return out + "],\"version\":1}";
}

FlowData transferFlow(const FlowData& data, const ScalpMesh& from, const ScalpMesh& to) {
    if (to.triangles().empty()) fail("transfer: the new scalp has no faces");
    FlowData out;
    for (const FlowPin& pin : data.pins) {
        FlowPin moved{.line = pin.line};
        if (!nearestRoot(pin.at, from, to, moved.at)) continue;
        // Tipped from the old face onto the new one, so that a steep one keeps the arrow too.
        const Rotation tip =
            Rotation::shortest(from.faceNormal(pin.at.triangle), to.faceNormal(moved.at.triangle));
        if (alongTriangle(to, moved.at.triangle, tip(flowPinDirection(from, pin)), moved))
            out.pins.push_back(moved);
    }
    for (const FlowSink& sink : data.sinks) {
        FlowSink moved = sink;
        if (nearestRoot(sink.at, from, to, moved.at)) out.sinks.push_back(moved);
    }
    return out;
}

}  // namespace corvelle
