#include "model/bvh.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <limits>

#include "model/bvhStack.h"
#include "model/simd4.h"
#include "model/triangleQueries.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr std::size_t kBlockSize = 4;
/// Nodes of so many triangles at most have boxes along their own axes.
constexpr std::size_t kOrientedSize = 64;
/// Blocks whose boxes have grown this much since the order was made are sorted anew.
constexpr double kWornOut = 4.0;
struct Centroid {
    float at[3];
    std::int32_t triangle;
};

float finiteOrZero(float x) { return std::isfinite(x) ? x : 0.0f; }

bool shareAnEdge(const Triangle& a, const Triangle& b) {
    int shared = 0;
    for (const std::int32_t i : a) shared += i == b[0] || i == b[1] || i == b[2];
    return shared >= 2;
}

class OrderBuilder {
public:
    OrderBuilder(std::span<const Vec3f> points, std::span<const Triangle> triangles,
                 std::size_t first, std::size_t end)
        : order_(std::make_shared<BvhOrder>()) {
        order_->firstTriangle = first;
        order_->blockOf.resize(end - first);
        centroids_.reserve(end - first);
        const auto sumOf = [&](std::size_t t) {
            return points[std::size_t(triangles[t][0])] + points[std::size_t(triangles[t][1])] +
                   points[std::size_t(triangles[t][2])];
        };
        const auto add = [&](std::size_t t, Vec3f at) {
            centroids_.push_back(
                {{finiteOrZero(at.x), finiteOrZero(at.y), finiteOrZero(at.z)}, std::int32_t(t)});
        };
        for (std::size_t t = first; t < end; ++t) {
            if (t + 1 < end && shareAnEdge(triangles[t], triangles[t + 1])) {
                // Two halves of a quad stay together: cuts then run along the quads' sides, and the
                // boxes of the two parts overlap little.
                const Vec3f middle = (sumOf(t) + sumOf(t + 1)) * 0.5f;
                add(t, middle);
                add(++t, middle);
            } else {
                add(t, sumOf(t));
            }
        }
    }

    std::shared_ptr<BvhOrder> build() {
        const std::size_t blocks = blocksOf(centroids_.size());
        order_->blocks.reserve(blocks);
        order_->blockParents.reserve(blocks);
        if (blocks > 0) order_->root = add(0, centroids_.size(), {});
        return std::move(order_);
    }

private:
    static std::size_t blocksOf(std::size_t count) { return (count + kBlockSize - 1) / kBlockSize; }

    /// Splits [begin, begin + count) at the median block border; returns the left part's count.
    std::size_t split(std::size_t begin, std::size_t count) {
        const auto first = centroids_.begin() + std::ptrdiff_t(begin);
        const auto last = first + std::ptrdiff_t(count);
        float low[3] = {kInfinity, kInfinity, kInfinity};
        float high[3] = {-kInfinity, -kInfinity, -kInfinity};
        for (auto c = first; c != last; ++c)
            for (int axis = 0; axis < 3; ++axis) {
                low[axis] = std::min(low[axis], c->at[axis]);
                high[axis] = std::max(high[axis], c->at[axis]);
            }
        int axis = 0;
        for (int other = 1; other < 3; ++other)
            if (high[other] - low[other] > high[axis] - low[axis]) axis = other;
        const std::size_t left = (blocksOf(count) + 1) / 2 * kBlockSize;
        std::nth_element(first, first + std::ptrdiff_t(left), last,
                         [axis](const Centroid& a, const Centroid& b) {
                             return a.at[axis] != b.at[axis] ? a.at[axis] < b.at[axis]
                                                             : a.triangle < b.triangle;
                         });
        return left;
    }

