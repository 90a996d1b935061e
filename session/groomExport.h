#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/strandSet.h"

namespace corvelle {

class GroomSession;

/// An evaluation gave nothing to export. The text is for the user.
struct ExportEvaluationError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ExportSettings {
    enum class Format { Alembic, Usd };
    Format format = Format::Alembic;
    std::string path;         ///< UTF-8
    std::string name;         ///< of the hair's object
    std::string application;  ///< what host it comes from
    std::string version;      ///< of this program
    bool guides = false;      ///< Alembic: the guides go along, and each strand's shares in them
};

/// A run of frames of a groom on its way to a file: Alembic in the groom layout, or a USD layer.
/// Groom space: Y up, centimetres. Dropped without `close`, it leaves no file that a reader takes.
class GroomExport {
public:
    /// `framesPerSecond` is the groom's. Throws AlembicError.
    GroomExport(ExportSettings settings, double framesPerSecond);
    ~GroomExport();
    GroomExport(const GroomExport&) = delete;
    GroomExport& operator=(const GroomExport&) = delete;

    /// Throws std::invalid_argument "export frames must increase" for a frame that is not above the
    /// last one written.
    void requireRising(double frame) const;
    /// Evaluates the groom for rendering at a frame, with a share of its strands (0 to 1), and
    /// writes it. Answers how many strands there were. Throws as `requireRising`,
    /// ExportEvaluationError with the evaluation's first error or "the groom gave no strands",
    /// AlembicError, UsdError. After a failure the next frame may be tried.
    std::size_t writeFrame(GroomSession& groom, double frame, float density);
    /// Throws AlembicError, UsdError.
    void close();

    const std::string& path() const { return settings_.path; }
    std::uint64_t frames() const { return frames_; }
    /// What some readers of the file will stumble over, each said once: a curve of more than 255
    /// points, counts that change between frames.
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    struct Sink;
    struct AlembicSink;
    struct UsdSink;
    void noteWarnings(const StrandSet& strands, double frame);

    ExportSettings settings_;
    std::unique_ptr<Sink> sink_;
    std::uint64_t frames_ = 0;
    double lastFrame_ = 0.0;
    StrandsPtr last_;  ///< of the frame before, to compare layouts
    bool warnedLong_ = false, warnedCounts_ = false;
    std::vector<std::string> warnings_;
};

}  // namespace corvelle
