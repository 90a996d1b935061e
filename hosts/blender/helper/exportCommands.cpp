#include "hosts/blender/helper/exportCommands.h"

#include <cmath>

#include "hosts/blender/helper/processCommands.h"
#include "hosts/blender/helper/requestError.h"
#include "io/curveCaches.h"
#include "model/utf8Path.h"
#include "session/frameRate.h"
#include "session/groomExport.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

constexpr double kMostFrames = 1'000'000;  ///< of one `export`
constexpr const char* kApplication = "Corvelle for Blender";

struct FormatRow {
    const char* name;
    ExportSettings::Format format;
};
constexpr FormatRow kFormats[] = {{"alembic", ExportSettings::Format::Alembic},
                                  {"usd", ExportSettings::Format::Usd}};

/// What `startFrame` and `step` say, checked; frames themselves come one by one.
void checkSteps(const Json& request) {
    optionalNumber(request, "startFrame", 1.0);
    if (!(optionalNumber(request, "step", 1.0) > 0.0))
        failRequest("bad_request", "step must be above 0");
}

std::unique_ptr<GroomExport> exportStart(const HelperSession& session, const Json& request) {
    const std::string format = optionalString(request, "format", "alembic");
    const FormatRow* row = nullptr;
    for (const FormatRow& known : kFormats)
        if (format == known.name) row = &known;
    if (!row) failRequest("bad_request", "format is \"alembic\" or \"usd\"");
    ExportSettings settings{.format = row->format, .path = requireString(request, "path")};
    settings.name = optionalString(request, "name", utf8Text(utf8Path(settings.path).stem()));
    if (settings.name.empty()) settings.name = "groom";
    checkSteps(request);
    settings.application = kApplication;
    settings.version = kVersion;
    settings.guides = optionalBool(request, "guides", false);
    return std::make_unique<GroomExport>(std::move(settings), session.groom->framesPerSecond());
}

float readDensity(const Json& request) {
    const float density = float(optionalNumber(request, "density", 1.0));
    if (!(density >= 0.0f && density <= 1.0f))
        failRequest("bad_request", "density must be between 0 and 1");
    return density;
}

double currentFrame(const HelperSession& session) {
    return framesFromSeconds(session.seconds, session.groom->framesPerSecond());
}

/// Evaluates and writes one frame. What the next `evaluate` counts is not touched by it.
std::size_t exportFrame(HelperSession& session, GroomExport& job, double frame, float density) {
    GroomSession& groom = *session.groom;
    const double seconds = secondsFromFrames(frame, groom.framesPerSecond());
    if (!std::isfinite(seconds)) failRequest("bad_request", "\"frame\" must be finite in seconds");
    job.requireRising(frame);
    const std::uint64_t evaluated = groom.nodesEvaluated(), incremental = groom.nodesIncremental();
    const auto leaveCounters = [&] {
        session.lastNodesEvaluated += groom.nodesEvaluated() - evaluated;
        session.lastNodesIncremental += groom.nodesIncremental() - incremental;
    };
    try {
        playGuideCache(session, seconds);
        if (!groom.guidesError().empty()) throw ExportEvaluationError(groom.guidesError());
        const std::size_t strands = job.writeFrame(groom, frame, density);
        leaveCounters();
        return strands;
    } catch (const ExportEvaluationError& error) {
        leaveCounters();
        failRequest("evaluation", error.what());
    } catch (...) {
        leaveCounters();
        throw;
    }
}

/// The open job that a request names.
auto findExport(const CommandContext& context) {
    auto& exports = context.session().exports;
    const Json& number = requireField(context.request, "export");
    auto found = exports.end();
    if (number.is_number_integer()) {
        const bool fits = number.is_number_unsigned() ? number.get<std::uint64_t>() <= 0x7fffffffu
                                                      : number.get<std::int64_t>() >= 0;
        if (fits) found = exports.find(number.get<std::int32_t>());
    }
    if (found == exports.end())
        failRequest("not_found",
                    "no export " + number.dump(-1, ' ', false, Json::error_handler_t::replace));
    return found;
}

}  // namespace

void playGuideCache(HelperSession& session, double seconds) {
    if (!session.guideCache) return;
    GroomSession& groom = *session.groom;
    AlembicGuideCache& cache = *session.guideCache;
    try {
        groom.setGuides(cache.guidesAt(seconds, groom.document().guides, groom.scalp().get()));
        groom.setGuidesError({});
    } catch (const AlembicError& error) {
        groom.setGuidesError("the guide cache did not open: " + std::string(error.what()) +
                             "; the guides stay as they are until '" + cache.path() +
                             "' is whole again");
    }
}

Json exportOpenCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    std::unique_ptr<GroomExport> job = exportStart(session, context.request);
    const std::int32_t number = session.nextExport++;
    session.exports.emplace(number, std::move(job));
    return {{"export", number}};
}

Json exportFrameCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomExport& job = *findExport(context)->second;
    const double frame = optionalNumber(context.request, "frame", currentFrame(session));
    const float density = readDensity(context.request);
    const std::size_t strands = exportFrame(session, job, frame, density);
    return {{"strands", strands}, {"frames", job.frames()}, {"warnings", job.warnings()}};
}

Json exportCloseCommand(const CommandContext& context) {
    const auto found = findExport(context);
    // The job goes whatever comes: a writer that failed cannot be finished a second time.
    const std::shared_ptr<GroomExport> job = found->second;
    context.session().exports.erase(found);
    job->close();
    return {{"path", job->path()}, {"frames", job->frames()}, {"warnings", job->warnings()}};
}

Json exportCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    Json request = context.request;
    const double now = currentFrame(session);
    double first = now, last = now, step = 1.0;
    if (const Json* frames = findField(request, "frames")) {
        if (!frames->is_object()) failRequest("bad_request", "\"frames\" must be an object");
        first = optionalNumber(*frames, "first", now);
        last = optionalNumber(*frames, "last", now);
        step = optionalNumber(*frames, "step", 1.0);
    }
    if (!(first <= last) || !(step > 0.0))
        failRequest("bad_request", "frames: first <= last, step above 0");
    const double count = std::floor((last - first) / step + 1e-6) + 1.0;
    if (!(count <= kMostFrames)) failRequest("bad_request", "frames: at most 1000000 of them");
    request["startFrame"] = first;
    request["step"] = step;
    const float density = readDensity(request);
    const std::unique_ptr<GroomExport> job = exportStart(session, request);
    std::size_t strands = 0;
    for (std::size_t i = 0; i < std::size_t(count); ++i)
        strands = exportFrame(session, *job, first + double(i) * step, density);
    job->close();
    return {{"path", job->path()},
            {"frames", job->frames()},
            {"strands", strands},
            {"warnings", job->warnings()}};
}

}  // namespace corvelle
