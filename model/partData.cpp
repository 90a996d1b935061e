#include "model/partData.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "model/floatText.h"
#include "model/hash.h"
#include "model/rootTransfer.h"
#include "model/surfaceJson.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kVersion = 1;

[[noreturn]] void fail(const std::string& text) { throw std::invalid_argument(text); }

const Json& need(const Json& object, const char* key, const std::string& owner) {
    const auto found = object.find(key);
    if (found == object.end()) fail("key '" + std::string(key) + "' not found: " + owner);
    return *found;
}

StrandRoot readPoint(const Json& value, const std::string& owner) {
    if (!value.is_array() || value.size() != 3)
        fail(owner + ": 'points' is a list of [triangle, u, v]");
    return {readIndex(value[0], owner, "a point's triangle"),
            readFloat32(value[1], owner, "points"), readFloat32(value[2], owner, "points")};
}

struct Box {
    Vec3f low{3e38f, 3e38f, 3e38f}, high{-3e38f, -3e38f, -3e38f};
    void add(const Box& other) {
        low = componentMin(low, other.low);
        high = componentMax(high, other.high);
    }
    bool meets(const Box& other) const {
        return low.x <= other.high.x && low.y <= other.high.y && low.z <= other.high.z &&
               other.low.x <= high.x && other.low.y <= high.y && other.low.z <= high.z;
    }
    float distanceSquared(Vec3f p) const {
        const Vec3f out = componentMax(componentMax(low - p, p - high), Vec3f{});
        return lengthSquared(out);
    }
};

Box boxOf(Vec3f a, Vec3f b, float margin) {
    const Vec3f m{margin, margin, margin};
    return {componentMin(a, b) - m, componentMax(a, b) + m};
}

struct Point3 {
    double x = 0.0, y = 0.0, z = 0.0;
};
Point3 wide(Vec3f a) { return {a.x, a.y, a.z}; }
Point3 along(Vec3f p, Vec3f n, double height) {
    return {p.x + n.x * height, p.y + n.y * height, p.z + n.z * height};
}

/// Six times the volume of a tetrahedron: above 0 when d sees a, b, c turn clockwise.
double volume(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
    const Point3 u{a.x - d.x, a.y - d.y, a.z - d.z}, v{b.x - d.x, b.y - d.y, b.z - d.z},
        w{c.x - d.x, c.y - d.y, c.z - d.z};
    return u.x * (v.y * w.z - v.z * w.y) + u.y * (v.z * w.x - v.x * w.z) +
           u.z * (v.x * w.y - v.y * w.x);
}

/// True when the segment from p to q goes through the triangle; its border counts, so that
/// triangles which share an edge leave no slit. An end that lies in the triangle's plane counts as
/// above it.
bool crosses(const Point3& p, const Point3& q, const Point3& a, const Point3& b, const Point3& c) {
    if ((volume(a, b, c, p) >= 0.0) == (volume(a, b, c, q) >= 0.0)) return false;
    const double ab = volume(p, a, b, q), bc = volume(p, b, c, q), ca = volume(p, c, a, q);
    return (ab >= 0.0 && bc >= 0.0 && ca >= 0.0) || (ab <= 0.0 && bc <= 0.0 && ca <= 0.0);
}

constexpr float kHeightOfWay = 0.4f;  ///< a chord's deepest dip is half its length, mostly far less
constexpr float kHeightOfSegment = 0.25f;

