#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "model/floatText.h"
#include "model/guideHierarchy.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kVersion = 1;

// Writing

template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

void appendText(std::string& out, const std::string& text) { out += Json(text).dump(); }

void appendVector(std::string& out, Vec3f v) {
    appendFloat32(out, v.x);
    out += ',';
    appendFloat32(out, v.y);
    out += ',';
    appendFloat32(out, v.z);
}

void appendVectors(std::string& out, const char* key, std::span<const Vec3f> vectors) {
    out += key;
    for (std::size_t i = 0; i < vectors.size(); ++i) {
        if (i > 0) out += ',';
        appendVector(out, vectors[i]);
    }
    out += ']';
}

void appendFloats(std::string& out, std::span<const float> values) {
    out += '[';
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out += ',';
        appendFloat32(out, values[i]);
    }
    out += ']';
}

void appendValue(std::string& out, float value) { appendFloat32(out, value); }
void appendValue(std::string& out, const std::vector<float>& values) { appendFloats(out, values); }

template <class Map>
void appendMap(std::string& out, const char* key, const Map& map) {
    if (map.empty()) return;
    out += key;
    bool first = true;
    for (const auto& [name, value] : map) {
        if (!first) out += ',';
        first = false;
        appendText(out, name);
        out += ':';
        appendValue(out, value);
    }
    out += '}';
}

void appendGuide(std::string& out, const Guide& guide) {
    out += "{\"id\":";
    appendInteger(out, guide.id);
    out += ",\"group\":";
    appendInteger(out, guide.group);
    out += ",\"root\":[";
    appendInteger(out, guide.root.triangle);
    out += ',';
    appendFloat32(out, guide.root.u);
    out += ',';
    appendFloat32(out, guide.root.v);
    out += "],\"frameUp\":[";
    appendVector(out, guide.frameUp);
    out += ']';
    if (!guide.tubeRadius.empty() || guide.tubeTwist != 0.0f || std::signbit(guide.tubeTwist)) {
        out += ",\"tube\":{\"radius\":";
        appendFloats(out, guide.tubeRadius);
        out += ",\"twist\":";
        appendFloat32(out, guide.tubeTwist);
        out += '}';
    }
    if (guide.parent != 0) {
        out += ",\"parent\":";
        appendInteger(out, guide.parent);
    }
    if (guide.locked) out += ",\"locked\":true";
    appendMap(out, ",\"attributes\":{", guide.attributes);
    appendMap(out, ",\"pointAttributes\":{", guide.pointAttributes);
    if (guide.follows()) {
        appendVectors(out, ",\"offsets\":[", guide.offsets);
        appendVectors(out, ",\"rootLocal\":[", {&guide.rootLocal, 1});
        appendVectors(out, ",\"frameUpLocal\":[", {&guide.frameUpLocal, 1});
    } else {
        appendVectors(out, ",\"points\":[", guide.points);
    }
    out += '}';
}

// Reading. `owner` names the record in messages: "guide 7", "guide group 2".

[[noreturn]] void fail(const std::string& owner, const std::string& text) {
    throw std::invalid_argument(owner + ": " + text);
}

const Json& need(const Json& object, const char* key, const std::string& owner) {
    const auto found = object.find(key);
    if (found == object.end())
        throw std::invalid_argument("key '" + std::string(key) + "' not found: " + owner);
    return *found;
}

template <class Integer>
Integer readInteger(const Json& value, const char* key, const std::string& owner) {
    const auto inRange = [&](auto number) { return std::in_range<Integer>(number); };
    if (value.is_number_unsigned() && inRange(value.get<std::uint64_t>()))
        return Integer(value.get<std::uint64_t>());
    if (value.is_number_integer() && !value.is_number_unsigned() &&
        inRange(value.get<std::int64_t>()))
        return Integer(value.get<std::int64_t>());
    fail(owner, "'" + std::string(key) + "' is a whole number from " +
                    std::to_string(std::numeric_limits<Integer>::min()) + " to " +
                    std::to_string(std::numeric_limits<Integer>::max()));
}

