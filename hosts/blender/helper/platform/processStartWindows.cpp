#if defined(_WIN32)
#include <csignal>
#include <cstdlib>

#include <windows.h>

#include "hosts/blender/helper/platform/processStart.h"

namespace corvelle {

void startQuietly() {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
#if defined(_MSC_VER) || defined(_UCRT)
    _set_abort_behavior(0, _WRITE_ABORT_MSG | _CALL_REPORTFAULT);
#else
    // The older C runtime has no such switch: the process ends before it says anything.
    std::signal(SIGABRT, [](int) { TerminateProcess(GetCurrentProcess(), 3); });
#endif
}

std::int64_t processNumber() { return GetCurrentProcessId(); }

bool processIsRunning(std::int64_t number) {
    if (number <= 0 || number > 0xffffffffLL) return false;
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(number));
    if (!process) return GetLastError() == ERROR_ACCESS_DENIED;
    const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return running;
}

}  // namespace corvelle
#endif