class ScalpParts final : public PartLines {
public:
    ScalpParts(const PartData& data, const ScalpPtr& scalp) {
        hash_ = hashCombine(hashOf("parts"), scalp ? scalp->contentHash() : 0);
        for (const PartLine& line : data.lines) {
            hash_ = hashCombine(hash_, std::uint64_t(line.points.size()));
            hash_ = hashCombine(hash_, hashOf(line.name));
            std::vector<Corner> corners;
            for (const StrandRoot& root : line.points) {
                hash_ = hashCombine(hashCombine(hashCombine(hash_, root.triangle), root.u), root.v);
                if (!scalp || !scalp->validRoot(root)) continue;
                const Vec3f place = scalp->surfacePoint(root);
                if (isFinite(place)) corners.push_back({place, scalp->surfaceNormal(root), 0.0f});
            }
            for (std::size_t i = 0; i + 1 < corners.size(); ++i) {
                const float height =
                    kHeightOfSegment * distance(corners[i].place, corners[i + 1].place);
                corners[i].height = std::max(corners[i].height, height);
                corners[i + 1].height = std::max(corners[i + 1].height, height);
            }
            if (corners.size() < 2) continue;
            const std::int32_t part = numberOf(line.name);
            for (std::size_t i = 0; i + 1 < corners.size(); ++i)
                walls_.push_back({corners[i], corners[i + 1], part});
        }
        if (walls_.empty()) return;
        std::vector<std::uint32_t> order(walls_.size());
        std::iota(order.begin(), order.end(), 0u);
        build(order);
        std::vector<Wall> sorted;
        for (const std::uint32_t w : order) sorted.push_back(walls_[w]);
        walls_.swap(sorted);
        makeTable();
    }

    bool empty() const override { return walls_.empty(); }
    std::uint64_t hash() const override { return hash_; }

    bool separates(Vec3f rootA, Vec3f rootB) const override {
        if (nodes_.empty() || !isFinite(rootA) || !isFinite(rootB)) return false;
        const std::array<float, 3> a{rootA.x, rootA.y, rootA.z}, b{rootB.x, rootB.y, rootB.z};
        if (b < a) std::swap(rootA, rootB);
        const float height = kHeightOfWay * distance(rootA, rootB);
        const Box way = boxOf(rootA, rootB, height);
        const Point3 p = wide(rootA), q = wide(rootB);
        std::uint32_t stack[64];
        int size = 0;
        stack[size++] = 0;
        while (size > 0) {
            const Node& node = nodes_[stack[--size]];
            if (!node.box.meets(way)) continue;
            if (node.count == 0) {
                stack[size++] = node.first;
                stack[size++] = node.first + 1;
                continue;
            }
            for (std::uint32_t w = node.first; w < node.first + node.count; ++w)
                if (crossesWall(walls_[w], p, q, double(height))) return true;
        }
        return false;
    }

    std::int32_t find(std::string_view name) const override {
        const auto found = std::find(names_.begin(), names_.end(), name);
        return found == names_.end() ? -1 : std::int32_t(found - names_.begin());
    }

    bool nearest(Vec3f position, std::int32_t part, float maxDistance,
                 PartPlace& out) const override {
        if (nodes_.empty() || !isFinite(position) || !(maxDistance >= 0.0f)) return false;
        const float limit = maxDistance * maxDistance;
        float best = std::numeric_limits<float>::infinity(), share = 0.0f;
        const PartSegment* found = nullptr;
        for (std::uint32_t n = 0; n < pieces_.size();) {
            const PartNode& node = pieces_[n];
            // The box reaches past the line by the wall's height: rounding cannot lose a line.
            const Box box{{node.low[0], node.low[1], node.low[2]},
                          {node.high[0], node.high[1], node.high[2]}};
            if (box.distanceSquared(position) > std::min(limit, best)) {
                n = node.next;
                continue;
            }
            if (node.next == ++n)
                for (std::uint32_t s = node.begin; s < node.end; ++s) {
                    const PartSegment& segment = segments_[s];
                    if (part >= 0 && segment.part != part) continue;
                    const Vec3f start = vec(segment.start), along = vec(segment.along);
                    const float t = dot(position - start, along);
                    const float at = segment.squared > 0.0f
                                         ? std::min(std::max(t / segment.squared, 0.0f), 1.0f)
                                         : 0.0f;
                    // From the place itself, as it is told: a root on a corner then takes the line
                    // that begins there, whose place has no rounding.
                    const float away = lengthSquared(position - (start + along * at));
                    if (!(away < best)) continue;  // of equal ones the first
                    best = away;
                    share = at;
                    found = &segment;
                }
        }
        if (!found || best > limit) return false;
        out.position = vec(found->start) + vec(found->along) * share;
        out.along = vec(found->way);
        out.distance = std::sqrt(best);
        return true;
    }
    PartTable table() const override {
        return {segments_.data(), pieces_.data(), std::uint32_t(pieces_.size()), samples_.data(),
                std::uint32_t(samples_.size())};
    }

private:
    std::int32_t numberOf(const std::string& name) {
        const std::int32_t known = find(name);
        if (known >= 0) return known;
        names_.push_back(name);
        return std::int32_t(names_.size()) - 1;
    }
    struct Corner {
        Vec3f place, normal;
        float height = 0.0f;  ///< cm, of the wall here for a way of no length
    };
    struct Wall {
        Corner a, b;
        std::int32_t part = 0;  ///< of `names_`
        Box box() const {
            Box box = boxOf(a.place, a.place, a.height);
            box.add(boxOf(b.place, b.place, b.height));
            return box;
        }
    };
    struct Node {
        Box box;
        std::uint32_t first = 0;           ///< the first of two children, or of `count` walls
        std::uint32_t count = 0;           ///< 0 for an inner node
        std::uint32_t begin = 0, end = 0;  ///< the walls below
    };
    static constexpr std::size_t kLeaf = 4;
    /// So many segments are looked at one and all sooner than they are told apart.
    static constexpr std::size_t kScanned = 8;
    static constexpr std::size_t kSamples = 16;

