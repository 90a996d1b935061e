#include "operators/blueNoise.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <numeric>

#include "model/parallel.h"
#include "operators/blueNoiseForce.h"
#include "operators/meshSides.h"
#include "operators/nearBoundary.h"
#include "operators/sampleNeighbors.h"

namespace corvelle {

namespace {

using namespace blueNoise;

constexpr std::size_t kBlock = 256;
constexpr float kEvenSpread = 2.5f;  ///< of radii, up to which one size of cell serves
constexpr int kPartings = 32;        ///< rounds, at the most, of parting pairs left too near
constexpr std::size_t kFewParted = 64;
/// Of both radii: pairs nearer than this, 0.752 of the spacing, are parted to 0.76 of it.
constexpr float kPairNear = 0.376f, kPairParted = 0.38f;
constexpr float kNeighborReach = 2.2f;  ///< radii to the thirteenth neighbour, about

std::atomic<std::uint64_t> relaxedSamples{0};

/// Interleaves 21 bits with two zeros after each (Morton, 1966).
std::uint64_t spreadBits(std::uint64_t x) {
    x &= 0x1fffff;
    x = (x | x << 32) & 0x1f00000000ffff;
    x = (x | x << 16) & 0x1f0000ff0000ff;
    x = (x | x << 8) & 0x100f00f00f00f00f;
    x = (x | x << 4) & 0x10c30c30c30c30c3;
    return (x | x << 2) & 0x1249249249249249;
}

/// An order of the positions in which near ones stand near each other.
std::vector<std::uint32_t> spatialOrder(std::span<const Vec3f> positions) {
    Vec3f low = positions[0], high = low;
    for (const Vec3f p : positions) {
        low = componentMin(low, p);
        high = componentMax(high, p);
    }
    const Vec3f size = high - low;
    const float side = std::max({size.x, size.y, size.z});
    const float scale = side > 0.0f ? 1048575.0f / side : 0.0f;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> keys(positions.size());
    parallelRange(0, keys.size(), 4096, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) {
            const Vec3f at = (positions[i] - low) * scale;
            keys[i] = {spreadBits(std::uint64_t(at.x)) | spreadBits(std::uint64_t(at.y)) << 1 |
                           spreadBits(std::uint64_t(at.z)) << 2,
                       std::uint32_t(i)};
        }
    });
    std::sort(keys.begin(), keys.end());
    std::vector<std::uint32_t> order(keys.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = keys[i].second;
    return order;
}

/// The samples of one run, in spatial order: "slots". What the algorithm sees of order (neighbours
/// at equal distances) goes by the callers' order, `rank`.
class Relaxation {
public:
    Relaxation(const ScalpMesh& mesh, std::span<const std::uint64_t> ids,
               std::span<const StrandRoot> roots, const ScatterDensity& density, std::uint64_t seed)
        : mesh_(mesh), density_(density), seed_(seed) {
        const std::size_t n = roots.size();
        mesh.prepareQueries();
        std::vector<Vec3f> positions(n);
        parallelRange(0, n, kBlock, [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) positions[i] = mesh.surfacePoint(roots[i]);
        });
        rank_ = spatialOrder(positions);
        now_.resize(n);
        next_.resize(n);
        ids_.resize(n);
        roots_.resize(n);
        normals_.resize(n);
        moved_.assign(n, 0.0f);
        frozen_.assign(n, 0);
        edge_.assign(n, -1);
        neighbors_.resize(n);
        parallelRange(0, n, kBlock, [&](std::size_t b, std::size_t e) {
            for (std::size_t s = b; s < e; ++s) {
                ids_[s] = ids[rank_[s]];
                roots_[s] = roots[rank_[s]];
                next_[s].position = positions[rank_[s]];
            }
        });
        std::vector<std::uint32_t> all(n);
        std::iota(all.begin(), all.end(), 0u);
        readSurface(all);
        now_ = next_;
        active_ = std::move(all);
        dropInactive();
    }

