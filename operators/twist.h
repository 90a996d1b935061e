#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/guideSet.h"
#include "model/strandSet.h"
#include "model/vec3f.h"

namespace corvelle {

/// Curves that strands turn about, flat.
/// Shapes: offsets [axes + 1]; points, tangents, lengths, shares [offsets.back()]. Tangents are
/// unit
///         (zero where an axis has no length), lengths arc lengths from the root in cm, shares of
///         the whole length.
struct TwistAxes {
    std::vector<std::size_t> offsets{0};
    std::vector<Vec3f> points, tangents;
    std::vector<float> lengths, shares;
    std::size_t count() const { return offsets.size() - 1; }
};

/// The smooth curves through the guides' points.
TwistAxes guideAxes(const GuideSet& guides);

/// The mean curve of each clump's strands: of those that every preview holds, or of all where none
/// of these is in the clump. ofStrand [strands] names each strand's axis, kNoAxis outside of
/// clumps.
inline constexpr std::uint32_t kNoAxis = 0xffffffffu;
TwistAxes clumpAxes(const StrandSet& strands, std::span<const float> clumps,
                    std::vector<std::uint32_t>& ofStrand);

/// Turns each point about the axis at the same share of the length, right-handed, by `turn` turns
/// per cm of the axis from its root to there. shares, out [n].
void twistStrand(std::span<const Vec3f> points, std::span<const float> shares,
                 const TwistAxes& axes, std::size_t axis, float turn, std::span<Vec3f> out);

}  // namespace corvelle