float readFloat(const Json& value, const std::string& key, const std::string& owner) {
    if (!value.is_number()) fail(owner, "'" + key + "' holds something that is not a number");
    const double number = value.get<double>();
    // From half a step above the largest float on, rounding gives an infinity.
    if (!(std::abs(number) < 0x1.ffffffp+127))
        fail(owner, "'" + key + "' holds a number beyond the range of 32-bit floats");
    return float(number);
}

std::vector<float> readFloats(const Json& value, const std::string& key, const std::string& owner) {
    if (!value.is_array()) fail(owner, "'" + key + "' is a list of numbers");
    std::vector<float> out;
    out.reserve(value.size());
    for (const Json& element : value) out.push_back(readFloat(element, key, owner));
    return out;
}

std::vector<Vec3f> readPoints(const Json& value, const std::string& key, const std::string& owner) {
    if (!value.is_array()) fail(owner, "'" + key + "' is a list of numbers, three per point");
    if (value.size() % 3 != 0)
        throw std::invalid_argument("point array length is not a multiple of 3: " + owner + ", '" +
                                    key + "'");
    std::vector<Vec3f> out(value.size() / 3);
    for (std::size_t i = 0; i < value.size(); ++i)
        out[i / 3][int(i % 3)] = readFloat(value[i], key, owner);
    return out;
}

Vec3f readVector(const Json& value, const std::string& key, const std::string& owner) {
    if (!value.is_array() || value.size() != 3) fail(owner, "'" + key + "' is three numbers");
    return readPoints(value, key, owner).front();
}

StrandRoot readRoot(const Json& value, const std::string& owner) {
    if (!value.is_array() || value.size() != 3)
        fail(owner, "'root' is three numbers: triangle, u, v");
    return {.triangle = readInteger<std::int32_t>(value[0], "root", owner),
            .u = readFloat(value[1], "root", owner),
            .v = readFloat(value[2], "root", owner)};
}

const Json& needObject(const Json& value, const std::string& key, const std::string& owner) {
    if (!value.is_object()) fail(owner, "'" + key + "' is an object");
    return value;
}

GuideGroup readGroup(const Json& value, std::size_t number) {
    std::string owner = "guide group number " + std::to_string(number);
    if (!value.is_object()) fail(owner, "a group is an object");
    GuideGroup group;
    const Json& name = need(value, "name", owner);
    if (!name.is_string()) fail(owner, "'name' is a text");
    group.name = name.get<std::string>();
    owner = "guide group '" + group.name + "'";
    if (const auto found = value.find("id"); found != value.end()) {
        group.id = readInteger<std::uint32_t>(*found, "id", owner);
        if (group.id == 0) fail(owner, "'id' is a positive integer");
    }
    if (const auto found = value.find("parent"); found != value.end())
        group.parent = readInteger<std::uint32_t>(*found, "parent", owner);
    return group;
}

Guide readGuide(const Json& value, std::size_t number) {
    std::string owner = "guide number " + std::to_string(number);
    if (!value.is_object()) fail(owner, "a guide is an object");
    Guide guide;
    guide.id = readInteger<std::uint64_t>(need(value, "id", owner), "id", owner);
    if (guide.id == 0) fail(owner, "a guide ID is a positive integer");
    owner = "guide " + std::to_string(guide.id);
    guide.group = readInteger<std::uint32_t>(need(value, "group", owner), "group", owner);
    guide.root = readRoot(need(value, "root", owner), owner);
    if (const auto found = value.find("parent"); found != value.end())
        guide.parent = readInteger<std::uint64_t>(*found, "parent", owner);
    if (const auto found = value.find("locked"); found != value.end()) {
        if (!found->is_boolean()) fail(owner, "'locked' is true or false");
        guide.locked = found->get<bool>();
    }
    if (guide.follows()) {
        guide.offsets = readPoints(need(value, "offsets", owner), "offsets", owner);
        guide.rootLocal = readVector(need(value, "rootLocal", owner), "rootLocal", owner);
        guide.frameUpLocal = readVector(need(value, "frameUpLocal", owner), "frameUpLocal", owner);
    } else {
        guide.points = readPoints(need(value, "points", owner), "points", owner);
    }
    guide.frameUp = readVector(need(value, "frameUp", owner), "frameUp", owner);
    if (const auto found = value.find("tube"); found != value.end()) {
        needObject(*found, "tube", owner);
        if (const auto radius = found->find("radius"); radius != found->end())
            guide.tubeRadius = readFloats(*radius, "tube.radius", owner);
        if (const auto twist = found->find("twist"); twist != found->end())
            guide.tubeTwist = readFloat(*twist, "tube.twist", owner);
    }
    if (const auto found = value.find("attributes"); found != value.end())
        for (const auto& [name, element] : needObject(*found, "attributes", owner).items())
            guide.attributes[name] = readFloat(element, "attributes." + name, owner);
    if (const auto found = value.find("pointAttributes"); found != value.end())
        for (const auto& [name, element] : needObject(*found, "pointAttributes", owner).items())
            guide.pointAttributes[name] = readFloats(element, "pointAttributes." + name, owner);
    return guide;
}

