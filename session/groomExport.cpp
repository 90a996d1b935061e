#include "session/groomExport.h"

#include <algorithm>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "io/alembicWriter.h"
#include "io/strandGroups.h"
#include "io/usdWriter.h"
#include "model/parallel.h"
#include "operators/interpolate.h"
#include "session/frameRate.h"
#include "session/groomSession.h"
#include "session/renderColors.h"

namespace corvelle {

namespace {

constexpr std::size_t kLongestCurve = 255;  ///< points that some importers count in a byte
constexpr float kGuideWidth = 0.02f;        ///< of exported guides: they are drawn, not rendered

/// The guides that shape the strands, in the scalp's present pose, and each strand's shares in
/// them.
struct ExportedGuides {
    StrandSet guides;
    std::vector<GuideShares> shares;  ///< [strands]; empty when no node shares guides out
};

StrandSet strandsOf(const GuideSet& guides) {
    StrandSet out;
    out.reserve(guides.size(), guides.points().size());
    std::vector<float> widths;
    for (std::size_t g = 0; g < guides.size(); ++g) {
        widths.assign(guides.pointsOf(g).size(), kGuideWidth);
        out.addStrand(guides.ids()[g], guides.pointsOf(g), widths, guides.roots()[g]);
    }
    return out;
}

ExportedGuides guidesOf(GroomSession& groom, const StrandSet& strands) {
    ExportedGuides out;
    const std::vector<GuideSharing> sharings = groom.guideSharings();
    std::vector<GuideCurve> curves;
    std::unordered_map<std::uint64_t, GuideShares> ofStrand;
    std::unordered_map<std::uint64_t, bool> known;
    for (const GuideSharing& sharing : sharings) {
        for (GuideCurve& curve : sharing.guides->curves())
            if (known.try_emplace(curve.id, true).second) curves.push_back(std::move(curve));
        for (std::size_t s = 0; s < sharing.rows.size(); ++s) {
            GuideShares shares;
            for (std::size_t k = 0; k < 3; ++k) {
                const GuideWeight& from = sharing.rows[s].shares[k];
                if (from.weight <= 0.0f) break;
                shares.guides[k] = sharing.guides->ids()[from.guide];
                shares.weights[k] = std::min(from.weight, 1.0f);
            }
            // The node nearest the output comes first, and it had the last word.
            ofStrand.try_emplace(sharing.strands->ids()[s], shares);
        }
    }
    GuidesPtr guides = std::make_shared<const GuideSet>(curves);
    if (sharings.empty()) {
        guides = groom.document().guides ? groom.document().guides : groom.activeHierarchy()->all();
    } else if (groom.following()) {
        guides = deformGuides(guides, *groom.restScalp(), *groom.scalp());
    }
    out.guides = strandsOf(*guides);
    if (sharings.empty()) return out;
    out.shares.resize(strands.strandCount());
    for (std::size_t s = 0; s < out.shares.size(); ++s)
        if (const auto found = ofStrand.find(strands.ids()[s]); found != ofStrand.end())
            out.shares[s] = found->second;
    return out;
}

}  // namespace

struct GroomExport::Sink {
    virtual ~Sink() = default;
    virtual void write(double frame, const StrandFrame& strands, const StrandSet* guides) = 0;
    virtual void close() = 0;
};

struct GroomExport::AlembicSink final : Sink {
    AlembicSink(const ExportSettings& settings, double rate) : name(settings.name) {
        writer.open(settings.path, settings.name, rate, 1.0, settings.application);
    }
    void write(double frame, const StrandFrame& strands, const StrandSet* guides) override {
        if (!grouped) grouped = GroupedFrame::isGrouped(*strands.strands);
        const StrandFrame guideFrame{.strands = guides};
        if (!*grouped) return writer.writeGroom(frame, strands, guides ? &guideFrame : nullptr);
        const GroupedFrame parts(strands, name);
        std::vector<StrandGroup> groups = parts.groups();
        // Importers look for a group's guides beside it, under its own number.
        for (std::size_t i = 0, count = groups.size(); guides && i < count; ++i)
            groups.push_back({groups[i].id, groups[i].name, guideFrame, true});
        writer.writeGroomGroups(frame, groups);
    }
    void close() override { writer.close(); }
    GroomAlembicWriter writer;
    std::string name;
    std::optional<bool> grouped;  ///< the first frame decides
};

struct GroomExport::UsdSink final : Sink {
    UsdSink(const ExportSettings& settings, double rate)
        : writer(settings.path, {.rootName = settings.name,
                                 .framesPerSecond = rate,
                                 .source = settings.application,
                                 .version = settings.version}) {}
    void write(double frame, const StrandFrame& strands, const StrandSet*) override {
        writer.writeFrame(frame, strands);
    }
    void close() override { writer.close(); }
    UsdWriter writer;
};

GroomExport::GroomExport(ExportSettings settings, double framesPerSecond)
    : settings_(std::move(settings)) {
    if (settings_.format == ExportSettings::Format::Alembic)
        sink_ = std::make_unique<AlembicSink>(settings_, framesPerSecond);
    else
        sink_ = std::make_unique<UsdSink>(settings_, framesPerSecond);
}

GroomExport::~GroomExport() = default;

void GroomExport::noteWarnings(const StrandSet& strands, double frame) {
    const std::string where = "frame " + nlohmann::json(frame).dump() + ": ";
    if (const std::size_t longest = strands.maxPointsPerStrand();
        longest > kLongestCurve && !warnedLong_) {
        warnedLong_ = true;
        warnings_.push_back(where + "a curve has " + std::to_string(longest) +
                            " points; some readers take no more than 255 (Resample makes fewer)");
    }
    if (last_ && !warnedCounts_ &&
        (last_->strandCount() != strands.strandCount() ||
         !std::ranges::equal(last_->offsets(), strands.offsets()))) {
        warnedCounts_ = true;
        warnings_.push_back(where +
                            "the counts of strands or points changed; some readers take animation "
                            "of unchanging counts only");
    }
}

void GroomExport::requireRising(double frame) const {
    if (frames_ > 0 && !(frame > lastFrame_))
        throw std::invalid_argument("export frames must increase");
}

std::size_t GroomExport::writeFrame(GroomSession& groom, double frame, float density) {
    requireRising(frame);
    const EvaluateOptions options{.density = density,
                                  .seconds = secondsFromFrames(frame, groom.framesPerSecond()),
                                  .preview = false,
                                  .computeBounds = false};
    const EvaluationResult& result = groom.evaluate(options);
    const StrandsPtr strands = result.strands;
    if (groom.pendingException() || !strands)
        throw ExportEvaluationError(result.errors.empty() ? "the groom gave no strands"
                                                          : result.errors.front());
    const RenderColors colors = renderColors(*strands, groom.evaluationData().currentScalp.get());
    StrandFrame out{
        .strands = strands.get(), .rootUvs = colors.rootUV, .pointColors = colors.pointColor};
    std::vector<Vec3f> rootColors;
    if (strands->strandChannel("colorR")) {
        out.colors = colors.color;
    } else if (!colors.pointColor.empty()) {
        rootColors.resize(strands->strandCount());
        for (std::size_t s = 0; s < rootColors.size(); ++s)
            if (strands->pointCountOf(s) > 0)
                rootColors[s] = colors.pointColor[std::size_t(strands->offsets()[s])];
        out.colors = rootColors;
    }
    std::optional<ExportedGuides> guides;
    if (settings_.guides && settings_.format == ExportSettings::Format::Alembic) {
        guides = guidesOf(groom, *strands);
        out.shares = guides->shares;
    }
    sink_->write(frame, out, guides ? &guides->guides : nullptr);
    noteWarnings(*strands, frame);
    last_ = strands;
    ++frames_;
    lastFrame_ = frame;
    return strands->strandCount();
}

void GroomExport::close() { sink_->close(); }

}  // namespace corvelle
