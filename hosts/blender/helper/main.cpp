// corvelle-helper: the engine as a process of its own. A host starts it, writes one JSON request
// per line to its standard input and reads one JSON reply per line from its standard output.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/lineLoop.h"
#include "hosts/blender/helper/ownFolder.h"
#include "hosts/blender/helper/platform/executablePath.h"
#include "hosts/blender/helper/platform/parentWatch.h"
#include "hosts/blender/helper/platform/processStart.h"
#include "hosts/blender/helper/platform/replyStream.h"
#include "hosts/blender/helper/platform/sharedMemory.h"
#include "hosts/blender/helper/processCommands.h"

namespace {

enum ExitCode { kDone = 0, kNoReplyStream = 1, kBadCommandLine = 2, kTerminated = 70 };

constexpr char kUsage[] =
    "usage: corvelle-helper [--version] [--parent-pid <pid>]\n"
    "Speaks Corvelle's helper protocol on stdin/stdout (docs/BLENDER.md).\n";

// For what no request catches: a throwing destructor, a thread that cannot start.
[[noreturn]] void onTerminate() {
    std::fputs("corvelle-helper: terminated\n", stderr);
    corvelle::removeOwnMappings(std::chrono::milliseconds(0));
    std::_Exit(kTerminated);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    corvelle::startQuietly();
    std::set_terminate(onTerminate);

    std::int64_t parent = 0;
    for (int i = 1; i < argumentCount; ++i) {
        if (std::strcmp(arguments[i], "--version") == 0) {
            std::printf("corvelle-helper %s (protocol %d)\n", corvelle::kVersion,
                        corvelle::kProtocol);
            return kDone;
        }
        if (std::strcmp(arguments[i], "--parent-pid") == 0 && i + 1 < argumentCount) {
            parent = std::strtoll(arguments[++i], nullptr, 10);
            continue;
        }
        std::fputs(kUsage, stderr);
        return kBadCommandLine;
    }

    std::ios::sync_with_stdio(false);  // buffered lines, instead of one character at a time
    std::cin.tie(nullptr);
    std::FILE* const replies = corvelle::takeStandardOutput();
    if (!replies) {
        std::fputs("corvelle-helper: cannot take stdout\n", stderr);
        return kNoReplyStream;
    }
    corvelle::sweepDeadMappings();
    corvelle::sweepOwnFolders();
    if (parent > 0) corvelle::watchParent(parent);

    {
        corvelle::HelperState state;
        state.helperDirectory = corvelle::executableDirectory();
        corvelle::runLineLoop(std::cin, replies, state);
        std::fflush(replies);
    }
    return kDone;
}
