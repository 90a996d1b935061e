#include "model/utf8Path.h"

#include <stdexcept>

namespace corvelle {

std::filesystem::path utf8Path(std::string_view text) {
    if (text.find('\0') != std::string_view::npos)
        throw std::invalid_argument("a path holds a NUL character");
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string utf8Text(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

}  // namespace corvelle
