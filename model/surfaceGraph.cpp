#include "model/surfaceGraph.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <mutex>
#include <queue>
#include <shared_mutex>
#include <unordered_map>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/surfaceTopology.h"

namespace corvelle {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr std::size_t kGraphsKept = 4;
/// An improvement below this share is rounding: following it would never end.
constexpr float kGain = 1e-6f;

/// Distances by vertex: open addressing over a power of two.
class DistanceTable {
public:
    struct Slot {
        std::int32_t vertex = -1;
        float distance = kInfinity;
        bool settled = false;
    };
    DistanceTable() : slots_(64) {}

    const Slot* find(std::int32_t vertex) const {
        for (std::size_t i = home(vertex);; i = (i + 1) & (slots_.size() - 1)) {
            if (slots_[i].vertex == vertex) return &slots_[i];
            if (slots_[i].vertex < 0) return nullptr;
        }
    }
    float at(std::int32_t vertex) const {
        const Slot* slot = find(vertex);
        return slot ? slot->distance : kInfinity;
    }
    /// Valid until the next call.
    Slot& operator[](std::int32_t vertex) {
        if (Slot* slot = const_cast<Slot*>(find(vertex))) return *slot;
        if (2 * (used_ + 1) > slots_.size()) {
            std::vector<Slot> old(2 * slots_.size());
            old.swap(slots_);
            for (const Slot& slot : old)
                if (slot.vertex >= 0) *free(slot.vertex) = slot;
        }
        ++used_;
        Slot* slot = free(vertex);
        slot->vertex = vertex;
        return *slot;
    }
    /// Drops the vertices that never settled and the room they took.
    void shrink() {
        std::size_t settled = 0;
        for (const Slot& slot : slots_) settled += slot.vertex >= 0 && slot.settled;
        std::vector<Slot> old(std::bit_ceil(2 * settled + 2));
        old.swap(slots_);
        used_ = settled;
        for (const Slot& slot : old)
            if (slot.vertex >= 0 && slot.settled) *free(slot.vertex) = slot;
    }

private:
    std::size_t home(std::int32_t vertex) const {
        return std::size_t(std::uint32_t(vertex) * 2654435769u) & (slots_.size() - 1);
    }
    Slot* free(std::int32_t vertex) {
        std::size_t i = home(vertex);
        while (slots_[i].vertex >= 0) i = (i + 1) & (slots_.size() - 1);
        return &slots_[i];
    }
    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

double gap(Vec3f a, Vec3f b) {
    const double x = double(a.x) - b.x, y = double(a.y) - b.y, z = double(a.z) - b.z;
    return std::sqrt(x * x + y * y + z * z);
}

/// The distance at c, past the edge from a to b, of a source seen at `da` from a and `db` from b:
/// the triangle is laid into a plane, the source on its other side. Straight where the line crosses
/// the edge, else along an edge.
double unfold(double da, double db, double ab, double ac, double bc) {
    const double along = std::min(da + ac, db + bc);
    if (!(ab > 0.0)) return along;
    const double cx = (ac * ac - bc * bc + ab * ab) / (2.0 * ab);
    const double cy = std::sqrt(std::max(0.0, ac * ac - cx * cx));
    const double sx = (da * da - db * db + ab * ab) / (2.0 * ab);
    const double sy = std::sqrt(std::max(0.0, da * da - sx * sx));
    if (!(cy + sy > 0.0)) return along;
    const double x = sx + (cx - sx) * sy / (cy + sy);
    if (!(x >= 0.0 && x <= ab)) return along;
    return std::min(along, std::sqrt((cx - sx) * (cx - sx) + (cy + sy) * (cy + sy)));
}

struct FrontKey {
    StrandRoot root;
    float radius = 0.0f;
    friend bool operator==(const FrontKey& a, const FrontKey& b) {
        return a.root == b.root &&
               std::bit_cast<std::uint32_t>(a.radius) == std::bit_cast<std::uint32_t>(b.radius);
    }
};
struct FrontKeyHash {
    std::size_t operator()(const FrontKey& k) const {
        std::uint64_t h = hashCombine(mix64(0), k.root.triangle);
        return std::size_t(hashCombine(hashCombine(hashCombine(h, k.root.u), k.root.v), k.radius));
    }
};

}  // namespace

class SurfaceGraph::Front {
public:
    StrandRoot root;
    Vec3f position;
    float radius = 0.0f;
    DistanceTable distances;
};

struct SurfaceGraph::Data {
    ScalpPtr mesh;
    std::vector<Triangle> triangles;  // over welded vertices
    std::vector<Vec3f> points;        // of welded vertices
    std::vector<float> longestEdge;   // of those that meet at a vertex
    SurfaceTopology topology;