void checkVersion(const Json& document) {
    const auto found = document.find("version");
    if (found == document.end()) return;
    const std::string text =
        "guide data version " + found->dump(-1, ' ', false, Json::error_handler_t::replace);
    if (!found->is_number_integer()) throw std::invalid_argument(text + " is not a whole number");
    const bool huge =
        found->is_number_unsigned() && found->get<std::uint64_t>() > std::uint64_t(kVersion);
    if (huge)
        throw std::invalid_argument(text + " is newer than this Corvelle supports (" +
                                    std::to_string(kVersion) + "); update Corvelle to open it");
    if (found->get<std::int64_t>() < 1) throw std::invalid_argument(text + " is not valid");
    if (found->get<std::int64_t>() < kVersion)
        throw std::invalid_argument(text + " is older than this Corvelle reads (" +
                                    std::to_string(kVersion) + ")");
}

const Json& needList(const Json& document, const char* key) {
    const Json& list = need(document, key, "guide data");
    if (!list.is_array()) fail("guide data", "'" + std::string(key) + "' is a list");
    return list;
}

}  // namespace

std::string guidesToJson(const GuideHierarchy& hierarchy) {
    std::size_t floats = 0;
    for (const GuidePtr& guide : hierarchy.guides()) floats += 3 * guide->points.size() + 12;
    std::string out;
    out.reserve(64 + 10 * floats + 64 * hierarchy.size());
    out += "{\"groups\":[";
    for (const GuideGroup& group : hierarchy.groups()) {
        if (out.back() != '[') out += ',';
        out += "{\"id\":";
        appendInteger(out, group.id);
        out += ",\"name\":";
        appendText(out, group.name);
        out += ",\"parent\":";
        appendInteger(out, group.parent);
        out += '}';
    }
    out += "],\"guides\":[";
    for (const GuidePtr& guide : hierarchy.guides()) {
        if (out.back() != '[') out += ',';
        appendGuide(out, *guide);
    }
    out += ']';
    if (hierarchy.scalpTopology() != 0) {
        out += ",\"scalpTopology\":";
        appendInteger(out, hierarchy.scalpTopology());
    }
    out += ",\"version\":";
    appendInteger(out, kVersion);
    out += '}';
    return out;
}

GuideHierarchy guidesFromJson(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    text = text.substr(first, text.find_last_not_of(kBlank) - first + 1);

    const Json document = Json::parse(text);
    if (!document.is_object()) throw std::invalid_argument("guide data is a JSON object");
    checkVersion(document);
    std::vector<GuideGroup> groups;
    for (const Json& value : needList(document, "groups"))
        groups.push_back(readGroup(value, groups.size()));
    std::uint32_t highest = 0;
    for (const GuideGroup& group : groups) highest = std::max(highest, group.id);
    for (GuideGroup& group : groups) {
        if (group.id != 0) continue;
        if (highest == std::numeric_limits<std::uint32_t>::max())
            fail("guide group '" + group.name + "'", "no group id is left, give 'id'");
        group.id = ++highest;
    }
    std::vector<Guide> guides;
    for (const Json& value : needList(document, "guides"))
        guides.push_back(readGuide(value, guides.size()));
    std::uint64_t topology = 0;
    if (const auto found = document.find("scalpTopology"); found != document.end())
        topology = readInteger<std::uint64_t>(*found, "scalpTopology", "guide data");
    return GuideHierarchy::restore(std::move(groups), std::move(guides), topology);
}

}  // namespace corvelle
