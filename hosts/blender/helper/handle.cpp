#include "hosts/blender/helper/handle.h"

#include <exception>
#include <new>
#include <stdexcept>

#include "expr/texture.h"
#include "graph/graphError.h"
#include "hosts/blender/helper/dispatch.h"
#include "hosts/blender/helper/requestError.h"
#include "io/groomFileError.h"
#include "tools/strokeErrors.h"
#include "tools/strokeHost.h"

namespace corvelle {

Json failureReply(const Json& id, std::string_view code, std::string_view message) {
    return {{"id", id}, {"ok", false}, {"error", {{"code", code}, {"message", message}}}};
}

Json handle(HelperState& state, const Json& request) {
    if (!request.is_object())
        return failureReply(nullptr, "bad_request", "a request is a JSON object");
    Json id;
    if (const auto found = request.find("id"); found != request.end()) id = *found;
    try {
        const auto cmd = request.find("cmd");
        if (cmd == request.end() || !cmd->is_string())
            failRequest("bad_request", "a request needs \"cmd\"");
        Json result = dispatch(state, cmd->get_ref<const std::string&>(), request);
        return {{"id", id}, {"ok", true}, {"result", std::move(result)}};
    } catch (const RequestError& error) {
        return failureReply(id, error.code(), error.what());
    } catch (const GraphError& error) {
        return failureReply(id, "graph", error.what());
    } catch (const GroomFileError& error) {
        return failureReply(id, "parse", error.what());
    } catch (const SchemaError& error) {
        return failureReply(id, "parse", error.what());
    } catch (const Json::exception& error) {
        return failureReply(id, "bad_request", error.what());
    } catch (const StrokeNotFound& error) {
        return failureReply(id, "not_found", error.what());
    } catch (const StrokeStateError& error) {
        return failureReply(id, "state", error.what());
    } catch (const std::invalid_argument& error) {
        return failureReply(id, "bad_request", error.what());
    } catch (const TextureError& error) {
        return failureReply(id, "bad_request", error.what());
    } catch (const std::bad_alloc&) {
        return failureReply(id, "out_of_memory", "out of memory");
    } catch (const std::exception& error) {
        return failureReply(id, "internal", error.what());
    } catch (...) {
        return failureReply(id, "internal", "unknown exception");
    }
}

}  // namespace corvelle
