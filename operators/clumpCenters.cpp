#include "operators/clumpCenters.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/simd4.h"
#include "operators/blueNoise.h"
#include "operators/scatter.h"

namespace corvelle {

namespace {

constexpr std::uint64_t kPickSalt = 0xA07C1;
constexpr std::uint64_t kOrder = hashOf("Clump.order");
constexpr std::uint64_t kWeight = hashOf("Clump.centerWeight");
constexpr double kStepsPerDecade = 230.0;  ///< of the spacing: a step is about 1 %
constexpr double kPerSpacing = 4.98;       ///< candidates per squared spacing...
constexpr float kRejected = 0.7f;          ///< ...of which those nearer than this share of it go
constexpr double kMostCandidates = 2e6;
constexpr std::size_t kBlock = 256;
constexpr std::size_t kHashBlock = 4096;

Vec3f rootPoint(const StrandSet& strands, std::size_t s) {
    const auto points = strands.pointsOf(s);
    return points.empty() ? Vec3f{} : points.front();
}

std::uint64_t bitsOf(float a, float b) {
    return std::uint64_t(std::bit_cast<std::uint32_t>(a)) << 32 | std::bit_cast<std::uint32_t>(b);
}

/// Which positions stay when each takes the ones nearer than `radius` away with it, in the order of
/// their hashed ids: dart throwing (Cook, "Stochastic sampling in computer graphics", ACM TOG 5(1),
/// 1986) with the darts given. At most `most` are thrown. Ascending.
std::vector<std::uint32_t> thinnedToSpacing(std::span<const Vec3f> positions,
                                            std::span<const std::uint64_t> ids, float radius,
                                            std::uint64_t seed, std::size_t most) {
    const std::uint64_t base = drawBase(seed, kOrder);
    struct Dart {
        std::uint64_t key, id;
        std::uint32_t index;
        bool operator<(const Dart& o) const { return key != o.key ? key < o.key : id < o.id; }
    };
    std::vector<Dart> order(positions.size());
    for (std::uint32_t i = 0; i < order.size(); ++i)
        order[i] = {hashCombine(base, ids[i]), ids[i], i};
    if (order.size() > most) {
        std::nth_element(order.begin(), order.begin() + std::ptrdiff_t(most), order.end());
        order.resize(most);
    }
    std::sort(order.begin(), order.end());
    std::vector<Vec3f> thrown(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) thrown[i] = positions[order[i].index];
    const PointIndex index(thrown);
    std::vector<std::uint8_t> gone(order.size(), 0);
    std::vector<std::uint32_t> kept;
    const float nearest = radius * radius;
    for (std::uint32_t i = 0; i < order.size(); ++i) {
        if (gone[i]) continue;
        kept.push_back(order[i].index);
        index.forEachWithin(thrown[i], radius,
                            [&](std::uint32_t j, float d) { gone[j] = gone[j] || d < nearest; });
    }
    std::sort(kept.begin(), kept.end());
    return kept;
}

struct Candidates {
    std::vector<std::uint64_t> ids;
    std::vector<StrandRoot> roots;
    std::vector<Vec3f> positions;
};

/// Places to be centers, before any is rejected.
Candidates drawCandidates(const ScalpMesh& scalp, double spacing, std::uint64_t seed) {
    const double rho = std::min(kPerSpacing / (spacing * spacing), kMostCandidates / scalp.area());
    const ScatterDensity density{.constant = float(rho)};
    ScatterPoints drawn =
        scatterCandidates(scalp, density, densityEnvelope(scalp, density), seed, 1.0f);
    Candidates out{.ids = std::move(drawn.ids), .roots = std::move(drawn.roots)};
    out.positions.resize(out.ids.size());
    parallelRange(0, out.ids.size(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) out.positions[i] = scalp.surfacePoint(out.roots[i]);
    });
    return out;
}

/// Drops candidates by their weights.
void weigh(Candidates& from, std::span<const std::uint32_t> core, const PointIndex& coreIndex,
           const CenterWeights& weights, std::uint64_t seed) {
    if (weights.strands.empty() && !weights.places && weights.constant >= 1.0f) return;
    const std::size_t count = from.ids.size();
    const std::uint64_t base = drawBase(seed, kWeight);
    std::vector<float> chance(count, weights.constant);
    parallelRange(0, count, kBlock, [&](std::size_t b, std::size_t e) {
        const auto part = [&](auto& list) { return std::span(list).subspan(b, e - b); };
        if (weights.places)
            return weights.places(part(from.roots), part(from.positions), part(chance));
        if (weights.strands.empty()) return;
        for (std::size_t i = b; i < e; ++i) {
            Neighbor nearest;
            chance[i] = coreIndex.nearestOne(from.positions[i], nearest)
                            ? weights.of(core[nearest.index])
                            : 0.0f;
        }
    });
    std::size_t to = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (!(draw(base, from.ids[i]) < chance[i])) continue;
        from.ids[to] = from.ids[i];
        from.roots[to] = from.roots[i];
        from.positions[to] = from.positions[i];
        ++to;
    }
    from.ids.resize(to);
    from.roots.resize(to);
    from.positions.resize(to);
}

