#include "operators/scatterCandidates.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr double kMaxPerTriangle = 50e6;
constexpr float kProbeMargin = 1.25f;
constexpr std::size_t kBlock = 256;
constexpr double kMeasuredPlaces = 65536.0;
constexpr std::size_t kMaxPlacesPerTriangle = 4096;
// One salt per random use: draws must not follow the thinning of previews, which is by the bare id.
constexpr std::uint64_t kPlaceSaltU = hashOf("Scatter.placeU");
constexpr std::uint64_t kPlaceSaltV = hashOf("Scatter.placeV");
constexpr std::uint64_t kKeepSalt = hashOf("Scatter.keep");

/// Uniform over a triangle from two uniform numbers (Osada et al., "Shape distributions", ACM TOG
/// 21(4), 2002).
StrandRoot uniformRoot(std::int32_t triangle, float a, float b) {
    const float s = std::sqrt(a);
    return {triangle, 1.0f - s, s * b};
}

}  // namespace

std::vector<float> densityEnvelope(const ScalpMesh& mesh, const ScatterDensity& density) {
    const auto [first, end] = mesh.activeTriangles();
    if (!density.mapped()) return std::vector<float>(end - first, usableDensity(density.constant));
    if (density.bound) return std::vector<float>(end - first, usableDensity(*density.bound));

    std::vector<float> envelope(end - first);
    constexpr std::size_t kProbes = 4;
    parallelRange(0, envelope.size(), kBlock / kProbes, [&, first = first](std::size_t b,
                                                                          std::size_t e) {
        std::array<StrandRoot, kBlock> roots;
        std::array<Vec3f, kBlock> positions;
        std::array<float, kBlock> values;
        for (std::size_t i = b; i < e; i += kBlock / kProbes) {
            const std::size_t n = std::min(kBlock / kProbes, e - i);
            for (std::size_t k = 0; k < n; ++k) {
                const std::int32_t t = std::int32_t(first + i + k);
                roots[kProbes * k] = {t, 1.0f, 0.0f};
                roots[kProbes * k + 1] = {t, 0.0f, 1.0f};
                roots[kProbes * k + 2] = {t, 0.0f, 0.0f};
                roots[kProbes * k + 3] = {t, 1.0f / 3.0f, 1.0f / 3.0f};
            }
            for (std::size_t k = 0; k < kProbes * n; ++k)
                positions[k] = mesh.surfacePoint(roots[k]);
            density.sample({roots.data(), kProbes * n}, {positions.data(), kProbes * n},
                           {values.data(), kProbes * n});
            for (std::size_t k = 0; k < n; ++k) {
                float most = 0.0f;
                for (std::size_t p = 0; p < kProbes; ++p)
                    most = std::max(most, usableDensity(values[kProbes * k + p]));
                envelope[i + k] = kProbeMargin * most;
            }
        }
    });
    return envelope;
}

double expectedCandidates(const ScalpMesh& mesh, std::span<const float> envelope) {
    const std::size_t first = mesh.activeTriangles().first;
    double sum = 0.0;
    for (std::size_t i = 0; i < envelope.size(); ++i)
        sum += double(mesh.triangleAreas()[first + i]) * double(envelope[i]);
    return sum;
}

