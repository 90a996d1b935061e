#if !defined(_WIN32)
#include <fcntl.h>
#include <unistd.h>

#include "hosts/blender/helper/platform/replyStream.h"

namespace corvelle {

std::FILE* takeStandardOutput() {
    // Above the three standard numbers, and not handed down to any process we might start.
    const int reply = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (reply < 0) return nullptr;
    std::fflush(stdout);
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere >= 0) {
            dup2(nowhere, STDOUT_FILENO);
            close(nowhere);
        }
    }
    std::FILE* stream = fdopen(reply, "wb");
    if (!stream) close(reply);
    return stream;
}

}  // namespace corvelle
#endif