/// Where the centers should be, on the scalp.
std::vector<Vec3f> spreadCenters(const ScalpMesh& scalp, Candidates drawn, double spacing,
                                 const ClumpPickSettings& settings, std::uint64_t seed) {
    const std::vector<std::uint32_t> kept = thinnedToSpacing(
        drawn.positions, drawn.ids, kRejected * float(spacing), seed, drawn.ids.size());
    ScatterPoints random;
    for (const std::uint32_t i : kept) {
        random.ids.push_back(drawn.ids[i]);
        random.roots.push_back(drawn.roots[i]);
    }
    std::vector<StrandRoot> roots = random.roots;
    if (settings.randomness != 1.0f) {
        const ScatterDensity even{.constant = float(1.0 / (spacing * spacing))};
        roots = relaxBlueNoise(scalp, random.ids, random.roots, even, seed);
        if (settings.randomness != 0.0f)
            roots = mixRoots(scalp, roots, random.roots, settings.randomness);
    }
    std::vector<Vec3f> places(roots.size());
    for (std::size_t i = 0; i < places.size(); ++i) places[i] = scalp.surfacePoint(roots[i]);
    return places;
}

PointIndex rootIndex(const StrandSet& strands, std::span<const std::uint32_t> listed) {
    std::vector<Vec3f> positions(listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) positions[i] = rootPoint(strands, listed[i]);
    return PointIndex(positions);
}

/// The nearest of the listed strands to each place, none farther than the spacing. Past half of it
/// a place must be the nearest to its strand too: those beyond the border of the hair would crowd
/// it.
std::vector<std::uint32_t> snapped(std::span<const Vec3f> places, const StrandSet& strands,
                                   std::span<const std::uint32_t> listed, double spacing) {
    const PointIndex index = rootIndex(strands, listed), placeIndex(places);
    const float sure = 0.25f * float(spacing * spacing);
    std::vector<std::int64_t> nearest(places.size(), -1);
    parallelRange(0, places.size(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) {
            Neighbor found, back;
            if (!index.nearestOne(places[i], found, float(spacing))) continue;
            const std::uint32_t strand = listed[found.index];
            if (found.distanceSquared > sure &&
                placeIndex.nearestOne(rootPoint(strands, strand), back) && back.index != i)
                continue;
            nearest[i] = std::int64_t(strand);
        }
    });
    std::vector<std::uint32_t> out;
    for (const std::int64_t s : nearest)
        if (s >= 0) out.push_back(std::uint32_t(s));
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

