#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include "hosts/blender/helper/platform/replyStream.h"

namespace corvelle {

std::FILE* takeStandardOutput() {
    _setmode(_fileno(stdin), _O_BINARY);
    const int reply = _dup(_fileno(stdout));
    if (reply < 0) return nullptr;
    _setmode(reply, _O_BINARY);
    std::fflush(stdout);
    if (_fileno(stderr) >= 0 && _dup2(_fileno(stderr), _fileno(stdout)) == 0) {
        SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
    } else {
        std::FILE* reopened = nullptr;
        freopen_s(&reopened, "NUL", "w", stdout);
    }
    return _fdopen(reply, "wb");
}

}  // namespace corvelle
#endif
