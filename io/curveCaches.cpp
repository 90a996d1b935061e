#include "io/curveCaches.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "expr/searchPaths.h"
#include "model/hash.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace {

/// A frame number that was worked out from seconds still meets its frame.
constexpr double kFrameTolerance = 1e-4;

bool goodIds(const std::vector<std::uint64_t>& ids) {
    std::unordered_set<std::uint64_t> seen;
    seen.reserve(ids.size());
    return !ids.empty() && std::ranges::all_of(ids, [&](std::uint64_t id) {
        return id != 0 && seen.insert(id).second;
    });
}

/// `file` as it is to be opened.
std::string resolved(const GroomFile& groom, const std::string& file) {
    const std::filesystem::path path = utf8Path(expandVariables(file));
    if (path.is_absolute() || groom.directory.empty()) return utf8Text(path);
    return utf8Text(utf8Path(groom.directory) / path);
}

}  // namespace

const AlembicCurveReader::OpenFile& AlembicCurveReader::opened(const std::string& path) {
    const std::uint64_t signature = fileSignature(path);
    auto found = std::ranges::find(files_, path, &OpenFile::path);
    if (found != files_.end() && (signature == 0 || found->signature != signature)) {
        files_.erase(found);
        found = files_.end();
    }
    if (found == files_.end()) {
        OpenFile file{path, signature, std::make_unique<AlembicCurves>(path)};
        if (files_.size() == kOpenFiles) files_.pop_back();
        files_.push_back(std::move(file));
        found = files_.end() - 1;
    }
    std::rotate(files_.begin(), found, found + 1);
    return files_.front();
}

std::uint64_t AlembicCurveReader::stampOf(const OpenFile& file, const std::string& object,
                                          double seconds) const {
    std::uint64_t h = hashCombine(file.signature, file.curves->samplesAt(object, seconds));
    return hashCombine(h, hashOf(object));
}

CurveSetPtr AlembicCurveReader::curves(const std::string& path, const std::string& object,
                                       double seconds) {
    const std::lock_guard lock(mutex_);
    const OpenFile& file = opened(path);
    const std::uint64_t stamp = stampOf(file, object, seconds);
    auto found = std::ranges::find(kept_, stamp, &Kept::stamp);
    if (found == kept_.end()) {
        Kept fresh{stamp,
                   std::make_shared<const CurveSet>(file.curves->readUnder(object, seconds))};
        if (kept_.size() == kKeptSets) kept_.pop_back();
        kept_.push_back(std::move(fresh));
        found = kept_.end() - 1;
    }
    std::rotate(kept_.begin(), found, found + 1);
    return kept_.front().curves;
}

std::uint64_t AlembicCurveReader::stamp(const std::string& path, const std::string& object,
                                        double seconds) noexcept {
    try {
        const std::lock_guard lock(mutex_);
        return stampOf(opened(path), object, seconds);
    } catch (...) {
        try {
            return fileSignature(path);  // it cannot be read: until it changes, the failure stays
        } catch (...) {
            return 0;
        }
    }
}

AlembicGuideCache::AlembicGuideCache(const std::string& path, std::string object)
    : path_(path), object_(std::move(object)) {
    open();
}

void AlembicGuideCache::open() {
    last_ = {};
    file_.reset();
    signature_ = fileSignature(path_);
    AlembicCurves fresh(path_);
    fresh.range(object_);
    file_ = std::move(fresh);
}

