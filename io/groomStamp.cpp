#include "io/groomStamp.h"

#include <charconv>

namespace corvelle {

std::string stampText(std::uint64_t value) {
    std::string text(16, '0');
    for (std::size_t i = 16; i-- > 0; value >>= 4) text[i] = "0123456789abcdef"[value & 15];
    return text;
}

std::uint64_t stampFromText(std::string_view text) {
    if (text.empty() || text.size() > 16) return 0;
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

}  // namespace corvelle
