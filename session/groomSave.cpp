#include "session/groomSave.h"

#include "session/groomSession.h"

namespace corvelle {

GroomFile groomToSave(GroomSession& groom) {
    GroomFile file = groom.document();
    if (file.scalp && file.scalp->restPoints().empty() && groom.hierarchyError().empty()) {
        const std::shared_ptr<const GuideHierarchy> active = groom.activeHierarchy();
        if (active != groom.hierarchy()) file.hierarchy = guidesToJson(*active);
    }
    return file;
}

}  // namespace corvelle
