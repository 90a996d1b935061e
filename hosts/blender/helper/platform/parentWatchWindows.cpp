#if defined(_WIN32)
#include <thread>

#include <windows.h>

#include "hosts/blender/helper/platform/parentWatch.h"

namespace corvelle {

void watchParent(std::int64_t parent) {
    if (parent <= 0 || parent > 0xffffffffLL) return;
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(parent));
    if (!process) return;
    std::thread([process] {
        WaitForSingleObject(process, INFINITE);
        // Not _Exit, which tells every library that the process ends: one that then waits for a
        // lock of a thread that is gone already would keep us for good.
        TerminateProcess(GetCurrentProcess(), 0);
    }).detach();
}

}  // namespace corvelle
#endif
