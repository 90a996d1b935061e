#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "model/scalpMesh.h"
#include "model/vec3f.h"
#include "operators/laneKernels.h"
#include "operators/meshSides.h"

namespace corvelle {

/// A signed distance, in centimetres, below 0 inside, and the unit direction it grows in (zero
/// where there is none).
struct DistanceSample {
    float distance = 0.0f;
    Vec3f gradient;
};

/// The exact signed distance to a mesh: its closest point, and the side of it by pseudonormals.
/// Slower than a DistanceField, and without its limits. Immutable; any thread may read it.
class ExactDistance {
public:
    explicit ExactDistance(ScalpPtr mesh);
    /// False when nothing of the mesh is nearer than `maxDistance`. `nearTriangle` (-1: none) is
    /// where to begin, and becomes the closest triangle.
    bool sample(Vec3f position, float maxDistance, std::int32_t& nearTriangle,
                DistanceSample& out) const;
    const ScalpPtr& mesh() const { return mesh_; }

private:
    ScalpPtr mesh_;
    MeshSidesPtr sides_;
};

/// The signed distance to a mesh on a grid of cubic cells round it, made once and read many times.
///
/// Cells are half the mean edge long, at least a 192nd of the longest side. At nodes within two
/// cells of the surface distances are exact. Farther out the closest triangles spread from coarse
/// nodes to fine ones: every eighth node is measured, and every finer one near the surface or on a
/// ridge of the field; any other holds the distance to the best triangle that the coarser nodes
/// next to it and a walk over the mesh come to. That is never below the exact distance, 0.03 % above
/// it in the mean, and more than 0.5 % (up to 2 %) at under one node in a hundred, on smooth meshes
/// in a thousand. Between nodes distances are interpolated (trilinear). Outside the grid the
/// distance to the grid's border is added to the value there.
///
/// Threads: the build is parallel and gives the same bits for any thread count; immutable after,
///          any thread may read it.
class DistanceField {
public:
    /// Why a mesh cannot have one: "its scalp has no size", "its scalp is too big for the clearance
    /// field's grid", or empty.
    static std::string refusal(const ScalpMesh& mesh);

    /// `offset`: distances up to this outside the mesh are told from the grid itself.
    /// Throws: std::invalid_argument with the refusal.
    DistanceField(const ScalpMesh& mesh, float offset);

    float distance(Vec3f position) const;
    DistanceSample sample(Vec3f position) const;
    /// The sample where its distance is from `least` up to, not including, `below`; else false, and
    /// `out` stays. `fewAre`: looks at the coarse table first.
    bool sampleWithin(Vec3f position, float least, float below, DistanceSample& out,
                      bool fewAre = true) const;
    /// distances[i] at positions[i].
    void distances(std::span<const Vec3f> positions, std::span<float> distances) const;
    /// True when the distance at `position` is surely at or above `above`, or surely below `below`:
    /// a look at a coarse table, far faster than the distance. False says nothing.
    bool surelyOutside(Vec3f position, float below, float above) const;

    /// Bit i for each of up to kMostLooks positions of which surelyOutside says nothing. Several
    /// are looked at side by side.
    std::uint32_t perhapsWithin(std::span<const Vec3f> positions, float below, float above) const;
    static constexpr std::size_t kMostLooks = 32;

    float cell() const { return cell_; }
    std::size_t nodeCount() const { return values_.size() - kReadBehind; }
    /// For kernels; good while the field is.
    FieldGrid grid() const;
    /// A grid of cells four times as long, small enough for a cache, whose distances are never above
    /// the field's own.
    FieldGrid floor() const;
    std::size_t byteSize() const;
    /// Over every value: for tests.
    std::uint64_t contentHash() const;

private:
    static constexpr std::size_t kReadBehind = 2;  ///< floats behind the nodes, read but not used
    struct Build;
    struct Place;
    void makeFloor();
    Place place(Vec3f position) const;
    float blend(const Place& place, Vec3f& slope) const;
    Vec3f direction(const Place& place, Vec3f slope, float off) const;
    std::size_t node(std::size_t x, std::size_t y, std::size_t z) const {
        return (z * count_[1] + y) * count_[0] + x;
    }

    Vec3f low_;
    float cell_ = 0.0f, inverse_ = 0.0f;
    std::array<std::size_t, 3> count_{};   ///< nodes, 2 or more an axis
    Vec3f last_;                           ///< the last node of each axis
    std::vector<float> values_;            ///< x fastest
    std::vector<float> floor_;             ///< of every fourth node
    std::array<std::size_t, 3> blocks_{};  ///< of kBlockCells cells an axis
    struct Range {
        float least = 0.0f, most = 0.0f;
    };
    std::vector<Range> ranges_;  ///< of the values round each block's cells
    float borderLeast_ = 0.0f;
};
using DistanceFieldPtr = std::shared_ptr<const DistanceField>;

/// The grid's padding beyond two cells, in cells: a power of two, so that small changes of an
/// offset do not ask for another field.
std::size_t paddingCells(float offset, float cell, float side);

/// The field of a mesh, made on first use; the four used last are kept, by the mesh's content.
/// Null, and `whyNot` filled when given, for a mesh that cannot have one. Any thread may call it;
/// two that ask for one field at once may both make it.
DistanceFieldPtr sharedDistanceField(const ScalpPtr& mesh, float offset,
                                     std::string* whyNot = nullptr);
/// The same for the exact distance.
std::shared_ptr<const ExactDistance> sharedExactDistance(const ScalpPtr& mesh);

}  // namespace corvelle
