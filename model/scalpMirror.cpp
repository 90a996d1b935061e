#include "model/scalpMirror.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <mutex>
#include <tuple>
#include <utility>

#include "model/hash.h"

namespace corvelle {
namespace {

constexpr float kTolerance = 1e-3f;  // of the diagonal
constexpr double kValidShare = 0.9;  // of the vertices in use
constexpr std::size_t kMiddles = 8;  // tried along an axis
constexpr std::size_t kKept = 4;     // mirrors kept alive
constexpr std::uint32_t kNone = 0xffffffffu;

/// The mesh as polygons, their corners in order, and who lies beyond each side.
struct Polygons {
    std::vector<std::uint32_t> offsets{0};
    std::vector<std::int32_t> corners;     ///< vertex at each corner; side c runs to the next one
    std::vector<std::uint32_t> polygonOf;  ///< by corner
    std::vector<std::uint32_t> beyond;     ///< by corner: the side that runs back, or kNone

    explicit Polygons(const ScalpMesh& mesh) {
        const std::span<const Triangle> triangles = mesh.triangles();
        std::size_t t = 0;
        const auto add = [&](std::size_t count) {
            if (count == 0) return;
            // A fan: its first triangle, then one corner more of each.
            corners.insert(corners.end(), triangles[t].begin(), triangles[t].end());
            for (std::size_t k = 1; k < count; ++k) corners.push_back(triangles[t + k][2]);
            polygonOf.resize(corners.size(), std::uint32_t(offsets.size() - 1));
            offsets.push_back(std::uint32_t(corners.size()));
            t += count;
        };
        for (const std::int32_t count : mesh.polygons()) add(std::size_t(count));
        while (t < triangles.size()) add(1);
        link();
    }

    std::size_t size() const { return offsets.size() - 1; }
    std::uint32_t next(std::uint32_t corner) const {
        const std::uint32_t polygon = polygonOf[corner];
        return corner + 1 < offsets[polygon + 1] ? corner + 1 : offsets[polygon];
    }
    std::uint32_t before(std::uint32_t corner) const {
        const std::uint32_t polygon = polygonOf[corner];
        return corner > offsets[polygon] ? corner - 1 : offsets[polygon + 1] - 1;
    }
    std::uint32_t sidesOf(std::uint32_t corner) const {
        const std::uint32_t polygon = polygonOf[corner];
        return offsets[polygon + 1] - offsets[polygon];
    }

private:
    void link() {
        struct Side {
            std::int32_t low, high;
            std::uint32_t corner;
        };
        std::vector<Side> sides(corners.size());
        for (std::uint32_t c = 0; c < corners.size(); ++c) {
            const std::int32_t a = corners[c], b = corners[next(c)];
            sides[c] = {std::min(a, b), std::max(a, b), c};
        }
        std::sort(sides.begin(), sides.end(), [](const Side& a, const Side& b) {
            return std::tie(a.low, a.high, a.corner) < std::tie(b.low, b.high, b.corner);
        });
        beyond.assign(corners.size(), kNone);
        for (std::size_t i = 0; i < sides.size();) {
            std::size_t end = i + 1;
            while (end < sides.size() && sides[end].low == sides[i].low &&
                   sides[end].high == sides[i].high)
                ++end;
            const std::uint32_t a = sides[i].corner, b = sides[end - 1].corner;
            // Two polygons that run along it in opposite ways.
            if (end - i == 2 && corners[a] != corners[b]) {
                beyond[a] = b;
                beyond[b] = a;
            }
            i = end;
        }
    }
};

struct Middle {
    float off;  ///< from the middle of the box
    std::uint32_t side;
};

class Walk {
public:
    Walk(const Polygons& polygons, std::size_t vertices)
        : polygons_(polygons), partners_(vertices, -1) {}

