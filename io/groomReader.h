#pragma once

#include <string>

#include "io/groomFile.h"
#include "io/groomFileError.h"

namespace corvelle {

/// Reads a `.groom` file (docs/GROOM_FILE.md). Relative paths in it are resolved against its
/// folder. Throws: GroomFileError "cannot read '<path>'", or as `readGroomFileText`.
GroomFile readGroomFile(const std::string& path);

/// Reads the text of one; relative paths are resolved against `directory`, if that is not empty.
/// What it does not know is left out, but the graph, the hierarchy and the other data texts come
/// through whole, whatever they hold: whether they make sense shows when the groom is opened.
///
/// Throws: GroomFileError, naming the part of the file that is wrong.
/// Cost:   a pass over the text and the reading of its numbers, in parallel; memory for the arrays,
///         not for their text.
GroomFile readGroomFileText(const std::string& text, const std::string& directory);

}  // namespace corvelle
