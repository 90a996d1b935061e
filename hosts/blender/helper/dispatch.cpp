#include "hosts/blender/helper/dispatch.h"

#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>

#include "hosts/blender/helper/command.h"
#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

const Command* findCommand(std::string_view name) {
    static const auto byName = [] {
        std::unordered_map<std::string_view, const Command*> rows;
        for (const Command& command : commandTable()) rows.emplace(command.name, &command);
        return rows;
    }();
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

}  // namespace

HelperSession& sessionOf(HelperState& state, const Json& request) {
    const Json& value = requireField(request, "session");
    if (!value.is_number_integer())
        failRequest("bad_request", "\"session\" must be a session's number");
    // Compared with all its 64 bits, before it narrows: 2^32 + 1 is not session 1. A negative
    // number read as unsigned is far above every session.
    const auto number = value.get<std::uint64_t>();
    if (number <= std::numeric_limits<std::int32_t>::max()) {
        const auto found = state.sessions.find(static_cast<std::int32_t>(number));
        if (found != state.sessions.end()) return *found->second;
    }
    failRequest("no_session", "no session " + value.dump());
}

Json dispatch(HelperState& state, std::string_view cmd, const Json& request) {
    OpenedRegions regions;
    const Command* command = findCommand(cmd);
    if (!command) failRequest("unknown_command", "no command '" + std::string(cmd) + "'");
    HelperSession* session = command->needsSession ? &sessionOf(state, request) : nullptr;
    if (!command->handler)
        failRequest("unsupported", "this helper does not offer '" + std::string(cmd) + "' yet");
    return command->handler({state, command->name, request, regions, session});
}

}  // namespace corvelle
