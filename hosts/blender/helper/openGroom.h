#pragma once

#include <memory>

#include "hosts/blender/helper/helperSession.h"
#include "io/curveCaches.h"
#include "io/groomFile.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// A groom that has been opened beside the session's. Making one is all of opening that can fail.
struct OpenedGroom {
    /// Throws what GroomSession's constructor throws. Caches that do not open become lines of
    /// `errors`.
    explicit OpenedGroom(GroomFile file);

    std::shared_ptr<GroomSession> groom;
    GroomCaches caches;
    std::vector<std::string> errors;
};

/// Puts it in the place of the session's groom: a stroke under way is thrown away, and selection,
/// hidden groups, undo and rest guides go; tool, settings, time and space stay.
void installGroom(HelperSession& session, OpenedGroom opened);

/// Gives the groom a scalp, and roots the flat guides again by position where its triangles are
/// others. How many were. On the same triangles the groom's subdivision levels stay.
std::size_t changeScalp(GroomSession& groom, ScalpPtr scalp);

}  // namespace corvelle
