#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/scalpMesh.h"
#include "model/strandSet.h"
#include "operators/scatterCandidates.h"

namespace corvelle {

/// How clump centers are picked among strands.
struct ClumpPickSettings {
    bool bySize = false;   ///< `size` says how far apart they are, else `count` how many there are
    double count = 300.0;  ///< about; 0: none
    double size = 1.0;     ///< cm; 0: none
    float randomness = 0.3f;  ///< 0 evenly spread, 1 at random, up to 2: on beyond it
    std::uint64_t seed = 0;
};

/// Chance of a place to hold a center, 0 to 1.
struct CenterWeights {
    float constant = 1.0f;       ///< everywhere, unless one of the following is given
    std::vector<float> strands;  ///< [strands] of the set, or empty
    DensitySampler places;       ///< at roots on the scalp; empty: that of the nearest strand
    float of(std::size_t strand) const { return strands.empty() ? constant : strands[strand]; }
};

/// The spacing of centers, cm: `size`, or what spreads `count` of them over `area` square
/// centimetres, snapped to steps of 1 %, so that a slight change of the area moves no center. 0 for
/// none.
double clumpSpacing(const ClumpPickSettings& settings, double area);

/// The area that strands cover where no scalp says it: the longest side of the box of the listed
/// strands' roots times the second longest, that taken as at least a tenth of the longest.
double rootsBoxArea(const StrandSet& strands, std::span<const std::uint32_t> listed);

/// The strands that become the centers of clumps, by ascending id.
///
/// Places are drawn over the scalp by the hash of its triangles, thinned to the spacing, relaxed to
/// blue noise and snapped to the nearest strand, so that a change of the hair moves no clump, and
/// one of the scalp only those near it. A place without a strand within the spacing is dropped:
/// hair grows on a part of many scalps. Without a scalp (null, or no strand rooted on it) the
/// strands themselves are thinned to the spacing. `core` are the strands that every preview holds:
/// places snap to those, as long as the clumps number at most half of them, else to all; so a
/// preview shows the clumps of the whole. The same result for any thread count and order of
/// strands.
std::vector<std::uint32_t> pickClumpCenters(const StrandSet& strands,
                                            std::span<const std::uint32_t> core,
                                            const ScalpMesh* scalp,
                                            const ClumpPickSettings& settings,
                                            const CenterWeights& weights);

/// A hash of all that picking and binding read of the strands: how many there are, their ids and
/// where they are rooted. Their shapes do not count.
std::uint64_t strandRootsHash(const StrandSet& strands);

}  // namespace corvelle
