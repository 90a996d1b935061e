#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "io/alembicError.h"
#include "io/exportFrame.h"

namespace corvelle {

/// A part of the hair that goes out as an object of its own.
struct StrandGroup {
    std::int32_t id = 0;
    std::string name;
    StrandFrame frame;
    bool guides = false;  ///< guide curves, not hair: an object "guides_<id>" (the groom layout)
};

/// What the two writers share: an Alembic archive (Ogawa) of curve objects below one Xform, frames
/// streamed to it one by one; nothing of earlier frames is kept but counts.
///
/// Curves: linear, not periodic, basis none; positions and widths times the scale, widths and
/// attributes one per point or per curve always, native uvs at the roots where the object's first
/// sample has them. Objects have a sample per frame: one that comes late has empty ones before. The
/// same frames give the same bytes (no date is written), at any thread count.
/// Times: frame / rate, in seconds; any rising frames (one TimeSampling, uniform where they are
/// even). Throws: AlembicError from everything. Checks come before the first sample, so that a
/// frame that
///         does not pass writes nothing. After a failed write the writer stays open for `close`.
/// A writer destroyed without `close` leaves an archive that readers refuse.
class AlembicWriter {
public:
    virtual ~AlembicWriter();
    AlembicWriter(const AlembicWriter&) = delete;
    AlembicWriter& operator=(const AlembicWriter&) = delete;

    /// Throws "the scale must be positive", "cannot create '<path>'".
    void open(const std::string& path, const std::string& name, double framesPerSecond,
              double scale = 1.0, const std::string& application = "Corvelle");
    /// One frame of plates: a mesh `scales/scalesShape`, its own samples and times.
    /// Throws "cannot write the scales: <message>".
    void writeScales(double frame, const ScaleMesh& scales);
    /// Throws "cannot write '<path>'" when the disk did not take all. A second call does nothing.
    void close();
    bool isOpen() const { return file_ != nullptr; }

protected:
    enum class Layout { Plain, Groom };
    explicit AlembicWriter(Layout layout);
    void writeOne(double frame, const StrandFrame& strands, const StrandFrame* guides);
    void writeMany(double frame, std::span<const StrandGroup> groups);

private:
    struct File;
    struct Object;
    File& opened();
    void writeObjects(double frame, std::span<const StrandGroup> groups, bool grouped);
    Object& objectOf(const StrandGroup& group, bool grouped);

    Layout layout_;
    std::unique_ptr<File> file_;
};

/// A plain render export: `<name>/<name>Shape`, or one object per group, with the attribute
/// `strandId` (uint64, per curve).
class StrandsAlembicWriter : public AlembicWriter {
public:
    StrandsAlembicWriter() : AlembicWriter(Layout::Plain) {}
    /// Throws "writer is closed", "strands need at least 2 points", "the strands were written in
    /// groups", "cannot write frame: <message>".
    void writeStrands(double frame, const StrandFrame& strands) {
        writeOne(frame, strands, nullptr);
    }
    /// Throws likewise "the strands were written without groups", "two groups named '<name>'".
    void writeStrandGroups(double frame, std::span<const StrandGroup> groups) {
        writeMany(frame, groups);
    }
};

/// The layout that groom importers read: groups and `groom_` attributes (docs/ALEMBIC.md).
class GroomAlembicWriter : public AlembicWriter {
public:
    GroomAlembicWriter() : AlembicWriter(Layout::Groom) {}
    /// `guides` go along as the object "guides_0" when given. Throws as above, "the groom was
    /// written in groups".
    void writeGroom(double frame, const StrandFrame& strands, const StrandFrame* guides = nullptr) {
        writeOne(frame, strands, guides);
    }
    /// Throws likewise "the groom was written without groups", "two groups with the id <id>".
    void writeGroomGroups(double frame, std::span<const StrandGroup> groups) {
        writeMany(frame, groups);
    }
};

}  // namespace corvelle