    static Vec3f vec(const float v[3]) { return {v[0], v[1], v[2]}; }
    /// The walls' lines, and the tree over them down to nodes of few.
    void makeTable() {
        const auto store = [](Vec3f v, float to[3]) {
            for (int x = 0; x < 3; ++x) to[x] = v[x];
        };
        for (const Wall& wall : walls_) {
            const Vec3f along = wall.b.place - wall.a.place;
            PartSegment segment;
            store(wall.a.place, segment.start);
            store(along, segment.along);
            store(normalized(along), segment.way);
            segment.squared = lengthSquared(along);
            segment.part = wall.part;
            segments_.push_back(segment);
        }
        const std::size_t step = (walls_.size() + kSamples - 1) / kSamples;
        for (std::size_t s = step / 2; s < walls_.size(); s += step)
            samples_.push_back(std::uint32_t(s));
        addPiece(0);
    }
    /// As deep as the tree, which is halved at every step.
    void addPiece(std::uint32_t node) {
        const std::size_t piece = pieces_.size();
        PartNode added;
        for (int x = 0; x < 3; ++x) {
            added.low[x] = nodes_[node].box.low[x];
            added.high[x] = nodes_[node].box.high[x];
        }
        added.begin = nodes_[node].begin;
        added.end = nodes_[node].end;
        pieces_.push_back(added);
        if (added.end - added.begin > kScanned) {
            addPiece(nodes_[node].first);
            addPiece(nodes_[node].first + 1);
        }
        pieces_[piece].next = std::uint32_t(pieces_.size());
    }

    static bool crossesWall(const Wall& wall, const Point3& p, const Point3& q, double height) {
        const double ha = wall.a.height + height, hb = wall.b.height + height;
        const Point3 aLow = along(wall.a.place, wall.a.normal, -ha),
                     aHigh = along(wall.a.place, wall.a.normal, ha),
                     bLow = along(wall.b.place, wall.b.normal, -hb),
                     bHigh = along(wall.b.place, wall.b.normal, hb);
        return crosses(p, q, aLow, bLow, bHigh) || crosses(p, q, aLow, bHigh, aHigh);
    }

