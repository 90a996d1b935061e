#pragma once

#include <cstddef>
#include <cstdint>

#include "model/strandSet.h"

namespace corvelle {

/// What a tuft of test hair looks like. Lengths in centimetres.
struct TuftSettings {
    std::size_t strands = 100;
    std::size_t pointsPerStrand = 8;  ///< the most when `uneven`
    std::uint64_t seed = 0;
    bool uneven = false;      ///< 2 to `pointsPerStrand` points (also 0 and 1 at `degenerate`)
    bool degenerate = false;  ///< mixes in strands of few points and of length 0
    bool channels = true;     ///< see makeTuft
    float radius = 10.0f;     ///< roots lie on this disc round the origin, in the xz plane
    float length = 5.0f;      ///< strands are 0.5 to 1.5 times as long
    int triangles = 64;       ///< root triangles are below; 0 leaves the strands unrooted
};

/// Deterministic random hair for tests and benchmarks: wavy strands growing up from a disc, with
/// well mixed ids, random roots, tapering widths and, with `channels`, the strand channels "tone"
/// (0 to 1, default 0.5) and "clumpId" (whole numbers 0 to 15, discrete, default -1) and the point
/// channel "share" (0 root to 1 tip, default 0.25). Strand s is the same whatever `strands` is.
StrandSet makeTuft(const TuftSettings& settings);

}  // namespace corvelle
