#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/utf8Path.h"

namespace corvelle {

// Paths of pictures, as UTF-8 text.

/// $NAME, ${NAME} and %NAME% replaced by the environment's values; a variable that is not set stays
/// as written. Names are letters, digits and _, not starting with a digit: "%(UDIM)d" is left
/// alone.
std::string expandVariables(std::string_view text);

/// UDIM tiles: 1001 + column + 10 * row, 10 columns and 10 rows.
inline constexpr int kFirstTile = 1001;
inline constexpr int kTileCount = 100;
/// True for a path holding "<UDIM>", "<udim>" or "%(UDIM)d".
bool hasUdimMarker(std::string_view path);
/// The path of one tile: every marker replaced by its number.
std::string tilePath(std::string_view pattern, int tile);

/// A file is there; for a UDIM pattern: any of its tiles.
bool pictureExists(const std::string& path);
/// Of the path, size and modification time of a file; 0 when there is none.
std::uint64_t fileSignature(const std::string& path);

}  // namespace corvelle
