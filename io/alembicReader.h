#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "io/alembicError.h"
#include "model/curveSet.h"

namespace corvelle {

/// The curves of an Alembic file (Ogawa), opened once and read at any time of it.
///
/// Points come through the Xforms above their object; stored units are ignored. Curves of any type
/// are taken as their control polygons, widths of any scope as one per point, uvs as one per curve.
/// A sample at `seconds` is the one at or before it (the first where none is). An object's name is
/// its full path ("/hair/hairShape", the first slash may be missing) or the last part of it, both
/// also without a "Shape" at the end. Files from anywhere are safe to open: what is broken throws.
/// Threads: one at a time.
class AlembicCurves {
public:
    /// Throws AlembicError "cannot open '<path>'" or "<path>: <fault>".
    explicit AlembicCurves(const std::string& path);
    /// The same of bytes at hand; `name` stands for the path in texts.
    AlembicCurves(std::unique_ptr<std::istream> bytes, const std::string& name);
    ~AlembicCurves();
    AlembicCurves(AlembicCurves&&) noexcept;
    AlembicCurves& operator=(AlembicCurves&&) noexcept;

    /// Full paths of the curves objects, in the file's order.
    std::vector<std::string> objects() const;

    /// One object: the one named, or the first of the file for an empty name.
    /// Throws AlembicError "no curves named '<object>'", "no curves in <path>",
    /// "<path>: a curves sample has no positions or vertex counts",
    /// "<path>: curve <i> has a negative vertex count",
    /// "<path>: the vertex counts add up to <a> points but the sample holds <b>".
    CurveSet read(const std::string& object, double seconds) const;
    /// All objects that are named so or lie below something named so, joined; all of the file for
    /// an empty name. Ids, widths and uvs are kept where every object has them. Throws likewise.
    CurveSet readUnder(const std::string& object, double seconds) const;

    /// Names the samples that `readUnder` would read: equal values, equal curves of this file.
    std::uint64_t samplesAt(const std::string& object, double seconds) const;
    /// The times of the first and the last sample of the object `read` would take, in seconds, and
    /// how many there are.
    struct Range {
        double first = 0.0, last = 0.0;
        std::size_t samples = 0;
    };
    Range range(const std::string& object) const;

private:
    struct Archive;
    std::unique_ptr<Archive> archive_;
};

/// One object of a file, opened for this one reading.
CurveSet readCurves(const std::string& path, const std::string& object, double seconds);

}  // namespace corvelle
