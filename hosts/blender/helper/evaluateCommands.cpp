#include "hosts/blender/helper/evaluateCommands.h"

#include <algorithm>
#include <chrono>

#include "hosts/blender/helper/exportCommands.h"
#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/strandArrays.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

struct EvaluateRequest {
    EvaluateOptions options;
    bool groomSpace = false;
};

EvaluateRequest readEvaluate(const Json& request, double seconds) {
    EvaluateRequest read;
    EvaluateOptions& options = read.options;
    const std::string mode = optionalString(request, "mode", "preview");
    if (mode != "preview" && mode != "render") failRequest("bad_request", "mode is \"preview\" or \"render\"");
    const std::string space = optionalString(request, "space", "host");
    if (space != "host" && space != "groom") failRequest("bad_request", "space is \"host\" or \"groom\"");
    read.groomSpace = space == "groom";
    options.preview = mode == "preview";
    if (options.preview) {
        options.sculptDensity = float(optionalNumber(request, "sculptDensity", 1.0));
        if (!(options.sculptDensity > 0.0f && options.sculptDensity <= 1.0f))
            failRequest("bad_request", "sculptDensity must be above 0, at most 1");
        options.density = float(optionalNumber(request, "density", 1.0));
        if (!(options.density >= 0.0f && options.density <= 1.0f))
            failRequest("bad_request", "density must be between 0 and 1");
        options.pointBudget = optionalNumber(request, "pointBudget", 0.0);
        if (options.pointBudget < 0.0) failRequest("bad_request", "pointBudget must be 0 or more");
        options.viewNode = optionalString(request, "viewNode", "");
    }
    options.computeBounds = optionalBool(request, "bounds", false);
    options.seconds = seconds;
    return read;
}

/// Always the host's space; the axis change can swap the corners.
Json boundsJson(const EvaluationResult& result, const SceneSpace& space) {
    const Vec3f a = space.pointToHost(result.boundsMin), b = space.pointToHost(result.boundsMax);
    const Vec3f lo = componentMin(a, b), hi = componentMax(a, b);
    return {{"lo", {lo.x, lo.y, lo.z}}, {"hi", {hi.x, hi.y, hi.z}}};
}

bool sameTopology(const StrandsPtr& a, const StrandsPtr& b) {
    return a && b && (a == b || (a->pointCount() == b->pointCount() && a->sameLayout(*b)));
}

Json notesJson(const Graph* graph) {
    Json notes = Json::object();
    if (graph)
        for (const auto& [id, text] : graph->warnings())
            if (!text.empty()) notes[graph->node(id).op->name] = text;
    return notes;
}

/// What the counter has risen by; 0 when a new graph made it fall.
std::uint64_t risen(std::uint64_t now, std::uint64_t& last) {
    const std::uint64_t by = now >= last ? now - last : 0;
    last = now;
    return by;
}

}  // namespace

Json evaluateCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    const EvaluateRequest request = readEvaluate(context.request, session.seconds);

    const auto start = std::chrono::steady_clock::now();
    playGuideCache(session, session.seconds);
    groom.evaluate(request.options);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const std::shared_ptr<const EvaluationResult> result = groom.sharedResult();

    const AttributeRequest attributes = readAttributes(context.request);
    const StrandAnswer& strands =
        writeStrands(session.strandPool, session.strandAnswer, result->strands,
                     groom.evaluationData().currentScalp, session.space, request.groomSpace, attributes);

    Json messages = Json::array();
    for (const EvaluationMessage& message : result->messages)
        messages.push_back({{"text", message.text}, {"error", message.error}});
    Json changedStrands = nullptr;
    if (result->changes && !result->changes->all) changedStrands = result->changes->strands.size();
    Json answer{
        {"arrays", strands.arrays},
        {"attributesAvailable", strands.available},
        {"space", request.groomSpace ? "groom" : "host"},
        {"seconds", session.seconds},
        {"errors", result->errors},
        {"messages", std::move(messages)},
        {"notes", notesJson(groom.lastGraph())},
        {"serial", result->serial},
        {"changesBase", result->changesBase},
        {"changedStrands", std::move(changedStrands)},
        {"sameTopology", session.lastEvaluation && sameTopology(result->strands, session.lastEvaluation->strands)},
        {"nodesEvaluated", risen(groom.nodesEvaluated(), session.lastNodesEvaluated)},
        {"nodesIncremental", risen(groom.nodesIncremental(), session.lastNodesIncremental)},
        {"milliseconds",
         double(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / 1e6},
        {"following", result->following},
        {"look", groom.hairLook()},
        {"strandCount", result->strands ? result->strands->strandCount() : 0},
        {"pointCount", result->strands ? result->strands->pointCount() : 0},
    };
    if (request.options.computeBounds && result->hasBounds) answer["bounds"] = boundsJson(*result, session.space);
    if (!strands.missing.empty()) answer["missingAttributes"] = strands.missing;
    session.lastEvaluation = result;
    return answer;
}

Json statsCommand(const CommandContext& context) { return context.session().groom->stats(); }

Json dataErrorsJson(const GroomSession& groom) {
    Json errors = Json::array();
    for (const std::string& text : groom.dataErrors()) errors.push_back(text);
    return errors;
}

Json nodeStatusCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    Json times = Json::object();
    if (const Graph* graph = groom.lastGraph())
        for (const auto& [id, milliseconds] : graph->timings())
            times[graph->node(id).op->name] = milliseconds;
    return {{"notes", notesJson(groom.lastGraph())},
            {"times", std::move(times)},
            {"errors", groom.result().errors},
            {"inputErrors", dataErrorsJson(groom)},
            {"graphError", groom.graphError()}};
}

}  // namespace corvelle