    /// Halves runs of walls at the middle of their longest side, by center, ties by index.
    void build(std::vector<std::uint32_t>& order) {
        struct Task {
            std::uint32_t node;
            std::size_t begin, end;
        };
        nodes_.resize(1);
        std::vector<Task> tasks{{0, 0, order.size()}};
        while (!tasks.empty()) {
            const Task task = tasks.back();
            tasks.pop_back();
            Box box;
            for (std::size_t i = task.begin; i < task.end; ++i) box.add(walls_[order[i]].box());
            nodes_[task.node].box = box;
            nodes_[task.node].begin = std::uint32_t(task.begin);
            nodes_[task.node].end = std::uint32_t(task.end);
            if (task.end - task.begin <= kLeaf) {
                nodes_[task.node].first = std::uint32_t(task.begin);
                nodes_[task.node].count = std::uint32_t(task.end - task.begin);
                continue;
            }
            const Vec3f size = box.high - box.low;
            const int axis = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
            const std::size_t middle = task.begin + (task.end - task.begin) / 2;
            const auto at = [&](std::size_t i) { return order.begin() + std::ptrdiff_t(i); };
            std::nth_element(at(task.begin), at(middle), at(task.end),
                             [&](std::uint32_t u, std::uint32_t v) {
                                 const float cu = walls_[u].a.place[axis] + walls_[u].b.place[axis];
                                 const float cv = walls_[v].a.place[axis] + walls_[v].b.place[axis];
                                 return cu != cv ? cu < cv : u < v;
                             });
            const auto child = std::uint32_t(nodes_.size());
            nodes_[task.node].first = child;
            nodes_.resize(nodes_.size() + 2);
            tasks.push_back({child, task.begin, middle});
            tasks.push_back({child + 1, middle, task.end});
        }
    }

    std::vector<std::string> names_;  ///< of the parts that lie on the scalp
    std::vector<Wall> walls_;         ///< in the leaves' order
    std::vector<Node> nodes_;
    std::vector<PartSegment> segments_;  ///< of the walls in order
    std::vector<PartNode> pieces_;       ///< of the nodes, without the smallest
    std::vector<std::uint32_t> samples_;
    std::uint64_t hash_ = 0;
};

}  // namespace

PartData readPartData(std::string_view text) {
    text = trimmedText(text);
    if (text.empty()) return {};
    const Json document = Json::parse(text);
    if (!document.is_object()) fail("part data is a JSON object");
    checkVersion(document, "part data");
    const Json& parts = need(document, "parts", "part data");
    if (!parts.is_array()) fail("part data: 'parts' is a list");
    PartData data;
    for (const Json& value : parts) {
        std::string owner = "part number " + std::to_string(data.lines.size());
        if (!value.is_object()) fail(owner + ": a part is an object");
        PartLine line;
        const Json& name = need(value, "name", owner);
        if (!name.is_string()) fail(owner + ": 'name' is a text");
        line.name = name.get<std::string>();
        owner = "part '" + line.name + "'";
        const Json& points = need(value, "points", owner);
        if (!points.is_array()) fail(owner + ": 'points' is a list of [triangle, u, v]");
        for (const Json& point : points) line.points.push_back(readPoint(point, owner));
        if (line.points.size() < 2) fail("a part needs at least two points on the scalp");
        data.lines.push_back(std::move(line));
    }
    return data;
}

std::string partDataJson(const PartData& data) {
    if (data.lines.empty()) return {};
    std::string out = "{\"parts\":[";
    for (const PartLine& line : data.lines) {
        if (out.back() != '[') out += ',';
        out += "{\"name\":";
        out += Json(line.name).dump(-1, ' ', false, Json::error_handler_t::replace);
        out += ",\"points\":[";
        for (const StrandRoot& point : line.points) {
            if (out.back() != '[') out += ',';
            out += '[' + std::to_string(point.triangle) + ',';
            appendFloat32(out, point.u);
            out += ',';
            appendFloat32(out, point.v);
            out += ']';
        }
        out += "]}";
    }
    return out + "],\"version\":" + std::to_string(kVersion) + "}";
}

PartData transferParts(const PartData& data, const ScalpMesh& from, const ScalpMesh& to) {
    if (to.triangles().empty()) fail("transfer: the new scalp has no faces");
    PartData out;
    for (const PartLine& line : data.lines) {
        PartLine moved{line.name, {}};
        StrandRoot root;
        for (const StrandRoot& point : line.points)
            if (nearestRoot(point, from, to, root)) moved.points.push_back(root);
        if (moved.points.size() >= 2) out.lines.push_back(std::move(moved));
    }
    return out;
}

std::shared_ptr<const PartLines> partLinesOn(const PartData& data, const ScalpPtr& scalp) {
    return std::make_shared<const ScalpParts>(data, scalp);
}

}  // namespace corvelle