    mutable std::shared_mutex mutex;
    mutable std::unordered_map<FrontKey, std::weak_ptr<const Front>, FrontKeyHash> fronts;
    mutable std::size_t sweepAt = 256;  // table size at which dead entries go

    explicit Data(ScalpPtr given);
    std::shared_ptr<const Front> makeFront(const StrandRoot& root, float radius) const;
};

SurfaceGraph::Data::Data(ScalpPtr given) : mesh(std::move(given)) {
    const std::span<const Vec3f> all = mesh->points();
    // Bit-equal points become one vertex, numbered by their first.
    struct Bits {
        std::uint32_t x, y, z;
        bool operator==(const Bits&) const = default;
    };
    struct BitsHash {
        std::size_t operator()(const Bits& b) const {
            return std::size_t(hashCombine(hashCombine(mix64(b.x), b.y), b.z));
        }
    };
    std::unordered_map<Bits, std::int32_t, BitsHash> seen;
    seen.reserve(all.size());
    std::vector<std::int32_t> welded(all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Bits bits{std::bit_cast<std::uint32_t>(all[i].x),
                        std::bit_cast<std::uint32_t>(all[i].y),
                        std::bit_cast<std::uint32_t>(all[i].z)};
        const auto [at, added] = seen.try_emplace(bits, std::int32_t(points.size()));
        if (added) points.push_back(all[i]);
        welded[i] = at->second;
    }
    triangles.reserve(mesh->triangles().size());
    for (const Triangle& t : mesh->triangles())
        triangles.push_back(
            {welded[std::size_t(t[0])], welded[std::size_t(t[1])], welded[std::size_t(t[2])]});
    topology = SurfaceTopology(triangles, points.size());
    longestEdge.resize(points.size());
    for (std::size_t v = 0; v < points.size(); ++v)
        for (const std::int32_t n : topology.neighborsOf(std::int32_t(v)))
            longestEdge[v] = std::max(longestEdge[v], length(points[std::size_t(n)] - points[v]));
}

std::shared_ptr<const SurfaceGraph::Front> SurfaceGraph::Data::makeFront(const StrandRoot& root,
                                                                         float radius) const {
    auto front = std::make_shared<Front>();
    front->root = root;
    front->position = mesh->surfacePoint(root);
    front->radius = radius;
    DistanceTable& table = front->distances;
    if (!isFinite(front->position)) return front;

    using Entry = std::pair<float, std::int32_t>;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> queue;
    const auto relax = [&](std::int32_t vertex, double distance) {
        const Vec3f place = points[std::size_t(vertex)];
        const float d = float(std::max(distance, gap(place, front->position)));
        DistanceTable::Slot& slot = table[vertex];
        if (!(d < slot.distance - kGain * slot.distance) && slot.distance != kInfinity) return;
        if (!(d < slot.distance)) return;
        slot.distance = d;
        queue.emplace(d, vertex);
    };
    for (const std::int32_t vertex : triangles[std::size_t(root.triangle)]) relax(vertex, 0.0);

    while (!queue.empty()) {
        const auto [da, a] = queue.top();
        queue.pop();
        DistanceTable::Slot& slot = table[a];
        if (da != slot.distance) continue;  // reached on a shorter way since
        // A vertex past the radius still counts while one of its edges may reach inside.
        if (da > radius + longestEdge[std::size_t(a)]) continue;
        slot.settled = true;
        for (const std::int32_t t : topology.trianglesOf(a)) {
            const Triangle& corners = triangles[std::size_t(t)];
            const std::size_t k = corners[0] == a ? 0 : corners[1] == a ? 1 : 2;
            const std::int32_t others[2] = {corners[(k + 1) % 3], corners[(k + 2) % 3]};
            for (int side = 0; side < 2; ++side) {
                const std::int32_t b = others[side], c = others[1 - side];
                if (c == a) continue;
                const Vec3f pa = points[std::size_t(a)], pb = points[std::size_t(b)],
                            pc = points[std::size_t(c)];
                const DistanceTable::Slot* sb = b == a ? nullptr : table.find(b);
                if (sb && sb->settled)
                    relax(c, unfold(da, sb->distance, gap(pa, pb), gap(pa, pc), gap(pb, pc)));
                else
                    relax(c, double(da) + gap(pa, pc));
            }
        }
    }
    table.shrink();
    return front;
}

SurfaceGraph::SurfaceGraph(ScalpPtr mesh) : data_(std::make_unique<Data>(std::move(mesh))) {}
SurfaceGraph::~SurfaceGraph() = default;
const ScalpPtr& SurfaceGraph::mesh() const { return data_->mesh; }

std::shared_ptr<const SurfaceGraph> SurfaceGraph::of(const ScalpPtr& mesh) {
    struct List {
        std::mutex mutex;
        std::vector<std::shared_ptr<const SurfaceGraph>> graphs;  // newest first
    };
    static List& list = *new List;  // never destroyed: threads may still ask at exit
    const std::uint64_t key = mesh->contentHash();
    const auto findInFront = [&]() -> std::shared_ptr<const SurfaceGraph> {
        const auto at =
            std::find_if(list.graphs.begin(), list.graphs.end(),
                         [&](const auto& graph) { return graph->mesh()->contentHash() == key; });
        if (at == list.graphs.end()) return nullptr;
        std::rotate(list.graphs.begin(), at, at + 1);
        return list.graphs.front();
    };
    {
        const std::lock_guard lock(list.mutex);
        if (auto graph = findInFront()) return graph;
    }
    auto made = std::make_shared<const SurfaceGraph>(mesh);
    std::shared_ptr<const SurfaceGraph> dropped;  // destroyed outside the lock
    const std::lock_guard lock(list.mutex);
    if (auto graph = findInFront()) return graph;
    list.graphs.insert(list.graphs.begin(), made);
    if (list.graphs.size() > kGraphsKept) {
        dropped = std::move(list.graphs.back());
        list.graphs.pop_back();
    }
    return made;
}

std::shared_ptr<const SurfaceGraph::Front> SurfaceGraph::front(const StrandRoot& root,
                                                               float radius) const {
    const Data& data = *data_;
    if (!data.mesh->validRoot(root)) return nullptr;
    const FrontKey key{root, radius};
    {
        const std::shared_lock lock(data.mutex);
        const auto at = data.fronts.find(key);
        if (at != data.fronts.end())
            if (auto front = at->second.lock()) return front;
    }
    auto made = data.makeFront(root, radius);
    const std::unique_lock lock(data.mutex);
    std::weak_ptr<const Front>& entry = data.fronts[key];
    if (auto front = entry.lock()) return front;
    entry = made;
    if (data.fronts.size() > data.sweepAt) {
        std::erase_if(data.fronts, [](const auto& item) { return item.second.expired(); });
        data.sweepAt = std::max<std::size_t>(256, 2 * data.fronts.size());
    }
    return made;
}

float SurfaceGraph::distance(const Front& front, const StrandRoot& to, Vec3f toPosition) const {
    if (!data_->mesh->validRoot(to)) return kInfinity;
    const double chord = gap(toPosition, front.position);
    double best = std::numeric_limits<double>::infinity();
    if (to.triangle == front.root.triangle) {
        best = chord;
    } else {
        const Triangle& t = data_->triangles[std::size_t(to.triangle)];
        Vec3f points[3];
        double distances[3], toCorner[3];
        for (std::size_t k = 0; k < 3; ++k) {
            points[k] = data_->points[std::size_t(t[k])];
            distances[k] = double(front.distances.at(t[k]));
            toCorner[k] = gap(points[k], toPosition);
            best = std::min(best, distances[k] + toCorner[k]);
        }
        for (std::size_t k = 0; k < 3; ++k) {
            const std::size_t n = (k + 1) % 3;
            if (t[k] == t[n] || !std::isfinite(distances[k]) || !std::isfinite(distances[n]))
                continue;
            best = std::min(best, unfold(distances[k], distances[n], gap(points[k], points[n]),
                                         toCorner[k], toCorner[n]));
        }
    }
    const float result = float(std::max(best, chord));
    return result <= front.radius ? result : kInfinity;
}

SurfaceFronts::SurfaceFronts(std::shared_ptr<const SurfaceGraph> graph,
                             std::span<const StrandRoot> roots, float radius,
                             const SurfaceFronts* previous)
    : graph_(std::move(graph)),
      roots_(roots.begin(), roots.end()),
      fronts_(roots.size()),
      radius_(radius) {
    std::vector<std::size_t> missing;
    const bool reusable =
        previous && previous->graph_ == graph_ &&
        std::bit_cast<std::uint32_t>(previous->radius_) == std::bit_cast<std::uint32_t>(radius);
    for (std::size_t i = 0; i < roots_.size(); ++i) {
        if (reusable && i < previous->roots_.size() && previous->roots_[i] == roots_[i])
            fronts_[i] = previous->fronts_[i];
        else
            missing.push_back(i);
    }
    parallelRange(0, missing.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t m = begin; m < end; ++m)
            fronts_[missing[m]] = graph_->front(roots_[missing[m]], radius_);
    });
}

float SurfaceFronts::distance(std::size_t i, const StrandRoot& to, Vec3f toPosition) const {
    return fronts_[i] ? graph_->distance(*fronts_[i], to, toPosition) : kInfinity;
}

}  // namespace corvelle
