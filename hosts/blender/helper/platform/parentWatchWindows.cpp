#if defined(_WIN32)
#include <cstdlib>
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
        std::_Exit(0);
    }).detach();
}

}  // namespace corvelle
#endif
