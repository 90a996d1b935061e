#pragma once

#include <istream>
#include <string>

namespace corvelle {

/// Walks the container that Alembic files lie in (Ogawa: groups of references to groups and to runs
/// of bytes) and gives its first fault as a text, empty for none: "not an Alembic file", "the file is
/// not whole" (its writer did not finish), or what of it is broken. The library itself trusts what it
/// reads, so files from anywhere pass through here first.
///
/// A file without a fault has every reference within itself, no group inside itself, and no groups
/// that overlap; so a walk over all of it ends, in time and memory linear in the file's size.
/// Reads the groups alone, never the data. Cost: O(groups + references).
std::string ogawaFault(std::istream& in);

}  // namespace corvelle
