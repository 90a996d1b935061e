#include "hosts/blender/helper/processCommands.h"

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

#if defined(_WIN32)
constexpr char kPlatform[] = "windows";
constexpr char kSharedMemory[] = "windows";
#else
constexpr char kPlatform[] = "linux";
constexpr char kSharedMemory[] = "posix";
#endif

}  // namespace

Json helloCommand(const CommandContext& context) {
    const Json* protocol = findField(context.request, "protocol");
    if (protocol && protocol->is_number_integer() && *protocol != kProtocol)
        failRequest("protocol", "the helper speaks protocol " + std::to_string(kProtocol) +
                                    ", not " + protocol->dump() +
                                    ": install the Corvelle helper that comes with this add-on");
    return {
        {"protocol", kProtocol},
        {"helper", "corvelle-helper"},
        {"version", kVersion},
        {"versionNumbers", kVersionNumbers},
        {"platform", kPlatform},
        {"sharedMemory", kSharedMemory},
        {"alembic", true},
        {"groomSpace", {{"upAxis", "Y"}, {"units", "cm"}}},
        {"features", {{"tools", 1}, {"state", 1}}},
    };
}

Json pingCommand(const CommandContext&) { return {{"pong", true}}; }

Json shutdownCommand(const CommandContext& context) {
    context.state.shutdownRequested = true;
    return {{"bye", true}};
}

}  // namespace corvelle
