#pragma once

#include <string>

#include "io/groomFile.h"
#include "io/groomFileError.h"

namespace corvelle {

/// "Y" or "Z", as given. Throws GroomFileError `groom file: upAxis is "Y" or "Z", not "<value>"`.
const std::string& checkedUpAxis(const std::string& axis);

/// Turns a whole groom by a quarter about X, so that `axis` ("Y" or "Z") is up: meshes, guides, the
/// hierarchy, and the params of the graph that are directions of the world, in compounds too. From
/// Z to Y and back gives the same bits for every position. Nothing is done when the axis is up
/// already; a blank `upAxis` of the file is Y. Prototypes, parts, flow, correctives, maps and
/// caches stay. Throws GroomFileError for another axis, or data that does not read; the file is
/// then unchanged.
void convertGroomFileUpAxis(GroomFile& file, const std::string& axis);

}  // namespace corvelle