    std::vector<StrandRoot> run() {
        measureRadii();
        relaxedSamples.fetch_add(active_.size(), std::memory_order_relaxed);
        const std::vector<BorderEdge> edges = openBoundary(mesh_);
        edges_ = edges;
        const NearBoundary boundary(edges, 4.0f * largestRadius_);

        std::vector<std::uint32_t> window;  // alive and unfrozen at the last refresh
        for (int iteration = 0; iteration < kIterations && !active_.empty(); ++iteration) {
            if (iteration % kRefresh == 0) {
                window = active_;
                refresh(window, boundary, iteration > 0);
            }
            step(stepSeed(seed_, iteration));
            freeze();
            if (active_.empty()) iteration = kIterations - 1;
            if ((iteration + 1) % kRefresh == 0 || iteration == kIterations - 1) {
                reproject(window);
                dropInactive();
            }
        }
        partPairs();
        std::vector<StrandRoot> out(roots_.size());
        for (std::size_t s = 0; s < out.size(); ++s) out[rank_[s]] = roots_[s];
        return out;
    }

private:
    /// Calls body(slot) for the listed slots, in parallel blocks.
    template <class Body>
    static void forEach(std::span<const std::uint32_t> slots, Body&& body) {
        parallelRange(0, slots.size(), kBlock, [&](std::size_t b, std::size_t e) {
            for (std::size_t k = b; k < e; ++k) body(slots[k]);
        });
    }

    /// Normal and radius of the slots at their roots, into next_.
    void readSurface(std::span<const std::uint32_t> slots) {
        parallelRange(0, slots.size(), kBlock, [&](std::size_t b, std::size_t e) {
            std::array<StrandRoot, kBlock> roots;
            std::array<Vec3f, kBlock> positions;
            std::array<float, kBlock> values;
            for (std::size_t k = b; k < e; k += kBlock) {
                const std::size_t count = std::min(kBlock, e - k);
                for (std::size_t j = 0; j < count; ++j) {
                    const std::uint32_t s = slots[k + j];
                    normals_[s] = mesh_.surfaceNormal(roots_[s]);
                    roots[j] = roots_[s];
                    positions[j] = next_[s].position;
                }
                if (density_.mapped())
                    density_.sample({roots.data(), count}, {positions.data(), count},
                                    {values.data(), count});
                else
                    std::fill_n(values.data(), count, density_.constant);
                for (std::size_t j = 0; j < count; ++j)
                    next_[slots[k + j]].radius = sampleRadius(values[j]);
            }
        });
    }

    void measureRadii() {
        std::vector<float> radii;
        radii.reserve(active_.size());
        for (const std::uint32_t s : active_) radii.push_back(now_[s].radius);
        if (radii.empty()) return;
        const auto at = [&](double share) {
            const auto place = radii.begin() + std::ptrdiff_t(share * double(radii.size() - 1));
            std::nth_element(radii.begin(), place, radii.end());
            return *place;
        };
        const float small = at(0.05), large = at(0.95);
        usualRadius_ = at(0.5);
        largestRadius_ = at(1.0);
        even_ = large <= kEvenSpread * small;
    }

    void refresh(std::span<const std::uint32_t> slots, const NearBoundary& boundary, bool again) {
        index_.rebuild(now_, rank_, kNeighborReach * usualRadius_, even_);
        forEach(slots, [&](std::uint32_t s) {
            const SampleNeighbors known = neighbors_[s];
            index_.nearest(s, again ? &known : nullptr, neighbors_[s]);
            edge_[s] = boundary.nearest(now_[s].position, 3.0f * largestRadius_ + now_[s].radius);
        });
    }

    void step(std::uint64_t stepSeed) {
        forEach(active_, [&](std::uint32_t s) {
            const SurfaceSample self = now_[s];
            Vec3f force;
            bool squeezed = false;
            for (const std::uint32_t j : neighbors_[s]) {
                const SurfaceSample other = now_[j];
                if (j == s || !(other.radius > 0.0f)) continue;
                const float R = self.radius + other.radius;
                const Vec3f offset = self.position - other.position;
                const float d = length(offset);
                if (d >= R) continue;
                squeezed = squeezed || d < R * kSqueezed;
                force +=
                    d > R * kCoincident ? push(offset, d, R) : partingPush(stepSeed, ids_[s], d, R);
            }
            if (edge_[s] >= 0) {
                const BorderEdge& edge = edges_[std::size_t(edge_[s])];
                force += borderPush(self.position, edge, self.radius,
                                    closestOnEdge(self.position, edge));
            }
            const Vec3f move = stepOf(force, normals_[s], self.radius);
            next_[s].position = onGrid(self.position + move, self.radius * kQuantum);
            moved_[s] = movedOf(move, self.radius, squeezed);
        });
    }

    /// Takes the step's positions over and freezes what has come to rest with its neighbours.
    void freeze() {
        forEach(active_, [&](std::uint32_t s) {
            now_[s] = next_[s];
            bool rests = moved_[s] < kFrozenMove;
            for (const std::uint32_t j : neighbors_[s]) rests = rests && moved_[j] < kFrozenMove;
            frozen_[s] = rests;
        });
        dropInactive();
    }

