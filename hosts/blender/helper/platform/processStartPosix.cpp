#if !defined(_WIN32)
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include <sys/types.h>
#include <unistd.h>

#include "hosts/blender/helper/platform/processStart.h"

namespace corvelle {

void startQuietly() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

std::int64_t processNumber() { return getpid(); }

bool processIsRunning(std::int64_t number) {
    const auto pid = static_cast<pid_t>(number);
    if (number <= 0 || pid != number) return false;
    if (kill(pid, 0) != 0) return errno == EPERM;
    // The state letter follows the name, which is in brackets and may hold brackets itself.
    const std::string path = "/proc/" + std::to_string(number) + "/stat";
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (!file) return true;  // no /proc here: the signal's word is all there is
    char text[512];
    const std::size_t size = std::fread(text, 1, sizeof text, file);
    std::fclose(file);
    const std::string stat(text, size);
    const std::size_t bracket = stat.rfind(')');
    const std::size_t state = bracket == std::string::npos ? bracket : bracket + 2;
    return state >= stat.size() || (stat[state] != 'Z' && stat[state] != 'X');
}

}  // namespace corvelle
#endif
