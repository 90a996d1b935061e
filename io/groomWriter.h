#pragma once

#include <string>

#include "io/groomFile.h"
#include "io/groomFileError.h"

namespace corvelle {

/// The version that `.groom` files are written with, and the newest that is read.
inline constexpr int kGroomFileVersion = 1;

/// The file as one line of JSON (docs/GROOM_FILE.md): keys ascending, no blanks, floats by
/// `appendFloat32`, so that reading and writing it again gives the same bytes. The graph's nodes
/// get their versions and the params they leave to defaults.
///
/// Throws: GroomFileError for a number that is not finite, an up axis other than "Y" and "Z", a
/// text
///         that is no JSON, or a graph with nodes of unknown types; what the JSON library throws
///         for a string that is not UTF-8.
/// Cost:   linear, floats printed in parallel; beside the text, little memory.
std::string groomFileText(const GroomFile& file);

/// Writes that text to `path` (UTF-8), durably: the old file or the whole new one stays.
/// Throws: as above, with the file untouched; GroomFileError "cannot write '<path>'" or "cannot
///         replace '<path>': <system message>".
void writeGroomFile(const std::string& path, const GroomFile& file);

}  // namespace corvelle
