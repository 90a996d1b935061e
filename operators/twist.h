#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/guideSet.h"
#include "model/strandSet.h"
#include "model/vec3f.h"

namespace corvelle {

/// Curves that strands turn about, flat: axis a has the points offsets[a] to offsets[a + 1], 2 or
/// more, each a row of 8: its place, its share of the arc length, the unit tangent (zero where an
/// axis has no length), the arc length from the root in cm.
struct TwistAxes {
    std::vector<std::uint64_t> offsets{0};
    std::vector<float> rows;
    std::size_t count() const { return offsets.size() - 1; }
};

/// The smooth curves through the guides' points.
TwistAxes guideAxes(const GuideSet& guides);

/// The mean curve of each clump's strands, at evenly spaced points: of those that every preview
/// holds, or of all where none of these is in the clump. ofStrand [strands] names each strand's
/// axis, kNoAxis outside of clumps.
inline constexpr std::uint32_t kNoAxis = 0xffffffffu;
TwistAxes clumpAxes(const StrandSet& strands, std::span<const float> clumps,
                    std::vector<std::uint32_t>& ofStrand);

/// Turns each point about the axis at the same share of the length, right-handed, by `turn` turns
/// per cm of the axis from its root to there. shares, out [n].
void twistStrand(std::span<const Vec3f> points, std::span<const float> shares,
                 const TwistAxes& axes, std::size_t axis, float turn, std::span<Vec3f> out);

}  // namespace corvelle
