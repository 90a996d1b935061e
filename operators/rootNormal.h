#pragma once

#include <algorithm>

#include "model/scalpMesh.h"
#include "model/strandRoot.h"

namespace corvelle {

/// A strength as a field gave it, held to 0..1; what is no number is 0.
inline float clampShare(float x) { return x > 0.0f ? std::min(x, 1.0f) : 0.0f; }

/// The scalp's unit normal where a strand is rooted; zero for a strand that is not rooted on it.
inline Vec3f rootNormal(const ScalpMesh* scalp, const StrandRoot& root) {
    return scalp && scalp->validRoot(root) ? scalp->surfaceNormal(root) : Vec3f{};
}

}  // namespace corvelle