    std::int32_t addBlock(std::size_t begin, std::size_t count, BvhOrder::Parent parent) {
        const std::size_t index = order_->blocks.size();
        std::array<std::int32_t, 4> block{-1, -1, -1, -1};
        for (std::size_t i = 0; i < count; ++i) {
            block[i] = centroids_[begin + i].triangle;
            order_->blockOf[std::size_t(block[i]) - order_->firstTriangle] = std::uint32_t(index);
        }
        std::sort(block.begin(), block.begin() + std::ptrdiff_t(count));
        order_->blocks.push_back(block);
        order_->blockParents.push_back(parent);
        return std::int32_t(index) * 4 + BvhOrder::kBlock;
    }

    std::int32_t add(std::size_t begin, std::size_t count, BvhOrder::Parent parent) {
        if (count <= kBlockSize && parent.node != BvhOrder::kNone)
            return addBlock(begin, count, parent);
        const bool oriented = count <= kOrientedSize;
        std::vector<BvhOrder::Children>& list = oriented ? order_->oriented : order_->inner;
        const std::size_t index = list.size();
        const std::int32_t node =
            std::int32_t(index) * 4 + (oriented ? BvhOrder::kOriented : BvhOrder::kInner);
        list.push_back({BvhOrder::kNone, BvhOrder::kNone, BvhOrder::kNone, BvhOrder::kNone});
        (oriented ? order_->orientedParents : order_->innerParents).push_back(parent);

        std::size_t borders[5] = {begin, begin + count, 0, 0, 0};
        std::size_t parts = 1;
        for (int round = 0; round < 2; ++round)  // one part into two, two into four
            for (std::size_t p = parts; p-- > 0;) {
                const std::size_t partCount = borders[p + 1] - borders[p];
                if (partCount <= kBlockSize) continue;
                const std::size_t left = split(borders[p], partCount);
                for (std::size_t q = parts; q > p; --q) borders[q + 1] = borders[q];
                borders[p + 1] = borders[p] + left;
                ++parts;
            }
        std::array<std::uint32_t, 5> runs;
        runs.fill(std::uint32_t(order_->blocks.size()));
        if (oriented) order_->runs.emplace_back();
        for (std::size_t p = 0; p < parts; ++p) {
            const std::int32_t child =
                add(borders[p], borders[p + 1] - borders[p], {node, std::int32_t(p)});
            (oriented ? order_->oriented : order_->inner)[index][p] = child;
            std::fill(runs.begin() + std::ptrdiff_t(p) + 1, runs.end(),
                      std::uint32_t(order_->blocks.size()));
        }
        if (oriented) order_->runs[index] = runs;
        return node;
    }

    std::vector<Centroid> centroids_;
    std::shared_ptr<BvhOrder> order_;
};

struct Box {
    Vec3f low{kInfinity, kInfinity, kInfinity};
    Vec3f high{-kInfinity, -kInfinity, -kInfinity};
    void add(Vec3f a, Vec3f b) {  // NaN adds nothing
        low = componentMin(low, a);
        high = componentMax(high, b);
    }
    double surface() const {
        const Vec3f s = high - low;
        return s.x >= 0.0f ? double(s.x) * s.y + double(s.y) * s.z + double(s.z) * s.x : 0.0;
    }
};

/// The farthest that rounding can carry a computed point of some triangles out of their box: some
/// ulps of its sides, and one of its coordinates so that the pad is not itself rounded away.
Vec3f margin(const Box& box) {
    const auto pad = [](float low, float high) {
        return 2e-6f * (high - low) + 1.2e-7f * std::max(std::fabs(low), std::fabs(high)) + FLT_MIN;
    };
    return {pad(box.low.x, box.high.x), pad(box.low.y, box.high.y), pad(box.low.z, box.high.z)};
}

float total(Float4 v) {  // NaN adds nothing
    alignas(16) float a[4];
    v.store(a);
    float sum = 0.0f;
    for (const float x : a) sum += x == x ? x : 0.0f;
    return sum;
}