std::vector<std::uint32_t> usable(std::span<const std::uint32_t> listed, const StrandSet& strands,
                                  const CenterWeights& weights) {
    std::vector<std::uint32_t> out;
    out.reserve(listed.size());
    for (const std::uint32_t s : listed)
        if (strands.pointCountOf(s) > 0 && weights.of(s) > 0.0f) out.push_back(s);
    return out;
}

/// Strands thinned to the spacing, where there is no scalp to spread centers over.
std::vector<std::uint32_t> pickAmong(const StrandSet& strands,
                                     std::span<const std::uint32_t> listed, double spacing,
                                     const ClumpPickSettings& settings,
                                     const CenterWeights& weights) {
    const std::uint64_t salt = settings.seed ^ kPickSalt;
    std::vector<std::uint32_t> chosen;
    std::vector<std::uint64_t> ids;
    std::vector<Vec3f> positions;
    for (const std::uint32_t s : listed) {
        const std::uint64_t id = strands.ids()[s];
        if (strands.pointCountOf(s) == 0 || !(draw(salt, id) < weights.of(s))) continue;
        chosen.push_back(s);
        ids.push_back(id);
        positions.push_back(rootPoint(strands, s));
    }
    // Thrown until nothing fits, darts end up closer than those drawn at kPerSpacing: for a count
    // no more are thrown than would have been drawn.
    const std::size_t most =
        settings.bySize ? chosen.size() : std::size_t(std::ceil(kPerSpacing * settings.count));
    std::vector<std::uint32_t> out =
        thinnedToSpacing(positions, ids, kRejected * float(spacing), salt, most);
    for (std::uint32_t& s : out) s = chosen[s];
    return out;
}

}  // namespace

double clumpSpacing(const ClumpPickSettings& settings, double area) {
    double spacing = settings.size;
    if (!settings.bySize) spacing = settings.count > 0.0 ? std::sqrt(area / settings.count) : 0.0;
    if (!(spacing > 0.0)) return 0.0;
    constexpr double kLn10 = std::numbers::ln10;
    const double steps = std::round(math::log(spacing) / kLn10 * kStepsPerDecade);
    const double step = math::exp(kLn10 * (steps / kStepsPerDecade));
    // Distances are floats: a square past them says nothing.
    return step > 1e-15 && step < 1e15 ? step : 0.0;
}

double rootsBoxArea(const StrandSet& strands, std::span<const std::uint32_t> listed) {
    Vec3f low{3e38f, 3e38f, 3e38f}, high{-3e38f, -3e38f, -3e38f};
    for (const std::uint32_t s : listed) {
        const Vec3f p = rootPoint(strands, s);
        low = componentMin(low, p);
        high = componentMax(high, p);
    }
    const Vec3f size = high - low;
    float sides[3] = {size.x, size.y, size.z};
    std::sort(sides, sides + 3);
    const double longest = sides[2];
    return std::max(longest * std::max(double(sides[1]), 0.1 * longest), 1e-12);
}

