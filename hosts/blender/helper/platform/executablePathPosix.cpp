#if !defined(_WIN32)
#include <filesystem>
#include <system_error>

#include "hosts/blender/helper/platform/executablePath.h"

namespace corvelle {

std::string executableDirectory() {
    std::error_code failed;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failed);
    return failed ? std::string() : program.parent_path().string();
}

}  // namespace corvelle
#endif