/// Cuts `alone` of a node in `own` by the plane along a face of `other` that keeps the most of it:
/// what lies in `other` cannot reach past.
void keepClearOf(Box& alone, const Box& own, const Box& other) {
    if (!(other.low.x <= other.high.x)) return;  // empty
    const Vec3f center = (own.low + own.high) * 0.5f;
    float most = -kInfinity;
    int axis = 0;
    bool above = false;
    for (int k = 0; k < 3; ++k) {
        const float up = other.low[k] - center[k], down = center[k] - other.high[k];
        if (up > most) most = up, axis = k, above = true;
        if (down > most) most = down, axis = k, above = false;
    }
    if (most == -kInfinity) {  // not finite: alone nowhere
        alone.high.x = -kInfinity;
    } else if (above) {
        alone.high[axis] = std::min(alone.high[axis], other.low[axis]);
    } else {
        alone.low[axis] = std::max(alone.low[axis], other.high[axis]);
    }
}

/// A box growing by four points at a time; NaN adds nothing.
struct Box4 {
    Float4 low[3] = {kInfinity, kInfinity, kInfinity};
    Float4 high[3] = {-kInfinity, -kInfinity, -kInfinity};
    void add(int axis, Float4 v) {
        low[axis] = lower(v, low[axis]);
        high[axis] = upper(v, high[axis]);
    }
    Box box() const {
        return {{lowest(low[0]), lowest(low[1]), lowest(low[2])},
                {highest(high[0]), highest(high[1]), highest(high[2])}};
    }
};

/// Squared distances at or below this may still hide a nearer triangle: box distances are rounded.
float reachOf(float best) { return lower(best * 1.00001f + FLT_MIN, FLT_MAX); }

}  // namespace

Bvh::Bvh(std::span<const Vec3f> points, std::span<const Triangle> triangles, std::size_t first,
         std::size_t end) {
    const std::shared_ptr<BvhOrder> order = OrderBuilder(points, triangles, first, end).build();
    order_ = order;
    fit(points, triangles);
    order->looseness = looseness_;
}

Bvh::Bvh(std::shared_ptr<const BvhOrder> order, std::span<const Vec3f> points,
         std::span<const Triangle> triangles)
    : order_(std::move(order)) {
    fit(points, triangles);
}

/// Measures the boxes of an order's nodes for the points at hand, from the blocks up.
struct Bvh::Fitting {
    Bvh& bvh;
    const BvhOrder& order = *bvh.order_;
    std::vector<Box> blockBoxes = std::vector<Box>(order.blocks.size());
    std::vector<Vec3f> blockNormals = std::vector<Vec3f>(order.blocks.size());  // twice the area
    std::vector<Box> orientedBoxes = std::vector<Box>(order.oriented.size());
    std::vector<Box> innerBoxes = std::vector<Box>(order.inner.size());

    const Box& boxOf(std::int32_t node) const {
        const std::size_t index = std::size_t(node >> 2);
        return (node & 3) == BvhOrder::kInner      ? innerBoxes[index]
               : (node & 3) == BvhOrder::kOriented ? orientedBoxes[index]
                                                   : blockBoxes[index];
    }
    static void setLane(Boxes4& boxes, std::size_t lane, const Box& box) {
        boxes.minX[lane] = box.low.x, boxes.maxX[lane] = box.high.x;
        boxes.minY[lane] = box.low.y, boxes.maxY[lane] = box.high.y;
        boxes.minZ[lane] = box.low.z, boxes.maxZ[lane] = box.high.z;
    }

    void fitBlocks(std::span<const Vec3f> points, std::span<const Triangle> triangles);
    void fitOriented(std::size_t n);
    void fitInner();
    void findAlone();
    Box all() const {
        return !innerBoxes.empty()      ? innerBoxes[0]
               : !orientedBoxes.empty() ? orientedBoxes[0]
                                        : Box{};
    }
};

