#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "model/bvh.h"
#include "model/bvhStack.h"
#include "model/simd4.h"
#include "model/triangleQueries.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kWider = 1.00001f;  ///< slab tests round

Float4 lanesOf(Vec3f v) {
    alignas(16) const float lanes[4] = {v.x, v.y, v.z, 0.0f};
    return Float4::load(lanes);
}

Float4 magnitude(Float4 a) { return upper(a, Float4(0.0f) - a); }

/// A ray as boxes meet it, in lanes x, y and z; the fourth is of no use.
struct SlabRay {
    Float4 above, below;  ///< the origin, by the boxes' pad more and less
    Float4 inverse;       ///< of the direction: finite for a zero component

    SlabRay() = default;
    SlabRay(Float4 origin, Float4 direction, float pad)
        : above(origin + Float4(pad)), below(origin - Float4(pad)) {
        const Float4 zero(0.0f), least(1e-30f), most(1e30f);
        inverse = select(magnitude(direction) < least, select(direction < zero, zero - most, most),
                         Float4(1.0f) / direction);
    }
};

}  // namespace

/// A ray on its way through the tree.
struct alignas(16) Bvh::Ray {
    SlabRay slabs;
    Float4 origin, direction;
    ShearedRay sheared;
    float pad;
    float best;  ///< nothing past it is looked for
    std::int32_t triangle = -1;

    /// The direction is not zero, and all is finite.
    Ray(const Bvh& bvh, Vec3f from, Vec3f along, float maxT)
        : origin(lanesOf(from)), direction(lanesOf(along)), sheared(from, along) {
        // The triangle test rounds by ulps of the distance from the origin; the boxes give that
        // way.
        const Vec3f far = componentMax(componentMax(bvh.high_ - from, from - bvh.low_), Vec3f{});
        pad = 4e-6f * std::max({far.x, far.y, far.z});
        best = maxT;
        slabs = SlabRay(origin, direction, pad);
    }

    SlabRay turned(const OrientedNode& n) const {
        const Float4 x = Float4::load(n.columns[0]), y = Float4::load(n.columns[1]),
                     z = Float4::load(n.columns[2]);
        const Vec3f& from = sheared.origin;
        return {x * Float4(from.x - n.columns[0][3]) + y * Float4(from.y - n.columns[1][3]) +
                    z * Float4(from.z - n.columns[2][3]),
                x * spread<0>(direction) + y * spread<1>(direction) + z * spread<2>(direction),
                pad};
    }

    /// The boxes it may hit something in, a bit each, and where it enters them.
    static int meets(const Boxes4& boxes, const SlabRay& ray, float best, Float4& entries) {
        Float4 tNear(0.0f), tFar(FLT_MAX);
        const auto slab = [&](const float* low, const float* high, Float4 above, Float4 below,
                              Float4 inverse) {
            const Float4 a = (Float4::load(low) - above) * inverse;
            const Float4 b = (Float4::load(high) - below) * inverse;
            tNear = upper(lower(a, b), tNear);
            tFar = lower(upper(a, b), tFar);
        };
        slab(boxes.minX, boxes.maxX, spread<0>(ray.above), spread<0>(ray.below),
             spread<0>(ray.inverse));
        slab(boxes.minY, boxes.maxY, spread<1>(ray.above), spread<1>(ray.below),
             spread<1>(ray.inverse));
        slab(boxes.minZ, boxes.maxZ, spread<2>(ray.above), spread<2>(ray.below),
             spread<2>(ray.inverse));
        // An empty child has its sides swapped and infinite: told by its box, not by the slabs.
        const Mask4 filled = Float4::load(boxes.minX) <= Float4::load(boxes.maxX);
        const Float4 wider(kWider);
        entries = tNear;
        return laneBits((tNear <= tFar * wider) & (tNear <= Float4(best) * wider) & filled);
    }