double expectedRoots(const ScalpMesh& mesh, const ScatterDensity& density) {
    const auto [first, end] = mesh.activeTriangles();
    double area = 0.0;
    for (std::size_t t = first; t < end; ++t) area += double(mesh.triangleAreas()[t]);
    if (!density.mapped()) return area * double(usableDensity(density.constant));
    if (!(area > 0.0) || !std::isfinite(area)) return area;

    std::vector<double> perTriangle(end - first);
    parallelRange(0, perTriangle.size(), 64, [&, first = first](std::size_t b, std::size_t e) {
        std::array<StrandRoot, kBlock> roots;
        std::array<Vec3f, kBlock> positions;
        std::array<float, kBlock> values;
        for (std::size_t i = b; i < e; ++i) {
            const std::int32_t t = std::int32_t(first + i);
            const double triangleArea = double(mesh.triangleAreas()[first + i]);
            const std::size_t places = std::clamp<std::size_t>(
                std::size_t(kMeasuredPlaces * triangleArea / area), 1, kMaxPlacesPerTriangle);
            double sum = 0.0;
            for (std::size_t k = 0; k < places; k += kBlock) {
                const std::size_t n = std::min(kBlock, places - k);
                for (std::size_t j = 0; j < n; ++j) {
                    // The additive sequence of the plastic number: even in two dimensions.
                    // Roberts, "The unreasonable effectiveness of quasirandom sequences", 2018.
                    const double step = double(k + j);
                    const double x = 0.5 + 0.7548776662466927 * step;
                    const double y = 0.5 + 0.5698402909980532 * step;
                    roots[j] = uniformRoot(t, float(x - std::floor(x)), float(y - std::floor(y)));
                    positions[j] = mesh.surfacePoint(roots[j]);
                }
                density.sample({roots.data(), n}, {positions.data(), n}, {values.data(), n});
                for (std::size_t j = 0; j < n; ++j) sum += double(usableDensity(values[j]));
            }
            perTriangle[i] = triangleArea * (sum / double(places));
        }
    });
    double total = 0.0;
    for (const double each : perTriangle) total += each;
    return total;
}

ScatterPoints scatterCandidates(const ScalpMesh& mesh, const ScatterDensity& density,
                                std::span<const float> envelope, std::uint64_t seed, float share) {
    const std::size_t first = mesh.activeTriangles().first;
    ScatterPoints out;
    const double expected = expectedCandidates(mesh, envelope) * double(std::min(share, 1.0f));
    if (!(expected > 0.0)) return out;
    const std::size_t reserved = std::size_t(std::ceil(expected * 1.1)) + 16;
    out.ids.reserve(reserved);
    out.roots.reserve(reserved);

    const std::uint64_t h0 = mix64(seed);
    for (std::size_t i = 0; i < envelope.size(); ++i) {
        const std::size_t t = first + i;
        const double here = std::min(
            double(mesh.triangleAreas()[t]) * double(envelope[i]), kMaxPerTriangle);
        if (!(here > 0.0)) continue;
        const std::uint64_t ht = hashCombine(h0, std::uint64_t(t));
        const double floored = std::floor(here);
        const std::uint64_t count =
            std::uint64_t(floored) + (double(unitHash(ht)) < here - floored ? 1 : 0);
        for (std::uint64_t k = 0; k < count; ++k) {
            const std::uint64_t id = hashCombine(ht, k);
            if (share < 1.0f && !(unitHash(id) < share)) continue;
            out.ids.push_back(id);
            out.roots.push_back({std::int32_t(t), 0.0f, 0.0f});
        }
    }

    std::vector<std::uint8_t> kept(density.mapped() ? out.size() : 0);
    parallelRange(0, out.size(), kBlock, [&](std::size_t b, std::size_t e) {
        std::array<Vec3f, kBlock> positions;
        std::array<float, kBlock> values;
        for (std::size_t i = b; i < e; i += kBlock) {
            const std::size_t n = std::min(kBlock, e - i);
            for (std::size_t k = i; k < i + n; ++k)
                out.roots[k] = uniformRoot(out.roots[k].triangle, draw(kPlaceSaltU, out.ids[k]),
                                           draw(kPlaceSaltV, out.ids[k]));
            if (!density.mapped()) continue;
            for (std::size_t k = 0; k < n; ++k)
                positions[k] = mesh.surfacePoint(out.roots[i + k]);
            density.sample({out.roots.data() + i, n}, {positions.data(), n}, {values.data(), n});
            for (std::size_t k = 0; k < n; ++k) {
                const float most = envelope[std::size_t(out.roots[i + k].triangle) - first];
                kept[i + k] = draw(kKeepSalt, out.ids[i + k]) * most < usableDensity(values[k]);
            }
        }
    });
    if (density.mapped()) {
        std::size_t to = 0;
        for (std::size_t i = 0; i < out.size(); ++i) {
            if (!kept[i]) continue;
            out.ids[to] = out.ids[i];
            out.roots[to] = out.roots[i];
            ++to;
        }
        out.ids.resize(to);
        out.roots.resize(to);
    }
    return out;
}

}  // namespace corvelle
