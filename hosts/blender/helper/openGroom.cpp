#include "hosts/blender/helper/openGroom.h"

#include "hosts/blender/helper/scalpCommands.h"
#include "hosts/blender/helper/toolState.h"
#include "session/groomSession.h"
#include "session/scalpFollow.h"

namespace corvelle {

OpenedGroom::OpenedGroom(GroomFile file) : groom(std::make_shared<GroomSession>(std::move(file))) {
    caches = openCaches(groom->document(), errors);
    if (!groom->document().scalpCache.file.empty())
        errors.push_back(
            "the scalp cache is the host's to play: the helper evaluates the scalp it is "
            "given");
}

void installGroom(HelperSession& session, OpenedGroom opened) {
    cancelStroke(session);
    session.groom = std::move(opened.groom);
    rebindTools(session);
    session.inputErrors = std::move(opened.errors);
    session.guideCache = std::move(opened.caches.guides);
    session.simulationBakes = std::move(opened.caches.bakes);
    session.lastEvaluation = nullptr;
    session.lastNodesEvaluated = session.lastNodesIncremental = 0;
    session.strandAnswer = {};
}

std::size_t changeScalp(GroomSession& groom, ScalpPtr given) {
    const ScalpPtr old = groom.scalp();
    // Hosts send a mesh without the levels that its render refines it by: those of the groom stay.
    if (old && given && old->subdivision() > 0 && given->subdivision() == 0 &&
        old->topologyHash() == given->topologyHash()) {
        ScalpMesh mesh = *given;
        mesh.setSubdivision(old->subdivision(), old->subdivisionFrom());
        given = std::make_shared<const ScalpMesh>(std::move(mesh));
    }
    groom.setScalp(std::move(given));
    const ScalpPtr& scalp = groom.scalp();
    const bool topologyChanged = old && scalp && old->topologyHash() != scalp->topologyHash();
    const bool canRoot = topologyChanged && !scalp->triangles().empty();
    std::size_t rerooted = 0;
    if (groom.restGuides()) {
        if (canRoot) {
            groom.setRestGuides(rerootGuides(groom.restGuides(), *groom.restScalp()));
            rerooted = groom.restGuides()->size();
        }
        applyHostGuides(groom);
    } else if (canRoot && groom.document().guides) {
        const GuidesPtr guides = rerootGuides(groom.document().guides, *scalp);
        rerooted = guides->size();
        groom.setGuides(guides);
    }
    return rerooted;
}

}  // namespace corvelle