GuidesPtr AlembicGuideCache::guidesAt(double seconds, const GuidesPtr& held,
                                      const ScalpMesh* scalp) {
    if (!file_ || fileSignature(path_) != signature_) open();
    CurveSet read;
    std::uint64_t sample = 0;
    try {
        sample = file_->samplesAt(object_, seconds);
        if (last_.guides && last_.sample == sample && last_.guides == held) return last_.guides;
        read = file_->read(object_, seconds);
    } catch (...) {
        file_.reset();
        throw;
    }
    const bool named = goodIds(read.ids);
    std::vector<GuideCurve> curves;
    curves.reserve(read.counts.size());
    std::size_t at = 0;
    for (std::size_t s = 0; s < read.counts.size(); at += std::size_t(read.counts[s++])) {
        if (read.counts[s] < 2) continue;
        GuideCurve curve{.id = named ? read.ids[s] : s + 1};
        curve.points.assign(read.points.begin() + std::ptrdiff_t(at),
                            read.points.begin() + std::ptrdiff_t(at + read.counts[s]));
        const std::size_t like = held ? held->indexOf(curve.id) : 0;
        if (held && like < held->size()) {
            curve.root = held->roots()[like];
            curve.detail = std::make_shared<const GuideDetail>(held->detail(like));
        }
        SurfaceHit hit;
        if (!curve.root.rooted() && scalp &&
            scalp->closestPoint(curve.points.front(), ScalpMesh::kAnyDistance, hit))
            curve.root = hit.root();
        curves.push_back(std::move(curve));
    }
    last_ = {sample, std::make_shared<const GuideSet>(curves)};
    return last_.guides;
}

SimulationBake::SimulationBake(const std::string& path, std::string object, double framesPerSecond,
                               std::uint64_t stamp)
    : file_(path),
      path_(path),
      object_(std::move(object)),
      framesPerSecond_(framesPerSecond),
      stamp_(stamp) {
    const AlembicCurves::Range range = file_.range(object_);
    if (range.samples == 0) throw AlembicError(path + ": the bake holds no frames");
    firstFrame_ = range.first * framesPerSecond_;
    lastFrame_ = range.last * framesPerSecond_;
}

bool SimulationBake::covers(double frame) const {
    return frame >= firstFrame_ - kFrameTolerance && frame <= lastFrame_ + kFrameTolerance;
}

GuidesPtr SimulationBake::guidesAt(double frame, const GuidesPtr& groomed) {
    if (!groomed || !covers(frame)) return groomed;
    const CurveSet read = file_.read(object_, frame / framesPerSecond_);
    if (!goodIds(read.ids) && !read.counts.empty())
        throw AlembicError(path_ + ": the bake's curves have no strand ids");
    struct Place {
        std::uint64_t id;
        std::size_t first;
        std::int32_t count;
    };
    std::vector<Place> places;
    std::size_t first = 0;
    for (std::size_t s = 0; s < read.counts.size(); first += std::size_t(read.counts[s++]))
        places.push_back({read.ids[s], first, read.counts[s]});
    std::ranges::sort(places, {}, &Place::id);
    std::vector<GuideCurve> curves = groomed->curves();
    for (GuideCurve& curve : curves) {
        const auto found = std::ranges::lower_bound(places, curve.id, {}, &Place::id);
        if (found == places.end() || found->id != curve.id)
            throw AlembicError(path_ + ": the bake does not hold guide " +
                               std::to_string(curve.id));
        if (std::size_t(found->count) != curve.points.size())
            throw AlembicError(path_ + ": the bake holds guide " + std::to_string(curve.id) +
                               " with " + std::to_string(found->count) + " points, not " +
                               std::to_string(curve.points.size()));
        std::copy_n(read.points.begin() + std::ptrdiff_t(found->first), curve.points.size(),
                    curve.points.begin());
    }
    return std::make_shared<const GuideSet>(curves);
}

std::shared_ptr<SimulationBake> readSimulationCache(const GroomFileSimCache& bake,
                                                    double framesPerSecond) {
    return std::make_shared<SimulationBake>(bake.file, bake.object, framesPerSecond, bake.stamp);
}

GroomCaches openCaches(const GroomFile& groom, std::vector<std::string>& errors) {
    GroomCaches caches;
    for (const auto& [node, bake] : groom.simCaches) {
        if (bake.file.empty()) continue;
        try {
            GroomFileSimCache at = bake;
            at.file = resolved(groom, bake.file);
            caches.bakes[node] = readSimulationCache(at, groom.framesPerSecond);
        } catch (const std::exception& error) {
            errors.push_back("the simulation bake of " + node + " did not open: " + error.what());
        }
    }
    if (!groom.guideCache.file.empty()) try {
            caches.guides = std::make_shared<AlembicGuideCache>(
                resolved(groom, groom.guideCache.file), groom.guideCache.object);
        } catch (const std::exception& error) {
            errors.push_back(std::string("the guide cache did not open: ") + error.what());
        }
    return caches;
}

}  // namespace corvelle
