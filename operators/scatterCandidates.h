#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

/// out[i] is the density at roots[i], which lies at positions[i]: strands per square centimetre, or
/// a grid's share. Called from parallel bodies, with a few hundred roots at a time.
using DensitySampler = std::function<void(std::span<const StrandRoot> roots,
                                          std::span<const Vec3f> positions, std::span<float> out)>;

/// How dense roots are.
struct ScatterDensity {
    float constant = 0.0f;       ///< everywhere, when nothing is sampled
    DensitySampler sample;       ///< empty: constant
    std::optional<float> bound;  ///< never below what `sample` gives; absent: triangles are probed
    bool mapped() const { return bool(sample); }
};

/// A density as a number that can be used: below 0 and NaN are 0.
inline float usableDensity(float value) { return value > 0.0f ? value : 0.0f; }

/// Roots, by stable id. Arrays [n] in one order.
struct ScatterPoints {
    std::vector<std::uint64_t> ids;
    std::vector<StrandRoot> roots;
    std::size_t size() const { return ids.size(); }
};

/// The least density, triangle by triangle, that candidates are drawn at so that thinning them can
/// give the density wanted. A sampler without a bound is probed at each triangle's corners and
/// centroid, and 1.25 times the largest is taken: a bound of each triangle alone, so that an edit in
/// one place leaves the draws everywhere else as they were.
/// Shape: one per active triangle of the mesh (ScalpMesh::activeTriangles).
std::vector<float> densityEnvelope(const ScalpMesh& mesh, const ScatterDensity& density);

/// Area times envelope, summed in triangle order: how many candidates to expect. May be infinite
/// or NaN; never throws.
double expectedCandidates(const ScalpMesh& mesh, std::span<const float> envelope);

/// The integral of the density over the surface: how many roots to expect. A map is measured at
/// about 65,536 fixed places spread by area, at least one a triangle.
double expectedRoots(const ScalpMesh& mesh, const ScatterDensity& density);

/// Roots at random (white noise). A candidate's id follows from the seed, its triangle and its
/// number on it, its place from the id: nothing that happens on other triangles changes it. Of each
/// triangle's candidates those with unitHash(id) below `share` are kept, then a map thins them from
/// `envelope` down to its value. In triangle order.
/// Cost: parallel over candidates in blocks of 256; the same bits for any thread count.
ScatterPoints scatterCandidates(const ScalpMesh& mesh, const ScatterDensity& density,
                                std::span<const float> envelope, std::uint64_t seed, float share);

}  // namespace corvelle
