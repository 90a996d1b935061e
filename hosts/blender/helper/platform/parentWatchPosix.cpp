#if !defined(_WIN32)
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "hosts/blender/helper/platform/parentWatch.h"
#include "hosts/blender/helper/platform/processStart.h"
#include "hosts/blender/helper/platform/sharedMemory.h"

namespace corvelle {
namespace {

constexpr std::chrono::milliseconds kPollInterval{500};
constexpr std::chrono::milliseconds kRegistryWait{100};

[[noreturn]] void leave() {
    removeOwnMappings(kRegistryWait);
    std::_Exit(0);
}

// A descriptor that becomes readable when the process ends (Linux 5.3), or -1 with errno.
int openProcess(pid_t pid) {
#if defined(SYS_pidfd_open)
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

void waitOn(int process) {
    pollfd wanted{.fd = process, .events = POLLIN, .revents = 0};
    while (poll(&wanted, 1, -1) < 0 && errno == EINTR) {
    }
}

}  // namespace

void watchParent(std::int64_t parent) {
    const auto pid = static_cast<pid_t>(parent);
    if (parent <= 0 || pid != parent) return;
    const int process = openProcess(pid);
    if (process >= 0) {
        std::thread([process] {
            waitOn(process);
            leave();
        }).detach();
        return;
    }
    // An old kernel, or a sandbox that forbids the call: look twice a second instead.
    if (errno == ESRCH || errno == EINVAL || !processIsRunning(parent)) return;
    std::thread([parent] {
        while (processIsRunning(parent)) std::this_thread::sleep_for(kPollInterval);
        leave();
    }).detach();
}

}  // namespace corvelle
#endif
