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

/// Cuts many strands by one mesh, which must outlive it.
class CrossingCut {
public:
    explicit CrossingCut(const ScalpMesh& mesh);
    /// The same as cutAt(points, firstCrossing(points, mesh) - offset), `offset` 0 or more.
    StrandCut operator()(std::span<const Vec3f> points, float offset) const;

private:
    friend float firstCrossing(std::span<const Vec3f> points, const ScalpMesh& mesh);
    /// The segment that crosses first, and where on it (0 to 1); points.size() for none.
    std::size_t find(std::span<const Vec3f> points, float& share) const;
    const ScalpMesh& mesh_;
    Float4 low_, high_;
    float size_ = 0.0f;  ///< cm: its longest side
};

/// The cut `length` cm along a strand. What would be left of a millionth of a cm or less goes.
StrandCut cutAt(std::span<const Vec3f> points, float length);

/// The strands as the cuts say, one cut a strand: points beyond go, the last is moved to the end
/// (its values mixed, ids and flags taken from the nearer point); other strands are dropped.
StrandSet cutStrands(const StrandSet& in, std::span<const StrandCut> cuts);

}  // namespace corvelle
