#pragma once

#include <string>

namespace corvelle {

// Paths that a groom names, UTF-8 with forward slashes.

/// A path that is relative to the folder of a file: joined to it, in normal form. Empty and
/// absolute paths, ones that hold a NUL, and all of them without a `directory`, come back as they are.
std::string resolveGroomPath(const std::string& path, const std::string& directory);

/// The same for the names of caches, of which those that hold a variable ("$" or "%") come back as
/// they are too: where they lead shows when they are opened.
std::string resolveCachePath(const std::string& path, const std::string& directory);

/// A relative path below folder `from`, as one below folder `to` that names the same file. Empty
/// and absolute paths come back as they are, and so do those that hold a NUL or a variable ("$" or
/// "%").
std::string rebaseGroomPath(const std::string& path, const std::string& from,
                            const std::string& to);

}  // namespace corvelle
