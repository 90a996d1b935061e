#if defined(_WIN32)
#include <filesystem>

#include <windows.h>

#include "hosts/blender/helper/platform/executablePath.h"

namespace corvelle {

std::string executableDirectory() {
    std::wstring name(32768, L'\0');
    for (;;) {
        const DWORD size =
            GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
        if (size == 0) return {};
        if (size < name.size()) {
            name.resize(size);
            break;
        }
        name.resize(name.size() * 2);
    }
    const std::u8string directory = std::filesystem::path(name).parent_path().u8string();
    return {directory.begin(), directory.end()};
}

}  // namespace corvelle
#endif
