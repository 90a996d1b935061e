#pragma once

#include <cstdint>

#include "model/guideSet.h"
#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

/// A reflection across a plane square to an axis.
struct MirrorSettings {
    int axis = 0;         ///< 0 x, 1 y, 2 z
    float offset = 0.0f;  ///< the plane's place along it, cm
    bool replace = true;  ///< the side's curves onto the other, which loses its own; else all added
    bool positive = true;  ///< with replace: the side that is kept
};

/// Curves whose roots are this near the plane, in cm, stay as they are and get no mirror.
inline constexpr float kOnMirrorPlane = 1e-4f;

/// The id of the mirror image of a strand or guide; never 0.
std::uint64_t mirroredId(std::uint64_t id, int axis);

/// What stays, then the images, both in the order of the input; the input itself when nothing
/// changes. Images are rooted where their root lands nearest on `scalp`, the curve moving along;
/// with null they are unrooted. clumpId, braidId and featherId get numbers of their own, `side` and
/// the vane normal's component turn about. Channels of other kinds, and layers, are copied.
/// Threads: parallel over strands; the same bits on any number.
StrandsPtr mirrorStrands(const StrandsPtr& in, const MirrorSettings& settings,
                         const ScalpMesh* scalp);
/// The same for guides and their attributes; frames turn about with them.
GuidesPtr mirrorGuides(const GuidesPtr& in, const MirrorSettings& settings, const ScalpMesh* scalp);

}  // namespace corvelle