void Bvh::Fitting::fitBlocks(std::span<const Vec3f> points, std::span<const Triangle> triangles) {
    bvh.blocks_.resize(order.blocks.size());
    double surface = 0.0, area = 0.0;
    for (std::size_t b = 0; b < bvh.blocks_.size(); ++b) {
        Block& block = bvh.blocks_[b];
        block.triangles = order.blocks[b];
        for (std::size_t lane = 0; lane < kBlockSize; ++lane) {
            const std::int32_t t = block.triangles[lane];
            for (std::size_t k = 0; k < 3; ++k) {
                const Vec3f p = t < 0 ? Vec3f{kNan, kNan, kNan}
                                      : points[std::size_t(triangles[std::size_t(t)][k])];
                block.x[k][lane] = p.x, block.y[k][lane] = p.y, block.z[k][lane] = p.z;
            }
        }
        Box4 box;
        Float4 x[3], y[3], z[3];
        for (int k = 0; k < 3; ++k) {
            x[k] = Float4::load(block.x[k]), y[k] = Float4::load(block.y[k]);
            z[k] = Float4::load(block.z[k]);
            box.add(0, x[k]), box.add(1, y[k]), box.add(2, z[k]);
        }
        const Float4 abx = x[1] - x[0], aby = y[1] - y[0], abz = z[1] - z[0];
        const Float4 acx = x[2] - x[0], acy = y[2] - y[0], acz = z[2] - z[0];
        blockNormals[b] = {total(aby * acz - abz * acy), total(abz * acx - abx * acz),
                           total(abx * acy - aby * acx)};
        Box& padded = blockBoxes[b] = box.box();
        surface += padded.surface();
        area += length(blockNormals[b]);
        const Vec3f pad = margin(padded);
        padded.low -= pad, padded.high += pad;
    }
    bvh.looseness_ = area > 0.0 ? surface / area : 0.0;
}

/// The axes of its own of an oriented node, and its children's boxes along them.
void Bvh::Fitting::fitOriented(std::size_t n) {
    OrientedNode& node = bvh.oriented_[n];
    node.children = order.oriented[n];
    const std::array<std::uint32_t, 5>& runs = order.runs[n];
    Box all;
    Vec3f sum;
    for (std::uint32_t b = runs[0]; b < runs[4]; ++b) {
        all.add(blockBoxes[b].low, blockBoxes[b].high);
        sum += blockNormals[b];
    }
    orientedBoxes[n] = all;
    Vec3f center = (all.low + all.high) * 0.5f;
    if (!isFinite(center)) center = {};
    Vec3f normal = normalized(sum);
    if (!isFinite(normal) || normal == Vec3f{}) normal = {0.0f, 1.0f, 0.0f};
    // Along an edge, for meshes are grids more often than not.
    const Block& head = bvh.blocks_[runs[0]];
    const Vec3f edge = Vec3f{head.x[1][0], head.y[1][0], head.z[1][0]} -
                       Vec3f{head.x[0][0], head.y[0][0], head.z[0][0]};
    Vec3f side = normalized(edge - normal * dot(edge, normal));
    side = normalized(side - normal * dot(side, normal));
    if (!isFinite(side) || side == Vec3f{}) side = anyPerpendicular(normal);
    const Vec3f up = cross(normal, side);
    for (int k = 0; k < 3; ++k) {
        node.columns[k][0] = side[k], node.columns[k][1] = up[k];
        node.columns[k][2] = normal[k], node.columns[k][3] = center[k];
    }
    const Vec3f sides = all.high - all.low;
    const float pad = 4e-6f * (sides.x + sides.y + sides.z) + FLT_MIN;
    for (std::size_t lane = 0; lane < 4; ++lane) {
        Box4 box;
        for (std::uint32_t b = runs[lane]; b < runs[lane + 1]; ++b)
            for (int k = 0; k < 3; ++k) {
                const Float4 x = Float4::load(bvh.blocks_[b].x[k]) - Float4(center.x);
                const Float4 y = Float4::load(bvh.blocks_[b].y[k]) - Float4(center.y);
                const Float4 z = Float4::load(bvh.blocks_[b].z[k]) - Float4(center.z);
                const Vec3f axes[3] = {side, up, normal};
                for (int axis = 0; axis < 3; ++axis)
                    box.add(axis, Float4(axes[axis].x) * x + Float4(axes[axis].y) * y +
                                      Float4(axes[axis].z) * z);
            }
        Box child = box.box();
        if (runs[lane] < runs[lane + 1]) {
            child.low -= Vec3f{pad, pad, pad};
            child.high += Vec3f{pad, pad, pad};
        }
        setLane(node.boxes, lane, child);
    }
}

