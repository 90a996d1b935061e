#pragma once

#include "io/groomFile.h"

namespace corvelle {

class GroomSession;

/// The session's document as a file holds it. A hierarchy whose scalp has no rest points is carried
/// onto the scalp as it is now, for that is the pose it will be opened in. Texts that did not read
/// are in it as they came.
GroomFile groomToSave(GroomSession& groom);

}  // namespace corvelle