    /// Moves pairs apart that the steps left too near: beside an open border, which pushes from one
    /// side alone, and in its corners, where only the nearest edge does. One of each pair is
    /// active, since nothing freezes while squeezed.
    void partPairs() {
        std::vector<std::uint32_t> near = active_, parted;
        for (int round = 0; round < kPartings && !near.empty(); ++round) {
            forEach(near,
                    [&](std::uint32_t s) { next_[s].position = now_[s].position + partingOf(s); });
            parted.clear();
            for (const std::uint32_t s : near)
                if (next_[s].position != now_[s].position) parted.push_back(s);
            // So many are no flaw: the surface lies on itself, and there is no room.
            if (parted.size() > kFewParted + roots_.size() / 16) return;
            for (const std::uint32_t s : parted) now_[s].position = next_[s].position;
            reproject(parted);
            near = parted;
            for (const std::uint32_t s : parted)
                near.insert(near.end(), neighbors_[s].begin(), neighbors_[s].end());
            std::sort(near.begin(), near.end());
            near.erase(std::unique(near.begin(), near.end()), near.end());
            std::erase_if(near, [&](std::uint32_t s) { return !(now_[s].radius > 0.0f); });
        }
    }
    /// Half the way to where no neighbour is too near, along the surface.
    Vec3f partingOf(std::uint32_t s) const {
        const SurfaceSample self = now_[s];
        Vec3f move;
        for (const std::uint32_t j : neighbors_[s]) {
            const SurfaceSample other = now_[j];
            if (j == s || !(other.radius > 0.0f)) continue;
            const float R = self.radius + other.radius;
            const Vec3f offset = self.position - other.position;
            const float d = length(offset);
            if (d < R * kPairNear && d > R * kCoincident)
                move += offset * (0.5f * (R * kPairParted - d) / d);
        }
        move -= normals_[s] * dot(move, normals_[s]);
        const float size = length(move), most = kMaxMove * self.radius;
        return size > most ? move * (most / size) : move;
    }

    void reproject(std::span<const std::uint32_t> slots) {
        forEach(slots, [&](std::uint32_t s) {
            SurfaceHit hit;
            if (mesh_.closestPointFrom(now_[s].position, ScalpMesh::kAnyDistance,
                                       roots_[s].triangle, hit))
                roots_[s] = hit.root();
            next_[s].position = mesh_.surfacePoint(roots_[s]);
        });
        readSurface(slots);
        forEach(slots, [&](std::uint32_t s) { now_[s] = next_[s]; });
    }

    void dropInactive() {
        std::erase_if(active_,
                      [&](std::uint32_t s) { return frozen_[s] != 0 || !(now_[s].radius > 0.0f); });
    }

    const ScalpMesh& mesh_;
    const ScatterDensity& density_;
    std::uint64_t seed_;
    std::vector<std::uint32_t> rank_;  ///< slot to the caller's index
    std::vector<SurfaceSample> now_, next_;
    std::vector<std::uint64_t> ids_;
    std::vector<StrandRoot> roots_;
    std::vector<Vec3f> normals_;
    std::vector<float> moved_;  ///< in the last step, in radii
    std::vector<std::uint8_t> frozen_;
    std::vector<std::int32_t> edge_;  ///< nearest border edge within reach, or -1
    std::vector<SampleNeighbors> neighbors_;
    std::vector<std::uint32_t> active_;  ///< alive and not frozen, ascending
    std::span<const BorderEdge> edges_;
    SampleIndex index_;
    float usualRadius_ = 0.0f, largestRadius_ = 0.0f;
    bool even_ = true;
};

}  // namespace

float sampleRadius(float density) {
    const float rho = usableDensity(density);
    return rho > 0.0f ? kHexagonalSpacing / std::sqrt(rho) : 0.0f;
}

std::uint64_t relaxedSampleCount() { return relaxedSamples.load(std::memory_order_relaxed); }

std::vector<StrandRoot> relaxBlueNoise(const ScalpMesh& mesh, std::span<const std::uint64_t> ids,
                                       std::span<const StrandRoot> roots,
                                       const ScatterDensity& density, std::uint64_t seed) {
    if (roots.size() < 2 || (!density.mapped() && !(usableDensity(density.constant) > 0.0f)))
        return {roots.begin(), roots.end()};
    return Relaxation(mesh, ids, roots, density, seed).run();
}

}  // namespace corvelle
