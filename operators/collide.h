#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/strandSet.h"
#include "operators/distanceField.h"
#include "operators/strandLoop.h"

namespace corvelle {

struct CollideSettings {
    float offset = 0.05f;   ///< cm that strands keep from the surfaces
    float maxDepth = 3.0f;  ///< cm under a surface past which points are left alone
    int iterations = 2;     ///< root-to-tip passes
};

/// A surface that strands are kept out of: its distance field, or its mesh itself where `field` is
/// null. Holds what it reads; any thread may read it.
struct CollideSurface {
    DistanceFieldPtr field;
    std::shared_ptr<const ExactDistance> exact;
};

/// Pushes one strand out of the surfaces, in the order given. From the root out, each point less
/// than `offset` outside a surface, and no more than `maxDepth` under it, moves along the
/// distance's gradient to `offset`; it, and every point after it, then goes back to its segment's
/// length from the point before it. The root stays. A strand that keeps its distance comes back as
/// it was, bit for bit; returns whether it moved. Shapes: rest, out [n], which may be one array.
/// Pure: strands may run in any order, in parallel.
bool collideStrand(std::span<const Vec3f> rest, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings, std::span<Vec3f> out);

/// Whether any point but the root is too near to, or under, a surface: else collideStrand moves
/// nothing.
bool strandTouches(std::span<const Vec3f> points, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings);

/// The strands of `pick` that touch a surface, ascending. Parallel; the same list for any thread
/// count.
std::vector<std::uint32_t> touchingStrands(const StrandSet& strands, const StrandPick& pick,
                                           std::span<const CollideSurface> surfaces,
                                           const CollideSettings& settings);

/// All strands of `in` pushed out. The very same set comes back when none touches; else a set that
/// shares everything but the points.
StrandsPtr collide(const StrandsPtr& in, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings);

/// The same from `previous`, the result for an input that differed from `in` in the strands of
/// `changed` alone (ascending). Moved in by its last holder, its points are written in place.
StrandsPtr collideAfter(const StrandsPtr& in, StrandsPtr previous,
                        std::span<const std::uint32_t> changed,
                        std::span<const CollideSurface> surfaces, const CollideSettings& settings);

}  // namespace corvelle
