#pragma once

#include <span>
#include <string_view>

#include "hosts/blender/helper/arrayReader.h"
#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/request.h"

namespace corvelle {

/// What a command works on. Lives for one request.
struct CommandContext {
    HelperState& state;
    std::string_view name;      ///< the command's, for families of commands with one handler
    const Json& request;
    OpenedRegions& regions;
    HelperSession* session_;    ///< null for a command without one

    /// The session named by the request. Only for commands whose row says they need one.
    HelperSession& session() const { return *session_; }
};

/// Answers the command's `result`, an object. Throws RequestError, or lets the engine's errors pass.
using CommandHandler = Json (*)(const CommandContext&);

/// One row of the command table. A row without a handler is a command of the protocol that this
/// build does not offer: it answers code unsupported.
struct Command {
    std::string_view name;
    bool needsSession = false;
    CommandHandler handler = nullptr;
};

/// Every command of the protocol, in the protocol's order. A new command is a new row.
std::span<const Command> commandTable();

}  // namespace corvelle
