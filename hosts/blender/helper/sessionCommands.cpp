#include "hosts/blender/helper/sessionCommands.h"

#include <cmath>

#include "hosts/blender/helper/mapsFolder.h"
#include "hosts/blender/helper/requestError.h"
#include "session/frameRate.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

/// Both fields default when they are left out, also in set_space.
SceneSpace readSpace(const Json& object) {
    const double metersPerUnit = optionalNumber(object, "metersPerUnit", 1.0);
    return SceneSpace(optionalString(object, "upAxis", "Z"), metersPerUnit);
}

double readRate(const Json& request) {
    const double rate = optionalNumber(request, "fps", 24.0);
    if (!(rate > 0.0)) failRequest("bad_request", "fps must be above 0");
    return rate;
}

}  // namespace

Json spaceJson(const SceneSpace& space) {
    return {{"upAxis", space.upAxis()},
            {"metersPerUnit", space.metersPerUnit()},
            {"centimetersPerUnit", space.centimetersPerUnit()}};
}

Json newSessionCommand(const CommandContext& context) {
    HelperState& state = context.state;
    auto session = std::make_unique<HelperSession>(state.nextSession);
    session->groom = std::make_shared<GroomSession>();
    const Json* space = findField(context.request, "space");
    if (space && space->is_object()) session->space = readSpace(*space);
    session->groom->setFramesPerSecond(readRate(context.request));
    // Only now is the number taken: a failed request takes none.
    const std::int32_t number = state.nextSession++;
    Json result{{"session", number}, {"space", spaceJson(session->space)}};
    state.sessions.emplace(number, std::move(session));
    return result;
}

Json closeSessionCommand(const CommandContext& context) {
    context.state.sessions.erase(context.session().number);
    return {{"closed", true}};
}

Json setOptionsCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const Json* follow = findField(context.request, "followScalp");
    if (follow && !follow->is_boolean()) failRequest("bad_request", "followScalp is true or false");
    const std::string mapsDir = optionalString(context.request, "mapsDir", session.mapsDir);
    if (follow) session.groom->setFollowScalp(follow->get<bool>());
    session.mapsDir = mapsDir;
    return {{"followScalp", session.groom->document().followScalp}, {"mapsDir", effectiveMapsDir(session)}};
}

Json setSpaceCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    session.space = readSpace(context.request);
    return {{"space", spaceJson(session.space)}};
}

Json setTimeCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    const bool withRate = findField(context.request, "fps") != nullptr;
    const double rate = withRate ? effectiveRate(readRate(context.request)) : groom.framesPerSecond();
    double seconds = session.seconds;
    if (findField(context.request, "frame"))
        seconds = secondsFromFrames(optionalNumber(context.request, "frame", 0.0), rate);
    else
        seconds = optionalNumber(context.request, "seconds", session.seconds);
    // Two finite numbers may still make a time, or a frame, that is none.
    const double frame = framesFromSeconds(seconds, rate);
    if (!std::isfinite(seconds)) failRequest("bad_request", "\"frame\" must be finite in seconds");
    if (!std::isfinite(frame)) failRequest("bad_request", "\"seconds\" must be finite in frames");
    groom.setFramesPerSecond(rate);
    session.seconds = seconds;
    return {{"seconds", seconds}, {"frame", frame}, {"fps", rate}};
}

}  // namespace corvelle