    /// The triangles of a block that it may hit, a bit each: those whose corners are not surely on
    /// both sides of it. The edge functions of `intersectTriangle` in floats, which are wrong by
    /// some ulps of the two products they subtract.
    int mayHit(const Block& b) const {
        const float(*const axes[3])[4] = {b.x, b.y, b.z};
        const Float4 sx(sheared.sx), sy(sheared.sy);
        const Float4 ox(sheared.origin[sheared.kx]), oy(sheared.origin[sheared.ky]),
            oz(sheared.origin[sheared.kz]);
        Float4 x[3], y[3];
        for (int k = 0; k < 3; ++k) {
            const Float4 z = Float4::load(axes[sheared.kz][k]) - oz;
            x[k] = Float4::load(axes[sheared.kx][k]) - ox - sx * z;
            y[k] = Float4::load(axes[sheared.ky][k]) - oy - sy * z;
        }
        const Float4 ulps(4.0f * FLT_EPSILON), least(FLT_MIN), zero(0.0f);
        const auto edge = [&](int from, int to, Mask4& negative, Mask4& positive) {
            const Float4 p = x[from] * y[to], q = y[from] * x[to];
            const Float4 value = p - q;
            const Float4 slack = (magnitude(p) + magnitude(q)) * ulps + least;
            negative = value < zero - slack;
            positive = value > slack;
        };
        Mask4 n0, n1, n2, p0, p1, p2;
        edge(2, 1, n0, p0);
        edge(0, 2, n1, p1);
        edge(1, 0, n2, p2);
        return 15 ^ laneBits((n0 | n1 | n2) & (p0 | p1 | p2));
    }

    void visit(const Block& b, BvhHit& hit) {
        for (int lanes = mayHit(b); lanes != 0; lanes &= lanes - 1) {
            const std::size_t lane = std::size_t(std::countr_zero(unsigned(lanes)));
            const std::int32_t number = b.triangles[lane];
            if (number < 0) return;
            float t, w0, w1;
            if (!intersectTriangle(sheared, {b.x[0][lane], b.y[0][lane], b.z[0][lane]},
                                   {b.x[1][lane], b.y[1][lane], b.z[1][lane]},
                                   {b.x[2][lane], b.y[2][lane], b.z[2][lane]}, t, w0, w1))
                continue;
            if (t < best || (t == best && number < triangle)) {
                best = t, triangle = number;
                hit.triangle = number;
                hit.t = t;
                hit.weight0 = w0;
                hit.weight1 = w1;
            }
        }
    }
};

bool Bvh::rayIntersect(Vec3f origin, Vec3f direction, BvhHit& hit, float maxT) const {
    if (order_->root == BvhOrder::kNone || !isFinite(origin) || !isFinite(direction) ||
        direction == Vec3f{})
        return false;
    Ray ray(*this, origin, direction, std::nextafter(maxT, kInfinity));  // a hit at maxT counts
    BvhStack stack;
    const auto open = [&](const Boxes4& boxes, const BvhOrder::Children& children,
                          const SlabRay& slabs) {
        Float4 tNear;
        const int lanes = Ray::meets(boxes, slabs, ray.best, tNear);
        if (lanes == 0) return;
        alignas(16) float entries[4];
        tNear.store(entries);
        stack.pushSorted(entries, children, lanes);
    };

    stack.push(order_->root);
    float entry;
    std::int32_t child;
    while (stack.pop(entry, child)) {
        if (entry > ray.best * kWider) continue;
        const std::size_t index = std::size_t(child >> 2);
        if ((child & 3) == BvhOrder::kInner) {
            open(inner_[index].boxes, inner_[index].children, ray.slabs);
        } else if ((child & 3) == BvhOrder::kOriented) {
            open(oriented_[index].boxes, oriented_[index].children, ray.turned(oriented_[index]));
        } else {
            ray.visit(blocks_[index], hit);
        }
    }
    return ray.triangle >= 0;
}