void Bvh::Fitting::fitInner() {
    // Children come after their parents, so going backwards meets them first.
    bvh.inner_.resize(order.inner.size());
    for (std::size_t n = bvh.inner_.size(); n-- > 0;) {
        InnerNode& node = bvh.inner_[n];
        node.children = order.inner[n];
        for (std::size_t lane = 0; lane < 4; ++lane) {
            const std::int32_t child = node.children[lane];
            const Box box = child == BvhOrder::kNone ? Box{} : boxOf(child);
            setLane(node.boxes, lane, box);
            innerBoxes[n].add(box.low, box.high);
        }
    }
}

/// From the root down: a child is alone where its parent is and no sibling reaches.
void Bvh::Fitting::findAlone() {
    const auto aloneOf = [&](std::int32_t node) -> AloneBox& {
        const std::size_t index = std::size_t(node >> 2);
        return (node & 3) == BvhOrder::kInner ? bvh.inner_[index].alone
                                              : bvh.oriented_[index].alone;
    };
    const auto passDown = [&](const AloneBox& parent, const BvhOrder::Children& children) {
        for (const std::int32_t child : children) {
            if (child == BvhOrder::kNone || (child & 3) == BvhOrder::kBlock) continue;
            Box alone{{parent.low[0], parent.low[1], parent.low[2]},
                      {parent.high[0], parent.high[1], parent.high[2]}};
            for (const std::int32_t other : children)
                if (other != child && other != BvhOrder::kNone)
                    keepClearOf(alone, boxOf(child), boxOf(other));
            aloneOf(child) = {{alone.low.x, alone.low.y, alone.low.z, -kInfinity},
                              {alone.high.x, alone.high.y, alone.high.z, kInfinity}};
        }
    };
    if (order.root != BvhOrder::kNone)
        aloneOf(order.root) = {{-kInfinity, -kInfinity, -kInfinity, -kInfinity},
                               {kInfinity, kInfinity, kInfinity, kInfinity}};
    for (const InnerNode& node : bvh.inner_) passDown(node.alone, node.children);
    for (const OrientedNode& node : bvh.oriented_) passDown(node.alone, node.children);
}

void Bvh::fit(std::span<const Vec3f> points, std::span<const Triangle> triangles) {
    Fitting fitting{*this};
    fitting.fitBlocks(points, triangles);
    oriented_.resize(order_->oriented.size());
    for (std::size_t n = 0; n < oriented_.size(); ++n) fitting.fitOriented(n);
    fitting.fitInner();
    fitting.findAlone();
    const Box all = fitting.all();
    low_ = all.low, high_ = all.high;
}

/// One closest-point query.
struct Bvh::Search {
    const Bvh& bvh;
    Vec3f position;
    Float4 px, py, pz;
    float best;   // squared; at it, a lower triangle still wins
    float reach;  // squared; boxes beyond it hold nothing
    std::int32_t triangle = -1;
    float v = 0.0f, w = 0.0f;
    const Block* found = nullptr;
    int foundLane = 0;
    BvhStack stack;

    Search(const Bvh& tree, Vec3f p, float maxDistanceSquared)
        : bvh(tree),
          position(p),
          px(p.x),
          py(p.y),
          pz(p.z),
          best(lower(maxDistanceSquared, FLT_MAX)),
          reach(reachOf(best)) {}

