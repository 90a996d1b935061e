#include "session/groomSave.h"

#include "session/groomSession.h"

namespace corvelle {

GroomFile groomToSave(GroomSession& groom) {
    GroomFile file = groom.document();
    // What a stroke under way has wired reads maps that are not in the document yet.
    file.graph = groom.ownGraphText();
    if (file.scalp && file.scalp->restPoints().empty() && groom.hierarchyError().empty()) {
        const std::shared_ptr<const GuideHierarchy> active = groom.activeHierarchy();
        if (active != groom.hierarchy()) file.hierarchy = guidesToJson(*active);
    }
    return file;
}

}  // namespace corvelle
