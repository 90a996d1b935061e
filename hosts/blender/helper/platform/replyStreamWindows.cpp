#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include "hosts/blender/helper/platform/replyStream.h"

namespace corvelle {

// A process that was started without a stream has a negative descriptor for it. The C runtime takes
// one for a programming error and ends the process, so none of its functions may be given it.
std::FILE* takeStandardOutput() {
    if (_fileno(stdin) >= 0) _setmode(_fileno(stdin), _O_BINARY);
    const int reply = _fileno(stdout) >= 0 ? _dup(_fileno(stdout)) : -1;
    if (reply < 0) return nullptr;
    _setmode(reply, _O_BINARY);
    std::fflush(stdout);
    if (_fileno(stderr) >= 0 && _dup2(_fileno(stderr), _fileno(stdout)) == 0) {
        SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
    } else {
        std::FILE* reopened = nullptr;
        freopen_s(&reopened, "NUL", "w", stdout);
    }
    std::FILE* stream = _fdopen(reply, "wb");
    if (!stream) _close(reply);
    return stream;
}

}  // namespace corvelle
#endif