    static Float4 boxDistances(const Boxes4& b, Float4 x, Float4 y, Float4 z) {
        const Float4 zero(0.0f);
        const Float4 dx = upper(upper(Float4::load(b.minX) - x, x - Float4::load(b.maxX)), zero);
        const Float4 dy = upper(upper(Float4::load(b.minY) - y, y - Float4::load(b.maxY)), zero);
        const Float4 dz = upper(upper(Float4::load(b.minZ) - z, z - Float4::load(b.maxZ)), zero);
        return dx * dx + dy * dy + dz * dz;
    }
    Float4 distances(const InnerNode& node) const { return boxDistances(node.boxes, px, py, pz); }
    Float4 distances(const OrientedNode& node) const {
        const Float4 at = Float4::load(node.columns[0]) * Float4(position.x - node.columns[0][3]) +
                          Float4::load(node.columns[1]) * Float4(position.y - node.columns[1][3]) +
                          Float4::load(node.columns[2]) * Float4(position.z - node.columns[2][3]);
        return boxDistances(node.boxes, spread<0>(at), spread<1>(at), spread<2>(at));
    }

    /// Asks for what a child reference names, a step or two before it is looked at. GCC takes this
    /// for a function without effects and drops its calls, unless it is inlined before it looks.
    [[gnu::always_inline]] inline void fetch(std::int32_t child) const {
        const std::size_t index = std::size_t(child >> 2);
        if ((child & 3) == BvhOrder::kBlock) {
            prefetch(&bvh.blocks_[index]);
        } else if ((child & 3) == BvhOrder::kOriented) {
            prefetch(&bvh.oriented_[index]);
        } else {
            prefetch(&bvh.inner_[index]);
        }
    }
    BvhOrder::Parent parentOf(BvhOrder::Parent at) const {
        const std::size_t index = std::size_t(at.node >> 2);
        return (at.node & 3) == BvhOrder::kInner ? bvh.order_->innerParents[index]
                                                 : bvh.order_->orientedParents[index];
    }

    template <class Node>
    void open(const Node& node, int lanesWanted = 15) {
        const Float4 d = distances(node);
        const int lanes = laneBits(d <= Float4(reach)) & lanesWanted;
        if (lanes == 0) return;
        alignas(16) float out[4];
        d.store(out);
        for (int rest = lanes; rest != 0; rest &= rest - 1)
            fetch(node.children[std::size_t(std::countr_zero(unsigned(rest)))]);
        stack.pushSorted(out, node.children, lanes);
    }

    void measure(const Block& b) {
        const Float4 ax = Float4::load(b.x[0]), ay = Float4::load(b.y[0]),
                     az = Float4::load(b.z[0]);
        const TriangleClosest<Float4> closest = closestOnTriangle<Float4>(
            Float4::load(b.x[1]) - ax, Float4::load(b.y[1]) - ay, Float4::load(b.z[1]) - az,
            Float4::load(b.x[2]) - ax, Float4::load(b.y[2]) - ay, Float4::load(b.z[2]) - az,
            px - ax, py - ay, pz - az);
        // NaN, of a corner that is not finite and of places without a triangle, becomes infinite.
        const Float4 squared = lower(closest.distanceSquared, Float4(kInfinity));
        const float nearest = lowest(squared);
        if (!(nearest <= best)) return;
        // Triangles of a block ascend: the first of the nearest is the lowest.
        const int lane = std::countr_zero(unsigned(laneBits(squared <= Float4(nearest))));
        const std::int32_t t = b.triangles[std::size_t(lane)];
        if (nearest == best && t >= triangle) return;
        alignas(16) float vs[4], ws[4];
        closest.v.store(vs);
        closest.w.store(ws);
        best = nearest, triangle = t, v = vs[lane], w = ws[lane];
        found = &b, foundLane = lane;
        reach = reachOf(best);
    }

    void run() {
        float distance;
        std::int32_t child;
        while (stack.pop(distance, child)) {
            if (distance > reach) continue;
            const std::size_t index = std::size_t(child >> 2);
            switch (child & 3) {
                case BvhOrder::kInner:
                    open(bvh.inner_[index]);
                    break;
                case BvhOrder::kOriented:
                    open(bvh.oriented_[index]);
                    break;
                default:
                    measure(bvh.blocks_[index]);
            }
        }
    }

