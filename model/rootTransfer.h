#pragma once

#include "model/scalpMesh.h"
#include "model/strandRoot.h"

namespace corvelle {

/// The root on `to` nearest to where `root` lies on `from`; false, and `out` stays, for a root on
/// no triangle of `from` and where `to` has none.
inline bool nearestRoot(const StrandRoot& root, const ScalpMesh& from, const ScalpMesh& to,
                        StrandRoot& out) {
    SurfaceHit hit;
    if (!from.validRoot(root)) return false;
    if (!to.closestPoint(from.surfacePoint(root), ScalpMesh::kAnyDistance, hit)) return false;
    out = hit.root();
    return true;
}

}  // namespace corvelle
