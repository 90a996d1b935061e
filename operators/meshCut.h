#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/simd4.h"
#include "model/strandSet.h"

namespace corvelle {

/// Where one strand ends.
struct StrandCut {
    std::uint32_t points = 0;  ///< that stay, the end among them; 0: the strand goes
    float share = 1.0f;        ///< of the last segment that stays: the end lies there
    bool whole = true;         ///< nothing is cut off
};

/// Arc length from the root, in cm, at which a strand first crosses the mesh; infinite when it does
/// not. A root on the mesh itself is no crossing. Pure; call `mesh.prepareQueries()` before a loop.
float firstCrossing(std::span<const Vec3f> points, const ScalpMesh& mesh);

/// Cuts strands by one mesh, which must outlive it.
class CrossingCut {
public:
    explicit CrossingCut(const ScalpMesh& mesh);
    /// Sets the cuts of the listed strands, `cuts` being one a strand of the set: the same as
    /// cutAt(points, firstCrossing(points, mesh) - offset), `offset` 0 or more. Many at a time
    /// share the way down the mesh's tree.
    void operator()(const StrandSet& strands, std::span<const std::uint32_t> list, float offset,
                    std::span<StrandCut> cuts) const;

    static constexpr std::size_t kAtOnce = 1024;  ///< strands: a good share of a list for a thread

private:
    friend float firstCrossing(std::span<const Vec3f> points, const ScalpMesh& mesh);
    class Search;
    bool mayCross(std::span<const Vec3f> points) const;
    std::uint64_t nearSegments(std::span<const Vec3f> points, std::size_t first) const;
    const ScalpMesh& mesh_;
    Float4 low_, high_;  ///< the mesh's box, and as far round it as tests of rays may round
};

/// The cut `length` cm along a strand. What would be left of a millionth of a cm or less goes.
StrandCut cutAt(std::span<const Vec3f> points, float length);

/// The strands as the cuts say, one cut a strand: points beyond go, the last is moved to the end
/// (its values mixed, ids and flags taken from the nearer point); other strands are dropped.
StrandSet cutStrands(const StrandSet& in, std::span<const StrandCut> cuts);

}  // namespace corvelle
