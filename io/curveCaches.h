#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "graph/curveReader.h"
#include "io/alembicReader.h"
#include "io/groomFile.h"
#include "model/guideSet.h"

namespace corvelle {

/// Reads curves for nodes, from Alembic files it keeps open while they stay as they are.
class AlembicCurveReader final : public CurveReader {
public:
    CurveSetPtr curves(const std::string& path, const std::string& object, double seconds) override;
    std::uint64_t stamp(const std::string& path, const std::string& object,
                        double seconds) noexcept override;

private:
    struct OpenFile {
        std::string path;
        std::uint64_t signature = 0;  ///< path, size and time of change
        std::unique_ptr<AlembicCurves> curves;
    };
    struct Kept {
        std::uint64_t stamp = 0;
        CurveSetPtr curves;
    };
    static constexpr std::size_t kOpenFiles = 8;
    static constexpr std::size_t kKeptSets = 8;
    const OpenFile& opened(const std::string& path);
    std::uint64_t stampOf(const OpenFile& file, const std::string& object, double seconds) const;

    std::mutex mutex_;
    std::vector<OpenFile> files_;  ///< newest first, likewise `kept_`
    std::vector<Kept> kept_;
};

/// Plays a guide cache: an Alembic file that animates the groom's flat guides. Guides take their
/// ids from the file where it has good ones, else 1, 2, 3... in its order; curves of fewer than 2
/// points are left out.
class AlembicGuideCache {
public:
    /// Opens the file and finds the object (the first curves object for none). Throws AlembicError.
    AlembicGuideCache(const std::string& path, std::string object);
    /// The guides at a time. Roots and details are those of the guides of the same id in `held`
    /// (may be null); others are rooted where `scalp` (may be null) is closest. Given what it gave
    /// last, it gives the same object while the sample stays. A file that has changed is opened
    /// anew. Throws AlembicError when it does not read; once it does, the next call goes on.
    GuidesPtr guidesAt(double seconds, const GuidesPtr& held, const ScalpMesh* scalp = nullptr);

    const std::string& path() const { return path_; }

private:
    void open();
    std::string path_, object_;
    std::uint64_t signature_ = 0;        ///< of the file that is open
    std::optional<AlembicCurves> file_;  ///< none: it did not read when last tried
    struct {
        std::uint64_t sample = 0;
        GuidesPtr guides;
    } last_;
};

/// The bake of one Simulate node, read frame by frame.
class SimulationBake {
public:
    /// Throws AlembicError.
    SimulationBake(const std::string& path, std::string object, double framesPerSecond,
                   std::uint64_t stamp);
    /// The upstream state that the bake was made from.
    std::uint64_t stamp() const { return stamp_; }
    double firstFrame() const { return firstFrame_; }
    double lastFrame() const { return lastFrame_; }
    bool covers(double frame) const;
    /// `groomed` with the points that the bake has for them, matched by id. Outside of the baked
    /// frames the guides as they are. Throws AlembicError for a guide that the bake does not hold,
    /// or holds with another number of points.
    GuidesPtr guidesAt(double frame, const GuidesPtr& groomed);

private:
    AlembicCurves file_;
    std::string path_, object_;
    double framesPerSecond_ = 24.0;
    double firstFrame_ = 0.0, lastFrame_ = 0.0;
    std::uint64_t stamp_ = 0;
};
std::shared_ptr<SimulationBake> readSimulationCache(const GroomFileSimCache& bake,
                                                    double framesPerSecond);

/// What opening a groom opens beside it.
struct GroomCaches {
    std::shared_ptr<AlembicGuideCache> guides;  ///< null: none, or it did not open
    std::map<std::string, std::shared_ptr<SimulationBake>> bakes;  ///< by Simulate node
};
/// A file that does not open is left out, with a line in `errors`: "the simulation bake of <node>
/// did not open: <message>", "the guide cache did not open: <message>". Relative names lie in the
/// groom's folder, and variables in them are replaced.
GroomCaches openCaches(const GroomFile& groom, std::vector<std::string>& errors);

}  // namespace corvelle