std::vector<std::uint32_t> pickClumpCenters(const StrandSet& strands,
                                            std::span<const std::uint32_t> core,
                                            const ScalpMesh* scalp,
                                            const ClumpPickSettings& settings,
                                            const CenterWeights& weights) {
    const bool onScalp =
        scalp && scalp->area() > 0.0 && std::ranges::any_of(core, [&](std::uint32_t s) {
            return scalp->validRoot(strands.roots()[s]);
        });
    const double spacing =
        clumpSpacing(settings, onScalp ? scalp->area() : rootsBoxArea(strands, core));
    if (!(spacing > 0.0)) return {};

    std::vector<std::uint32_t> all;  // made where the clumps are too many for the core
    const auto everyStrand = [&] {
        all.resize(strands.strandCount());
        for (std::uint32_t s = 0; s < all.size(); ++s) all[s] = s;
        return std::span<const std::uint32_t>(all);
    };
    const bool thinned = core.size() < strands.strandCount();
    std::vector<std::uint32_t> picked;
    if (onScalp) {
        const std::uint64_t seed = settings.seed ^ kPickSalt;
        std::vector<std::uint32_t> listed = usable(core, strands, weights);
        Candidates drawn = drawCandidates(*scalp, spacing, seed);
        const bool byNearest = !weights.strands.empty() && !weights.places;
        // A strand that can be no center still says how likely centers are round it.
        weigh(drawn, core, byNearest ? rootIndex(strands, core) : PointIndex(), weights, seed);
        const std::vector<Vec3f> places =
            spreadCenters(*scalp, std::move(drawn), spacing, settings, seed);
        picked = snapped(places, strands, listed, spacing);
        if (thinned && 2 * picked.size() > listed.size()) {
            listed = usable(everyStrand(), strands, weights);
            picked = snapped(places, strands, listed, spacing);
        }
    } else {
        picked = pickAmong(strands, core, spacing, settings, weights);
        if (thinned && 2 * picked.size() > core.size())
            picked = pickAmong(strands, everyStrand(), spacing, settings, weights);
    }
    std::sort(picked.begin(), picked.end(), [&](std::uint32_t a, std::uint32_t b) {
        const std::uint64_t x = strands.ids()[a], y = strands.ids()[b];
        return x != y ? x < y : a < b;
    });
    return picked;
}

namespace {

/// The step of a hash over many words, lighter than hashCombine: its ends are mixed afterwards.
/// Source: the round of Collet's XXH64.
constexpr std::uint64_t stepOn(std::uint64_t h, std::uint64_t word) {
    return std::rotl(h + word * 0xC2B2AE3D27D4EB4Fu, 31) * 0x9E3779B185EBCA87u;
}

}  // namespace

std::uint64_t strandRootsHash(const StrandSet& strands) {
    const std::size_t count = strands.strandCount();
    std::vector<std::uint64_t> hashes((count + kHashBlock - 1) / kHashBlock);
    parallelRange(0, hashes.size(), 1, [&](std::size_t b, std::size_t e) {
        for (std::size_t block = b; block < e; ++block) {
            // Chains side by side: each waits for its own last step alone.
            const std::uint64_t start = hashCombine(0xA53E5BEFF0BC09F6u, std::uint64_t(block));
            std::array<std::uint64_t, 8> chains;
            chains.fill(start);
            const auto add = [&](std::size_t s, std::size_t first) {
                const StrandRoot& root = strands.roots()[s];
                const Vec3f p = rootPoint(strands, s);
                std::uint64_t* const h = chains.data() + first;
                h[0] = stepOn(h[0], strands.ids()[s]);
                h[1] = stepOn(h[1], bitsOf(p.x, p.y));
                h[2] = stepOn(h[2], bitsOf(p.z, root.u));
                h[3] = stepOn(h[3], std::uint64_t(std::uint32_t(root.triangle)) << 32 |
                                        std::bit_cast<std::uint32_t>(root.v));
            };
            const std::size_t end = std::min(count, (block + 1) * kHashBlock);
            std::size_t s = block * kHashBlock;
            for (; s + 1 < end; s += 2) {
                constexpr std::size_t kAhead = 24;  // too far apart for the caches to foresee
                if (s + kAhead + 1 < count) {
                    prefetch(strands.points().data() + strands.offsets()[s + kAhead]);
                    prefetch(strands.points().data() + strands.offsets()[s + kAhead + 1]);
                }
                add(s, 0);
                add(s + 1, 4);
            }
            if (s < end) add(s, 0);
            std::uint64_t h = start;
            for (const std::uint64_t chain : chains) h = hashCombine(h, chain);
            hashes[block] = h;
        }
    });
    std::uint64_t h = hashCombine(0x5FBC5F29B015B087u, std::uint64_t(count));
    for (const std::uint64_t block : hashes) h = hashCombine(h, block);
    return h;
}

}  // namespace corvelle
