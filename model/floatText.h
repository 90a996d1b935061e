#pragma once

#include <string>

namespace corvelle {

/// Appends the shortest decimal text that reads back as the same float32, fixed or scientific,
/// whichever is shorter (fixed on a tie; exponents have a sign and two digits or more): "1",
/// "0.1", "1e+20"; "-0.0" for a negative zero, which JSON readers would lose as an integer. The
/// rare float that comes back as its neighbour when read as a double and then narrowed is written
/// with the digits of a double. `value` must be finite. Pure, no locale.
void appendFloat32(std::string& out, float value);

}  // namespace corvelle