/// Rays that go down the tree together: each node sorts the rays that reach it into lists for its
/// children. No ray waits for another's answer, and a node is read once for all of them.
struct Bvh::RayStream {
    using Number = std::uint16_t;
    static constexpr std::size_t kMost = 1024;  ///< rays at once
    static constexpr std::size_t kLevels = 20;  ///< more than a tree has, see BvhStack

    const Bvh& bvh;
    std::vector<Ray> rays;
    std::vector<BvhHit*> hits;
    /// Four lists a level, each of room for all rays.
    std::unique_ptr<Number[]> lists{new Number[4 * kLevels * kMost + kMost]};

    explicit RayStream(const Bvh& tree) : bvh(tree) {
        rays.reserve(kMost);
        hits.reserve(kMost);
    }

    void add(Vec3f origin, Vec3f direction, float best, BvhHit& hit) {
        rays.emplace_back(bvh, origin, direction, best);
        hits.push_back(&hit);
    }

    /// Answers all that were added, and forgets them.
    void run() {
        for (std::size_t i = 0; i < rays.size(); ++i) lists[i] = Number(i);
        descend(bvh.order_->root, &lists[0], rays.size(), &lists[kMost]);
        rays.clear();
        hits.clear();
    }

private:
    void descend(std::int32_t node, const Number* list, std::size_t count, Number* next) {
        const std::size_t index = std::size_t(node >> 2);
        if ((node & 3) == BvhOrder::kBlock) {
            for (std::size_t i = 0; i < count; ++i)
                rays[list[i]].visit(bvh.blocks_[index], *hits[list[i]]);
        } else if ((node & 3) == BvhOrder::kInner) {
            const InnerNode& n = bvh.inner_[index];
            sort(n.boxes, n.children, list, count, next,
                 [](const Ray& ray) -> const SlabRay& { return ray.slabs; });
        } else {
            const OrientedNode& n = bvh.oriented_[index];
            sort(n.boxes, n.children, list, count, next,
                 [&n](const Ray& ray) { return ray.turned(n); });
        }
    }

    template <class SlabsOf>
    void sort(const Boxes4& boxes, const BvhOrder::Children& children, const Number* list,
              std::size_t count, Number* next, SlabsOf&& slabsOf) {
        Number* const parts[4] = {next, next + count, next + 2 * count, next + 3 * count};
        std::size_t counts[4] = {};
        for (std::size_t i = 0; i < count; ++i) {
            const Ray& ray = rays[list[i]];
            Float4 entries;
            const int lanes = Ray::meets(boxes, slabsOf(ray), ray.best, entries);
            for (int c = 0; c < 4; ++c) {  // without a branch: most rays take one of the four
                parts[c][counts[c]] = list[i];
                counts[c] += std::size_t(lanes >> c & 1);
            }
        }
        for (std::size_t c = 0; c < 4; ++c)
            if (counts[c] > 0) descend(children[c], parts[c], counts[c], next + 4 * count);
    }
};

void Bvh::rayIntersect(std::span<const Vec3f> origins, std::span<const Vec3f> directions,
                       std::span<BvhHit> hits, float maxT) const {
    if (origins.size() != directions.size() || origins.size() != hits.size())
        throw std::invalid_argument("Bvh::rayIntersect: give one direction and hit per origin");
    for (BvhHit& hit : hits) hit.triangle = -1;
    if (order_->root == BvhOrder::kNone) return;
    RayStream stream(*this);
    const float best = std::nextafter(maxT, kInfinity);
    for (std::size_t i = 0; i < origins.size(); ++i) {
        if (!isFinite(origins[i]) || !isFinite(directions[i]) || directions[i] == Vec3f{}) continue;
        stream.add(origins[i], directions[i], best, hits[i]);
        if (stream.rays.size() == RayStream::kMost) stream.run();
    }
    stream.run();
}

}  // namespace corvelle