    std::vector<std::int32_t> from(std::uint32_t side) {
        std::vector<bool> seen(polygons_.size(), false);
        std::deque<std::pair<std::uint32_t, std::uint32_t>> open;
        const auto push = [&](std::uint32_t a, std::uint32_t b) {
            if (a == kNone || b == kNone || seen[polygons_.polygonOf[a]]) return;
            if (polygons_.sidesOf(a) != polygons_.sidesOf(b)) return;
            seen[polygons_.polygonOf[a]] = true;
            open.emplace_back(a, b);
        };
        // Side a runs p -> q, its image b runs image(q) -> image(p).
        push(side, polygons_.beyond[side]);
        while (!open.empty()) {
            auto [a, b] = open.front();
            open.pop_front();
            const std::uint32_t count = polygons_.sidesOf(a);
            b = polygons_.next(b);
            for (std::uint32_t k = 0; k < count; ++k) {
                pair(polygons_.corners[a], polygons_.corners[b]);
                const std::uint32_t imageSide = polygons_.before(b);
                push(polygons_.beyond[a], polygons_.beyond[imageSide]);
                a = polygons_.next(a);
                b = imageSide;
            }
        }
        // Partners are each other's.
        std::vector<std::int32_t> out = partners_;
        for (std::size_t v = 0; v < out.size(); ++v)
            if (out[v] >= 0 && partners_[std::size_t(out[v])] != std::int32_t(v)) out[v] = -1;
        return out;
    }

private:
    void pair(std::int32_t a, std::int32_t b) {
        if (partners_[std::size_t(a)] < 0) partners_[std::size_t(a)] = b;
    }
    const Polygons& polygons_;
    std::vector<std::int32_t> partners_;
};

}  // namespace

ScalpMirror::ScalpMirror(const ScalpMesh& mesh) {
    const std::span<const Vec3f> points =
        mesh.restPoints().empty() ? mesh.points() : mesh.restPoints();
    if (mesh.triangles().empty()) return;
    const Polygons polygons(mesh);
    std::vector<bool> used(points.size(), false);
    Vec3f low = points[std::size_t(polygons.corners[0])], high = low;
    for (const std::int32_t v : polygons.corners) {
        used[std::size_t(v)] = true;
        low = componentMin(low, points[std::size_t(v)]);
        high = componentMax(high, points[std::size_t(v)]);
    }
    const auto inUse = std::size_t(std::count(used.begin(), used.end(), true));
    const float tolerance = kTolerance * distance(low, high);
    const auto at = [&](std::uint32_t corner) {
        return points[std::size_t(polygons.corners[corner])];
    };

    std::size_t most = 0;
    for (const int axis : {0, 2, 1}) {
        const float middle = 0.5f * (low[axis] + high[axis]);
        // The two polygons of a side that lies across the axis, corner for corner.
        const auto reflects = [&](std::uint32_t side) {
            std::uint32_t a = side, b = polygons.beyond[side];
            if (polygons.sidesOf(a) != polygons.sidesOf(b)) return false;
            const float plane = at(a)[axis];
            const std::uint32_t count = polygons.sidesOf(a);
            b = polygons.next(b);
            bool off = false;
            for (std::uint32_t k = 0; k < count; ++k) {
                Vec3f image = at(a);
                image[axis] = 2.0f * plane - image[axis];
                if (!(distance(image, at(b)) <= tolerance)) return false;
                off = off || std::abs(at(a)[axis] - plane) > tolerance;
                a = polygons.next(a);
                b = polygons.before(b);
            }
            return off;
        };
        std::vector<Middle> middles;
        for (std::uint32_t side = 0; side < polygons.corners.size(); ++side) {
            const std::uint32_t beyond = polygons.beyond[side];
            if (beyond == kNone || beyond < side) continue;
            if (std::abs(at(side)[axis] - at(polygons.next(side))[axis]) > tolerance) continue;
            if (reflects(side)) middles.push_back({std::abs(at(side)[axis] - middle), side});
        }
        std::sort(middles.begin(), middles.end(), [](const Middle& a, const Middle& b) {
            return std::tie(a.off, a.side) < std::tie(b.off, b.side);
        });
        float tried = -1.0f;
        std::size_t walks = 0;
        for (const Middle& candidate : middles) {
            if (walks > 0 && candidate.off <= tried + tolerance) continue;  // the same middle
            if (walks++ == kMiddles) break;
            tried = candidate.off;
            std::vector<std::int32_t> found = Walk(polygons, points.size()).from(candidate.side);
            const auto paired = std::size_t(
                std::count_if(found.begin(), found.end(), [](std::int32_t v) { return v >= 0; }));
            if (paired <= most) continue;
            most = paired;
            axis_ = axis;
            partners_ = std::move(found);
            valid_ = most > 2 && double(most) >= kValidShare * double(inUse);
            if (valid_) return;
        }
    }
}

std::shared_ptr<const ScalpMirror> ScalpMirror::of(const ScalpPtr& mesh) {
    struct Entry {
        std::uint64_t key;
        std::shared_ptr<const ScalpMirror> mirror;
    };
    static std::mutex mutex;
    static std::deque<Entry> kept;
    std::uint64_t key = hashCombine(mesh->restHash(), mesh->topologyHash());
    for (const std::int32_t count : mesh->polygons()) key = hashCombine(key, count);
    const auto look = [&]() -> std::shared_ptr<const ScalpMirror> {
        for (const Entry& entry : kept)
            if (entry.key == key) return entry.mirror;
        return nullptr;
    };
    {
        const std::lock_guard lock(mutex);
        if (auto found = look()) return found;
    }
    auto made = std::make_shared<const ScalpMirror>(*mesh);
    const std::lock_guard lock(mutex);
    if (auto found = look()) return found;
    kept.push_front({key, made});
    if (kept.size() > kKept) kept.pop_back();
    return made;
}

std::optional<std::array<Vec3f, 3>> ScalpMirror::mirroredCorners(const ScalpMesh& mesh,
                                                                 std::int32_t triangle) const {
    if (!valid_ || !mesh.validRoot({triangle, 0.0f, 0.0f}) ||
        mesh.points().size() != partners_.size())
        return {};
    std::array<Vec3f, 3> corners;
    for (std::size_t k = 0; k < 3; ++k) {
        const std::int32_t vertex = mesh.triangles()[std::size_t(triangle)][k];
        const std::int32_t partner = partners_[std::size_t(vertex)];
        if (partner < 0) return {};
        corners[k] = mesh.points()[std::size_t(partner)];
    }
    return corners;
}

std::optional<Vec3f> ScalpMirror::mirroredPlace(const ScalpMesh& mesh,
                                                const StrandRoot& root) const {
    const auto corners = mirroredCorners(mesh, root.triangle);
    if (!corners) return {};
    return root.u * (*corners)[0] + root.v * (*corners)[1] +
           (1.0f - root.u - root.v) * (*corners)[2];
}

}  // namespace corvelle
