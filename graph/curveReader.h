#pragma once

#include <cstdint>
#include <string>

#include "model/curveSet.h"

namespace corvelle {

/// Reads curves from animation files for nodes, which know no file formats. The session brings one.
/// Any thread may call it.
class CurveReader {
public:
    virtual ~CurveReader() = default;

    /// All curves of the objects named `object`, and of those below them, at a time; an empty name:
    /// all of the file. The same shared value is given while file and sample stay the same.
    /// Throws std::exception with a text for the user.
    virtual CurveSetPtr curves(const std::string& path, const std::string& object,
                               double seconds) = 0;

    /// Names what `curves` would give: equal stamps, equal curves. It follows the file's path, size
    /// and time of change, and the samples that lie at `seconds`, so that a still file has one
    /// stamp for all times. Never throws; 0 for a file that is not there.
    virtual std::uint64_t stamp(const std::string& path, const std::string& object,
                                double seconds) noexcept = 0;
};

}  // namespace corvelle