    /// From a block up towards the root, gathering the siblings that may hold something nearer,
    /// until nothing farther up can.
    void climb(std::size_t block) {
        const BvhOrder::Parent first = bvh.order_->blockParents[block];
        prefetch(&bvh.blocks_[block]);
        for (BvhOrder::Parent at = first; (at.node & 3) == BvhOrder::kOriented; at = parentOf(at))
            fetch(at.node);
        measure(bvh.blocks_[block]);
        const float radius = std::sqrt(reach) * 1.00001f;
        alignas(16) const float low[4] = {position.x - radius, position.y - radius,
                                          position.z - radius, 0.0f};
        alignas(16) const float high[4] = {position.x + radius, position.y + radius,
                                           position.z + radius, 0.0f};
        const Float4 ballLow = Float4::load(low), ballHigh = Float4::load(high);
        for (BvhOrder::Parent at = first; at.node != BvhOrder::kNone; at = parentOf(at)) {
            const std::size_t index = std::size_t(at.node >> 2);
            const int others = 15 ^ (1 << at.lane);
            const AloneBox* alone;
            if ((at.node & 3) == BvhOrder::kInner) {
                open(bvh.inner_[index], others);
                alone = &bvh.inner_[index].alone;
            } else {
                open(bvh.oriented_[index], others);
                alone = &bvh.oriented_[index].alone;
            }
            if (laneBits((ballLow > Float4::load(alone->low)) &
                         (ballHigh < Float4::load(alone->high))) == 15)
                break;
        }
        stack.sort();
    }
};

bool Bvh::closestPoint(Vec3f position, float maxDistanceSquared, std::int32_t nearTriangle,
                       BvhHit& hit) const {
    if (order_->root == BvhOrder::kNone || !isFinite(position)) return false;
    Search search(*this, position, maxDistanceSquared);
    const std::size_t near = std::size_t(nearTriangle) - order_->firstTriangle;
    if (nearTriangle >= 0 && near < order_->blockOf.size())
        search.climb(order_->blockOf[near]);
    else
        search.stack.push(order_->root);
    search.run();
    if (search.triangle < 0) return false;
    hit.triangle = search.triangle;
    hit.distanceSquared = search.best;
    hit.weight0 = 1.0f - search.v - search.w;
    hit.weight1 = search.v;
    const std::size_t lane = std::size_t(search.foundLane);
    const auto corner = [&](int k) {
        return Vec3f{search.found->x[k][lane], search.found->y[k][lane], search.found->z[k][lane]};
    };
    hit.position = corner(0) * hit.weight0 + corner(1) * hit.weight1 +
                   corner(2) * (1.0f - hit.weight0 - hit.weight1);
    return true;
}

std::shared_ptr<LazyBvh> LazyBvh::sibling() const {
    return std::shared_ptr<LazyBvh>(new LazyBvh(shared_));
}

const Bvh& LazyBvh::get(std::span<const Vec3f> points, std::span<const Triangle> triangles,
                        std::size_t first, std::size_t end) const {
    if (const Bvh* tree = ready_.load(std::memory_order_acquire)) return *tree;
    const std::lock_guard lock(mutex_);
    if (const Bvh* tree = ready_.load(std::memory_order_relaxed)) return *tree;
    std::shared_ptr<const BvhOrder> order;
    {
        const std::lock_guard sharedLock(shared_->mutex);
        order = shared_->order;
    }
    if (order) {
        tree_ = std::make_unique<const Bvh>(order, points, triangles);
        if (tree_->looseness() > kWornOut * order->looseness) order = nullptr;
    }
    if (!order) {
        tree_ = std::make_unique<const Bvh>(points, triangles, first, end);
        const std::lock_guard sharedLock(shared_->mutex);
        shared_->order = tree_->order();
    }
    ready_.store(tree_.get(), std::memory_order_release);
    return *tree_;
}

}  // namespace corvelle
